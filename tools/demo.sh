#!/usr/bin/env bash
# The demo behind "./hv demo": starts hvserve on a free loopback port, calls it with hvcall in
# XML-RPC, SOAP-1999 and SOAP-2001 (faults included), printing each command, what goes out and
# what comes back, then stops the server.
# Usage: tools/demo.sh [BUILD_DIR]   (default build/dev, the tree "./hv demo" builds)
set -euo pipefail

build=${1:-build/dev}
hvserve=$build/tools/hvserve
hvcall=$build/tools/hvcall
if [ ! -x "$hvserve" ] || [ ! -x "$hvcall" ]; then
  echo "demo: $hvserve and $hvcall are not built (./hv demo builds them)" >&2
  exit 1
fi

work=$(mktemp -d)
"$hvserve" --port 0 >"$work/out" 2>"$work/err" &
server=$!
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; rm -rf "$work"' EXIT

# hvserve prints the port it listens on as its first line.
port=
for _ in $(seq 100); do
  port=$(head -n 1 "$work/out")
  [ -n "$port" ] && break
  sleep 0.1
done
if [ -z "$port" ]; then
  echo "demo: hvserve did not start" >&2
  cat "$work/err" >&2
  exit 1
fi
url=http://127.0.0.1:$port
echo "hvserve is listening on $url (XML-RPC at /RPC2, SOAP at /soap)"

bold= plain=
if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; fi

# call TITLE ARGS...: prints the title and the command as one would type it, then runs it.
call() {
  local title=$1 shown=hvcall arg
  shift
  for arg in "$@"; do
    if [[ $arg =~ ^[A-Za-z0-9_./:=,+-]+$ ]]; then shown+=" $arg"; else shown+=" '$arg'"; fi
  done
  printf '\n%s== %s%s\n$ %s\n' "$bold" "$title" "$plain" "$shown"
  "$hvcall" "$@" 2>&1 || echo "(exit status $?: the call ended in a fault)"
}

call "XML-RPC: a call, with the request and the reply (--show-wire)" \
  --show-wire "$url/RPC2" examples.add 2 3
call "XML-RPC: every kind of value goes out and comes back" \
  "$url/RPC2" examples.echo '{"name": "Ada", "born": {"$date": "1815-12-10T00:00:00Z"}, "portrait": {"$base64": "SGFsdm9z"}, "languages": ["en", "fr"], "ratio": 0.5, "alive": false}'
call "XML-RPC: a fault (exit status 1, code and string on standard error)" \
  "$url/RPC2" examples.fault 4 '"Too many parameters"'
call "SOAP-1999: rpc style, with a method namespace" \
  --show-wire --protocol soap1999 --namespace urn:examples "$url/soap" examples.add 2 3
call "SOAP-2001: named parameters; the reply element Result taken as the result" \
  --show-wire --protocol soap2001 --param-names city,when --result-name Result "$url/soap" examples.echo '"Paris"' '{"$date": "2001-12-31T23:59:07Z"}'
call "SOAP-2001: a fault" \
  --protocol soap2001 "$url/soap" examples.fault 7 '"No such thing"'
call "XML-RPC: what the server offers" \
  "$url/RPC2" system.listMethods

printf '\nstopping hvserve\n'
