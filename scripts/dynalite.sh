#!/usr/bin/env bash
# A local DynamoDB-compatible server (dynalite) on loopback, for the store tests and local use.
#   scripts/dynalite.sh start [port]   starts it (default port 4567), prints the endpoint
#   scripts/dynalite.sh stop [port]    stops the one started for that port
# Use the endpoint as the record store "dynamodb:http://127.0.0.1:PORT". Data lives in memory.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
action="${1:-}"
port="${2:-4567}"
state="$root/.cache/dynalite"
pidfile="$state/$port.pid"
mkdir -p "$state"

running() { [ -f "$pidfile" ] && kill -0 "$(cat "$pidfile")" 2>/dev/null; }

case "$action" in
  start)
    if running; then
      echo "http://127.0.0.1:$port"
      exit 0
    fi
    peers="$("$root/scripts/npm-peers.sh")"
    nohup node "$peers/node_modules/dynalite/cli.js" --host 127.0.0.1 --port "$port" \
      --createTableMs 0 --deleteTableMs 0 --updateTableMs 0 >"$state/$port.log" 2>&1 &
    echo $! >"$pidfile"
    for _ in $(seq 1 100); do
      if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
        echo "http://127.0.0.1:$port"
        exit 0
      fi
      if ! running; then break; fi
      sleep 0.1
    done
    echo "dynalite did not start on port $port; see $state/$port.log" >&2
    rm -f "$pidfile"
    exit 1
    ;;
  stop)
    if running; then
      kill "$(cat "$pidfile")"
      echo "stopped dynalite on port $port"
    fi
    rm -f "$pidfile"
    ;;
  *)
    echo "usage: $0 start|stop [port]" >&2
    exit 2
    ;;
esac
