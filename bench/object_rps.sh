#!/usr/bin/env bash
# Object GET and PUT, orbmux beside a reference in one run on this machine, reported as ratios.
#
# One sandboxed orbmux with one tenant and one bucket; nginx serves the bucket's data directory, so both
# send the very same files. Five measurements, each ROUNDS times, orbmux and its reference alternately:
#   1. 4 KiB GET   signed GET replayed by wrk over kept-alive connections  vs  nginx, same file
#   2. 1 MiB GET   the same                                                  vs  nginx, same file
#   3. 4 KiB PUT   signed PUT, its body's SHA-256 signed, so the server hashes and checks every body
#                  vs  bench/put_syscalls.cpp: the file-system calls of one such PUT (object data
#                  created, written, fsynced and renamed over the object; object record and bucket record
#                  each replaced through a temporary file, fsync and rename and a directory fsync; the
#                  bucket record read first) in LOOP_THREADS threads on the same file system
#   4. 1 GiB PUT   one connection, UNSIGNED-PAYLOAD (the server takes only MD5 over the bytes)
#                  vs  one core's MD5 (openssl speed) and vs dd of 1 GiB with conv=fsync to the same tree
#   5. 1 GiB GET   that object read back over one connection by curl (presigned URL)  vs  nginx
# Prints every round, the medians and a Markdown table of ratios.
#
#   bash bench/object_rps.sh    # ROUNDS=3 SECONDS_PER_RUN=8 CONNS=100 THREADS=2 PUT_CONNS=$CONNS
#                               # LOOP_THREADS="2 4" (the PUT ratio is taken against the last) BIG_MIB=1024
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-3}
DURATION=${SECONDS_PER_RUN:-8}
CONNS=${CONNS:-100}
THREADS=${THREADS:-2}
PUT_CONNS=${PUT_CONNS:-$CONNS}
LOOP_THREADS=${LOOP_THREADS:-"2 4"}
BIG_MIB=${BIG_MIB:-1024}
BIG=$((BIG_MIB * 1048576))

need=()
command -v wrk >/dev/null || need+=(wrk)
command -v nginx >/dev/null || need+=(nginx-light)
command -v curl >/dev/null || need+=(curl)
command -v g++ >/dev/null || need+=(g++)
if [ ${#need[@]} -gt 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${need[@]}" >/dev/null
fi
[ -x build/release/src/orbmux ] || ninja -C build/release src/orbmux >/dev/null

work=$(mktemp -d /tmp/orbmux-objbench-XXXXXX)
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

client() { /usr/bin/python3 bench/object_client.py "$work/tenant.json" "$orb_port" "$@"; }
wait_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "port $1 never answered" >&2
  exit 1
}

# The file-system reference, built here: it is a load tool, not part of the server's build.
g++ -std=c++20 -O2 -Wall -Wextra -pthread -o "$work/put_syscalls" bench/put_syscalls.cpp

# orbmux, one tenant, one bucket with a 4 KiB and a 1 MiB object of random bytes.
/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$orb_port" --json >"$work/tenant.json"
ORBMUX_PREFIX=$work build/release/src/orbmux </dev/null >"$work/orbmux.log" 2>&1
wait_port "$orb_port"
head -c 4096 /dev/urandom >"$work/body4k"
head -c 1048576 /dev/urandom >"$work/body1m"
client prepare bench obj4k="$work/body4k" obj1m="$work/body1m"
bucket_dir=$(dirname "$(find "$work/cluster/tenants" -path '*/data/*' -name obj4k)")
record=$(find "$work/cluster/tenants" -path '*/meta/*/object/*' -name obj4k)
bucket_record=$(find "$work/cluster/tenants" -path '*/meta/*/bucket/*' -name bench)
cmp -s "$bucket_dir/obj4k" "$work/body4k" || { echo "object data file not found where expected" >&2; exit 1; }

# nginx on the bucket's data directory. Workers run as root: the sandbox's directories are 0700.
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
  server {
    listen 127.0.0.1:$ngx_port reuseport;
    root $bucket_dir;
  }
}
CONF
nginx -p "$work/nginx" -c "$work/nginx/nginx.conf"
wait_port "$ngx_port"

