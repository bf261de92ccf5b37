#!/usr/bin/env bash
# Listing a large bucket: ListObjectsV2 with 1000-key pages over buckets of SIZES objects, flat and spread
# over 100 prefixes; how long a whole listing takes and what one page costs as the bucket grows.
#
# One sandboxed orbmux with one tenant. The objects are laid into the bucket's meta tree directly by
# bench/list_fill.cpp, which writes each record with the server's own record writer (no data files: a
# listing reads only the meta tree). For each size, ROUNDS times:
#   1. every key of the flat bucket, 1000 keys a page, one connection   -> seconds, pages/s, keys/s
#   2. one page from the start, and one from the middle (start-after)  -> median ms of PAGE_REPEAT
# and for the largest size the same bucket spread over 100 prefixes ("p000/" .. "p099/"): every key, and
# the top level with delimiter "/" (100 common prefixes).
#
#   bash bench/list_keys.sh    # SIZES="10000 50000 100000" ROUNDS=3 PAGE_REPEAT=20
#                              # ORBMUX_BUILD=build/release (the build whose orbmux and libraries are used)
set -euo pipefail
cd "$(dirname "$0")/.."

SIZES=${SIZES:-"10000 50000 100000"}
ROUNDS=${ROUNDS:-3}
PAGE_REPEAT=${PAGE_REPEAT:-20}
BUILD=${ORBMUX_BUILD:-build/release}
[ -x "$BUILD/src/orbmux" ] || { echo "no orbmux in $BUILD (set ORBMUX_BUILD)" >&2; exit 1; }

work=$(mktemp -d /tmp/orbmux-listbench-XXXXXX)
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
client() { /usr/bin/python3 bench/list_client.py "$work/tenant.json" "$port" "$@"; }
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# The filler links the server's libraries of that build: it is a load tool, not part of the build.
libs=()
for l in core event memory control http s3 storage access versions tls; do
  [ -f "$BUILD/src/liborbs3_$l.a" ] && libs+=("$BUILD/src/liborbs3_$l.a")
done
g++ -std=c++20 -O2 -D_GNU_SOURCE -Isrc -I/usr/include/json-c -I/usr/include/uuid -o "$work/list_fill" \
  bench/list_fill.cpp -Wl,--start-group "${libs[@]}" -Wl,--end-group -lssl -lcrypto -lmxml -ljson-c -luuid -pthread

/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$port" --json >"$work/tenant.json"
ORBMUX_PREFIX=$work "$BUILD/src/orbmux" </dev/null >"$work/orbmux.log" 2>&1
wait_port "$port"
client create flat
client create spread
meta_of() { find "$work/cluster/tenants" -maxdepth 5 -type d -path "*/meta/*/object/$1" | head -1; }
flat=$(meta_of flat); spread=$(meta_of spread)
[ -n "$flat" ] && [ -n "$spread" ] || { echo "bucket meta directories not found" >&2; exit 1; }

echo "machine: $(nproc) cores, $(uname -r); meta tree on:"
df -T "$flat" | sed 's/^/  /'

have=0
declare -A ALL PAGE0 PAGEMID
for n in $SIZES; do
  "$work/list_fill" "$flat" "$have" "$n"
  have=$n
  for i in $(seq "$ROUNDS"); do
    read -r keys pages secs < <(client all flat)
    [ "$keys" = "$n" ] || { echo "listed $keys keys of $n" >&2; exit 1; }
    ALL[$n]="${ALL[$n]:-} $secs"
    read -r p0 _ < <(client page flat "" "$PAGE_REPEAT")
    read -r pm _ < <(client page flat "$(printf 'k%07d' $((n / 2)))" "$PAGE_REPEAT")
    PAGE0[$n]="${PAGE0[$n]:-} $p0"; PAGEMID[$n]="${PAGEMID[$n]:-} $pm"
    echo "flat $n keys, round $i: all $keys keys in $pages pages, $secs s; one page: first $p0 ms, middle $pm ms"
  done
done

last=${SIZES##* }
"$work/list_fill" "$spread" 0 "$last" 100
SPREAD_ALL=""; SPREAD_TOP=""
for i in $(seq "$ROUNDS"); do
  read -r keys pages secs < <(client all spread)
  [ "$keys" = "$last" ] || { echo "listed $keys keys of $last" >&2; exit 1; }
  read -r tkeys tpages tsecs < <(client all spread /)
  [ "$tkeys" = 100 ] || { echo "top level gave $tkeys common prefixes" >&2; exit 1; }
  SPREAD_ALL+=" $secs"; SPREAD_TOP+=" $tsecs"
  echo "spread $last keys over 100 prefixes, round $i: all in $pages pages, $secs s; top level with delimiter / $tsecs s"
done

echo
echo "Medians of $ROUNDS rounds; pages of 1000 keys over one kept-alive connection; one page: median of $PAGE_REPEAT:"
echo
echo "| Bucket | Whole listing | Pages/s | Keys/s | One page, first | One page, middle |"
echo "|---|---|---|---|---|---|"
for n in $SIZES; do
  s=$(printf '%s\n' ${ALL[$n]} | median)
  p0=$(printf '%s\n' ${PAGE0[$n]} | median); pm=$(printf '%s\n' ${PAGEMID[$n]} | median)
  pages=$(( (n + 999) / 1000 ))
  echo "| $n keys, flat | $s s | $(awk -v p=$pages -v s=$s 'BEGIN{printf "%.0f", p/s}') | $(awk -v k=$n -v s=$s 'BEGIN{printf "%.0f", k/s}') | $p0 ms | $pm ms |"
done
s=$(printf '%s\n' $SPREAD_ALL | median); t=$(printf '%s\n' $SPREAD_TOP | median)
pages=$(( (last + 999) / 1000 ))
echo "| $last keys, 100 prefixes | $s s | $(awk -v p=$pages -v s=$s 'BEGIN{printf "%.0f", p/s}') | $(awk -v k=$last -v s=$s 'BEGIN{printf "%.0f", k/s}') | top level, delimiter /: $t s | |"
