// Messages and errors: zok::Error, the message record, host_message and
// message blocks.
//
// Every message raised, whatever its action, is appended to the state's list
// before anything else happens, so a program sees it even when the raise ends
// the running routine.  The error action throws zok::Error, which unwinds
// through module frames back to the program API call.
#include "state.hpp"

#include <cstdio>
#include <cstring>

namespace zok {

Error::Error(int32_t code, std::string text, std::string routine, std::string block)
    : code_(code), text_(std::move(text)), routine_(std::move(routine)), block_(std::move(block)) {
    what_ = routine_.empty() ? text_ : routine_ + ": " + text_;
}

Error::~Error() = default;

const char* Error::what() const noexcept {
    return what_.c_str();
}

} // namespace zok

namespace zok::detail {

std::string vformat(const char* fmt, va_list ap) {
    va_list again;
    va_copy(again, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<size_t>(n));
        std::vsnprintf(out.data(), out.size() + 1, fmt, again);
    }
    va_end(again);
    return out;
}

std::string format(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::string out = vformat(fmt, ap);
    va_end(ap);
    return out;
}

std::string running_routine() {
    State* s = state_or_null();
    if (!s || !s->frame->routine)
        return {};
    return s->frame->routine->name->text;
}

std::string where() {
    std::string r = running_routine();
    return r.empty() ? std::string() : " in " + r;
}

void raise(int32_t code, int32_t action, std::string text, std::string block) {
    if (action == ZOK_ACTION_RETURN)
        return;
    report(code, action, std::move(text), std::move(block));
}

void report(int32_t code, int32_t action, std::string text, std::string block) {
    State& s = state();
    std::string routine = running_routine();
    s.messages.push_back(Message{code, text, action, routine, block});
    if (action == ZOK_ACTION_ERROR && !s.errors_return)
        throw Error(code, std::move(text), std::move(routine), std::move(block));
}

void api_error(int32_t code, std::string text) {
    State& s = state();
    s.messages.push_back(Message{code, text, ZOK_ACTION_ERROR, {}, {}});
    throw Error(code, std::move(text), {});
}

const char* type_name(uint8_t type) {
    switch (type) {
    case ZOK_T_UNDEFINED:
        return "UNDEFINED";
    case ZOK_T_BYTE:
        return "BYTE";
    case ZOK_T_SHORT:
        return "INT";
    case ZOK_T_LONG:
        return "LONG";
    case ZOK_T_FLOAT:
        return "FLOAT";
    case ZOK_T_DOUBLE:
        return "DOUBLE";
    case ZOK_T_STRING:
        return "STRING";
    case ZOK_T_STRUCT:
        return "STRUCT";
    case ZOK_T_POINTER:
        return "POINTER";
    case ZOK_T_OBJECT:
        return "OBJREF";
    case ZOK_T_USHORT:
        return "UINT";
    case ZOK_T_ULONG:
        return "ULONG";
    case ZOK_T_LONG64:
        return "LONG64";
    case ZOK_T_ULONG64:
        return "ULONG64";
    default:
        return "UNKNOWN TYPE";
    }
}

std::string describe(const zok_var& v) {
    std::string out = type_name(v.type);
    if (v.flags & ZOK_VF_ARRAY)
        out += v.value.array ? format(" array[%u]", v.value.array->count) : " array";
    if (v.flags & ZOK_VF_TEMPORARY)
        out += " (temporary)";
    return out;
}

