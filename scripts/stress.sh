#!/usr/bin/env bash
# The long stress run: the suite's stress tests at full size (Release).
#   1,000,000 records from 4 processes x 2 threads through the rolled set,
#   an overload burst of 8 x 200,000 records, and 200 writers killed
#   mid-record. Each test prints its figures on a "[ figures ]" line.
# Sizes can be changed with ZMLOG_STRESS_RECORDS, ZMLOG_STRESS_RATE (records/s,
# all threads), ZMLOG_STRESS_MIN_SIZE/ZMLOG_STRESS_MAX_SIZE (content bytes),
# ZMLOG_STRESS_BURST (records per thread) and ZMLOG_STRESS_KILLS.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-missing.sh cmake make g++ /usr/include/gtest/gtest.h=libgtest-dev

build=${BUILD_DIR:-build-stress}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DZMLOG_BUILD_TESTS=ON -DZMLOG_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null

# Smaller records than in CI keep a million of them within a dozen files.
export TZ=UTC
export ZMLOG_STRESS_RECORDS=${ZMLOG_STRESS_RECORDS:-1000000}
export ZMLOG_STRESS_RATE=${ZMLOG_STRESS_RATE:-60000}
export ZMLOG_STRESS_MIN_SIZE=${ZMLOG_STRESS_MIN_SIZE:-80}
export ZMLOG_STRESS_MAX_SIZE=${ZMLOG_STRESS_MAX_SIZE:-300}
export ZMLOG_STRESS_BURST=${ZMLOG_STRESS_BURST:-200000}
export ZMLOG_STRESS_KILLS=${ZMLOG_STRESS_KILLS:-200}
"$build/tests/LogAutoTest" --gtest_filter='Stress.*'
