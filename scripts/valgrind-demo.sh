#!/usr/bin/env bash
# Runs scripts/demo.sh with every process of it (the runtime, the writers and
# both zmlog runs) under valgrind memcheck. Fails when the demo fails, when
# any process has a memcheck error (an invalid read or write, a use of an
# uninitialised value, ...) or leaks memory definitely.
#
# Usage: scripts/valgrind-demo.sh [--keep]
#   --keep   keep the valgrind logs and the demo's installation
# ZMLOG_DEMO_BUILD_DIR chooses the demo's build directory, as for demo.sh.
# Prints one line: processes checked, errors, definite leaks, duration.
set -euo pipefail

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
KEEP=0
for arg in "$@"; do
    case $arg in
        --keep) KEEP=1 ;;
        -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "valgrind-demo.sh: unknown option: $arg" >&2; exit 2 ;;
    esac
done

"$REPO/scripts/install-missing.sh" valgrind

LOGS=$(mktemp -d /tmp/zmlog-valgrind-XXXXXX)
cleanup() {
    if ((KEEP)); then echo "kept the valgrind logs in $LOGS"; else rm -rf "$LOGS"; fi
}
trap cleanup EXIT

start=$SECONDS
demo_args=()
((KEEP)) && demo_args+=(--keep)
rc=0
# valgrind slows each start-up down by about a second.
ZMLOG_DEMO_WRAPPER="valgrind --error-exitcode=97 --leak-check=full --show-leak-kinds=definite \
--errors-for-leak-kinds=definite --log-file=$LOGS/memcheck.%p.log" ZMLOG_DEMO_SLACK_S=10 \
    "$REPO/scripts/demo.sh" "${demo_args[@]}" >"$LOGS/demo.out" 2>&1 || rc=$?
duration=$((SECONDS - start))

processes=0 errors=0 invalid=0 lost_bytes=0 lost_blocks=0
for log in "$LOGS"/memcheck.*.log; do
    [[ -e $log ]] || continue
    processes=$((processes + 1))
    command=$(sed -n 's/^==[0-9]*== Command: //p' "$log" | head -n 1)
    n=$(sed -n 's/.*ERROR SUMMARY: \([0-9,]*\) errors.*/\1/p' "$log" | tail -n 1 | tr -d ,)
    bytes=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes in \([0-9,]*\) blocks.*/\1/p' "$log" |
        tail -n 1 | tr -d ,)
    blocks=$(sed -n 's/.*definitely lost: \([0-9,]*\) bytes in \([0-9,]*\) blocks.*/\2/p' "$log" |
        tail -n 1 | tr -d ,)
    if [[ -z $n ]]; then
        # No summary: the process did not end by itself (killed).
        echo "valgrind-demo.sh: no error summary for ${command:-$log}" >&2
        rc=1
        continue
    fi
    errors=$((errors + n))
    invalid=$((invalid + $(grep -c 'Invalid \(read\|write\)' "$log" || true)))
    lost_bytes=$((lost_bytes + ${bytes:-0}))
    lost_blocks=$((lost_blocks + ${blocks:-0}))
    if ((n > 0)) || ((${bytes:-0} > 0)); then
        echo "--- ${command}: $n errors" >&2
        cat "$log" >&2
    fi
    printf '  %-40s %s errors, %s bytes definitely lost\n' "${command##*/}" "$n" "${bytes:-0}"
done

if ((rc != 0)); then
    cat "$LOGS/demo.out" >&2
    echo "valgrind-demo.sh: the demo failed under valgrind (status $rc)" >&2
fi
if ((processes < 6)); then
    echo "valgrind-demo.sh: only $processes processes ran under valgrind" >&2
    rc=1
fi
echo "valgrind demo: $processes processes checked, $errors errors ($invalid invalid reads/writes)," \
    "$lost_bytes bytes in $lost_blocks blocks definitely lost, ${duration} s"
((rc == 0 && errors == 0 && lost_bytes == 0))
