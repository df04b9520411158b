# The plugin under test, loaded from the source tree (PYTHONPATH=python), and
# pytest's own pytester for running test suites that use it.
pytest_plugins = ["pytester", "tovel.pytest_plugin"]