namespace {

// Host texts for the codes a module may raise with no text arguments.
std::string host_text(int32_t code) {
    switch (code) {
    case ZOK_ERR_NOT_STRING:
        return "String expression required" + where() + ".";
    case ZOK_ERR_NOT_POINTER:
        return "Pointer expression required" + where() + ".";
    case ZOK_ERR_NOT_OBJECT:
        return "Object reference required" + where() + ".";
    case ZOK_ERR_NOT_SIMPLE:
        return "Expression must be a scalar" + where() + ".";
    case ZOK_ERR_INVALID_OBJECT:
        return "Invalid object reference" + where() + ".";
    case ZOK_ERR_INVALID_POINTER:
        return "Invalid pointer" + where() + ".";
    case ZOK_ERR_ARG_COUNT:
        return "Incorrect number of arguments" + where() + ".";
    case ZOK_ERR_NO_KEYWORDS:
        return "Keywords are not allowed" + where() + ".";
    case ZOK_ERR_NO_MEMORY:
        return "Unable to allocate memory" + where() + ".";
    case ZOK_ERR_CONVERSION:
        return "Value cannot be converted" + where() + ".";
    default:
        return format("Message %d raised", code) + where() + ".";
    }
}

} // namespace

} // namespace zok::detail

using namespace zok::detail;

extern "C" {

void host_message(int32_t code, int32_t action, ...) {
    va_list ap;
    va_start(ap, action);
    std::string text;
    switch (code) {
    case ZOK_MSG_TEXT: {
        const char* fmt = va_arg(ap, const char*);
        text = fmt ? vformat(fmt, ap) : std::string();
        break;
    }
    case ZOK_MSG_ARG_TYPE: {
        const char* routine = va_arg(ap, const char*);
        text = format("Argument of the wrong type in %s.", routine ? routine : "?");
        break;
    }
    case ZOK_MSG_WRONG_CLASS: {
        const char* role = va_arg(ap, const char*);
        const char* cls = va_arg(ap, const char*);
        text = format("Argument %s must be an object of class %s.", role ? role : "?",
                      cls ? cls : "?");
        break;
    }
    case ZOK_MSG_NOT_OBJECT: {
        const char* routine = va_arg(ap, const char*);
        text = format("%s: the argument is not an object reference.", routine ? routine : "?");
        break;
    }
    default:
        text = host_text(code);
        break;
    }
    va_end(ap);
    report(code, action, std::move(text));
}

zok_message_block* host_define_message_block(const char* block_name, int32_t count,
                                             const zok_message_def* messages) {
    State& s = state();
    auto refuse = [&](const std::string& why) -> zok_message_block* {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_WARN,
              "Message block " + std::string(block_name ? block_name : "(null)") +
                  " refused: " + why);
        return nullptr;
    };
    if (++s.op_calls[0] == s.op_refuse_at[0])
        return refuse("refused by fault injection.");
    if (!block_name || !*block_name || count <= 0 || !messages)
        return refuse("it needs a name and at least one message.");
    for (int32_t i = 0; i < count; ++i)
        if (!messages[i].name || !messages[i].text)
            return refuse(format("message %d has no name or text.", i));
    // Defining a block again redefines its messages; its handle stays valid.
    std::unique_ptr<zok_message_block>& block = s.blocks[block_name];
    if (!block) {
        block = std::make_unique<zok_message_block>();
        block->name = block_name;
    }
    block->messages.clear();
    block->storage.clear();
    block->storage.reserve(2 * static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) {
        block->storage.emplace_back(messages[i].name);
        block->storage.emplace_back(messages[i].text);
    }
    for (size_t i = 0; i < static_cast<size_t>(count); ++i)
        block->messages.push_back(
            {block->storage[2 * i].c_str(), block->storage[2 * i + 1].c_str()});
    return block.get();
}

void host_message_from_block(const zok_message_block* block, int32_t code, int32_t action) {
    State& s = state();
    bool known = false;
    for (const auto& [name, b] : s.blocks)
        known = known || b.get() == block;
    if (!known) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "host_message_from_block: unknown message block" + where() + ".");
        return;
    }
    // Codes count down from 0: code 0 is the first message, -1 the second.
    int64_t index = -static_cast<int64_t>(code);
    if (index < 0 || index >= static_cast<int64_t>(block->messages.size())) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              format("Message block %s has no message %d", block->name.c_str(), code) + where() +
                  ".");
        return;
    }
    report(code, action, block->messages[static_cast<size_t>(index)].text, block->name);
}

} // extern "C"
