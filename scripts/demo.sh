#!/usr/bin/env bash
# Installs what is missing, builds the release daemon and starts it under a sandbox prefix.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release

prefix=${ORBMUX_PREFIX:-$PWD/demo}
mkdir -p "$prefix/etc/orbmux"
if [ ! -f "$prefix/etc/orbmux/orbmux.conf" ]; then
  cat > "$prefix/etc/orbmux/orbmux.conf" <<XML
<?xml version="1.0"?>
<orbmux interval="10" conf_path="/etc/orbmux" bucketmaxlen="127" objectmaxlen="127" objectpathlen="1023" objectdirnum="10"/>
<cache max_mem="0B" max_file="" retry="3" interval="3" tmp="/tmp/orbmux/"/>
XML
fi

bin=$PWD/build/release/src/orbmux
pidfile="$prefix/var/run/orbmux//orbmux.pid"
if [ -f "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; then
  echo "orbmux already runs under $prefix (pid $(cat "$pidfile")); stopping it first"
  ORBMUX_PREFIX=$prefix "$bin" -s stop
  for _ in $(seq 50); do [ -f "$pidfile" ] || break; sleep 0.1; done
fi
rm -f "$pidfile"

ORBMUX_PREFIX=$prefix ORBMUX_LOG_STDERR=1 "$bin" 2>>"$prefix/orbmux.log"
for _ in $(seq 50); do [ -s "$pidfile" ] && break; sleep 0.1; done
[ -s "$pidfile" ] || { echo "orbmux did not start; see $prefix/orbmux.log" >&2; exit 1; }

cat <<TXT
orbmux started: master pid $(cat "$pidfile"), prefix $prefix
  log:    $prefix/orbmux.log
  stop:   ORBMUX_PREFIX=$prefix $bin -s stop
TXT