client get-lua bench obj4k "$work/get4k.lua"
client get-lua bench obj1m "$work/get1m.lua"
client put-lua bench put4k "$work/body4k" "$work/put4k.lua"

echo "machine: $(nproc) cores; file systems (orbmux tree, reference loop, dd target):"
df -T "$bucket_dir" "$work" | sed 's/^/  /'
echo "object record $(stat -c %s "$record") bytes, bucket record $(stat -c %s "$bucket_record") bytes"

# The first answer of each kind, before any load: an error answered fast would measure the wrong road.
check() {  # check <label> <got> <want>
  echo "check $1: $2"
  [ "$2" = "$3" ] || { echo "unexpected answer for $1; see $work/orbmux.log" >&2; exit 1; }
}
check "orbmux GET 4 KiB" "$(client check-lua "$work/get4k.lua")" "200 4096-bytes"
check "orbmux GET 1 MiB" "$(client check-lua "$work/get1m.lua")" "200 1048576-bytes"
check "orbmux PUT 4 KiB" "$(client check-lua "$work/put4k.lua")" "200 0-bytes"
check "nginx GET 4 KiB" "$(curl -s -o /dev/null -w '%{http_code} %{size_download}' "http://127.0.0.1:$ngx_port/obj4k")" "200 4096"
check "nginx GET 1 MiB" "$(curl -s -o /dev/null -w '%{http_code} %{size_download}' "http://127.0.0.1:$ngx_port/obj1m")" "200 1048576"
cmp -s "$bucket_dir/put4k" "$work/body4k" || { echo "PUT did not store the body" >&2; exit 1; }
record_bytes=$(stat -c %s "$(dirname "$record")/put4k")
bucket_bytes=$(stat -c %s "$bucket_record")

# wrk's requests per second; any non-2xx answers are kept for the summary.
wrk_rps() {  # wrk_rps <label> <conns> <url> [script]
  local out
  out=$(wrk -t"$THREADS" -c"$2" -d"${DURATION}s" ${4:+-s "$4"} "$3")
  local bad
  bad=$(awk '/Non-2xx or 3xx responses/ {print $NF}' <<<"$out")
  [ -n "$bad" ] && echo "$1: $bad Non-2xx or 3xx responses" >>"$work/non2xx"
  awk '/Requests\/sec/ {print $2}' <<<"$out"
}
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
div() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }
mbs() { awk -v r="$1" -v s="$2" 'BEGIN {printf "%.1f", r * s / 1e6}'; }  # req/s × bytes → MB/s

declare -A R  # R[name] = the values of each round, space-separated
add() { R[$1]="${R[$1]:-} $2"; }
med() { printf '%s\n' ${R[$1]} | median; }

