#!/usr/bin/env bash
# Installs with apt-get whatever of the given build dependencies is missing.
# Each argument is a command whose Debian package has the same name (cmake,
# g++, make, pkg-config, clang) or PATH=PACKAGE, installed when PATH does not
# exist (/usr/include/gtest/gtest.h=libgtest-dev).
set -euo pipefail
missing=()
for want in "$@"; do
  case $want in
    *=*) [ -e "${want%%=*}" ] || missing+=("${want#*=}") ;;
    *) command -v "$want" >/dev/null || missing+=("$want") ;;
  esac
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing the missing build dependencies: ${missing[*]}" >&2
sudo=()
[ "$(id -u)" -ne 0 ] && sudo=(sudo)
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
