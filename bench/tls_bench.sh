#!/usr/bin/env bash
# HTTPS, orbmux beside nginx in one run on this machine, with the same certificate (EC P-256, signed by a
# CA made here), TLS 1.2 and 1.3, a shared session cache and no session tickets on both.
#
# Four measurements, each ROUNDS times, orbmux and nginx alternately:
#   1. full handshakes/s      openssl s_time -new: connect, full handshake, close; CLIENTS processes at once
#   2. resumed handshakes/s   openssl s_time -reuse: the same with the session of the first connection
#                             (TLS 1.2 session ids: s_time reads no TLS 1.3 session ticket)
#   3. 4 KiB GET              wrk over kept-alive HTTPS, a signed GET of a 4 KiB object  vs  nginx, same file
#   4. 1 MiB GET              the same with a 1 MiB object
#   5. 4 KiB GET, plain HTTP  the 4 KiB GET on a second, plain tenant of the same daemon and a plain nginx
#                             port: the plain-HTTP ratio of this very run, for the HTTPS one to be held to
# The handshake rate is the server's and the client's work together on the machine's cores: both servers
# get the same clients, so the ratio is the comparison. Prints every round, the medians and a Markdown
# table of ratios.
#
#   bash bench/tls_bench.sh    # ROUNDS=3 SECONDS_PER_RUN=8 CLIENTS=2 CONNS=100 THREADS=2
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-3}
DURATION=${SECONDS_PER_RUN:-8}
CLIENTS=${CLIENTS:-2}
CONNS=${CONNS:-100}
THREADS=${THREADS:-2}

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v nginx >/dev/null || need+=(nginx-light)
command -v openssl >/dev/null || need+=(openssl)
command -v curl >/dev/null || need+=(curl)
if [ ${#need[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${need[@]}" >/dev/null
fi
[ -x build/release/src/orbmux ] || ninja -C build/release src/orbmux >/dev/null

work=$(mktemp -d /tmp/orbmux-tlsbench-XXXXXX)
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
orb_port=$(free_port)
ngx_port=$(free_port)
orb_plain=$(free_port)
ngx_plain=$(free_port)
cleanup() {
  [ -f "$work/var/run/orbmux//orbmux.pid" ] && kill "$(cat "$work/var/run/orbmux//orbmux.pid")" 2>/dev/null || true
  [ -f "$work/nginx/nginx.pid" ] && kill "$(cat "$work/nginx/nginx.pid")" 2>/dev/null || true
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT

wait_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "port $1 never answered" >&2
  exit 1
}

# The certificate both servers present.
ec=(-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes)
openssl req -x509 "${ec[@]}" -keyout "$work/ca.key" -out "$work/ca.pem" -days 2 -subj "/CN=bench CA" 2>/dev/null
openssl req -new "${ec[@]}" -keyout "$work/server.key" -out "$work/server.csr" -subj "/CN=127.0.0.1" 2>/dev/null
printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\nbasicConstraints=CA:FALSE\n' >"$work/server.ext"
openssl x509 -req -in "$work/server.csr" -CA "$work/ca.pem" -CAkey "$work/ca.key" -CAcreateserial \
  -out "$work/server.pem" -days 2 -extfile "$work/server.ext" 2>/dev/null
export ORBMUX_CA=$work/ca.pem

# orbmux, one HTTPS tenant, one bucket with a 4 KiB and a 1 MiB object of random bytes.
# A second tenant, plain HTTP, in a group of its own, with the same 4 KiB object.
client() { /usr/bin/python3 bench/object_client.py "$work/tenant.json" "$orb_port" "$@"; }
client_plain() { /usr/bin/python3 bench/object_client.py "$work/plain.json" "$orb_plain" "$@"; }
/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$orb_port" --ssl --cert "$work/server.pem" --key "$work/server.key" --json >"$work/tenant.json"
/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name plain \
  --port "$orb_plain" --json >"$work/plain.json"
ORBMUX_PREFIX=$work build/release/src/orbmux </dev/null >"$work/orbmux.log" 2>&1
wait_port "$orb_port"
wait_port "$orb_plain"
head -c 4096 /dev/urandom >"$work/body4k"
head -c 1048576 /dev/urandom >"$work/body1m"
client prepare bench obj4k="$work/body4k" obj1m="$work/body1m"
client_plain prepare bench obj4k="$work/body4k"
bucket_dir=$(dirname "$(find "$work/cluster/tenants/bench" -path '*/data/*' -name obj4k)")
cmp -s "$bucket_dir/obj4k" "$work/body4k" || { echo "object data file not found where expected" >&2; exit 1; }

# nginx on the bucket's data directory with the same certificate and TLS settings. Workers run as root:
# the sandbox's directories are 0700.
mkdir -p "$work/nginx/tmp"
cat >"$work/nginx/nginx.conf" <<CONF
user root;
worker_processes auto;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 4096; }
http {
  access_log off;
  sendfile on;
  tcp_nopush on;
  keepalive_requests 1000000;
  client_body_temp_path $work/nginx/tmp;
  proxy_temp_path $work/nginx/tmp;
  fastcgi_temp_path $work/nginx/tmp;
  uwsgi_temp_path $work/nginx/tmp;
  scgi_temp_path $work/nginx/tmp;
  ssl_protocols TLSv1.2 TLSv1.3;
  ssl_ciphers ECDHE+AESGCM:ECDHE+CHACHA20;
  ssl_ecdh_curve X25519:prime256v1;
  ssl_session_cache shared:SSL:10m;
  ssl_session_timeout 10s;
  ssl_session_tickets off;
  server {
    listen 127.0.0.1:$ngx_port ssl reuseport;
    ssl_certificate $work/server.pem;
    ssl_certificate_key $work/server.key;
    root $bucket_dir;
  }
  server {
    listen 127.0.0.1:$ngx_plain reuseport;
    root $bucket_dir;
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf"
wait_port "$ngx_port"
wait_port "$ngx_plain"

client get-lua bench obj4k "$work/get4k.lua"
client_plain get-lua bench obj4k "$work/plain4k.lua"
client get-lua bench obj1m "$work/get1m.lua"

echo "machine: $(nproc) cores, $(openssl version), $(nginx -v 2>&1)"

check() {  # check <label> <got> <want>
  echo "check $1: $2"
  [ "$2" = "$3" ] || { echo "unexpected answer for $1; see $work/orbmux.log" >&2; exit 1; }
}
check "orbmux GET 4 KiB" "$(client check-lua "$work/get4k.lua")" "200 4096-bytes"
check "orbmux GET 1 MiB" "$(client check-lua "$work/get1m.lua")" "200 1048576-bytes"
check "orbmux plain GET 4 KiB" "$(client_plain check-lua "$work/plain4k.lua")" "200 4096-bytes"
check "nginx plain GET 4 KiB" "$(curl -s -o /dev/null -w '%{http_code} %{size_download}' "http://127.0.0.1:$ngx_plain/obj4k")" "200 4096"
check "nginx GET 4 KiB" "$(curl -s --cacert "$ORBMUX_CA" -o /dev/null -w '%{http_code} %{size_download}' "https://127.0.0.1:$ngx_port/obj4k")" "200 4096"
check "nginx GET 1 MiB" "$(curl -s --cacert "$ORBMUX_CA" -o /dev/null -w '%{http_code} %{size_download}' "https://127.0.0.1:$ngx_port/obj1m")" "200 1048576"
for p in "$orb_port" "$ngx_port"; do
  for v in -tls1_2 -tls1_3; do
    line=$(openssl s_client -connect "127.0.0.1:$p" -CAfile "$ORBMUX_CA" -verify_return_error "$v" </dev/null 2>/dev/null |
      grep -E '^(New|Reused), ' || true)
    echo "check port $p $v: $line"
    [ -n "$line" ] || { echo "no $v handshake on port $p" >&2; exit 1; }
  done
done

# Handshakes per second of CLIENTS s_time processes at once: their connections summed over the run.
# In -reuse mode each client counts its reused handshakes too; a run whose handshakes were not reused
# fails the bench rather than passing off full handshakes as resumed ones.
handshakes() {  # handshakes <port> <-new|-reuse> <protocol flag>
  local i out total=0 reused=0
  for i in $(seq "$CLIENTS"); do
    openssl s_time -connect "127.0.0.1:$1" "$2" "$3" -time "$DURATION" >"$work/stime.$i" 2>&1 &
  done
  wait
  for i in $(seq "$CLIENTS"); do
    out=$(awk '/connections in [0-9.]+ real seconds/ {print $1}' "$work/stime.$i")
    [ -n "$out" ] || { cat "$work/stime.$i" >&2; exit 1; }
    total=$((total + out))
    # s_time draws one character a connection: r resumed, * full.
    reused=$((reused + $( (grep -E '^[r*]+$' "$work/stime.$i" || true) | tr -cd 'r' | wc -c)))
  done
  if [ "$2" = -reuse ] && [ "$reused" -lt $((total * 9 / 10)) ]; then
    echo "port $1: only $reused of $total handshakes were resumed" >&2; exit 1
  fi
  awk -v n="$total" -v s="$DURATION" 'BEGIN {printf "%.0f", n / s}'
}
wrk_rps() {  # wrk_rps <url> [script]
  local out bad
  out=$(wrk -t"$THREADS" -c"$CONNS" -d"${DURATION}s" ${2:+-s "$2"} "$1")
  bad=$(awk '/Non-2xx or 3xx responses/ {print $NF}' <<<"$out")
  [ -z "$bad" ] || { echo "$1: $bad non-2xx answers" >&2; exit 1; }
  awk '/Requests\/sec/ {print $2}' <<<"$out"
}
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
div() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }
mbs() { awk -v r="$1" -v s="$2" 'BEGIN {printf "%.1f", r * s / 1e6}'; }

declare -A R
add() { R[$1]="${R[$1]:-} $2"; }
med() { printf '%s\n' ${R[$1]} | median; }

orb="https://127.0.0.1:$orb_port"
ngx="https://127.0.0.1:$ngx_port"
for i in $(seq "$ROUNDS"); do
  a=$(handshakes "$orb_port" -new -tls1_3); add full13_orb "$a"
  b=$(handshakes "$ngx_port" -new -tls1_3); add full13_ngx "$b"; add full13_ratio "$(div "$a" "$b")"
  c=$(handshakes "$orb_port" -new -tls1_2); add full12_orb "$c"
  d=$(handshakes "$ngx_port" -new -tls1_2); add full12_ngx "$d"; add full12_ratio "$(div "$c" "$d")"
  echo "round $i: full handshakes/s  TLS 1.3 orbmux $a, nginx $b; TLS 1.2 orbmux $c, nginx $d"

  a=$(handshakes "$orb_port" -reuse -tls1_2); add reuse_orb "$a"
  b=$(handshakes "$ngx_port" -reuse -tls1_2); add reuse_ngx "$b"; add reuse_ratio "$(div "$a" "$b")"
  echo "round $i: resumed handshakes/s (TLS 1.2)  orbmux $a, nginx $b"

  a=$(wrk_rps "$orb" "$work/get4k.lua"); add get4k_orb "$a"
  b=$(wrk_rps "$ngx/obj4k"); add get4k_ngx "$b"; add get4k_ratio "$(div "$a" "$b")"
  echo "round $i: GET 4 KiB  orbmux $a req/s, nginx $b req/s"

  a=$(wrk_rps "http://127.0.0.1:$orb_plain" "$work/plain4k.lua"); add plain4k_orb "$a"
  b=$(wrk_rps "http://127.0.0.1:$ngx_plain/obj4k"); add plain4k_ngx "$b"; add plain4k_ratio "$(div "$a" "$b")"
  echo "round $i: GET 4 KiB, plain HTTP  orbmux $a req/s, nginx $b req/s"

  a=$(wrk_rps "$orb" "$work/get1m.lua"); add get1m_orb "$a"
  b=$(wrk_rps "$ngx/obj1m"); add get1m_ngx "$b"; add get1m_ratio "$(div "$a" "$b")"
  echo "round $i: GET 1 MiB  orbmux $a req/s ($(mbs "$a" 1048576) MB/s), nginx $b req/s ($(mbs "$b" 1048576) MB/s)"
done

f3o=$(med full13_orb); f3n=$(med full13_ngx)
f2o=$(med full12_orb); f2n=$(med full12_ngx)
ro=$(med reuse_orb); rn=$(med reuse_ngx)
g4o=$(med get4k_orb); g4n=$(med get4k_ngx)
g1o=$(med get1m_orb); g1n=$(med get1m_ngx)
p4o=$(med plain4k_orb); p4n=$(med plain4k_ngx)

echo
echo "Medians of $ROUNDS rounds, ${DURATION} s per run; handshakes: $CLIENTS openssl s_time clients; GET: wrk -t$THREADS -c$CONNS:"
echo
echo "| Measurement | orbmux | nginx | Ratio of medians | Median of round ratios | Target |"
echo "|---|---|---|---|---|---|"
echo "| Full handshakes, TLS 1.3 | $f3o /s | $f3n /s | $(div "$f3o" "$f3n") | $(med full13_ratio) | ≥ 0.9 |"
echo "| Full handshakes, TLS 1.2 | $f2o /s | $f2n /s | $(div "$f2o" "$f2n") | $(med full12_ratio) | ≥ 0.9 |"
echo "| Resumed handshakes, TLS 1.2 | $ro /s | $rn /s | $(div "$ro" "$rn") | $(med reuse_ratio) | ≥ 0.8 |"
echo "| GET 4 KiB, kept-alive HTTPS | $g4o req/s | $g4n req/s | $(div "$g4o" "$g4n") | $(med get4k_ratio) | ≥ the plain-HTTP ratio |"
echo "| GET 4 KiB, kept-alive plain HTTP | $p4o req/s | $p4n req/s | $(div "$p4o" "$p4n") | $(med plain4k_ratio) | (the plain-HTTP ratio) |"
echo "| GET 1 MiB, kept-alive HTTPS | $g1o req/s ($(mbs "$g1o" 1048576) MB/s) | $g1n req/s ($(mbs "$g1n" 1048576) MB/s) | $(div "$g1o" "$g1n") | $(med get1m_ratio) | ≥ 0.8 |"
