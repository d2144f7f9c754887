#include "fw/fw_messtext.hpp"

#include "frame/host_api.hpp"
#include "fw/fw_ident.hpp"

namespace flux {

zok_var* message_text_result(uint32_t ident) {
    TempGuard result(host_temp_var());
    zok_string text{};
    if (const zok_string* found = fwident_text(ident)) {
        text = *found;
        host_string_duplicate(&text, 1);
    } else {
        host_string_store(&text, "ERROR");
    }
    // Typed only once it owns its text, so that an unwind never frees a borrowed one.
    result->value.str = text;
    result->type = ZOK_T_STRING;
    return result.release();
}

void replace_message_ident(uint32_t& field, const zok_var* text, const char* routine) {
    if (text->type != ZOK_T_STRING || (text->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_message(ZOK_MSG_ARG_TYPE, ZOK_ACTION_ERROR, routine);
    const uint32_t ident = fwident_acquire_name(&text->value.str);
    if (field != 0)
        fwident_release(field);
    field = ident;
}

} // namespace flux
