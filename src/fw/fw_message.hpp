// ZOKFWMESSAGE: the sending end.  A message names its message by an identifier
// (MESS_IDENT, one counted use) and sends it, with an optional argument, up
// the handler chain that starts at its effective handler.
#pragma once

#include "fw/fw_hashndlr.hpp"

namespace flux {

#define ZOKFWMESSAGE_FIELDS                                                                        \
    ZOKFWHASAHANDLER_FIELDS                                                                        \
    int32_t message_version;                                                                       \
    uint32_t mess_ident;

struct MessageFields {
    ZOKFWMESSAGE_FIELDS
};

inline constexpr ClassRef MESSAGE_CLASS{struct_message, "ZOKFWMESSAGE", "ZOKfwMessage"};

// Base initialisation with the shared front of a keyword record (null: no
// keywords).  Returns 1, or 0 when the handler part fails.
int32_t message_initialise(Self self, const KeywordFront* keywords);
void message_cleanup(Self self);
void message_restore(Self self);
void message_set_message(Self self, const zok_var* text);
// SEND: through the effective handler's chain; `argument` may be null.
void message_send(Self self, zok_var* argument);

// MESS_IDENT of a message object; `role` names it in the wrong-class error.
uint32_t message_ident(uint32_t message, const char* role);

// A new message object as INIT makes it without keywords ("Generic Message",
// the default handler), and one that carries another message's text.
uint32_t new_message();
uint32_t copy_message(uint32_t message);
// The order of two messages' texts, by the host's string comparison.
int compare_messages(uint32_t a, uint32_t b);

extern const RoutineList message_routines;

} // namespace flux
