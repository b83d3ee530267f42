#!/usr/bin/env bash
# Soak: a long run of random gestures through one worker of the real driver, on the virtual
# clock, watching resident memory and, in a sanitizer build, for leaks.
#
#   bench/soak.sh [FRAMES] [BUILD_DIR]     defaults: 1000000 frames, build/release
#
# Prints the frames per second of the whole pipeline (decode, calibration, tracking,
# gestures, JSON output to /dev/null), and the resident memory after warm-up: its lowest and
# highest sample and the growth. Fails when memory grows by more than 1 MiB after warm-up.
# With a build configured with -DIRFRAME_SANITIZE=ON, LeakSanitizer reports any leak at exit and
# the run fails. Not part of CI: a million frames take minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

frames=${1:-1000000}
build=${2:-build/release}
if [ ! -x "$build/irframed" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DIRFRAME_TESTS=OFF \
    -DIRFRAME_BENCH=OFF >/dev/null
  cmake --build "$build" -j "$(nproc)" --target irframed >/dev/null
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
script=$work/soak.gesture

# Random gestures of one to five fingers: taps, drags, multi-finger moves, holds, lifts, with
# empty frames between touches, until the frame count is reached. Seeded: runs are comparable.
python3 - "$frames" "$script" <<'EOF'
import random, sys
frames, path = int(sys.argv[1]), sys.argv[2]
rnd = random.Random(20261122)
out, n = ["rate 100"], 0
def pos():
    return rnd.randint(2000, 30000), rnd.randint(2000, 30000)
while n < frames:
    fingers = rnd.choice([1, 1, 1, 2, 2, 3, 4, 5])
    pts = [pos() for _ in range(fingers)]
    out.append("down " + ", ".join(f"{i+1} {x} {y}" for i, (x, y) in enumerate(pts)))
    n += 1
    for _ in range(rnd.randint(0, 3)):
        steps = rnd.randint(1, 40)
        dx, dy = rnd.randint(-3000, 3000), rnd.randint(-3000, 3000)
        pts = [(min(32000, max(100, x + dx)), min(32000, max(100, y + dy))) for x, y in pts]
        out.append("move " + ", ".join(f"{i+1} {x} {y}" for i, (x, y) in enumerate(pts)) +
                   f" in {steps}")
        n += steps
        if rnd.random() < 0.3:
            h = rnd.randint(1, 20)
            out.append(f"hold {h}")
            n += h
    out.append("up " + ", ".join(str(i + 1) for i in range(fingers)))
    h = rnd.randint(1, 30)
    out.append(f"hold {h}")
    n += 1 + h
open(path, "w").write("\n".join(out) + "\n")
print(f"soak: {n} frames in {len(out)} script lines", file=sys.stderr)
EOF

start=$(date +%s.%N)
"$build/irframed" --dry-run --output /dev/null --simulate "$script" >/dev/null 2>"$work/log" &
pid=$!
samples=$work/rss
: >"$samples"
while kill -0 "$pid" 2>/dev/null; do
  awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null >>"$samples" || true
  sleep 0.2
done
status=0
wait "$pid" || status=$?
end=$(date +%s.%N)

played=$(grep -o '[0-9]* of [0-9]* scripted frames played' "$work/log" | awk '{print $1}')
if grep -q "Sanitizer" "$work/log"; then
  grep -A20 "Sanitizer" "$work/log" | head -40
  echo "soak: FAIL: sanitizer report" >&2
  exit 1
fi
[ "$status" -eq 0 ] || { tail -20 "$work/log"; echo "soak: FAIL: driver exited $status" >&2; exit 1; }

# Under AddressSanitizer freed memory sits in quarantine, so resident memory says nothing there:
# such a run is for the leak report only.
sanitized=0
ldd "$build/irframed" 2>/dev/null | grep -q 'libasan' && sanitized=1

python3 - "$samples" "$start" "$end" "${played:-0}" "$sanitized" <<'EOF'
import sys
rss = [int(l) for l in open(sys.argv[1]) if l.strip()]
elapsed = float(sys.argv[3]) - float(sys.argv[2])
played = int(sys.argv[4])
print(f"soak: {played} frames in {elapsed:.1f} s: {played / elapsed:,.0f} frames/s")
if sys.argv[5] == "1":
    print("soak: sanitizer build: no leak reported (resident memory not judged)")
    print("soak: PASS")
    sys.exit(0)
if len(rss) < 5:
    print("soak: too few memory samples for a verdict (run more frames)")
    sys.exit(0)
warm = rss[len(rss) // 10:]  # the first tenth is warm-up
growth = warm[-1] - warm[0]
print(f"soak: resident memory after warm-up: {min(warm)} .. {max(warm)} KiB, "
      f"growth {growth:+d} KiB over {len(warm)} samples")
if max(warm) - min(warm) > 1024:
    print("soak: FAIL: resident memory moved by more than 1 MiB after warm-up")
    sys.exit(1)
print("soak: PASS")
EOF
