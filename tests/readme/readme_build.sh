#!/bin/sh
# Follows the README's front-panel library steps word for word (install, then
# the one-line build) with HOME in a temporary folder, and starts the program:
# it must find the library without LD_LIBRARY_PATH.
#   tests/readme/readme_build.sh <source folder> <cmake build folder>
set -eu
src=${1:?usage: readme_build.sh <source folder> <build folder>}
build=${2:?usage: readme_build.sh <source folder> <build folder>}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
HOME=$tmp
export HOME
unset LD_LIBRARY_PATH || true

install_line=$(grep -E '^    cmake --install build --component tovelpanel' "$src/README.md")
build_line=$(grep -E '^    c\+\+ -std=c\+\+20 app.cpp' "$src/README.md")
[ -n "$install_line" ] && [ -n "$build_line" ] || { echo "README lines not found" >&2; exit 1; }

cat >"$tmp/app.cpp" <<'END'
#include <tovel/knob.h>
int main(int argc, char**) {
    // Linked, not run: starting the program needs the library found.
    if (argc > 99) tovel::Knob knob(0, 100, 50);
    return 0;
}
END
cd "$tmp"
eval "$(echo "$install_line" | sed "s|cmake --install build|cmake --install '$build'|") >/dev/null"
eval "$build_line"
if [ -x ./app ]; then ./app; else ./a.out; fi
echo "the README's one-line build made a program that starts"
