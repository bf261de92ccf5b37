#!/usr/bin/env bash
# What verifying request signatures costs: two orbmux daemons in one run, one checking signatures (the
# default) and one with signatures="off", each answering the same kind of request signed with Signature
# Version 4 by botocore for its own tenant. wrk sends that request again and again over kept-alive
# connections (a signed request stays valid for 15 minutes, far longer than a run); until the S3
# operations exist, both answer it with NotImplemented after admission. Prints every run, the medians and
# the ratio off / on.
#
#   bash bench/s3_auth_rps.sh            # ROUNDS=3 SECONDS_PER_RUN=8 CONNS=100 THREADS=2 by default
set -euo pipefail
cd "$(dirname "$0")/.."

ROUNDS=${ROUNDS:-3}
DURATION=${SECONDS_PER_RUN:-8}
CONNS=${CONNS:-100}
THREADS=${THREADS:-2}

command -v wrk >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -q wrk >/dev/null
[ -x build/release/src/orbmux ] || bash scripts/build.sh release >/dev/null

work=$(mktemp -d /tmp/orbmux-bench-XXXXXX)
free_port() { /usr/bin/python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
cleanup() {
  for d in on off; do
    pidfile="$work/$d/var/run/orbmux//orbmux.pid"
    [ -f "$pidfile" ] && kill "$(cat "$pidfile")" 2>/dev/null || true
  done
  sleep 1
  rm -rf "$work"
}
trap cleanup EXIT

start() {  # start <name> <port> <signatures attribute or empty>
  local dir=$work/$1
  mkdir -p "$dir/etc/orbmux"
  printf '<?xml version="1.0"?>\n<orbmux interval="10" conf_path="/etc/orbmux" %s/>\n<cache max_mem="0B" tmp="/tmp/orbmux/"/>\n' "$3" \
    >"$dir/etc/orbmux/orbmux.conf"
  /usr/bin/python3 scripts/orbmux-tenant add --prefix "$dir" --cluster-path "$dir/cluster" --name bench \
    --port "$2" --json >"$dir/tenant.json"
  ORBMUX_PREFIX=$dir build/release/src/orbmux </dev/null >"$dir/orbmux.log" 2>&1
}

# A wrk script that sends one request, signed now by botocore for the tenant in the given file.
signed_script() {  # signed_script <tenant.json> <port> <out.lua>
  /usr/bin/python3 - "$1" "$2" "$3" <<'PY'
import json, sys
from botocore.auth import S3SigV4Auth
from botocore.awsrequest import AWSRequest
from botocore.credentials import Credentials
tenant = json.load(open(sys.argv[1]))
port = sys.argv[2]
req = AWSRequest(method="GET", url=f"http://127.0.0.1:{port}/bench?list-type=2&prefix=a",
                 headers={"x-amz-content-sha256": "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"})
S3SigV4Auth(Credentials(tenant["access_key"], tenant["secret_key"]), "s3", "us-east-1").add_auth(req)
lines = ['wrk.method = "GET"', 'wrk.path = "/bench?list-type=2&prefix=a"']
for k, v in req.headers.items():
    lines.append('wrk.headers["%s"] = "%s"' % (k, v))
lines.append('wrk.headers["Host"] = "127.0.0.1:%s"' % port)
open(sys.argv[3], "w").write("\n".join(lines) + "\n")
PY
}

on_port=$(free_port)
off_port=$(free_port)
start on "$on_port" ""
start off "$off_port" 'signatures="off"'

wait_port() {
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "port $1 never answered" >&2
  exit 1
}
wait_port "$on_port"
wait_port "$off_port"
signed_script "$work/on/tenant.json" "$on_port" "$work/on.lua"
signed_script "$work/off/tenant.json" "$off_port" "$work/off.lua"

# Both must pass admission: a refused request would measure the wrong road.
for d in on off; do
  port_var=${d}_port
  status=$(/usr/bin/python3 - "$work/$d.lua" "${!port_var}" <<'PY'
import http.client, re, sys
script = open(sys.argv[1]).read()
headers = dict(re.findall(r'wrk.headers\["([^"]+)"\] = "([^"]*)"', script))
path = re.search(r'wrk.path = "([^"]+)"', script).group(1)
c = http.client.HTTPConnection("127.0.0.1", int(sys.argv[2]))
c.request("GET", path, headers=headers)
r = c.getresponse()
body = r.read().decode()
print(r.status, re.search(r"<Code>([^<]*)</Code>", body).group(1) if "<Code>" in body else "")
PY
)
  echo "signatures $d: a signed request gets $status"
  case "$status" in "501 NotImplemented") ;; *) echo "unexpected answer; see $work/$d/orbmux.log" >&2; exit 1 ;; esac
done

rps() { wrk -t"$THREADS" -c"$CONNS" -d"${DURATION}s" -s "$2" "http://127.0.0.1:$1" | awk '/Requests\/sec/ {print $2}'; }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
on=() off=()
for i in $(seq "$ROUNDS"); do
  a=$(rps "$on_port" "$work/on.lua"); b=$(rps "$off_port" "$work/off.lua")
  on+=("$a"); off+=("$b")
  echo "round $i: verified $a req/s, not verified $b req/s"
done
om=$(printf '%s\n' "${on[@]}" | median)
fm=$(printf '%s\n' "${off[@]}" | median)
echo "median: verified $om req/s, not verified $fm req/s, verified / not verified $(awk -v a="$om" -v b="$fm" 'BEGIN {printf "%.2f", a / b}')"
