#!/usr/bin/env bash
# Instruction counts of the speed targets, each beside its floor or peer from
# the same program run: builds the benchmarks, runs the target workloads once
# under callgrind (each workload dumps its own counts) and prints the table.
# Needs valgrind (installed by scripts/bootstrap.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/default
cmake --preset default >/dev/null
cmake --build --preset default -j2 --target bench_messaging bench_fw bench_maps >/dev/null
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

run() { # binary, benchmark filter
    valgrind --tool=callgrind --callgrind-out-file="$out/$1" \
        "$build/bench/$1" --benchmark_filter="$2" --benchmark_min_time=0.01 \
        >"$out/$1.stdout" 2>"$out/$1.stderr" || {
        cat "$out/$1.stderr" >&2
        exit 1
    }
}
run bench_messaging \
    'BM_(std_function_receivers/100|send_to_program_behaviors/100|connection|std_function_connection|register_unregister)$'
run bench_fw 'BM_(fwident_existing|existing<std::map.*>|map_class_insert|map_class_getdata)/'
run bench_maps \
    'BM_(find_hit|find_miss|random_erase)<(StdMap|Rb)<(int32_t|std::string)>, (Int|String)Keys>/100000$'

# Each dump: "desc: Trigger: Client Request: <label> <units>" and "summary: <Ir>";
# a label dumped more than once (the benchmark ran again) keeps its last count.
for dump in "$out"/bench_*.[0-9]*; do
    awk '/^desc: Trigger: Client Request:/ { label = $5; units = $6 }
         /^summary:/ { total = $2 }
         END { if (label != "") printf "%s %.1f\n", label, total / units }' "$dump"
done | awk '{ count[$1] = $2 } END { for (l in count) print l, count[l] }' >"$out/counts"

awk '
function row(what, label, floor_label, limit, kind,    v, f, ratio, verdict) {
    if (!(label in c)) { printf "%-44s %12s\n", what, "missing"; return }
    v = c[label]
    f = floor_label in c ? c[floor_label] : 0
    ratio = f > 0 ? v / f : 0
    verdict = kind == "abs" ? (v <= limit ? "met" : "missed") : (ratio <= limit ? "met" : "missed")
    printf "%-44s %12.1f %12s %8s %10s %s\n", what, v, (f > 0 ? sprintf("%.1f", f) : "-"),
           (f > 0 ? sprintf("%.2f", ratio) : "-"), (kind == "abs" ? "<= " limit : "<= " limit "x"), verdict
}
{ c[$1] = $2 }
END {
    printf "%-44s %12s %12s %8s %10s\n", "target (instructions per unit)", "this", "floor/peer", "ratio", "limit"
    row("send, per receiver of 100", "send_program_behaviors/100", "send_floor_std_function/100", 275, "abs")
    row("connection: make, register, unregister, destroy", "connection", "connection_floor_std_function", 5000, "abs")
    row("REGISTER + UNREGISTER in a scope of 1,000", "register_unregister", "", 1500, "abs")
    for (n = 1000; n <= 100000; n *= 100)
        row("acquire an existing name, " n " names", "name_existing/" n, "name_floor_std_map/" n, 1.5, "ratio")
    split("find_hit find_miss erase", work, " ")
    split("int string", keys, " ")
    for (w = 1; w <= 3; ++w)
        for (k = 1; k <= 2; ++k)
            row("map_rb " work[w] ", " keys[k] " keys, 1e5", work[w] "/map_rb/" keys[k] "/100000",
                work[w] "/std_map/" keys[k] "/100000", 1.5, "ratio")
    for (n = 1000; n <= 10000; n *= 10) {
        row("ZOKDSMAP::INSERT, " n " keys", "map_insert_ZOKDSMAP/" n, "map_insert_STDMAPCLASS/" n, 1.5, "ratio")
        row("ZOKDSMAP::GETDATA, " n " keys", "map_getdata_ZOKDSMAP/" n, "map_getdata_STDMAPCLASS/" n, 1.5, "ratio")
    }
}' "$out/counts"
