#!/usr/bin/env bash
# Scale-out: haproxy (round robin, keep-alive both sides) in front of N hvserve processes, and
# wrk's small-call rate through it next to one hvserve alone.
# usage: bench/server/haproxy_scaleout.sh BUILD_DIRECTORY [N] [SECONDS] [CONNECTIONS]
set -euo pipefail
build=$1; n=${2:-2}; secs=${3:-5}; conns=${4:-16}
work=$(mktemp -d); pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; rm -rf "$work"' EXIT
free_port() { python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])'; }
body='<?xml version="1.0"?><methodCall><methodName>examples.add</methodName><params><param><value><i4>2</i4></value></param><param><value><i4>3</i4></value></param></params></methodCall>'
printf 'wrk.method = "POST"\nwrk.headers["Content-Type"] = "text/xml"\nwrk.body = [==[%s]==]\n' "$body" >"$work/call.lua"
servers=""
for i in $(seq 1 "$n"); do
  port=$(free_port)
  "$build/tools/hvserve" --port "$port" >"$work/hv$i.out" 2>/dev/null & pids+=($!)
  servers+="  server s$i 127.0.0.1:$port"$'\n'
  first=${first:-$port}
done
front=$(free_port)
cat >"$work/haproxy.cfg" <<CFG
global
  maxconn 4096
defaults
  mode http
  timeout connect 5s
  timeout client 30s
  timeout server 30s
  option http-keep-alive
frontend rpc
  bind 127.0.0.1:$front
  default_backend hvserve
backend hvserve
  balance roundrobin
$servers
CFG
haproxy -f "$work/haproxy.cfg" -db >/dev/null 2>&1 & pids+=($!)
sleep 1
rate() { wrk -t 2 -c "$conns" -d "${secs}s" -s "$work/call.lua" "$1" | sed -n 's/^Requests\/sec: *//p'; }
echo "one hvserve:                  $(rate "http://127.0.0.1:$first/RPC2") requests/s"
echo "haproxy + $n hvserve processes: $(rate "http://127.0.0.1:$front/RPC2") requests/s"
