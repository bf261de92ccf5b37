#!/usr/bin/env bash
# Multipart upload throughput: a file sent in parts PARALLEL at a time and then completed, beside the
# same bytes sent as one PutObject, and beside a cp of the file on the same file system (followed by an
# fsync of the copy, as Complete flushes the object it assembles). Complete's own time is reported apart:
# it copies the parts into the object with copy_file_range, so it should cost no more than one
# sequential copy of the object.
#
#   bash bench/multipart.sh     # ROUNDS=3 SIZE_MIB=1024 PART_MIB=64 PARALLEL=8
#                               # ORBMUX_BIN=build/release/src/orbmux
# Prints every round, then the medians as a Markdown table.
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-3}
SIZE_MIB=${SIZE_MIB:-1024}
PART_MIB=${PART_MIB:-64}
PARALLEL=${PARALLEL:-8}
BIN=${ORBMUX_BIN:-build/release/src/orbmux}
[ -x "$BIN" ] || ninja -C build/release src/orbmux >/dev/null

work=$(mktemp -d /tmp/orbmux-mpbench-XXXXXX)
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
port=$(free_port)
cleanup() {
  [ -f "$work/var/run/orbmux//orbmux.pid" ] && kill "$(cat "$work/var/run/orbmux//orbmux.pid")" 2>/dev/null || true
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
client() { /usr/bin/python3 bench/multipart_client.py "$work/tenant.json" "$port" "$@"; }

/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$port" --json >"$work/tenant.json"
ORBMUX_PREFIX=$work "$BIN" </dev/null >"$work/orbmux.log" 2>&1
wait_port "$port"
client prepare bench
head -c $((SIZE_MIB * 1048576)) /dev/urandom >"$work/src"
want=$(md5sum "$work/src" | cut -d' ' -f1)

med() { sort -g | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
: >"$work/mp_parts"; : >"$work/mp_complete"; : >"$work/put"; : >"$work/cp"
for round in $(seq "$ROUNDS"); do
  read -r parts complete etag < <(client multipart bench "mp$round" "$work/src" "$PART_MIB" "$PARALLEL")
  data=$(find "$work/cluster/tenants" -path '*/data/*' -name "mp$round")
  [ "$(md5sum "$data" | cut -d' ' -f1)" = "$want" ] || { echo "assembled object differs" >&2; exit 1; }
  read -r put _ < <(client put bench "put$round" "$work/src")
  dir=$(dirname "$data")
  start=$(date +%s.%N)
  cp "$work/src" "$dir/cp$round" && sync "$dir/cp$round"
  cp_s=$(printf "%.3f" "$(echo "$(date +%s.%N) - $start" | bc)")
  rm -f "$dir/cp$round"
  echo "round $round: parts ${parts}s  complete ${complete}s  put ${put}s  cp+fsync ${cp_s}s  ($etag)"
  echo "$parts" >>"$work/mp_parts"; echo "$complete" >>"$work/mp_complete"
  echo "$put" >>"$work/put"; echo "$cp_s" >>"$work/cp"
done

mib=$SIZE_MIB
p=$(med <"$work/mp_parts"); c=$(med <"$work/mp_complete"); u=$(med <"$work/put"); k=$(med <"$work/cp")
rate() { echo "scale=0; $mib / $1" | bc; }
total=$(printf "%.3f" "$(echo "$p + $c" | bc)")
echo
echo "| ${mib} MiB, medians of $ROUNDS | seconds | MiB/s |"
echo "|---|---|---|"
echo "| multipart: $PARALLEL parallel parts of $PART_MIB MiB | $p | $(rate "$p") |"
echo "| multipart: Complete (assembly) | $c | $(rate "$c") |"
echo "| multipart: parts + Complete | $total | $(rate "$total") |"
echo "| one PutObject | $u | $(rate "$u") |"
echo "| cp + fsync on the same file system | $k | $(rate "$k") |"
