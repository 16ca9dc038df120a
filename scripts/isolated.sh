#!/usr/bin/env bash
# Runs a command with a /dev/shm of its own (a private mount namespace): the
# shared names "ZMLOG", "/WriteLOG" and "/ReadLOG" of the processes it starts
# are then its own, so several test runs can go on side by side without
# seeing each other. As root it mounts directly; otherwise it tries an
# unprivileged user namespace.
#   scripts/isolated.sh <command> [args...]
set -euo pipefail
[ $# -gt 0 ] || { echo "usage: $0 <command> [args...]" >&2; exit 2; }
inner='mount -t tmpfs -o mode=1777 zmlog-shm /dev/shm && exec "$@"'
if [ "$(id -u)" -eq 0 ]; then
  exec unshare --mount --propagation private sh -c "$inner" isolated "$@"
fi
exec unshare --user --map-root-user --mount --propagation private sh -c "$inner" isolated "$@"
