#!/usr/bin/env bash
# PUT 4 KiB with versioning enabled beside the same PUT without it, in one run on this machine.
#
# One sandboxed orbmux with one tenant and two buckets: "plain" (versioning never set) and "kept"
# (versioning enabled, the default bound of 10 versions per key, so once warm every PUT keeps the old
# content as a version and retires the eldest to the recycle tree). wrk replays one signed PUT of the same
# 4 KiB body to one key of each bucket over kept-alive connections, the two alternately, ROUNDS times each.
# Prints every round, the medians and their ratio (versioned / unversioned).
#
#   bash bench/versions_put.sh    # ROUNDS=5 SECONDS_PER_RUN=6 CONNS=32 THREADS=2
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-5}
DURATION=${SECONDS_PER_RUN:-6}
CONNS=${CONNS:-32}
THREADS=${THREADS:-2}

command -v wrk >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -q wrk >/dev/null
[ -x build/release/src/orbmux ] || ninja -C build/release src/orbmux >/dev/null

work=$(mktemp -d /tmp/orbmux-verbench-XXXXXX)
port=$(/usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
cleanup() {
  [ -f "$work/var/run/orbmux//orbmux.pid" ] && kill "$(cat "$work/var/run/orbmux//orbmux.pid")" 2>/dev/null || true
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT
client() { /usr/bin/python3 bench/object_client.py "$work/tenant.json" "$port" "$@"; }

/usr/bin/python3 scripts/orbmux-tenant add --prefix "$work" --cluster-path "$work/cluster" --name bench \
  --port "$port" --json >"$work/tenant.json"
ORBMUX_PREFIX=$work build/release/src/orbmux </dev/null >"$work/orbmux.log" 2>&1
for _ in $(seq 200); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break; sleep 0.1; done
head -c 4096 /dev/urandom >"$work/body4k"
client prepare plain seed="$work/body4k"
client prepare kept seed="$work/body4k"
client versioning kept Enabled
client put-lua plain obj "$work/body4k" "$work/plain.lua"
client put-lua kept obj "$work/body4k" "$work/kept.lua"
for b in plain kept; do
  got=$(client check-lua "$work/$b.lua")
  [ "$got" = "200 0-bytes" ] || { echo "PUT to $b answered $got; see $work/orbmux.log" >&2; exit 1; }
done

rps() {  # rps <script>
  local out
  out=$(wrk -t"$THREADS" -c"$CONNS" -d"${DURATION}s" -s "$1" "http://127.0.0.1:$port/")
  if grep -q 'Non-2xx' <<<"$out"; then echo "errors under load: $out" >&2; exit 1; fi
  awk '/Requests\/sec/ {print $2}' <<<"$out"
}
median() { sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

: >"$work/plain.rps"
: >"$work/kept.rps"
: >"$work/ratio"
for r in $(seq "$ROUNDS"); do
  p=$(rps "$work/plain.lua")
  k=$(rps "$work/kept.lua")
  echo "round $r: unversioned $p req/s, versioned $k req/s"
  echo "$p" >>"$work/plain.rps"
  echo "$k" >>"$work/kept.rps"
  awk -v p="$p" -v k="$k" 'BEGIN {print k / p}' >>"$work/ratio"
done
p=$(median <"$work/plain.rps")
k=$(median <"$work/kept.rps")
versions=$(find "$work/cluster" -path '*/version/*' -name 'obj..*' | wc -l)
recycled=$(find "$work/cluster" -path '*/recycle/*' -name 'obj..*' | wc -l)
echo "after the run: $versions versions of the key, $recycled retired to the recycle tree"
echo
r=$(median <"$work/ratio")
echo "| PUT 4 KiB, $CONNS connections | unversioned req/s | versioned req/s | ratio of medians | median of round ratios |"
echo "|---|---|---|---|---|"
awk -v p="$p" -v k="$k" -v r="$r" 'BEGIN {printf "| median of %d rounds | %.0f | %.0f | %.2f | %.2f |\n", '"$ROUNDS"', p, k, k / p, r}'
