#!/usr/bin/env bash
# Runs the unit suites under AddressSanitizer + UndefinedBehaviorSanitizer three times in a row
# while busy loops hold every core, so that a test whose verdict depends on an idle machine
# shows itself. The busy loops are this script's own children, ended by process id on any exit.
# Not part of CI (it takes a while). Usage: tests/stress.sh [BUILD_DIR] (default build/asan,
# configured and built here as scripts/test.sh does). Ends with "N passed, N failed": the test
# runs of all rounds; the full output is in BUILD_DIR/stress.log.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/asan}
rounds=${IRFRAME_STRESS_ROUNDS:-3}

cache=()
if command -v ccache >/dev/null; then
  cache=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DIRFRAME_SANITIZE=ON \
  -DIRFRAME_WERROR=ON -DIRFRAME_BENCH=OFF -DIRFRAME_HEADER_CHECK=OFF "${cache[@]}" >/dev/null
cmake --build "$build" -j "$(nproc)"

busy=()
stop_busy() {
  local pid
  for pid in "${busy[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${busy[@]}"; do wait "$pid" 2>/dev/null || true; done
  busy=()
}
trap stop_busy EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

cores=$(nproc)
for ((i = 0; i < cores; i++)); do
  ( while :; do :; done ) &
  busy+=("$!")
done
echo "stress: ${#busy[@]} busy loops on $cores cores (pids ${busy[*]})"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
log="$build/stress.log"
: >"$log"
passed=0
failed=0
for ((round = 1; round <= rounds; round++)); do
  echo "stress: round $round of $rounds"
  ctest --test-dir "$build" --output-on-failure -j "$cores" --timeout 600 2>&1 |
    tee -a "$log" | tee "$build/stress-round.log" |
    grep -E '^[0-9]+% tests passed|\*\*\*Failed|\*\*\*Timeout' || true
  # "97% tests passed, 3 tests failed out of 312"
  summary=$(grep -E '^[0-9]+% tests passed' "$build/stress-round.log" | tail -n 1)
  if [[ $summary =~ ([0-9]+)\ tests\ failed\ out\ of\ ([0-9]+) ]]; then
    failed=$((failed + BASH_REMATCH[1]))
    passed=$((passed + BASH_REMATCH[2] - BASH_REMATCH[1]))
  else
    echo "stress: round $round gave no summary (see $log)"
    failed=$((failed + 1))
  fi
done
stop_busy
echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
