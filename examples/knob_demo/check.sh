#!/bin/sh
# Installs libtovelpanel from a build folder into a temporary prefix, builds
# the knob demo against it with pkg-config and turns the simulated knob.
#   examples/knob_demo/check.sh <cmake build folder>
# KNOB_DEMO_CXXFLAGS adds compiler flags (a sanitizer build's, say).
set -eu
build=${1:?usage: check.sh <cmake build folder>}
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

cmake --install "$build" --component tovelpanel --prefix "$tmp/prefix" >/dev/null
pc=$(find "$tmp/prefix" -name tovelpanel.pc)
[ -n "$pc" ] || { echo "tovelpanel.pc was not installed" >&2; exit 1; }
[ -f "$tmp/prefix/include/tovel/knob.h" ] || { echo "tovel/knob.h was not installed" >&2; exit 1; }

PKG_CONFIG_PATH=$(dirname "$pc") make -s -C "$here" OUT="$tmp" CXX="${CXX:-c++}" \
    EXTRA_CXXFLAGS="${KNOB_DEMO_CXXFLAGS:-}"

printf '+3\n-1\n+60\nf\n+4\nr\n-2\nq\n' | "$tmp/knob_demo" >"$tmp/out.txt" 2>"$tmp/err.txt"
cat >"$tmp/expected.txt" <<'END'
count 53
count 52
count 100
edit 4
count 98
END
if ! cmp -s "$tmp/expected.txt" "$tmp/out.txt"; then
    echo "knob_demo printed:" >&2
    cat "$tmp/out.txt" >&2
    echo "expected:" >&2
    cat "$tmp/expected.txt" >&2
    echo "its debug output:" >&2
    cat "$tmp/err.txt" >&2
    exit 1
fi
echo "knob_demo built against the installed library and counted as expected"