orb="http://127.0.0.1:$orb_port"
ngx="http://127.0.0.1:$ngx_port"
for i in $(seq "$ROUNDS"); do
  a=$(wrk_rps "orbmux GET 4 KiB" "$CONNS" "$orb" "$work/get4k.lua"); add get4k_orb "$a"
  b=$(wrk_rps "nginx GET 4 KiB" "$CONNS" "$ngx/obj4k"); add get4k_ngx "$b"
  echo "round $i: GET 4 KiB    orbmux $a req/s, nginx $b req/s"

  a=$(wrk_rps "orbmux GET 1 MiB" "$CONNS" "$orb" "$work/get1m.lua"); add get1m_orb "$a"
  b=$(wrk_rps "nginx GET 1 MiB" "$CONNS" "$ngx/obj1m"); add get1m_ngx "$b"
  echo "round $i: GET 1 MiB    orbmux $a req/s ($(mbs "$a" 1048576) MB/s), nginx $b req/s ($(mbs "$b" 1048576) MB/s)"

  a=$(wrk_rps "orbmux PUT 4 KiB" "$PUT_CONNS" "$orb" "$work/put4k.lua"); add put4k_orb "$a"
  line="round $i: PUT 4 KiB    orbmux $a PUT/s ($PUT_CONNS connections)"
  for t in $LOOP_THREADS; do
    rm -rf "$work/putloop"; mkdir "$work/putloop"
    b=$("$work/put_syscalls" "$work/putloop" "$t" "$DURATION" 4096 "$record_bytes" "$bucket_bytes" |
      awk '{print $(NF-1)}')
    add "put4k_loop$t" "$b"
    line+=", file-system loop $t threads $b PUT/s"
  done
  rm -rf "$work/putloop"
  echo "$line"

  read -r status secs sent_secs < <(client big-put bench big "$BIG")
  [ "$status" = 200 ] || { echo "large PUT answered $status" >&2; exit 1; }
  a=$(awk -v n="$BIG" -v s="$secs" 'BEGIN {printf "%.1f", n / s / 1e6}'); add bigput_orb "$a"
  m=$(openssl speed -evp md5 -bytes 1048576 -seconds 3 2>/dev/null | awk '/^md5/ {sub("k", "", $NF); printf "%.1f", $NF / 1000}')
  add md5 "$m"
  d=$(dd if=/dev/zero of="$work/dd.bin" bs=1M count="$BIG_MIB" conv=fsync 2>&1 | awk 'END {printf "%.1f", $1 / $(NF-3) / 1e6}')
  rm -f "$work/dd.bin"; add dd "$d"
  echo "round $i: PUT $BIG_MIB MiB  orbmux $a MB/s (body sent after $sent_secs of $secs s), MD5 one core $m MB/s, dd conv=fsync $d MB/s"

  url=$(client presign bench big)
  read -r code speed < <(curl -s -o /dev/null -w '%{http_code} %{speed_download}\n' "$url")
  [ "$code" = 200 ] || { echo "large GET answered $code" >&2; exit 1; }
  a=$(awk -v s="$speed" 'BEGIN {printf "%.1f", s / 1e6}'); add bigget_orb "$a"
  read -r code speed < <(curl -s -o /dev/null -w '%{http_code} %{speed_download}\n' "$ngx/big")
  [ "$code" = 200 ] || { echo "nginx large GET answered $code" >&2; exit 1; }
  b=$(awk -v s="$speed" 'BEGIN {printf "%.1f", s / 1e6}'); add bigget_ngx "$b"
  echo "round $i: GET $BIG_MIB MiB  orbmux $a MB/s, nginx $b MB/s"
done

last_t=${LOOP_THREADS##* }
g4o=$(med get4k_orb); g4n=$(med get4k_ngx)
g1o=$(med get1m_orb); g1n=$(med get1m_ngx)
p4o=$(med put4k_orb); p4l=$(med "put4k_loop$last_t")
bpo=$(med bigput_orb); md5=$(med md5); ddm=$(med dd)
bgo=$(med bigget_orb); bgn=$(med bigget_ngx)

echo
echo "Medians of $ROUNDS rounds, ${DURATION} s per wrk or loop run, wrk -t$THREADS -c$CONNS (PUT -c$PUT_CONNS):"
echo
echo "| Measurement | orbmux | Reference | Ratio | Target |"
echo "|---|---|---|---|---|"
echo "| GET 4 KiB | $g4o req/s | nginx $g4n req/s | $(div "$g4o" "$g4n") | ≥ 0.5 |"
echo "| GET 1 MiB | $g1o req/s ($(mbs "$g1o" 1048576) MB/s) | nginx $g1n req/s ($(mbs "$g1n" 1048576) MB/s) | $(div "$g1o" "$g1n") | ≥ 0.9 |"
for t in $LOOP_THREADS; do
  l=$(med "put4k_loop$t")
  target="—"; [ "$t" = "$last_t" ] && target="≥ 0.5"
  echo "| PUT 4 KiB | $p4o PUT/s | file-system loop, $t threads, $l PUT/s | $(div "$p4o" "$l") | $target |"
done
echo "| PUT $BIG_MIB MiB, one connection | $bpo MB/s | MD5 one core $md5 MB/s | $(div "$bpo" "$md5") | ≥ 0.8 |"
echo "| PUT $BIG_MIB MiB, one connection | $bpo MB/s | dd conv=fsync $ddm MB/s | $(div "$bpo" "$ddm") | — |"
echo "| GET $BIG_MIB MiB, one connection | $bgo MB/s | nginx $bgn MB/s | $(div "$bgo" "$bgn") | — |"
echo
if [ -s "$work/non2xx" ]; then
  echo "Non-2xx or 3xx responses seen:"; sed 's/^/  /' "$work/non2xx"
else
  echo "Non-2xx or 3xx responses: none in any wrk run."
fi
