#!/usr/bin/env bash
# Checks the installation: configures, builds and installs the library into a
# temporary prefix, checks the installed files, then builds the example
# consumer (examples/consumer) against that prefix twice, once through CMake
# (find_package) and once through pkg-config with a plain g++ command as the
# README gives it, and runs both without an installation of the runtime
# (private text log). Then it runs the README's example of "Running a
# runtime" as it stands, with the installed zmlog-runtime and the consumer as
# "PressLine7", and the installed systemd unit's command as systemd would.
# Those two use the machine-wide shared names: run the script inside
# scripts/isolated.sh where others may use them.
#
# Usage: scripts/check-install.sh [--keep]
#   --keep   keep the temporary directory (build, prefix, consumer runs)
# ZMLOG_CHECK_BUILD_DIR chooses the build directory (default: a temporary one).
set -euo pipefail

REPO=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
KEEP=0
for arg in "$@"; do
    case $arg in
        --keep) KEEP=1 ;;
        -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
        *) echo "check-install.sh: unknown option: $arg" >&2; exit 2 ;;
    esac
done

step() { printf '\n== %s\n' "$*"; }
fail() { echo "check-install.sh: FAILED: $*" >&2; exit 1; }

# Build tools, installed only when missing.
"$REPO/scripts/install-missing.sh" cmake g++ make pkg-config /usr/bin/systemd-analyze=systemd \
    /usr/include/librelp.h=librelp-dev /usr/include/gnutls/gnutls.h=libgnutls28-dev \
    /usr/include/elfutils/libdwfl.h=libdw-dev

