// The message text of behaviours and messages, which both keep it as an
// identifier field holding one counted use of the identifier.
#pragma once

#include <cstdint>

#include <zok/zok.h>

#include "frame/keywords.hpp"

namespace flux {

// A temporary string holding its own copy of the identifier's text, or
// "ERROR" when the identifier has lost its heap variable.
zok_var* message_text_result(uint32_t ident);

// Points `field` at the identifier of the text argument: the new text's use is
// counted before the old one's is given back, so a failure changes nothing.
// An argument that is not one string raises host message -209 naming `routine`.
void replace_message_ident(uint32_t& field, const zok_var* text, const char* routine);

} // namespace flux
