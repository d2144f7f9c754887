// The module's two exported entry points and its registration with the host:
// the structures, the message block and the two routine tables.  The tables
// are merged at load from the lists that each class keeps beside its
// routines, in byte order of name.
#include <algorithm>
#include <array>
#include <cstring>

#include "frame/host_api.hpp"
#include "frame/module.hpp"
#include "frame/routines.hpp"
#include "frame/structs.hpp"

#define ZOK_EXPORT extern "C" __attribute__((visibility("default")))

namespace flux {
namespace {

constexpr zok_message_def module_messages[] = {
    {"ZOK_M_FLUXTOOLS_DSMAP_HEAPDEREFERR", "ZOKdsMap heap dereference error"},
    {"ZOK_M_FLUXTOOLS_FWMSG_IDCORRUPT", "FWIdent corruption"},
};

// The tables' sizes when every class is in.
constexpr size_t MAX_FUNCTIONS = 33;
constexpr size_t MAX_PROCEDURES = 59;

std::array<zok_routine_entry, MAX_FUNCTIONS> functions;
std::array<zok_routine_entry, MAX_PROCEDURES> procedures;
size_t function_count = 0;
size_t procedure_count = 0;

// Fills `table` from every class's list and sorts it; false when the lists
// hold more entries than the table has room for.
template <size_t N>
bool merge(std::array<zok_routine_entry, N>& table, size_t& count,
           std::span<const zok_routine_entry> RoutineList::*part) {
    size_t n = 0;
    for (const RoutineList* list : class_routine_lists()) {
        for (const zok_routine_entry& e : list->*part) {
            if (n == N)
                return false;
            table[n++] = e;
        }
    }
    std::sort(table.begin(), table.begin() + n,
              [](const zok_routine_entry& a, const zok_routine_entry& b) {
                  return std::strcmp(a.name, b.name) < 0;
              });
    count = n;
    return true;
}

} // namespace

std::span<const zok_routine_entry> function_table() {
    return {functions.data(), function_count};
}
std::span<const zok_routine_entry> procedure_table() {
    return {procedures.data(), procedure_count};
}

int32_t load_module() {
    for (const LoadForget forget : load_forgets())
        forget();
    define_structures();
    const zok_message_block* block = host_define_message_block(
        "ZOK_MBLK_FLUXTOOLS", static_cast<int32_t>(std::size(module_messages)), module_messages);
    set_message_block(block);
    if (block == nullptr)
        return 0;
    if (!merge(functions, function_count, &RoutineList::functions) ||
        !merge(procedures, procedure_count, &RoutineList::procedures))
        return 0;
    if (!host_add_routines(functions.data(), 1, static_cast<int32_t>(function_count)))
        return 0;
    if (!host_add_routines(procedures.data(), 0, static_cast<int32_t>(procedure_count)))
        return 0;
    return 1;
}

void reset_session() {
    for (const SessionReset reset : session_resets())
        reset();
}

} // namespace flux

ZOK_EXPORT int32_t ZOK_Load() {
    return flux::load_module();
}

ZOK_EXPORT void ZOK_ResetSession() {
    flux::reset_session();
}
