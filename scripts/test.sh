#!/usr/bin/env bash
# Builds the library, its tests, tools and benchmarks, and runs every test.
# Installs missing build dependencies with apt-get on a fresh machine.
set -euo pipefail
cd "$(dirname "$0")/.."

need=()
command -v cmake >/dev/null || need+=(cmake)
command -v make >/dev/null || need+=(make)
command -v g++ >/dev/null || need+=(g++)
command -v pkg-config >/dev/null || need+=(pkg-config)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ ${#need[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -ne 0 ] && sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${need[@]}"
fi

build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZMLOG_BUILD_BENCH=ON
cmake --build "$build_dir" -j"$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure
