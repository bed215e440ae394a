# Sourced by the scripts that time or replay a Release build. Defines
# bench_build NAME LOG TARGET...: builds the targets in build/bench-release,
# the log in LOG; on failure prints its tail and exits, naming NAME.
#
# GCC 12 at -O2/-O3 reports false array-bounds and stringop-overflow hits
# inside libstdc++'s string copies (GCC bugs 105329, 105651); they stay
# warnings here so an optimised build is possible. Set BENCH_CXXFLAGS= to
# build with every warning an error.
build=build/bench-release
jobs=$(nproc 2>/dev/null || echo 2)
[ "$jobs" -gt 2 ] && jobs=2
cxxflags=${BENCH_CXXFLAGS--Wno-error=array-bounds -Wno-error=stringop-overflow}

bench_build() {
  local name=$1 log=$2
  shift 2
  bash scripts/setup.sh
  mkdir -p "$build" "$(dirname "$log")"
  if ! {
    cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKODRUNE_BUILD_TESTS=OFF \
      -DKODRUNE_BUILD_BENCH=ON "-DCMAKE_CXX_FLAGS=$cxxflags" &&
      cmake --build "$build" -j "$jobs" --target "$@"
  } >"$log" 2>&1; then
    tail -n 40 "$log"
    echo "$name: the Release build failed; the whole log is $log" >&2
    exit 1
  fi
}
