#!/usr/bin/env bash
# Requests per second over kept-alive connections, orbmux beside nginx in one run on this machine.
#
# orbmux serves one tenant from a sandbox prefix with its built-in settings, and answers every request
# through the whole HTTP engine (head read and parsed, vhost found, request classified, reply written); until
# the S3 layer exists that reply is the NotImplemented error document. nginx (Debian package) serves a
# static file of the same size as that document from another loopback port. Both get the same wrk load, alternately,
# ROUNDS times; the script prints every run, the medians and the ratio orbmux / nginx.
#
#   bash bench/http_rps.sh            # ROUNDS=3 SECONDS=10 CONNS=100 THREADS=2 by default
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-3}
DURATION=${SECONDS_PER_RUN:-10}
CONNS=${CONNS:-100}
THREADS=${THREADS:-2}

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v nginx >/dev/null || need+=(nginx-light)
command -v curl >/dev/null || need+=(curl)
if [ ${#need[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${need[@]}" >/dev/null
fi
[ -x build/release/src/orbmux ] || bash scripts/build.sh release >/dev/null

work=$(mktemp -d /tmp/orbmux-bench-XXXXXX)
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
orb_port=$(free_port)
ngx_port=$(free_port)

cleanup() {
  [ -f "$work/var/run/orbmux//orbmux.pid" ] && kill "$(cat "$work/var/run/orbmux//orbmux.pid")" 2>/dev/null || true
  [ -f "$work/nginx/nginx.pid" ] && kill "$(cat "$work/nginx/nginx.pid")" 2>/dev/null || true
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT

# orbmux with one tenant.
/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$orb_port" --json >/dev/null
ORBMUX_PREFIX=$work build/release/src/orbmux </dev/null >"$work/orbmux.log" 2>&1

# nginx: as many workers as CPUs, no access log, one static file.
mkdir -p "$work/nginx/html" "$work/nginx/tmp"
cat >"$work/nginx/nginx.conf" <<CONF
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 4096; }
http {
  access_log off;
  keepalive_requests 1000000;
  client_body_temp_path $work/nginx/tmp;
  proxy_temp_path $work/nginx/tmp;
  fastcgi_temp_path $work/nginx/tmp;
  uwsgi_temp_path $work/nginx/tmp;
  scgi_temp_path $work/nginx/tmp;
  server {
    listen 127.0.0.1:$ngx_port reuseport;
    root $work/nginx/html;
    location / { try_files /object =404; }
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf"

wait_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "port $1 never answered" >&2
  exit 1
}
wait_port "$orb_port"
wait_port "$ngx_port"
# The same number of body bytes from both.
curl -s "http://127.0.0.1:$orb_port/bucket/object" >"$work/nginx/html/object"
echo "reply body: $(wc -c <"$work/nginx/html/object") bytes from each server"

rps() { wrk -t"$THREADS" -c"$CONNS" -d"${DURATION}s" "http://127.0.0.1:$1/bucket/object" | awk '/Requests\/sec/ {print $2}'; }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

orb=() ngx=()
for i in $(seq "$ROUNDS"); do
  o=$(rps "$orb_port"); n=$(rps "$ngx_port")
  orb+=("$o"); ngx+=("$n")
  echo "round $i: orbmux $o req/s, nginx $n req/s"
done
om=$(printf '%s\n' "${orb[@]}" | median)
nm=$(printf '%s\n' "${ngx[@]}" | median)
echo "median: orbmux $om req/s, nginx $nm req/s, ratio $(awk -v a="$om" -v b="$nm" 'BEGIN {printf "%.2f", a / b}')"
