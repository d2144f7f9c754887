// Instruction counts of one operation, taken when the benchmark runs under
// callgrind (scripts/callgrind-table.sh) and skipped otherwise.
//
// count_instructions(label, units, op) zeroes the counters, runs op, and dumps
// them under "label units": the script divides the dump's total by the units
// (receivers, keys, rounds) that op covers.
#pragma once

#include <string>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define ZOK_COUNTING 1
#else
#define ZOK_COUNTING 0
#endif

namespace bench {

template <typename Op>
void count_instructions(const std::string& label, long units, Op&& op) {
#if ZOK_COUNTING
    if (!RUNNING_ON_VALGRIND)
        return;
    const std::string mark = label + " " + std::to_string(units);
    CALLGRIND_ZERO_STATS;
    op();
    CALLGRIND_DUMP_STATS_AT(mark.c_str());
#else
    (void)label;
    (void)units;
    (void)op;
#endif
}

} // namespace bench
