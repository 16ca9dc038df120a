#!/usr/bin/env bash
# The runtime log in action: a runtime process "ZMRuntime" and three writer
# processes share one log in a throw-away installation; half-way the level
# threshold is changed in the configuration file and every writer follows;
# then the log is shown with zmlog.
#
# Usage: scripts/demo.sh [--keep]
#   --keep   keep the temporary installation (configuration and log files)
# The build goes to $ZMLOG_DEMO_BUILD_DIR (default: <repository>/build-demo).
# ZMLOG_DEMO_WRAPPER, a command that starts every process of the demo
# (scripts/valgrind-demo.sh: valgrind with its options); ZMLOG_DEMO_SLACK_S,
# seconds added to the waits for start-up under a slow wrapper (default 0).
set -euo pipefail

usage() { sed -n '2,12s/^# \{0,1\}//p' "$0"; }

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${ZMLOG_DEMO_BUILD_DIR:-$REPO/build-demo}
KEEP=0
for arg in "$@"; do
    case $arg in
        --keep) KEEP=1 ;;
        -h | --help) usage; exit 0 ;;
        *) echo "demo.sh: unknown option: $arg" >&2; usage >&2; exit 2 ;;
    esac
done

read -ra WRAPPER <<<"${ZMLOG_DEMO_WRAPPER:-}"
SLACK_S=${ZMLOG_DEMO_SLACK_S:-0}
WRITERS=(CellEmulation EngineEmulation BusBridge)
ROUNDS=8
INTERVAL_MS=250
DEMO=""
RUNTIME_PID=""
WRITER_PIDS=()

if [[ -t 1 ]]; then BOLD=$'\033[1m' PLAIN=$'\033[0m'; else BOLD="" PLAIN=""; fi
step() { printf '\n%s== %s%s\n' "$BOLD" "$*" "$PLAIN"; }

# Waits up to $1 seconds for the command that follows to succeed.
wait_for() {
    local deadline=$((SECONDS + $1))
    shift
    until "$@"; do
        ((SECONDS < deadline)) || return 1
        sleep 0.05
    done
}

