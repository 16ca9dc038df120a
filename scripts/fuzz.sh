#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (AddressSanitizer and
# UBSan, library included) in build-fuzz and runs each for FUZZ_SECONDS
# (default 30) over a scratch copy of its corpus fuzz/corpus/<target>/: the
# checked-in inputs run first, so each crash-* input among them is a
# regression test, and new units stay out of the repository. Prints one line
# per target (executions, seconds, coverage). Exits non-zero when a target
# crashed, leaked or hung; its log and the failing input are left in
# build-fuzz/fuzz-run/<target>/.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${FUZZ_BUILD_DIR:-$root/build-fuzz}"
seconds="${FUZZ_SECONDS:-30}"

targets=(ZmlogReaderFuzz ReadCFGFileFuzz ParseLoglineFuzz ParseLogContentFuzz HexDumpFuzz FormatFuzz RingFuzz)
declare -A maxLen=([ZmlogReaderFuzz]=16384 [ParseLoglineFuzz]=8192)
declare -A dict=([ZmlogReaderFuzz]=programs.dict [ParseLoglineFuzz]=programs.dict
                 [ReadCFGFileFuzz]=config.dict)

"$root/scripts/install-missing.sh" cmake make clang
# libFuzzer's runtime comes with clang's runtime libraries.
compgen -G '/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a' >/dev/null ||
    "$root/scripts/install-missing.sh" /nonexistent=libclang-rt-dev
CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DZMLOG_BUILD_FUZZ=ON -DZMLOG_BUILD_TESTS=OFF -DZMLOG_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"${FUZZ_JOBS:-2}" --target "${targets[@]}"

run="$build/fuzz-run"
rm -rf "$run"
# Should the library's load-time set-up ever be linked in, it finds no
# installation and keeps its private log in the target's directory.
export ZM_VELDOR_HOME="$run/no-installation" ZM_VELDOR_DATA="$run/no-installation"
failed=()
summary=()
for target in "${targets[@]}"; do
    dir="$run/$target"
    mkdir -p "$dir/corpus"
    cp "$root/fuzz/corpus/$target/"* "$dir/corpus/"
    options=(-max_total_time="$seconds" -timeout=10 -max_len="${maxLen[$target]:-4096}"
        -artifact_prefix="$dir/" -print_final_stats=1)
    [ -n "${dict[$target]:-}" ] && options+=(-dict="$root/fuzz/${dict[$target]}")
    echo "fuzzing $target for $seconds s"
    start=$SECONDS
    status=ok
    (cd "$dir" && "$build/fuzz/$target" "${options[@]}" corpus) >"$dir/log" 2>&1 || status=FAILED
    elapsed=$((SECONDS - start))
    if [ "$status" != ok ]; then
        failed+=("$target")
        tail -n 40 "$dir/log" >&2
    fi
    execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/log")"
    cov="$(grep -o 'cov: [0-9]*' "$dir/log" | tail -n 1)"
    summary+=("$(printf '%-20s %-6s %10s executions in %3d s, %s' \
        "$target" "$status" "${execs:-?}" "$elapsed" "${cov:-cov: ?}")")
done

printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzing failed: ${failed[*]} (see $run/<target>/)" >&2
    exit 1
fi
