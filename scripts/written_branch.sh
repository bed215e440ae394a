# Sourced by the benchmarks that time commands on a written branch. Builds
# kodrune-wiki and the branch generator in build/release, configured as the
# test command configures it, and makes the branch once: PAGES folders of two
# files, a saved page each (bench/written_branch.cpp), planned once so that
# the catch-all page and the hash cache are recorded. Reused from
# build/bench-written-PAGES afterwards.
#
# In: $pages. Out: $wiki (the command), $repo (the branch's repository).
build=build/release
repo=$PWD/build/bench-written-$pages

bash scripts/setup.sh
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" \
  -DKODRUNE_BUILD_TESTS=ON -DKODRUNE_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j 2 --target kodrune-wiki kodrune_bench_written_branch >/dev/null
wiki=$PWD/$build/kodrune-wiki
make=$PWD/$build/bench/kodrune_bench_written_branch

if [ ! -f "$repo/.bench-ready" ]; then
  rm -rf "$repo"
  mkdir -p "$repo"
  "$make" "$repo" "$pages" files
  (
    cd "$repo"
    git init -q -b main
    git add -A
    git config gc.auto 0
    git -c user.name=bench -c user.email=bench@localhost commit -q -m "Generated repository"
  )
  "$make" "$repo" "$pages" store
  "$wiki" plan --repo "$repo" >/dev/null
  touch "$repo/.bench-ready"
  echo ".bench-ready" >"$repo/.git/info/exclude"
fi
