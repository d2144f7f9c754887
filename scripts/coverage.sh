#!/usr/bin/env bash
# Builds with coverage instrumentation, runs the unit suites, and reports the
# lines and branches of src/ and host/ that they run: an HTML report with a
# page per file (build/coverage/report/index.html) and a text report per file
# (build/coverage/report/coverage.txt), then a summary for src/, host/ and
# both.  Branches that only throw and branches the compiler proved
# unreachable are left out of the branch figures.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh gcovr
jobs=$(nproc)
cmake --preset coverage >/dev/null
cmake --build --preset coverage -j"$jobs"
find build/coverage -name '*.gcda' -delete
ctest --preset coverage -j"$jobs" >/dev/null
report=build/coverage/report
mkdir -p "$report"
common=(--root . --object-directory build/coverage -j "$jobs"
        --exclude-throw-branches --exclude-unreachable-branches)
gcovr "${common[@]}" --filter 'src/' --filter 'host/' \
    --html-details "$report/index.html" --txt "$report/coverage.txt" --json "$report/all.json"
for part in src/ host/ "(src|host)/"; do
    echo "== $part"
    gcovr --add-tracefile "$report/all.json" --root . --filter "$part" --print-summary \
        --txt /dev/null
done
echo "report: $report/index.html, $report/coverage.txt"
