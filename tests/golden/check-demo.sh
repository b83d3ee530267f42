#!/usr/bin/env bash
# The events every gesture family posts, compared byte for byte with tests/golden/demo.out.
# A difference is either a fault or a deliberate change of what the gestures post: then the
# golden file is regenerated with examples/demo.sh and the change is reviewed with it.
# Also checks the log: at the default level at most 3 lines per emulated frame besides the
# summaries; with -vv every trace line in tests/golden/demo-trace.txt, as often as there.
# The driver reads no configuration file (--no-config): the machine's must not change the result.
# Usage: tests/golden/check-demo.sh IRFRAMED
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
driver=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
exec 3>&2  # this script's own messages, while the driver's go to files
# The demo ends by itself in seconds; a frame never served would hold it: fail, don't hang.
demo() {
  local rc=0
  timeout --kill-after=10 120 "$here/../../examples/demo.sh" "$driver" --no-config "$@" || rc=$?
  if [ "$rc" -eq 124 ] || [ "$rc" -eq 137 ]; then
    echo "golden: the demo did not end within 120 s (a frame that was never served, or a hang)" >&3
  elif [ "$rc" -ne 0 ]; then
    echo "golden: the demo ended with status $rc" >&3
  fi
  return "$rc"
}
demo >"$work/out" 2>"$work/err"
# Each frame has a worker thread of its own, so on a busy machine one frame's lines may come
# between another's: compare each frame's lines in their order (the golden file lists the
# frames one after another), and the whole file as it came only when asked to.
by_frame() { awk '{ n = $0; sub(/^\{"device":/, "", n); sub(/[^0-9].*$/, "", n); printf "%09d\t%09d\t%s\n", n, NR, $0 }' "$1" | sort | cut -f3-; }
if [ -n "${IRFRAME_GOLDEN_EXACT:-}" ]; then
  cp "$work/out" "$work/compared"
else
  by_frame "$work/out" >"$work/compared"
fi
if ! diff -u "$here/demo.out" "$work/compared"; then
  echo "golden: the demo's events differ from tests/golden/demo.out (see the diff above)" >&2
  exit 1
fi
# The README's sample output: the demo's first events, then "...", then later ones, in order.
sed -n 's/^    \({"device":.*\)$/\1/p; s/^    \.\.\.$/.../p' "$here/../../README.md" >"$work/readme"
if ! awk 'NR == FNR { demo[++n] = $0; next }
          $0 == "..." { gap = 1; next }
          { while (++at <= n && demo[at] != $0) if (!gap) { bad = 1; exit }
            if (at > n) { bad = 1; exit }
            gap = 0; shown++ }
          END { exit bad || shown == 0 }' "$here/demo.out" "$work/readme"; then
  echo "golden: the README's sample output is not the demo's (tests/golden/demo.out): update it" >&2
  exit 1
fi
frames=$(ls "$here"/../../examples/[0-9][0-9]-*.gesture | wc -l)
logged=$(grep -cv '^simulated frame [0-9]* (' "$work/err" || true)
if [ "$logged" -gt $((3 * frames)) ]; then
  echo "golden: $logged log lines at the default level for $frames frames (at most $((3 * frames))):" >&2
  cat "$work/err" >&2
  exit 1
fi
demo -vv >/dev/null 2>"$work/trace"
missing=$(comm -23 <(sort "$here/demo-trace.txt") <(sort "$work/trace") | head -n 5)
if [ -n "$missing" ]; then
  printf 'golden: trace lines missing with -vv, e.g.:\n%s\n' "$missing" >&2
  exit 1
fi
echo "golden: $(wc -l <"$work/out") event lines identical; $logged log lines for $frames frames"
