#!/usr/bin/env bash
# Builds and runs every check: a warning-free build with its unit tests, the same tests under
# AddressSanitizer + UndefinedBehaviorSanitizer, the driver's end-to-end tests under
# ThreadSanitizer, each fuzz harness for a fixed time, the Debian package installed and purged,
# and the driver on a real kernel in a QEMU guest. The last thing printed is the kernel test's
# "kernel: N passed, N failed" line. Installs the test-only packages first (as root).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-test.sh

jobs=$(nproc)
fuzz_seconds=${IRFRAME_FUZZ_SECONDS:-20}

step() { printf '\n==== %s\n' "$*"; }

# Four builds of one tree: a compiler cache (installed by setup-test.sh) makes the later ones,
# and later runs, cheaper. Builds go on without it where it is missing.
cache=()
if command -v ccache >/dev/null; then
  cache=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Paths relative to the checkout, so that another clone of the tree finds the same objects.
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi

step "configure + build (-Werror)"
cmake -S . -B build/ci -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIRFRAME_WERROR=ON "${cache[@]}" >/dev/null
cmake --build build/ci -j "$jobs"

step "configure + build (ASan + UBSan)"
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DIRFRAME_SANITIZE=ON \
  -DIRFRAME_WERROR=ON -DIRFRAME_BENCH=OFF -DIRFRAME_HEADER_CHECK=OFF "${cache[@]}" >/dev/null
cmake --build build/asan -j "$jobs"

step "configure + build (ThreadSanitizer: the driver and its end-to-end tests)"
cmake -S . -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIRFRAME_TSAN=ON \
  -DIRFRAME_WERROR=ON -DIRFRAME_BENCH=OFF -DIRFRAME_HEADER_CHECK=OFF "${cache[@]}" >/dev/null
cmake --build build/tsan -j "$jobs" --target irframed Irframed_test LoadEvent_test DriverDbus_test

step "configure + build (libFuzzer, clang-14)"
cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DIRFRAME_FUZZ=ON \
  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
  -DIRFRAME_TESTS=OFF -DIRFRAME_BENCH=OFF -DIRFRAME_WERROR=ON -DIRFRAME_HEADER_CHECK=OFF \
  "${cache[@]}" >/dev/null
fuzz_targets=()
for src in fuzz/*.cpp; do
  name=${src##*/}
  fuzz_targets+=("fuzz_${name%.cpp}")
done
cmake --build build/fuzz -j "$jobs" --target "${fuzz_targets[@]}"

step "fuzz harnesses, ${fuzz_seconds} s each"
shopt -s nullglob
for harness in build/fuzz/fuzz_*; do
  name=${harness##*/fuzz_}
  corpus=build/fuzz/corpus/$name
  mkdir -p "$corpus"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
  echo "-- $name"
  # Two harnesses share the two cores; findings are written under build/fuzz/.
  "$harness" -max_total_time="$fuzz_seconds" -print_final_stats=0 \
    -artifact_prefix="build/fuzz/${name}-" "$corpus" "${seeds[@]}" 2>build/fuzz/"$name".log \
    || { tail -n 60 build/fuzz/"$name".log; echo "fuzz harness $name found a fault" >&2; exit 1; }
  grep -E '^#[0-9]+ *DONE' build/fuzz/"$name".log | tail -n 1 || true
done

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
step "end-to-end tests (ThreadSanitizer)"
TSAN_OPTIONS=halt_on_error=1:exitcode=66 build/tsan/Irframed_test --gtest_brief=1
TSAN_OPTIONS=halt_on_error=1:exitcode=66 build/tsan/LoadEvent_test --gtest_brief=1
TSAN_OPTIONS=halt_on_error=1:exitcode=66 build/tsan/DriverDbus_test --gtest_brief=1

step "unit tests (ASan + UBSan)"
ctest --test-dir build/asan --output-on-failure -j "$jobs"

step "unit tests"
ctest --test-dir build/ci --output-on-failure -j "$jobs"

step "package: build, lintian, install, check, purge"
tests/package/run.sh

step "real-kernel end-to-end test (QEMU guest)"
tests/kernel/run.sh build/ci
