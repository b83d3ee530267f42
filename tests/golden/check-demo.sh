#!/usr/bin/env bash
# The events every gesture family posts, compared byte for byte with tests/golden/demo.out.
# A difference is either a fault or a deliberate change of what the gestures post: then the
# golden file is regenerated with examples/demo.sh and the change is reviewed with it.
# Usage: tests/golden/check-demo.sh IRFRAMED
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
driver=$1
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$here/../../examples/demo.sh" "$driver" >"$actual" 2>/dev/null
if ! diff -u "$here/demo.out" "$actual"; then
  echo "golden: the demo's events differ from tests/golden/demo.out (see the diff above)" >&2
  exit 1
fi
echo "golden: $(wc -l <"$actual") event lines identical"
