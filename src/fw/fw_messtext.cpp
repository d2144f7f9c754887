#include "fw/fw_messtext.hpp"

#include <cstring>

#include "frame/host_api.hpp"
#include "fw/fw_ident.hpp"

namespace flux {

uint32_t acquire_message_ident(const char* text) {
    // A borrowed descriptor: the registry copies the text when it keeps it.
    const zok_string borrowed{static_cast<uint32_t>(std::strlen(text)), 0, 0,
                              const_cast<char*>(text)};
    return fwident_acquire_name(&borrowed);
}

uint32_t initial_message_ident(const KeywordFront* keywords, const char* routine) {
    uint32_t ident = acquire_message_ident("Generic Message");
    if (keywords == nullptr || keywords->messagestring_given == 0)
        return ident;
    Undo release_ident([&ident] { fwident_release(ident); });
    zok_var text{};
    text.type = ZOK_T_STRING;
    text.value.str = keywords->messagestring;
    replace_message_ident(ident, &text, routine);
    release_ident.commit();
    return ident;
}

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
