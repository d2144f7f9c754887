#include "fw/fw_heldvalue.hpp"

#include "frame/host_api.hpp"

namespace flux {

zok_var* held_value_copy(uint32_t held, const char* unset_text) {
    TempGuard result(host_temp_var());
    if (held == 0) {
        zok_string text{};
        host_string_store(&text, unset_text);
        result->value.str = text;
        result->type = ZOK_T_STRING;
    } else if (const zok_heap_record* rec = host_heap_var(held)) {
        host_var_copy_out(&rec->var, result.get());
    }
    return result.release();
}

void held_value_set(uint32_t& field, const zok_var* value) {
    if (value == nullptr) {
        if (field != 0 && host_heap_var(field) != nullptr)
            host_heap_free(field, 0, 0);
        field = 0;
        return;
    }
    if (field != 0) {
        // The same heap variable keeps every later value.
        zok_heap_record* rec = host_object_heap_var(field, ZOK_ACTION_ERROR);
        host_var_copy(value, &rec->var, 0);
        return;
    }
    // The copy mode leaves the caller's variable as it is.
    if (const zok_heap_record* rec = host_heap_var_new(
            ZOK_HEAP_POINTER, const_cast<zok_var*>(value), ZOK_HEAP_NEW_COPY, ZOK_ACTION_RETURN))
        field = rec->id;
}

} // namespace flux
