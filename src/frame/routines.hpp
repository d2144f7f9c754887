// How a class hands its registered routines to the module's two tables.
// Each class source file keeps its routine entries beside its routines and
// exposes them as one RoutineList; the frame merges the lists into the
// function table and the procedure table, each in byte order of name.
#pragma once

#include <span>

#include <zok/zok.h>

namespace flux {

struct RoutineList {
    std::span<const zok_routine_entry> functions;
    std::span<const zok_routine_entry> procedures;
};

constexpr zok_routine_entry routine_entry(const char* name, uint16_t min_args, uint16_t max_args,
                                          int32_t flags) {
    zok_routine_entry e{};
    e.name = name;
    e.min_args = min_args;
    e.max_args = max_args;
    e.flags = flags;
    return e;
}

constexpr zok_routine_entry function_entry(zok_function fn, const char* name, uint16_t min_args,
                                           uint16_t max_args, int32_t flags = 0) {
    zok_routine_entry e = routine_entry(name, min_args, max_args, flags);
    e.entry.function = fn;
    return e;
}

constexpr zok_routine_entry procedure_entry(zok_procedure fn, const char* name, uint16_t min_args,
                                            uint16_t max_args, int32_t flags = 0) {
    zok_routine_entry e = routine_entry(name, min_args, max_args, flags);
    e.entry.procedure = fn;
    return e;
}

// The merged tables as registered by ZOK_Load (empty before it runs).
std::span<const zok_routine_entry> function_table();
std::span<const zok_routine_entry> procedure_table();

} // namespace flux
