# The tovel fixtures without installing the package (PYTHONPATH=python);
# once it is installed, its entry point loads them and this line is a no-op.
pytest_plugins = ["tovel.pytest_plugin"]
