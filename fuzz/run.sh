#!/usr/bin/env bash
# Builds the fuzz targets (clang 14, libFuzzer, ASan + UBSan) and runs each for a while.
#   fuzz/run.sh [SECONDS] [TARGET...]     default: 60 seconds, every target
# Seeds come from fuzz/corpus/<target>/ (read only); what a run finds goes to
# build/fuzz/corpus/<target>/ and a crashing input to build/fuzz/crashes/. Exit status 1 when any
# target fails.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
CMAKE_CXX_COMPILER_LAUNCHER=$(command -v ccache || true) cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"${QUMA_FUZZ_JOBS:-2}"
targets=("$@")
if ((${#targets[@]} == 0)); then
  mapfile -t targets < <(find fuzz -maxdepth 1 -name 'fuzz_*.cpp' -printf '%f\n' | sed 's/\.cpp$//' | sort)
fi
mkdir -p build/fuzz/crashes
failed=()
for t in "${targets[@]}"; do
  work=build/fuzz/corpus/$t
  mkdir -p "$work" "fuzz/corpus/$t"
  echo "== $t (${seconds}s)"
  if ! build/fuzz/fuzz/"$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=4096 \
        -artifact_prefix=build/fuzz/crashes/"$t"- -print_final_stats=1 "$work" "fuzz/corpus/$t" \
        2>build/fuzz/"$t".log; then
    tail -n 40 build/fuzz/"$t".log
    failed+=("$t")
  fi
  grep -E '^stat::number_of_executed_units' build/fuzz/"$t".log || true
done
if ((${#failed[@]})); then
  echo "fuzz targets that failed: ${failed[*]}"
  exit 1
fi
