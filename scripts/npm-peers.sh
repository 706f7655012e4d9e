#!/usr/bin/env bash
# Installs the npm test peers (dynalite, the AWS JavaScript SDK) into .cache/peers, once.
# Prints the folder that holds node_modules.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
dest="${OMRA_PEERS_DIR:-$root/.cache/peers}"
mkdir -p "$dest"
if [ ! -f "$dest/package.json" ] || ! cmp -s "$root/scripts/peers/package.json" "$dest/package.json"; then
  cp "$root/scripts/peers/package.json" "$dest/package.json"
  rm -rf "$dest/node_modules"
fi
if [ ! -d "$dest/node_modules" ]; then
  (cd "$dest" && npm install --no-audit --no-fund --loglevel=error >&2)
fi
echo "$dest"
