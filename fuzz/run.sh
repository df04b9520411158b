#!/bin/sh
# Runs every given libFuzzer target for MINUTES minutes from its seed corpus
# in fuzz/corpus/, then prints how many inputs each one ran.
#   fuzz/run.sh BUILD_DIR MINUTES TARGET...
# New inputs go to BUILD_DIR/fuzz-work/NAME, crash reproducers to
# BUILD_DIR/fuzz-findings/NAME/; a reproducer belongs in fuzz/corpus/NAME/,
# where the replay tests (coff_tests, server_protocol_tests) keep running it.
set -eu
build=$1
minutes=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
seconds=$((minutes * 60))
status=0
summary=""
for target in "$@"; do
    case $target in
        coff_reader_fuzz) name=coff; options="-max_len=131072 -malloc_limit_mb=64" ;;
        framer_fuzz) name=framer; options="-max_len=30000" ;;
        *) echo "fuzz/run.sh: no corpus for $target" >&2; exit 2 ;;
    esac
    work=$build/fuzz-work/$name
    findings=$build/fuzz-findings/$name
    mkdir -p "$work" "$findings"
    echo "== $target: $minutes min from fuzz/corpus/$name"
    # shellcheck disable=SC2086
    if ! "$build/$target" $options -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$findings/" "$work" "$here/corpus/$name" >"$build/fuzz-$name.log" 2>&1; then
        status=1
        echo "   FINDING: see $build/fuzz-$name.log and $findings/"
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/fuzz-$name.log" | tail -n 1)
    summary="$summary$target: ${runs:-?} executions in $minutes min\n"
done
printf "%b" "$summary"
exit $status
