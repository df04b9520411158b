#!/bin/sh
# Installs libtovelpanel from a build folder into a temporary prefix, builds
# the knob demo against it with pkg-config and turns the simulated knob; then
# starts a unit (the build's tovel) and has the demo follow the unit's knob
# while tovelsim turns it.
#   examples/knob_demo/check.sh <cmake build folder>
# KNOB_DEMO_CXXFLAGS adds compiler flags (a sanitizer build's, say).
set -eu
build=${1:?usage: check.sh <cmake build folder>}
here=$(cd "$(dirname "$0")" && pwd)
tmp=$(mktemp -d)
tovel_pid=
demo_pid=
cleanup() {
    [ -z "$demo_pid" ] || kill "$demo_pid" 2>/dev/null || true
    [ -z "$tovel_pid" ] || kill "$tovel_pid" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$tmp"
}
trap cleanup EXIT

# Waits up to 10 s for a condition (a shell command).
eventually() {
    i=0
    while ! eval "$1"; do
        i=$((i + 1))
        if [ "$i" -ge 200 ]; then
            echo "timed out waiting for: $1" >&2
            return 1
        fi
        sleep 0.05
    done
}

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

# The second way: a knob following a running unit on the same root.
unit="$tmp/unit"
"$build/tovel" --root "$unit" --boards none --headless --port-map 3445=0 --port-map 23=0 \
    --port-map 80=0 >"$tmp/tovel.txt" 2>&1 &
tovel_pid=$!
eventually '[ -S "$unit/sim.sock" ]' || { cat "$tmp/tovel.txt" >&2; exit 1; }
mkfifo "$tmp/demo-in"
TOVEL_ROOT="$unit" "$tmp/knob_demo" --unit <"$tmp/demo-in" >"$tmp/follow.txt" 2>"$tmp/follow-err.txt" &
demo_pid=$!
exec 3>"$tmp/demo-in"
eventually 'grep -q following "$tmp/follow-err.txt"'
for turn in 5:5 -7:-2; do
    "$build/tovelsim" --root "$unit" knob "${turn%%:*}" >/dev/null
    if ! eventually "grep -qx 'count ${turn#*:}' \"\$tmp/follow.txt\""; then
        echo "knob_demo --unit printed:" >&2
        cat "$tmp/follow.txt" "$tmp/follow-err.txt" >&2
        exit 1
    fi
done
echo q >&3
exec 3>&-
wait "$demo_pid"
demo_pid=
echo "knob_demo --unit followed the running unit's knob (tovelsim knob 5, -7: counts 5, -2)"
