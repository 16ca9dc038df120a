#!/usr/bin/env bash
# Builds the libFuzzer target of zmlog's reading code with clang (AddressSanitizer
# and UBSan, library included) in build-fuzz and runs it for FUZZ_SECONDS
# (default 60). Exits non-zero when the fuzzer finds a crash, a leak or a hang;
# the failing input is left in build-fuzz/fuzz-run/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${FUZZ_SECONDS:-60}"

"$root/scripts/install-missing.sh" cmake make clang
# libFuzzer's runtime comes with clang's runtime libraries.
compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a' >/dev/null ||
    "$root/scripts/install-missing.sh" /nonexistent=libclang-rt-dev
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZMLOG_BUILD_FUZZ=ON -DZMLOG_BUILD_TESTS=OFF -DZMLOG_BUILD_BENCH=OFF
cmake --build "$build" -j"${FUZZ_JOBS:-2}" --target ZmlogReaderFuzz

work="$build/fuzz-run"
corpus="$work/corpus"
mkdir -p "$corpus"
# Seeds: a first byte for the slice length, then well-formed records (a text
# record of "ZMRuntime", a double of "emu_core").
printf '\x07\x02\x00\x09\x00\x04\x00\x03\x00\x07\x00\x00\x00\x00\x00\x00\x00\x67\x12\x00\x00\x00\x00\x00\x00\x40\x22\x20\x18\x24\x0a\x06\x00mainZMRuntimenetlink up' \
    > "$corpus/seed-text"
printf '\x03\x03\x00\x08\x00\x01\x00\x01\x00\x08\x00\x00\x00\x0c\x00\x00\x00\x67\x12\x00\x00\x00\x00\x00\x00\x40\x82\x2d\x18\x24\x0a\x06\x00femu_coret\x00\x00\x00\x00\x00\x00\x04\x40' \
    > "$corpus/seed-double"
cat > "$work/programs.dict" <<'DICT'
"ZMRuntime"
"Exec.Host"
"ProbeLOG"
"EngineEmulation"
"CellEmulation"
"ShellConsole"
"emu_core"
"BusBridge"
DICT

# The library sets every process up at load; without an installation it
# keeps a private log, written into the working directory.
cd "$work"
export ZM_VELDOR_HOME="$work/no-installation" ZM_VELDOR_DATA="$work/no-installation"
"$build/fuzz/ZmlogReaderFuzz" -max_total_time="$seconds" -timeout=10 -max_len=16384 \
    -dict="$work/programs.dict" -artifact_prefix="$work/" -print_final_stats=1 "$corpus"
