// A small ZOK module: the class TALLY adds up amounts under a label.
//
//   t = TALLY(LABEL='apples', START=2)   INIT, with two keywords
//   t.ADD, 5                             a procedure method
//   n = t.TOTAL()                        a function method: 7
//   s = t.REPORT()                       'apples: 7 in 1 additions'
//
// The state lives in the object's own tags, so the host frees, copies, saves
// and restores it with the object, and the module keeps nothing of its own.
#include <zok/zok.h>

#include <cstddef>
#include <string>

#define TALLY_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

const zok_tag_entry tally_tags[] = {
    {"TOTAL", nullptr, ZOK_T_LONG64, 0, {}},
    {"COUNT", nullptr, ZOK_T_LONG, 0, {}},
    {"LABEL", nullptr, ZOK_T_STRING, 0, {}},
    {nullptr, nullptr, 0, 0, {}},
};

// The module's message block; a message's code is minus its index.
const zok_message_def tally_messages[] = {
    {"TALLY_M_NEGATIVE", "Tally amounts must not be negative"},
};
constexpr int32_t TALLY_NEGATIVE = 0;
const zok_message_block* tally_block = nullptr;

// The results record that INIT's keyword table describes.
struct InitKeywords {
    int64_t leading; // nonzero while the host holds keyword texts for us
    int32_t label_given;
    zok_string label;
    int32_t start_given;
    int32_t start;
};

const zok_keyword_entry init_keywords[] = {
    {"", 0, 0, 0, 0, 0, 0, 0},
    {"LABEL", ZOK_T_STRING, 0, 1, 0, 0, offsetof(InitKeywords, label_given),
     offsetof(InitKeywords, label)},
    {"START", ZOK_T_LONG, 0, 1, ZOK_KW_ZERO_IF_ABSENT, 0, offsetof(InitKeywords, start_given),
     offsetof(InitKeywords, start)},
    {nullptr, 0, 0, 0, 0, 0, 0, 0},
};

// Errors leave a routine as C++ exceptions, so whatever a routine holds is
// held by an object whose destructor gives it back.
struct KeywordTexts {
    const InitKeywords& kw;
    ~KeywordTexts() {
        if (kw.leading != 0)
            host_keywords_free();
    }
};

struct OwnedTemp {
    zok_var* var;
    ~OwnedTemp() {
        if (var != nullptr)
            host_release_temp(var);
    }
    zok_var* hand_back() {
        zok_var* v = var;
        var = nullptr;
        return v;
    }
};

struct OwnedText {
    zok_string text{};
    ~OwnedText() { host_string_release(&text, 1); }
};

void check_amount(int64_t amount) {
    if (amount < 0)
        host_message_from_block(tally_block, TALLY_NEGATIVE, ZOK_ACTION_ERROR);
}

// The instance of the TALLY (or subclass) that `self` refers to; a host
// error for anything else.
zok_var* tally_of(const zok_var* self, const char* routine) {
    if (self->type != ZOK_T_OBJECT || (self->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_message(ZOK_MSG_NOT_OBJECT, ZOK_ACTION_ERROR, routine);
    zok_heap_record* rec = host_object_heap_var(self->value.heap_id, ZOK_ACTION_ERROR);
    if (host_object_isa(rec->var.value.st.def, "TALLY", 0, 0, ZOK_ACTION_ERROR) == 0)
        host_message(ZOK_MSG_WRONG_CLASS, ZOK_ACTION_ERROR, "self", "TALLY");
    return &rec->var;
}

template <typename T>
T& tag(zok_var* instance, const char* name) {
    return *static_cast<T*>(host_struct_tag_data(instance, name, 0, 0, 0));
}

// TALLY::INIT, self [, LABEL=text] [, START=amount]
zok_var* tally_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    zok_var* instance = tally_of(argv[0], "TALLY::INIT");
    InitKeywords given{};
    const KeywordTexts release{given};
    zok_var* plain[1];
    host_keywords_process(argc, argv, kw, init_keywords, plain, 1, &given);
    check_amount(given.start);
    OwnedText label;
    if (given.label_given != 0)
        host_string_store(&label.text, given.label.text);
    OwnedTemp ok{host_temp_long(1)};
    // Everything is in hand; nothing below can fail.
    auto& stored = tag<zok_string>(instance, "LABEL");
    host_string_release(&stored, 1);
    stored = label.text;
    label.text = zok_string{};
    tag<int64_t>(instance, "TOTAL") = given.start;
    tag<int32_t>(instance, "COUNT") = 0;
    return ok.hand_back();
}

// TALLY::ADD, self, amount
void tally_add(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* instance = tally_of(argv[0], "TALLY::ADD");
    const OwnedTemp amount{host_convert_var(argv[1], ZOK_T_LONG64)};
    const int64_t value = amount.var->value.long64_val;
    check_amount(value);
    int64_t& total = tag<int64_t>(instance, "TOTAL");
    int64_t sum = 0;
    if (__builtin_add_overflow(total, value, &sum))
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "%s: the total would overflow", "TALLY::ADD");
    total = sum;
    ++tag<int32_t>(instance, "COUNT");
}

// TALLY::TOTAL(self)
zok_var* tally_total(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* instance = tally_of(argv[0], "TALLY::TOTAL");
    zok_var* result = host_temp_var();
    result->type = ZOK_T_LONG64;
    result->value.long64_val = tag<int64_t>(instance, "TOTAL");
    return result;
}

// TALLY::REPORT(self): "label: total in count additions"
zok_var* tally_report(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* instance = tally_of(argv[0], "TALLY::REPORT");
    const zok_string& label = tag<zok_string>(instance, "LABEL");
    const std::string text = std::string(label.text, label.length) + ": " +
                             std::to_string(tag<int64_t>(instance, "TOTAL")) + " in " +
                             std::to_string(tag<int32_t>(instance, "COUNT")) + " additions";
    OwnedTemp result{host_temp_var()};
    host_string_store(&result.var->value.str, text.c_str());
    result.var->type = ZOK_T_STRING;
    return result.hand_back();
}

const zok_routine_entry tally_functions[] = {
    {{.function = tally_init}, "TALLY::INIT", 1, 1, ZOK_RT_KEYWORDS, nullptr},
    {{.function = tally_report}, "TALLY::REPORT", 1, 1, 0, nullptr},
    {{.function = tally_total}, "TALLY::TOTAL", 1, 1, 0, nullptr},
};
const zok_routine_entry tally_procedures[] = {
    {{.procedure = tally_add}, "TALLY::ADD", 2, 2, 0, nullptr},
};

} // namespace

TALLY_EXPORT int32_t ZOK_Load() {
    zok_struct_def* def = host_make_struct("TALLY", 16, tally_tags, 2);
    if (def == nullptr)
        return 0;
    // Freeing or copying an instance must visit its string tag.
    if (def->prepared == nullptr)
        def->prepared = host_struct_prepare("TALLY", 0, 0, 1, ZOK_ACTION_RETURN);
    tally_block = host_define_message_block("TALLY_MBLK", 1, tally_messages);
    if (def->prepared == nullptr || tally_block == nullptr)
        return 0;
    return host_add_routines(tally_functions, 1, 3) != 0 &&
           host_add_routines(tally_procedures, 0, 1) != 0;
}