WORK=$(mktemp -d /tmp/zmlog-check-install-XXXXXX)
cleanup() {
    if ((KEEP)); then echo "kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT
PREFIX=$WORK/prefix
BUILD=${ZMLOG_CHECK_BUILD_DIR:-$WORK/build}
JOBS=$(nproc)

# Runs a command quietly; shows its output when it fails.
quiet() {
    local log=$WORK/step.log
    "$@" >"$log" 2>&1 || { tail -n 40 "$log" >&2; fail "$*"; }
}

step "configure, build and install into $PREFIX"
quiet cmake -S "$REPO" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DZMLOG_BUILD_TESTS=OFF \
    -DCMAKE_INSTALL_PREFIX="$PREFIX"
quiet cmake --build "$BUILD" -j "$JOBS"
quiet cmake --install "$BUILD"

step "installed files"
LIBRARY=$(find "$PREFIX" -name 'libZMRuntimeLog.so.*.*' -type f | head -n 1)
[[ -n $LIBRARY ]] || fail "no versioned libZMRuntimeLog.so.X.Y.Z installed"
LIBDIR=$(dirname "$LIBRARY")
SONAME=$(readelf -d "$LIBRARY" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[[ $SONAME == libZMRuntimeLog.so.[0-9]* ]] || fail "SONAME is '$SONAME'"
for file in "$LIBDIR/$SONAME" "$LIBDIR/libZMRuntimeLog.so" \
    "$PREFIX/include/log/ZMRuntimeLog.h" "$PREFIX/include/log/LogMacros.h" \
    "$PREFIX/share/ZMRuntimeLog/RUNTIMELOG.cfg.example" \
    "$LIBDIR/cmake/ZMRuntimeLog/ZMRuntimeLogConfig.cmake" \
    "$LIBDIR/cmake/ZMRuntimeLog/ZMRuntimeLogConfigVersion.cmake" \
    "$LIBDIR/pkgconfig/ZMRuntimeLog.pc" "$PREFIX/bin/zmlog" "$PREFIX/bin/zmlog-runtime" \
    "$PREFIX/share/ZMRuntimeLog/zmlog-runtime.service" \
    "$PREFIX/share/ZMRuntimeLog/zmlog-forward.service"; do
    [[ -e $file ]] || fail "missing ${file#"$PREFIX"/}"
    echo "  ${file#"$PREFIX"/}"
done
echo "  SONAME $SONAME"
# The tools find the library of their own installation.
quiet env -u LD_LIBRARY_PATH "$PREFIX/bin/zmlog" --help
quiet env -u LD_LIBRARY_PATH "$PREFIX/bin/zmlog-runtime" --help

step "consumer through CMake (CMAKE_PREFIX_PATH)"
quiet cmake -S "$REPO/examples/consumer" -B "$WORK/consumer-cmake" -DCMAKE_PREFIX_PATH="$PREFIX"
quiet cmake --build "$WORK/consumer-cmake"
echo "  built $WORK/consumer-cmake/consumer"

step "consumer through pkg-config (plain g++)"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
echo "  pkg-config: $(pkg-config --modversion ZMRuntimeLog): $(pkg-config --cflags --libs ZMRuntimeLog)"
# As the README gives it: the rpath lets the program find the library.
# shellcheck disable=SC2046 # the flags are meant to split
quiet g++ -std=c++17 -Wall -Wextra -Wpedantic -o "$WORK/consumer-pc" \
    "$REPO/examples/consumer/main.cpp" $(pkg-config --cflags --libs ZMRuntimeLog) \
    -Wl,-rpath,"$(pkg-config --variable=libdir ZMRuntimeLog)"
echo "  built $WORK/consumer-pc"

# Runs a consumer in an empty directory with an installation that has no
# configuration file: it keeps a private log, ./<program>.log. Without
# LD_LIBRARY_PATH: the program finds the library by itself.
run_consumer() {
    local binary=$1 name dir
    name=$(basename "$binary")
    dir=$WORK/run-$name
    mkdir -p "$dir/home" "$dir/data"
    (cd "$dir" && env -u LD_LIBRARY_PATH ZM_VELDOR_HOME="$dir/home" ZM_VELDOR_DATA="$dir/data" \
        "$binary") >"$dir/out" 2>"$dir/err" ||
        { cat "$dir/out" "$dir/err" >&2; fail "$name exited with an error"; }
    grep -q "private log (no installation)" "$dir/out" || fail "$name: unexpected output"
    [[ ! -s $dir/err ]] || { cat "$dir/err" >&2; fail "$name wrote to standard error"; }
    local log=$dir/$name.log
    [[ -f $log ]] || fail "$name: no $name.log"
    for text in "|INFO|main|consumer hello from the installed library" \
        "|WARN|main|consumer 2 of 3 checks passed" "|INFO|main|ratio=0.5" "de-ad-00-ef"; do
        grep -qF -- "$text" "$log" || { cat "$log" >&2; fail "$name.log lacks '$text'"; }
    done
    if grep -q "not written" "$log"; then fail "$name.log holds a record below the level"; fi
    echo "  $name: ok ($(wc -l <"$log") lines in $name.log)"
}

step "running both consumers"
run_consumer "$WORK/consumer-cmake/consumer"
run_consumer "$WORK/consumer-pc"

# The shared names are machine-wide: wait for a test suite that uses them.
if command -v flock >/dev/null && { exec 8>>/dev/shm/zmlog-global-names.lock; } 2>/dev/null; then
    flock 8
fi

# Checks what zmlog printed of a runtime's log with PressLine7's records.
check_runtime_log() {
    local log=$1 text
    for text in "] INFO main: runtime log started" \
        " PressLine7[" "] INFO main: consumer hello from the installed library" \
        "] WARN main: consumer 2 of 3 checks passed" "] INFO main: ratio=0.5" \
        "0000  de-ad-00-ef" "] INFO main: runtime stopping on TERM"; do
        grep -qF -- "$text" "$log" || { cat "$log" >&2; fail "zmlog shows no '$text'"; }
    done
    for name in /dev/shm/ZMLOG /dev/shm/sem.WriteLOG /dev/shm/sem.ReadLOG; do
        [[ ! -e $name ]] || fail "$name was left behind"
    done
}

step "the README's example of Running a runtime"
EXAMPLE=$(awk '/^<!-- scripts\/check-install.sh runs this block/ { found = 1; next }
    found && /^```sh$/ { inside = 1; next }
    inside && /^```$/ { exit }
    inside { print }' "$REPO/README.md")
[[ -n $EXAMPLE ]] || fail "README.md has no example of Running a runtime"
mkdir -p "$WORK/example"
cp "$WORK/consumer-pc" "$WORK/example/PressLine7"
(cd "$WORK/example" && env -u LD_LIBRARY_PATH PREFIX="$PREFIX" bash -euo pipefail -c "$EXAMPLE") \
    >"$WORK/example.out" 2>"$WORK/example.err" ||
    { cat "$WORK/example.out" "$WORK/example.err" >&2; fail "the example failed"; }
[[ ! -s $WORK/example.err ]] || { cat "$WORK/example.err" >&2; fail "the example wrote to standard error"; }
for text in "ZMRuntime: log started" "PressLine7: writer of the runtime's log" "ZMRuntime: log released"; do
    grep -qF -- "$text" "$WORK/example.out" || { cat "$WORK/example.out" >&2; fail "the example printed no '$text'"; }
done
check_runtime_log "$WORK/example.out"
echo "  ok: $(grep -c ' PressLine7\[' "$WORK/example.out") lines of PressLine7, runtime stopped with status 0"

step "the systemd unit"
UNIT=$PREFIX/share/ZMRuntimeLog/zmlog-runtime.service
quiet systemd-analyze verify "$UNIT"
EXEC=$(sed -n 's/^ExecStart=//p' "$UNIT")
[[ $EXEC == "$PREFIX/bin/zmlog-runtime" ]] || fail "the unit starts '$EXEC'"
read -ra UNIT_ENV <<<"$(sed -n 's/^Environment=//p' "$UNIT")"
STOP=$(sed -n 's/^KillSignal=//p' "$UNIT")
STOP_S=$(sed -n 's/^TimeoutStopSec=//p' "$UNIT")
# As systemd runs it: from /, in the unit's environment only; the roots come
# from a drop-in, here the example's installation.
UNIT_HOME=$WORK/example/zm UNIT_DATA=$WORK/unit-data
(cd / && exec env -i "${UNIT_ENV[@]}" ZM_VELDOR_HOME="$UNIT_HOME" ZM_VELDOR_DATA="$UNIT_DATA" \
    "$EXEC") >"$WORK/unit.out" 2>&1 &
SERVICE=$!
for _ in $(seq 100); do grep -q "log started" "$WORK/unit.out" && break; sleep 0.05; done
grep -q "log started" "$WORK/unit.out" || { cat "$WORK/unit.out" >&2; fail "the unit's command did not start"; }
(cd "$WORK/example" && env -u LD_LIBRARY_PATH ZM_VELDOR_HOME="$UNIT_HOME" \
    ZM_VELDOR_DATA="$UNIT_DATA" ./PressLine7) >/dev/null
kill -s "${STOP#SIG}" "$SERVICE"
for _ in $(seq $((STOP_S * 20))); do kill -0 "$SERVICE" 2>/dev/null || break; sleep 0.05; done
if kill -0 "$SERVICE" 2>/dev/null; then
    kill -KILL "$SERVICE"
    fail "the unit's command did not stop within ${STOP_S}s of $STOP"
fi
STATUS=0
wait "$SERVICE" || STATUS=$?
((STATUS == 0)) || { cat "$WORK/unit.out" >&2; fail "the unit's command ended with status $STATUS after $STOP"; }
ZM_VELDOR_DATA=$UNIT_DATA "$PREFIX/bin/zmlog" >"$WORK/unit.log" 2>&1
check_runtime_log "$WORK/unit.log"
echo "  ok: verified, started as systemd would, stopped by $STOP with status 0"

step "the forwarder's systemd unit"
FUNIT=$PREFIX/share/ZMRuntimeLog/zmlog-forward.service
quiet systemd-analyze verify "$FUNIT"
FEXEC=$(sed -n 's/^ExecStart=//p' "$FUNIT")
[[ $FEXEC == "$PREFIX/bin/zmlog --follow --forward="* ]] || fail "the forwarder's unit starts '$FEXEC'"
# Its command as systemd expands it, towards a port where nothing listens:
# it keeps trying, and stops with status 0 on SIGTERM.
FURL=tcp://127.0.0.1:9
FCMD=${FEXEC//'${ZMLOG_FORWARD_URL}'/$FURL}
FCMD=${FCMD//'${ZM_VELDOR_DATA}'/$UNIT_DATA}
read -ra FARGS <<<"$FCMD"
read -ra FENV <<<"$(sed -n 's/^Environment=\(ZM_VELDOR_DATA=.*\)/\1/p' "$FUNIT")"
[[ ${FENV[0]:-} == ZM_VELDOR_DATA=* ]] || fail "the forwarder's unit sets no ZM_VELDOR_DATA"
(cd / && exec env -i ZM_VELDOR_DATA="$UNIT_DATA" "${FARGS[@]}") >"$WORK/forward.out" 2>&1 &
FORWARDER=$!
for _ in $(seq 100); do grep -q "cannot forward to $FURL" "$WORK/forward.out" && break; sleep 0.05; done
kill -TERM "$FORWARDER" 2>/dev/null || true
STATUS=0
wait "$FORWARDER" || STATUS=$?
grep -q "cannot forward to $FURL" "$WORK/forward.out" || { cat "$WORK/forward.out" >&2; fail "the forwarder's command did not try $FURL"; }
((STATUS == 0)) || { cat "$WORK/forward.out" >&2; fail "the forwarder's command ended with status $STATUS on SIGTERM"; }
echo "  ok: verified, its command tries the collector and stops by SIGTERM with status 0"

step "installation checked"
