#!/usr/bin/env bash
# A tour of every gesture family: irframed plays each script of this folder on an emulated
# touch frame of its own, plugged in one after another, and prints the events it would post.
# The "device" field of each line is the number of the script (01, 02, ...).
#
# Each family gets a fresh frame because the gesture state carries over from one touch to the
# next on the same frame (the first frame of a later touch already presses the button).
#
# Usage: examples/demo.sh [IRFRAMED] [more irframed options]
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
driver=${1:-"$here/../build/release/irframed"}
shift || true

args=()
delay=0
for script in "$here"/[0-9][0-9]-*.gesture; do
  if [ "$delay" -eq 0 ]; then
    args+=(--simulate "$script")
  else
    args+=(--simulate "$script@${delay}ms")
  fi
  delay=$((delay + 250))
done
exec "$driver" --dry-run "${args[@]}" "$@"
