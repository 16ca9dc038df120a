#!/usr/bin/env bash
# Builds Release with the benchmarks and prints one table of figures:
# the write path, the filters, two writers at once, sustained load through
# the archiver, scrambling, decoding, zmlog, and zmlog --forward to a local
# rsyslogd over TCP and RELP. Also builds a reference row
# with spdlog's async logger (installed here only; the library never uses it).
#   scripts/bench.sh [--quick]      (--quick: shorter sustained runs)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
quick=0
[ "${1:-}" = "--quick" ] && quick=1

scripts/install-missing.sh cmake make g++ \
  /usr/include/gtest/gtest.h=libgtest-dev /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/spdlog/spdlog.h=libspdlog-dev \
  /usr/include/librelp.h=librelp-dev /usr/include/gnutls/gnutls.h=libgnutls28-dev \
  /usr/sbin/rsyslogd=rsyslog /usr/lib/x86_64-linux-gnu/rsyslog/imrelp.so=rsyslog-relp

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
for mode in text int printf snprintf float snprintf-float hex snprintf-hex filtered; do
  as_runtime "$build/bench/LatencyDriver" "$mode"
done
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
if [ -x "$build/tools/zmlog/zmlog" ] && [ -x /usr/sbin/rsyslogd ] &&
  { "$build/tools/zmlog/zmlog" --forward=tcp://127.0.0.1:1 /nonexistent 2>&1 || true; } | grep -qv "built without"; then
  echo
  echo "## zmlog --forward to a local rsyslogd (records/s, median of 3 runs)"
  mkdir -p "$work/fwd/log"
  "$build/bench/SampleLogDriver" "$work/fwd/log/RUNTIME.data" 5 >/dev/null
  listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
  free_port() {
    local p
    while :; do p=$((20000 + RANDOM % 40000)); listening "$p" || break; done
    echo "$p"
  }
  # rsyslog's own queue in memory (its default), and a direct one: each
  # message written before RELP acknowledges it (nothing acknowledged lost).
  for queue in FixedArray Direct; do
    tcp=$(free_port)
    relp=$(free_port)
    cat >"$work/fwd/rsyslog.conf" <<CONF
global(workDirectory="$work/fwd" maxMessageSize="64k")
module(load="imtcp")
module(load="imrelp")
template(name="raw" type="string" string="%rawmsg%\n")
ruleset(name="in" queue.type="$queue") { action(type="omfile" file="$work/fwd/received" template="raw") }
input(type="imtcp" port="$tcp" address="127.0.0.1" ruleset="in")
input(type="imrelp" port="$relp" address="127.0.0.1" ruleset="in")
CONF
    /usr/sbin/rsyslogd -n -f "$work/fwd/rsyslog.conf" -i "$work/fwd/rsyslogd.pid" >"$work/fwd/rsyslogd.out" 2>&1 &
    rsyslogd_pid=$!
    for _ in $(seq 100); do listening "$tcp" && listening "$relp" && break; sleep 0.05; done
    for scheme in tcp relp; do
      port=$tcp
      [ "$scheme" = relp ] && port=$relp
      rates=()
      cpus=()
      for _ in 1 2 3; do
        rm -f "$work/fwd/received"
        start=$(date +%s%N)
        said=$({ TIMEFORMAT='cpu %U %S'; time "$build/tools/zmlog/zmlog" --forward="$scheme://127.0.0.1:$port" "$work/fwd/log" 2>&1; } 2>&1)
        end=$(date +%s%N)
        n=$(sed -n 's/.*forwarded \([0-9]*\) records.*/\1/p' <<<"$said")
        rates+=("$(awk -v n="$n" -v ns=$((end - start)) 'BEGIN { printf "%.0f", n / (ns / 1e9) }')")
        cpus+=("$(awk -v n="$n" '/^cpu / { printf "%.1f", ($2 + $3) * 1e6 / n }' <<<"$said")")
      done
      rate=$(printf '%s\n' "${rates[@]}" | sort -n | sed -n 2p)
      cpu=$(printf '%s\n' "${cpus[@]}" | sort -n | sed -n 2p)
      # Wall-clock rate (rsyslogd's share included) and zmlog's own CPU time.
      printf 'zmlog --forward=%-4s %d records, rsyslog queue %-10s %8d records/s, zmlog CPU %5.1f us/record\n' \
        "$scheme" "$n" "$queue" "$rate" "$cpu"
    done
    kill "$rsyslogd_pid"
    wait "$rsyslogd_pid" 2>/dev/null || true
  done
fi
