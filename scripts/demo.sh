#!/usr/bin/env bash
# Installs what is missing, builds the release daemon and starts it under a sandbox prefix.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/build.sh release

prefix=${ORBMUX_PREFIX:-$PWD/demo}
port=${ORBMUX_DEMO_PORT:-9000}
mkdir -p "$prefix"
# The demo tenant is made once; its keys are printed only by the tool, so its answer is kept.
tenant_json="$prefix/tenant-demo.json"
if [ ! -s "$tenant_json" ]; then
  /usr/bin/python3 scripts/orbmux-tenant add --prefix "$prefix" --cluster-path "$prefix/cluster" \
    --name demo --address 127.0.0.1 --port "$port" --json > "$tenant_json.tmp"
  mv "$tenant_json.tmp" "$tenant_json"
fi

bin=$PWD/build/release/src/orbmux
pidfile="$prefix/var/run/orbmux//orbmux.pid"
if [ -f "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; then
  echo "orbmux already runs under $prefix (pid $(cat "$pidfile")); stopping it first"
  ORBMUX_PREFIX=$prefix "$bin" -s stop
  for _ in $(seq 50); do [ -f "$pidfile" ] || break; sleep 0.1; done
fi
rm -f "$pidfile"

# The daemon keeps the descriptors it was started with: both go to the log, so no caller waits on them.
ORBMUX_PREFIX=$prefix ORBMUX_LOG_STDERR=1 "$bin" </dev/null >>"$prefix/orbmux.log" 2>&1
for _ in $(seq 50); do [ -s "$pidfile" ] && break; sleep 0.1; done
[ -s "$pidfile" ] || { echo "orbmux did not start; see $prefix/orbmux.log" >&2; exit 1; }

field() { /usr/bin/python3 -c 'import json,sys; print(json.load(open(sys.argv[1]))[sys.argv[2]])' "$tenant_json" "$1"; }
endpoint=$(field endpoint)
demo_port=${endpoint##*:}
# With no cluster controller on this machine the node decides after two 3-second passes that it starts
# offline, then loads its tenants and forks their workers.
echo "waiting for the demo tenant on $endpoint ..."
for _ in $(seq 150); do
  (exec 3<>"/dev/tcp/127.0.0.1/$demo_port") 2>/dev/null && break
  sleep 0.1
done
(exec 3<>"/dev/tcp/127.0.0.1/$demo_port") 2>/dev/null || { echo "no service on $endpoint; see $prefix/orbmux.log" >&2; exit 1; }

cat <<TXT
orbmux started: master pid $(cat "$pidfile"), prefix $prefix
  endpoint:          $endpoint
  access key id:     $(field access_key)
  secret access key: $(field secret_key)
  log:               $prefix/orbmux.log
  tenant files:      $(dirname "$(field group_file)")  (see docs/tenants.md)
  stop:              ORBMUX_PREFIX=$prefix $bin -s stop
  try:               export AWS_ACCESS_KEY_ID=$(field access_key) AWS_SECRET_ACCESS_KEY=$(field secret_key)
                     s3() { aws --endpoint-url $endpoint --region us-east-1 s3 "\$@"; }
                     s3 mb s3://demo-bucket
                     s3 sync docs s3://demo-bucket/docs/
                     head -c 20M /dev/urandom > /tmp/big.bin; s3 cp /tmp/big.bin s3://demo-bucket/big.bin
                     s3 ls --recursive s3://demo-bucket
                     s3 cp s3://demo-bucket/docs/tenants.md /tmp/tenants.copy
                     s3 rm --recursive s3://demo-bucket/docs/
                     s3 rb --force s3://demo-bucket
                     (the 20 MiB copy goes up as a multipart upload; rb --force deletes what is left first)
TXT
