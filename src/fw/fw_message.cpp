// ZOKFWMESSAGE.  Two messages, or a message and a behaviour, are the same
// message when the texts of their identifiers are equal.
#include "fw/fw_message.hpp"

#include "fw/fw_ident.hpp"
#include "fw/fw_messhndlr.hpp"
#include "fw/fw_messtext.hpp"

namespace flux {
namespace {

MessageFields& fields_of(Self self) {
    return self.fields<MessageFields>();
}

// The text of a message's identifier; "FWIdent corruption" when it has gone.
const zok_string* text_of(uint32_t message) {
    const zok_string* text = fwident_text(message_ident(message, "message"));
    if (text == nullptr)
        raise_module_message(MSG_FWMSG_IDCORRUPT);
    return text;
}

} // namespace

int32_t message_initialise(Self self, const KeywordFront* keywords) {
    const HandlerKeywords* handler = keywords != nullptr ? &keywords->h : nullptr;
    check_handler_keyword(handler);
    MessageInit message(self, keywords, false);
    if (hasahandler_initialise(self, handler) == 0)
        return 0;
    MessageFields& f = fields_of(self);
    f.message_version = 1;
    message.finish(f.mess_ident);
    return 1;
}

// Releases only: MESS_IDENT keeps naming the identifier, which lives until
// the next collection, and a CLEANUP called again releases it again.
void message_cleanup(Self self) {
    hasahandler_cleanup(self);
    fwident_release(fields_of(self).mess_ident);
}

void message_restore(Self self) {
    hasahandler_restore(self);
    MessageFields& f = fields_of(self);
    if (f.message_version < 1)
        f.message_version = 1;
    f.mess_ident = fwident_rollover(f.mess_ident);
}

void message_set_message(Self self, const zok_var* text) {
    replace_message_ident(fields_of(self).mess_ident, text, "ZOKfwMessage::SetMessageString");
}

void message_send(Self self, zok_var* argument) {
    const uint32_t ident = fields_of(self).mess_ident;
    if (const uint32_t handler = effective_handler(self))
        send_message(handler, ident, argument);
}

uint32_t message_ident(uint32_t message, const char* role) {
    return resolve_instance(message, MESSAGE_CLASS, role).fields<MessageFields>().mess_ident;
}

uint32_t new_message() {
    TempGuard cls(host_find_class(MESSAGE_CLASS.name));
    zok_var* args[] = {cls.get()};
    TempGuard object(host_object_new(1, args, nullptr));
    return object->value.heap_id;
}

uint32_t copy_message(uint32_t message) {
    // The text's use is counted before the copy exists, so nothing needs undoing after it.
    const uint32_t ident = fwident_acquire_name(text_of(message));
    Undo release_ident([ident] { fwident_release(ident); });
    const uint32_t copy = new_message();
    MessageFields& f = resolve_instance(copy, MESSAGE_CLASS, "message").fields<MessageFields>();
    fwident_release(f.mess_ident);
    f.mess_ident = ident;
    release_ident.commit();
    return copy;
}

int compare_messages(uint32_t a, uint32_t b) {
    return host_string_compare(text_of(a), text_of(b));
}

namespace {

Self message_self(zok_var** argv) {
    return class_self(argv, MESSAGE_CLASS);
}

zok_var* message_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<KeywordFront>(
        argc, argv, kw, message_keyword_table, MESSAGE_CLASS,
        [](Self self, const KeywordFront& k) { return message_initialise(self, &k); });
}

zok_var* message_messagestring(int32_t, zok_var** argv, zok_keywords*) {
    return message_text_result(fields_of(message_self(argv)).mess_ident);
}

void message_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    message_cleanup(message_self(argv));
}

void message_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    message_restore(message_self(argv));
}

void message_send_method(int32_t argc, zok_var** argv, zok_keywords*) {
    message_send(message_self(argv), argc == 2 ? argv[1] : nullptr);
}

void message_setmessagestring(int32_t, zok_var** argv, zok_keywords*) {
    message_set_message(message_self(argv), argv[1]);
}

constexpr zok_routine_entry functions[] = {
    function_entry(message_init, "ZOKFWMESSAGE::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(message_messagestring, "ZOKFWMESSAGE::MESSAGESTRING", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(message_cleanup_method, "ZOKFWMESSAGE::CLEANUP", 1, 1, ZOK_RT_KEYWORDS),
    procedure_entry(message_restore_method, "ZOKFWMESSAGE::RESTORE", 1, 1),
    procedure_entry(message_send_method, "ZOKFWMESSAGE::SEND", 1, 2),
    procedure_entry(message_setmessagestring, "ZOKFWMESSAGE::SETMESSAGESTRING", 2, 2),
};

} // namespace

const RoutineList message_routines{functions, procedures};

} // namespace flux
