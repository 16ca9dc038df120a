#!/usr/bin/env bash
# Checks the installation: configures, builds and installs the library into a
# temporary prefix, checks the installed files, then builds the example
# consumer (examples/consumer) against that prefix twice, once through CMake
# (find_package) and once through pkg-config with a plain g++ command, and
# runs both without an installation of the runtime (private text log).
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
"$REPO/scripts/install-missing.sh" cmake g++ make pkg-config

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
    "$LIBDIR/pkgconfig/ZMRuntimeLog.pc" "$PREFIX/bin/zmlog"; do
    [[ -e $file ]] || fail "missing ${file#"$PREFIX"/}"
    echo "  ${file#"$PREFIX"/}"
done
echo "  SONAME $SONAME"
# zmlog finds the library of its own installation. Run where its private
# log (zmlog.log, no installation here) may go.
quiet env -u LD_LIBRARY_PATH -C "$WORK" "$PREFIX/bin/zmlog" --help

step "consumer through CMake (CMAKE_PREFIX_PATH)"
quiet cmake -S "$REPO/examples/consumer" -B "$WORK/consumer-cmake" -DCMAKE_PREFIX_PATH="$PREFIX"
quiet cmake --build "$WORK/consumer-cmake"
echo "  built $WORK/consumer-cmake/consumer"

step "consumer through pkg-config (plain g++)"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig
echo "  pkg-config: $(pkg-config --modversion ZMRuntimeLog): $(pkg-config --cflags --libs ZMRuntimeLog)"
# shellcheck disable=SC2046 # the flags are meant to split
quiet g++ -std=c++17 -Wall -Wextra -Wpedantic -o "$WORK/consumer-pc" \
    "$REPO/examples/consumer/main.cpp" $(pkg-config --cflags --libs ZMRuntimeLog)
echo "  built $WORK/consumer-pc"

# Runs a consumer in an empty directory with an installation that has no
# configuration file: it keeps a private log, ./<program>.log.
run_consumer() {
    local binary=$1 name dir
    name=$(basename "$binary")
    dir=$WORK/run-$name
    mkdir -p "$dir/home" "$dir/data"
    (cd "$dir" && ZM_VELDOR_HOME=$dir/home ZM_VELDOR_DATA=$dir/data \
        LD_LIBRARY_PATH=$LIBDIR "$binary") >"$dir/out" 2>"$dir/err" ||
        { cat "$dir/out" "$dir/err" >&2; fail "$name exited with an error"; }
    grep -q "private log (no installation)" "$dir/out" || fail "$name: unexpected output"
    [[ ! -s $dir/err ]] || { cat "$dir/err" >&2; fail "$name wrote to standard error"; }
    local log=$dir/$name.log
    [[ -f $log ]] || fail "$name: no $name.log"
    for text in "|INFO|main|consumerhello from the installed library" \
        "|WARN|main|consumer2 of 3 checks passed" "|INFO|main|ratio0.5" "de-ad-00-ef"; do
        grep -qF -- "$text" "$log" || { cat "$log" >&2; fail "$name.log lacks '$text'"; }
    done
    if grep -q "not written" "$log"; then fail "$name.log holds a record below the level"; fi
    echo "  $name: ok ($(wc -l <"$log") lines in $name.log)"
}

step "running both consumers"
run_consumer "$WORK/consumer-cmake/consumer"
run_consumer "$WORK/consumer-pc"

step "installation checked"
