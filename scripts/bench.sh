#!/usr/bin/env bash
# Builds Release with the benchmarks and prints one table of figures:
# the write path, the filters, two writers at once, sustained load through
# the archiver, scrambling, decoding and zmlog. Also builds a reference row
# with spdlog's async logger (installed here only; the library never uses it).
#   scripts/bench.sh [--quick]      (--quick: shorter sustained runs)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
quick=0
[ "${1:-}" = "--quick" ] && quick=1

scripts/install-missing.sh cmake make g++ \
  /usr/include/gtest/gtest.h=libgtest-dev /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/spdlog/spdlog.h=libspdlog-dev

build=$root/build-bench
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZMLOG_BUILD_BENCH=ON -DZMLOG_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
g++ -O2 -std=c++17 -o "$build/SpdlogDriver" bench/reference/SpdlogDriver.cpp -lspdlog -lfmt -pthread

# Everything runs in a scratch directory under the name "ZMRuntime", so the
# library's load-time set-up leaves the process to the benchmark.
work=$(mktemp -d /tmp/zmlog-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
cd "$work"
as_runtime() { (exec -a ZMRuntime "$@"); }

echo "# $(date -u +%Y-%m-%d) on $(nproc) cores: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //')"
echo
echo "## Per-call latency (1,000,000 calls, rdtsc, timer included)"
for mode in text int printf filtered; do as_runtime "$build/bench/LatencyDriver" "$mode"; done
echo "### Two processes writing at once"
as_runtime "$build/bench/LatencyDriver" text --processes 2
echo "### Reference: spdlog async logger, same event, file sink"
"$build/SpdlogDriver"
echo
echo "## Google Benchmark"
as_runtime "$build/bench/WriteLogBench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2>/dev/null | grep -E 'median'
for b in ArchiveBench DecodeBench; do
  [ -x "$build/bench/$b" ] && as_runtime "$build/bench/$b" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true 2>/dev/null | grep -E 'median'
done
echo
echo "## Sustained load through the archiver (200-byte records)"
if [ $quick -eq 1 ]; then
  as_runtime "$build/bench/SustainedDriver" 40 10 50 5 60 5 70 5 80 5 2>/dev/null
else
  as_runtime "$build/bench/SustainedDriver" 40 60 50 10 60 10 70 10 80 10 2>/dev/null
fi
echo
if [ -x "$build/tools/zmlog/zmlog" ]; then
  echo "## zmlog (median of 5 runs)"
  mkdir -p "$work/log"
  "$build/bench/SampleLogDriver" "$work/log/RUNTIME.data" 20 >/dev/null
  size=$(stat -c %s "$work/log/RUNTIME.data")
  for format in short pipe json; do
    times=()
    for _ in 1 2 3 4 5; do
      start=$(date +%s%N)
      TZ=UTC "$build/tools/zmlog/zmlog" -o "$format" "$work/log/RUNTIME.data" >/dev/null
      end=$(date +%s%N)
      times+=($((end - start)))
    done
    ns=$(printf '%s\n' "${times[@]}" | sort -n | sed -n 3p)
    awk -v f="$format" -v b="$size" -v ns="$ns" 'BEGIN { printf "zmlog -o %-5s of %.1f MB to /dev/null: %.0f ms, %.0f MB/s\n", f, b/1e6, ns/1e6, b/1e6/(ns/1e9) }'
  done
fi
