#!/bin/sh
# The ABI check of libtovelpanel: the dynamic symbols the library defines must
# be exactly the committed list. A removed or changed symbol breaks programs
# built against an earlier library; an added one is an ABI change to decide
# on. After a deliberate change, write the new list with --update.
#   check_symbols.sh LIBRARY LIST [--update]
set -eu
lib=${1:?usage: check_symbols.sh LIBRARY LIST [--update]}
list=${2:?usage: check_symbols.sh LIBRARY LIST [--update]}
[ -f "$lib" ] || { echo "no library $lib" >&2; exit 1; }
actual=$(nm -D --defined-only "$lib" | awk '{ print $NF }' | LC_ALL=C sort -u)
if [ "${3:-}" = "--update" ]; then
    printf '%s\n' "$actual" >"$list"
    exit 0
fi
expected=$(LC_ALL=C sort -u "$list")
if [ "$actual" != "$expected" ]; then
    echo "libtovelpanel's exported symbols differ from $list" >&2
    echo "(- only in the list: removed from the library; + only in the library: added):" >&2
    printf '%s\n' "$expected" >"${TMPDIR:-/tmp}/tovelpanel-expected.$$"
    printf '%s\n' "$actual" >"${TMPDIR:-/tmp}/tovelpanel-actual.$$"
    diff "${TMPDIR:-/tmp}/tovelpanel-expected.$$" "${TMPDIR:-/tmp}/tovelpanel-actual.$$" |
        grep '^[<>]' | sed 's/^</-/; s/^>/+/' | c++filt >&2 || true
    rm -f "${TMPDIR:-/tmp}/tovelpanel-expected.$$" "${TMPDIR:-/tmp}/tovelpanel-actual.$$"
    echo "If the change is meant: $0 $lib $list --update, and raise the soname for a removal." >&2
    exit 1
fi
echo "libtovelpanel exports the $(printf '%s\n' "$actual" | wc -l) symbols of $list"
