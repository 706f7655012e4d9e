#!/usr/bin/env bash
# Builds the libFuzzer harnesses (preset "fuzz": clang, ASan + UBSan, folder build-fuzz/) and runs
# each for FUZZ_SECONDS (default 60) from its committed seed corpus. New inputs go to
# build-fuzz/corpus/<name>, crashes to build-fuzz/artifacts/<name>/; the committed seeds are never
# written. Exits non-zero when any harness finds a fault.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${FUZZ_SECONDS:-60}"
jobs="${JOBS:-$(nproc)}"
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
cmake --preset fuzz "${launcher[@]}" >/dev/null
cmake --build build-fuzz -j "$jobs" --target fuzzers

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
failed=()
while read -r name; do
  [ -n "$name" ] || continue
  binary="build-fuzz/fuzz/$name"
  work="build-fuzz/corpus/$name"
  artifacts="build-fuzz/artifacts/$name/"
  mkdir -p "$work" "$artifacts"
  echo "== $name (${seconds} s)"
  # A fixed seed, so that a short run (CI's) explores the same inputs each time.
  if ! "$binary" -seed="${FUZZ_SEED:-1}" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
      -print_final_stats=1 -artifact_prefix="$artifacts" "$work" "fuzz/corpus/$name" \
      >"build-fuzz/$name.log" 2>&1; then
    tail -40 "build-fuzz/$name.log"
    failed+=("$name")
  else
    grep -E "^stat::number_of_executed_units|^Done" "build-fuzz/$name.log" | tr '\n' ' '
    echo
  fi
done <build-fuzz/fuzz/fuzzers.txt
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzers with findings: ${failed[*]} (inputs in build-fuzz/artifacts/)" >&2
  exit 1
fi
