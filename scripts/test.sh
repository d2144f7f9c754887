#!/usr/bin/env bash
# Builds and runs every test: the default build; the default build installed
# into a temporary prefix with the module template built and tested against
# it; the sanitizer build; the coverage report (which only reports); the lint
# (which fails on a finding); and a bounded run of each fuzz target, seeded
# from fuzz/corpus/<target> when the tree has one.  FUZZ_SECONDS sets the fuzzing
# time per target (default 60; 0 skips fuzzing).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
jobs=$(nproc)
fuzz_seconds=${FUZZ_SECONDS:-60}

for preset in default sanitize; do
    echo "== $preset build"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" -j"$jobs"
    echo "== $preset tests"
    ctest --preset "$preset" -j"$jobs"
    if [ "$preset" = default ]; then
        echo "== install, and the module template against the installed package"
        scratch=$(mktemp -d)
        trap 'rm -rf "$scratch"' EXIT
        cmake --install build/default --prefix "$scratch/prefix" >/dev/null
        cmake -S examples/module-template -B "$scratch/template" \
            -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
        cmake --build "$scratch/template" -j"$jobs"
        ctest --test-dir "$scratch/template" --output-on-failure
    fi
done

echo "== coverage"
scripts/coverage.sh
echo "== lint"
scripts/lint.sh

if [ "$fuzz_seconds" -gt 0 ]; then
    echo "== fuzz build"
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz -j"$jobs" --target fuzzers
    mkdir -p build/fuzz/corpus
    for target in build/fuzz/fuzz/fuzz_*; do
        [ -x "$target" ] || continue
        name=$(basename "$target")
        mkdir -p "build/fuzz/corpus/$name"
        seeds=()
        [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
        echo "== fuzzing $name for ${fuzz_seconds}s"
        "$target" -seed=1 -max_total_time="$fuzz_seconds" -max_len=4096 -print_final_stats=1 \
            -artifact_prefix="build/fuzz/$name-" "build/fuzz/corpus/$name" "${seeds[@]}"
    done
fi