# Replaces the shell with program under the name role (argv[0]). Through a
# wrapper, argv[0] is the path the wrapper is given: a link named role.
exec_as() {
    local role=$1 program=$2
    shift 2
    if ((${#WRAPPER[@]} == 0)); then exec -a "$role" "$program" "$@"; fi
    mkdir -p "$DEMO/bin"
    ln -sf "$program" "$DEMO/bin/$role"
    exec "${WRAPPER[@]}" "$DEMO/bin/$role" "$@"
}

cleanup() {
    local pid
    for pid in "${WRITER_PIDS[@]}" $RUNTIME_PID; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${WRITER_PIDS[@]}" $RUNTIME_PID; do
        wait "$pid" 2>/dev/null || true
    done
    if [[ -n $DEMO && -d $DEMO ]]; then
        if ((KEEP)); then
            echo "kept the installation in $DEMO"
        else
            rm -rf "$DEMO"
        fi
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

# --- build tools, installed only when missing -------------------------------
"$REPO/scripts/install-missing.sh" cmake g++ make

# --- build -------------------------------------------------------------------
step "building the library, zmlog and the demo programs in $BUILD"
mkdir -p "$BUILD"
if ! { cmake -S "$REPO" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DZMLOG_BUILD_TESTS=OFF \
        -DZMLOG_BUILD_TOOLS=ON &&
        cmake --build "$BUILD" -j "$(nproc)" --target zmlog zmlog-demo-runtime zmlog-demo-writer
    } >"$BUILD/demo-build.log" 2>&1; then
    tail -n 40 "$BUILD/demo-build.log" >&2
    echo "demo.sh: the build failed (full output: $BUILD/demo-build.log)" >&2
    exit 1
fi
RUNTIME_BIN=$BUILD/tools/demo/zmlog-demo-runtime
WRITER_BIN=$BUILD/tools/demo/zmlog-demo-writer
ZMLOG_BIN=$(find "$BUILD/tools" -type f -name zmlog -perm -u+x | head -n 1)
[[ -n $ZMLOG_BIN ]] || { echo "demo.sh: zmlog was not built" >&2; exit 1; }

# --- the machine-wide names of the log --------------------------------------
# There is one ring per machine ("ZMLOG", "/WriteLOG", "/ReadLOG"): wait for
# other users of these names (such as a running test suite), and never take
# the ring away from a live runtime.
if { exec 9>>/tmp/zmlog-global-names.lock; } 2>/dev/null && command -v flock >/dev/null; then
    if ! flock -n 9; then
        echo "waiting for another user of the shared log names to finish ..."
        flock 9
    fi
fi
# A runtime may be started under another file name with argv[0] = ZMRuntime.
if command -v pgrep >/dev/null &&
    { pgrep -x ZMRuntime || pgrep -f '^([^ ]*/)?ZMRuntime( |$)'; } >/dev/null; then
    echo "demo.sh: a ZMRuntime process is running on this machine; stop it first" >&2
    exit 1
fi
rm -f /dev/shm/ZMLOG /dev/shm/sem.WriteLOG /dev/shm/sem.ReadLOG 2>/dev/null || true  # crash leftovers

# --- a temporary installation -------------------------------------------------
DEMO=$(mktemp -d /tmp/zmlog-demo-XXXXXX)
mkdir -p "$DEMO/home/conf" "$DEMO/data"
export ZM_VELDOR_HOME=$DEMO/home ZM_VELDOR_DATA=$DEMO/data
CONFIG=$ZM_VELDOR_HOME/conf/RUNTIMELOG.cfg
LOGFILE=$ZM_VELDOR_DATA/log/RUNTIME.data

write_config() {
    # Rewritten in place, so the runtime's monitor sees a modification.
    cat >"$CONFIG" <<EOF
# Demo installation of the runtime log.
[log]
logActive=true
logLevel=$1
console=false
maxFileRollNumber=10
EOF
}
write_config info
step "installation in $DEMO (ZM_VELDOR_HOME, ZM_VELDOR_DATA), logLevel=info"

# --- the runtime ---------------------------------------------------------------
step "starting the runtime \"ZMRuntime\""
(cd "$DEMO" && exec_as ZMRuntime "$RUNTIME_BIN") >"$DEMO/runtime.out" 2>&1 &
RUNTIME_PID=$!
if ! wait_for $((5 + SLACK_S)) grep -q "log started" "$DEMO/runtime.out"; then
    cat "$DEMO/runtime.out" >&2
    echo "demo.sh: the runtime did not start its log" >&2
    exit 1
fi
cat "$DEMO/runtime.out"

# --- the writers ---------------------------------------------------------------
step "starting ${WRITERS[*]}: two threads each, $ROUNDS rounds of ${INTERVAL_MS} ms"
for name in "${WRITERS[@]}"; do
    if ((${#WRAPPER[@]} == 0)); then
        (exec_as "$name" "$WRITER_BIN" --rounds "$ROUNDS" --interval-ms "$INTERVAL_MS") &
    else
        # Slow to start: the change below waits until every writer is attached.
        (exec_as "$name" "$WRITER_BIN" --rounds "$ROUNDS" --interval-ms "$INTERVAL_MS") \
            > >(tee "$DEMO/$name.out") &
    fi
    WRITER_PIDS+=($!)
done
writers_attached() {
    local name
    for name in "${WRITERS[@]}"; do grep -q "attached" "$DEMO/$name.out" 2>/dev/null || return 1; done
}
if ((${#WRAPPER[@]} > 0)) && ! wait_for $((5 + SLACK_S)) writers_attached; then
    echo "demo.sh: the writers did not attach" >&2
    exit 1
fi
sleep "$(awk -v r="$ROUNDS" -v i="$INTERVAL_MS" 'BEGIN { printf "%.2f", r * i / 2000 }')"
step "half-way: logLevel info -> debug in $CONFIG"
write_config debug
for pid in "${WRITER_PIDS[@]}"; do
    wait "$pid" || { echo "demo.sh: a writer failed" >&2; exit 1; }
done
WRITER_PIDS=()

# --- release -------------------------------------------------------------------
step "releasing the runtime"
kill -TERM "$RUNTIME_PID"
wait "$RUNTIME_PID" || { cat "$DEMO/runtime.out" >&2; echo "demo.sh: the runtime failed" >&2; exit 1; }
RUNTIME_PID=""
tail -n 1 "$DEMO/runtime.out"
for name in /dev/shm/ZMLOG /dev/shm/sem.WriteLOG /dev/shm/sem.ReadLOG; do
    if [[ -e $name ]]; then echo "demo.sh: $name was left behind" >&2; exit 1; fi
done
echo "shared object and semaphores are gone; log file: $(stat -c %s "$LOGFILE") bytes (scrambled)"

# --- the log ---------------------------------------------------------------------
# With no argument zmlog reads $ZM_VELDOR_DATA/log, the installation's log.
step "zmlog"
"${WRAPPER[@]}" "$ZMLOG_BIN"
step "zmlog --stats"
"${WRAPPER[@]}" "$ZMLOG_BIN" --stats
