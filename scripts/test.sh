#!/usr/bin/env bash
# Builds the library, its tests, tools and benchmarks, and runs every test.
# Installs missing build dependencies with apt-get on a fresh machine.
set -euo pipefail
cd "$(dirname "$0")/.."

# zmlog --forward needs librelp and GnuTLS; its tests a real rsyslogd with
# its RELP and TLS modules, and openssl for their certificates. zmlog names
# the frames of crash reports with libdw.
scripts/install-missing.sh cmake make g++ pkg-config \
  /usr/include/gtest/gtest.h=libgtest-dev /usr/include/benchmark/benchmark.h=libbenchmark-dev \
  /usr/include/librelp.h=librelp-dev /usr/include/gnutls/gnutls.h=libgnutls28-dev \
  /usr/include/elfutils/libdwfl.h=libdw-dev \
  /usr/sbin/rsyslogd=rsyslog /usr/lib/x86_64-linux-gnu/rsyslog/imrelp.so=rsyslog-relp \
  /usr/lib/x86_64-linux-gnu/rsyslog/lmnsd_gtls.so=rsyslog-gnutls openssl

build_dir=${BUILD_DIR:-build}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZMLOG_BUILD_BENCH=ON
cmake --build "$build_dir" -j"$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure -j"$(nproc)"
