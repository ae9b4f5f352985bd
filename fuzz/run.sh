#!/usr/bin/env bash
# Builds the fuzz targets (build/fuzz) and runs each for the given number of seconds
# (default 60), starting from its seed corpus in fuzz/corpus/<target>/ and from what earlier
# runs on this machine kept in build/fuzz/corpus/<target>/. Every target runs even when one
# fails; the exit status is non-zero if any found a crash, leak, hang or sanitizer report.
# Inputs that fail are written to build/fuzz/artifacts/.
set -uo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz
targets=(call_async records unknown_outcome store_configuration jws state_file server_request)

cmake -S fuzz -B "$build" -G Ninja >/dev/null || exit 1
cmake --build "$build" -j "${JOBS:-2}" || exit 1

failed=()
for target in "${targets[@]}"; do
  mkdir -p "$build/corpus/$target" "$build/artifacts"
  options=(-max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1
           -artifact_prefix="$build/artifacts/$target-")
  if [ -f "fuzz/$target.dict" ]; then
    options+=(-dict="fuzz/$target.dict")
  elif [ "$target" != jws ] && [ "$target" != state_file ]; then
    options+=(-dict=fuzz/json.dict)
  fi
  echo "== fuzz_$target for $seconds s"
  if ! "$build/fuzz_$target" "${options[@]}" "$build/corpus/$target" "fuzz/corpus/$target" \
       > "$build/$target.log" 2>&1; then
    failed+=("$target")
    tail -n 60 "$build/$target.log"
    echo "fuzz_$target failed"
  fi
  grep -E '^Done [0-9]+ runs' "$build/$target.log" | sed "s/^/fuzz_$target: /" || true
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing failed: ${failed[*]} (inputs in $build/artifacts/)"
  exit 1
fi
echo "fuzzing passed: ${targets[*]}"
