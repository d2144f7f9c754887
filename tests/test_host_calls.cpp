// The reference host's calls: routine registration, method resolution through
// inheritance (a program subclass overriding a module method), object life
// (INIT, CLEANUP), errors unwinding nested calls without leaks, keyword
// processing, modules, structure layout, and one table of every refusal with
// its code and text.  The "module" here is a handful of C routines registered
// through the C interface.
#include "support/testing.hpp"

#include <cstddef>
#include <cstring>
#include <tuple>

namespace {

// Every routine of these tests counts its runs: a refused call runs none.
int g_runs = 0;

zok_var* return_one(int32_t, zok_var**, zok_keywords*) {
    ++g_runs;
    return host_temp_long(1);
}

zok_var* text_temp(const char* text) {
    ++g_runs;
    zok_var* t = host_temp_var();
    t->type = ZOK_T_STRING;
    host_string_store(&t->value.str, text);
    return t;
}

zok_var* animal_speak(int32_t, zok_var**, zok_keywords*) {
    return text_temp("...");
}

zok_var* dog_speak(int32_t, zok_var**, zok_keywords*) {
    return text_temp("woof");
}

// Calls SPEAK by name, so the object's own class decides which runs.
zok_var* animal_describe(int32_t, zok_var** argv, zok_keywords*) {
    zok_heap_record* self = host_object_heap_var(argv[0]->value.heap_id, ZOK_ACTION_ERROR);
    const zok_name* speak = host_lookup_name("SPEAK", 0, 1, ZOK_ACTION_ERROR, 0);
    return host_call_method(2, speak, self, 0, 0, nullptr, 0, 0, 0);
}

void define_animals(zok::Host& host) {
    host.define_struct("ANIMAL", {{"LEGS", ZOK_T_LONG}});
    host.define_struct("DOG", {{"TAIL", ZOK_T_BYTE}}, "ANIMAL");
    const zok_routine_entry fns[] = {{{animal_describe}, "ANIMAL::DESCRIBE", 1, 1, 0, nullptr},
                                     {{animal_speak}, "ANIMAL::SPEAK", 1, 1, 0, nullptr},
                                     {{dog_speak}, "DOG::SPEAK", 1, 1, 0, nullptr}};
    ASSERT_EQ(host_add_routines(fns, 1, 3), 1);
}

// SETOUT(out): writes 42 into its argument; leaks one temporary on purpose.
void set_out(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* v = host_temp_long(42);
    host_var_copy(v, argv[0], 0);
    host_temp_var();
    host_release_temp(v);
}

// OUTER(job): makes temporaries and a text, then runs the job's EXECUTE.
void outer(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* text = host_temp_var();
    text->type = ZOK_T_STRING;
    host_string_store(&text->value.str, "held across the call");
    host_temp_long(99);
    zok_heap_record* job = host_object_heap_var(argv[0]->value.heap_id, ZOK_ACTION_ERROR);
    host_call_method(2, host_lookup_name("EXECUTE", 0, 1, 2, 0), job, 0, 0, nullptr, 0, 0, 0);
    host_release_temp(text);
}

void count_run(int32_t, zok_var**, zok_keywords*) {
    ++g_runs;
}

// A call block lists exactly the arguments the routine gets; a null entry is
// an undefined argument, which the routine may still write.  An output
// argument is written back; a temporary a statement leaves is released.
TEST(HostCalls, ACallGetsExactlyItsArgumentsAndMayWriteThem) {
    zok::Host host;
    std::vector<zok::Value> seen;
    host.add_procedure("TAKE", 1, 2, [&](zok::Call& c) {
        for (int32_t i = 0; i < c.argc(); ++i)
            seen.push_back(c.arg(i));
        c.set(0, "written into an undefined argument");
        return zok::Value();
    });
    zok_var* given = host.make_temp(5);
    zok_var* args[] = {nullptr, given, nullptr};
    zok_call_block call{0, {}, 2, host_lookup_name("TAKE", 0, 1, 2, 0), nullptr, args, nullptr};
    EXPECT_EQ(host_call_routine(&call), nullptr);
    EXPECT_EQ(seen, (std::vector<zok::Value>{zok::Value(), zok::Value(5)}));
    host_release_temp(given);
    const zok_routine_entry proc = {{.procedure = set_out}, "SETOUT", 1, 1, 0, nullptr};
    ASSERT_EQ(host_add_routines(&proc, 0, 1), 1);
    host.call_procedure("SETOUT", {zok::Ref{"out"}});
    EXPECT_EQ(host.get_var("OUT").as_int(), 42);
    EXPECT_EQ(host.leftover_temps(), 1u);
    EXPECT_EQ(host.live_temps(), 0u);
}

TEST(HostMethods, ResolutionFollowsTheActualClassThroughAProgramSubclass) {
    zok::Host host;
    define_animals(host);
    host.define_struct("PUPPY", {{"AGE", ZOK_T_LONG}}, "DOG");
    host.add_function("PUPPY::SPEAK", 1, 1, [](zok::Call& c) {
        std::string parent = c.host().call_method(c.self(), "DOG::SPEAK").as_string();
        return zok::Value("yip/" + parent);
    });
    zok::ObjectRef animal = host.new_object("ANIMAL");
    zok::ObjectRef dog = host.new_object("DOG");
    zok::ObjectRef puppy = host.new_object("PUPPY");
    EXPECT_EQ(host.call_method(animal, "DESCRIBE").as_string(), "...");
    EXPECT_EQ(host.call_method(dog, "DESCRIBE").as_string(), "woof");
    EXPECT_EQ(host.call_method(puppy, "DESCRIBE").as_string(), "yip/woof");
    EXPECT_EQ(host.call_method(puppy, "ANIMAL::SPEAK").as_string(), "...");
    // Names in any case, on every path.
    EXPECT_EQ(host.call_method(puppy, "animal::speak").as_string(), "...");
    EXPECT_TRUE(host.isa(puppy, "ANIMAL") && host.isa(puppy, "animal"));
    EXPECT_FALSE(host.isa(dog, "PUPPY") || host.isa(puppy, "animalx"));
    // Each letter in lower case, each at its own place in a long name.
    host.add_function("ANIMAL::ABCDEFGHIJKLMNOPQRSTUVWXYZ", 1, 1,
                      [](zok::Call&) { return zok::Value("abc"); });
    for (char c = 'a'; c <= 'z'; ++c) {
        std::string name = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
        name[static_cast<size_t>(c - 'a')] = c;
        EXPECT_EQ(host.call_method(puppy, name).as_string(), "abc") << name;
    }

    // A method added later is found, though a failed look-up was cached.
    expect_error(ZOK_ERR_UNKNOWN_METHOD, [&] { host.call_method(puppy, "SIT"); });
    host.add_function("ANIMAL::SIT", 1, 1, [](zok::Call&) { return zok::Value("sits"); });
    EXPECT_EQ(host.call_method(puppy, "SIT").as_string(), "sits");
    const zok::Method sit = host.method("sit");
    EXPECT_EQ(host.call_method(puppy, sit).as_string(), "sits");
    // ... and an override added later wins over what was resolved before it.
    host.add_function("PUPPY::SIT", 1, 1, [](zok::Call&) { return zok::Value("wags"); });
    EXPECT_EQ(host.call_method(puppy, "SIT").as_string(), "wags");
    EXPECT_EQ(host.call_method(puppy, sit).as_string(), "wags");

    const zok_name* handle = host_lookup_name("speak", 0, 1, ZOK_ACTION_RETURN, 0);
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(host_lookup_name("SPEAK", 0, 1, ZOK_ACTION_RETURN, 0), handle);
    EXPECT_EQ(host_lookup_name("NOSUCH", 0, 1, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_EQ(host_lookup_name("DOG", 0, 1, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_NE(host_lookup_name("DOG", 0, 0, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(host.live_texts(), 0u);
}

TEST(HostObjects, InitDecidesAndCleanupRunsOnDestroy) {
    zok::Host host;
    int cleanups = 0;
    host.define_struct("WIDGET", {{"STATE", ZOK_T_LONG}, {"LABEL", ZOK_T_STRING}});
    host.define_struct("GADGET", {{"EXTRA", ZOK_T_LONG}}, "WIDGET");
    host.add_function("WIDGET::INIT", 1, 2, [](zok::Call& c) {
        int64_t verdict = c.argc() > 1 ? c.arg(1).as_int() : 1;
        if (c.host().get_tag(c.self(), "STATE").as_int() != 0)
            throw std::logic_error("instance not zeroed");
        c.host().set_tag(c.self(), "STATE", 5);
        if (verdict == 2)
            host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "INIT refuses %d", 2);
        return zok::Value(static_cast<int32_t>(verdict));
    });
    host.add_procedure("WIDGET::CLEANUP", 1, 1, [&](zok::Call&) {
        ++cleanups;
        return zok::Value();
    });

    EXPECT_FALSE(host.new_object("WIDGET", {0}));
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(host.heap_count(), 0u);
    expect_error(ZOK_MSG_TEXT, [&] { host.new_object("WIDGET", {2}); });
    EXPECT_EQ(cleanups, 1);
    EXPECT_EQ(host.heap_count(), 0u);

    zok::ObjectRef w = host.new_object("WIDGET", {1});
    ASSERT_TRUE(w);
    EXPECT_EQ(host.class_of(w), "WIDGET");
    EXPECT_EQ(host.get_tag(w, "STATE").as_int(), 5);
    EXPECT_EQ(host.get_tag(w, "LABEL").as_string(), "");
    host.destroy(w);
    EXPECT_EQ(cleanups, 2);
    EXPECT_FALSE(host.heap_alive(w.id));
    host.destroy(w);
    host.destroy(zok::ObjectRef{});
    EXPECT_EQ(cleanups, 2);

    // The same through the C operations a module uses.
    zok_var* cls = host_find_class("gadget");
    ASSERT_NE(cls, nullptr);
    zok_var* one = host_temp_long(1);
    zok_var* args[] = {cls, one};
    zok_var* made = host_object_new(2, args, nullptr);
    ASSERT_EQ(made->type, ZOK_T_OBJECT);
    zok_heap_record* rec = host_object_heap_var(made->value.heap_id, ZOK_ACTION_ERROR);
    EXPECT_TRUE(host_object_isa(rec->var.value.st.def, "WIDGET", 0, 0, ZOK_ACTION_ERROR));
    EXPECT_EQ(host_find_class("NOCLASS"), nullptr);
    host_object_destroy(1, &made, nullptr);
    EXPECT_EQ(cleanups, 3);
    for (zok_var* t : {cls, one, made})
        host_release_temp(t);
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.live_temps(), 0u);
}

// ---- Keywords.

struct KwRecord {
    uint64_t holds;
    int32_t count_given, count, handler_given;
    uint32_t handler;
    int32_t message_given, message, text_given, pad;
    zok_string text;
    int32_t response_given, pad2;
    zok_var* response;
};

#define KW_SLOTS(given, value) offsetof(KwRecord, given), offsetof(KwRecord, value)
const zok_keyword_entry kw_table[] = {
    {"", 0, 0, 0, 0, 0, 0, 0},
    {"COUNT", ZOK_T_LONG, 0, 1, ZOK_KW_ZERO_IF_ABSENT, 0, KW_SLOTS(count_given, count)},
    {"HANDLER", ZOK_T_OBJECT, 0, 1, 0, 0, KW_SLOTS(handler_given, handler)},
    {"MESSAGE", ZOK_T_LONG, 0, 1, 0, 0, KW_SLOTS(message_given, message)},
    {"MESSAGESTRING", ZOK_T_STRING, 0, 1, 0, 0, KW_SLOTS(text_given, text)},
    {"RESPONSE", ZOK_T_UNDEFINED, 0, 1, ZOK_KW_BY_REFERENCE | ZOK_KW_NULL_IF_ABSENT, 0,
     KW_SLOTS(response_given, response)},
    {nullptr, 0, 0, 0, 0, 0, 0, 0},
};

// Runs keyword processing the way a module's INIT does and returns what it
// filled in, as text; with two arguments, the routine then fails.
std::string process(zok::Host& host, const zok::Keywords& kw, const zok::Args& args = {1}) {
    if (!host.has_routine("KW"))
        host.add_function(
            "KW", 0, 2,
            [](zok::Call& c) {
                KwRecord r{};
                zok_var* plain[2];
                const size_t before = c.host().live_texts();
                const int32_t count =
                    host_keywords_process(c.argc(), c.argv(), c.keywords(), kw_table, plain, 1, &r);
                char seen[256];
                std::snprintf(
                    seen, sizeof seen,
                    "%d count %d:%d handler %d:%x message %d:%x text %d:%.*s response %d:%s "
                    "holds %d:%zu",
                    count, r.count_given, r.count, r.handler_given, r.handler, r.message_given,
                    static_cast<uint32_t>(r.message), r.text_given,
                    r.text_given ? static_cast<int>(r.text.length) : 0,
                    r.text_given ? r.text.text : "", r.response_given,
                    r.response == c.host().raw_var("R") ? "R"
                    : r.response                        ? "?"
                                                        : "null",
                    r.holds != 0, c.host().live_texts() - before);
                if (c.argc() == 2) { // fails while processing holds a text
                    host_temp_long(7);
                    host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "failed at %d in %s", 42, "KW");
                }
                if (r.holds)
                    host_keywords_free();
                return zok::Value(seen);
            },
            true);
    return host.call_function("KW", args, kw).as_string();
}

// A raise outside any routine names none; the return action records and goes
// on, and so does the error action while errors return.
TEST(HostMessages, RecordedActionsGoOn) {
    zok::Host host;
    expect_error(ZOK_MSG_TEXT, [&] { host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "top"); });
    EXPECT_EQ(host.messages().back().routine, "");
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_RETURN, "note %s", "recorded");
    EXPECT_EQ(host.messages().back().text, "note recorded");
    host.set_errors_return(true);
    host_message(ZOK_MSG_WRONG_CLASS, ZOK_ACTION_ERROR, "message", "ZOKfwMessage");
    EXPECT_EQ(host.messages().back().action, ZOK_ACTION_ERROR);
    EXPECT_NE(host.messages().back().text.find("ZOKfwMessage"), std::string::npos);
}

// Absent keywords are zeroed, nulled or poisoned as their entry says; a name
// matches by its unique prefix, an exact match winning; a text taken is held
// until the keywords are freed.
TEST(HostKeywords, ProcessingFillsTheRecord) {
    zok::Host host;
    host.set_var("R", 3.5);
    const std::pair<zok::Keywords, std::string> cases[] = {
        {{}, "1 count 0:0 handler 0:a5a5a5a5 message 0:a5a5a5a5 text 0: response 0:null holds 0:0"},
        {{{"message", 5}},
         "1 count 0:0 handler 0:a5a5a5a5 message 1:5 text 0: response 0:null holds 0:0"},
        {{{"MESSAGES", "hi"}, {"c", "12"}, {"H", zok::ObjectRef{7}}},
         "1 count 1:12 handler 1:7 message 0:a5a5a5a5 text 1:hi response 0:null holds 1:1"},
        {{{"RESP", zok::Ref{"R"}}, {"COUNT", 3.9}},
         "1 count 1:3 handler 0:a5a5a5a5 message 0:a5a5a5a5 text 0: response 1:R holds 0:0"},
    };
    for (const auto& [kw, seen] : cases)
        EXPECT_EQ(process(host, kw), seen);
    EXPECT_EQ(host.live_texts(), 0u);
}

// ---- Modules and the session.

// Each loaded module's reset runs while the heap still holds what the session
// made, held variables included; then the heap is freed and registrations stay.
TEST(HostModules, ResetRunsEachLoadedModulesResetAndKeepsRegistrations) {
    zok::Host host;
    static size_t heap_at_reset = 0;
    host.load_module(
        [] {
            static const zok_routine_entry fn = {{return_one}, "PING", 0, 0, 0, nullptr};
            return host_add_routines(&fn, 1, 1);
        },
        [] { heap_at_reset += zok::Host::current().heap_count(); });
    host.define_struct("THING", {{"N", ZOK_T_LONG}});
    host_heap_var(host.new_object("THING").id)->flags |= ZOK_HEAP_HELD;
    host.reset_session();
    EXPECT_EQ(heap_at_reset, 1u);
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.call_function("PING").as_int(), 1);
    EXPECT_TRUE(host.new_object("THING"));
}

// ---- Structures.

TEST(HostStructs, FlatInheritedLayoutAndTagLookUp) {
    zok::Host host;
    zok_struct_def* parent =
        host.define_struct("BASE", {{"TOP", ZOK_T_DOUBLE}, {"VERSION", ZOK_T_LONG}});
    zok_struct_def* child = host.define_struct(
        "DERIVED",
        {{"OWN", ZOK_T_LONG}, {"FLAG", ZOK_T_BYTE}, {"TEXT", ZOK_T_STRING}, {"PTR", ZOK_T_POINTER}},
        "BASE");
    EXPECT_EQ(parent->size, 16u);
    EXPECT_EQ(child->parent, parent);
    EXPECT_EQ(host.find_struct("derived"), child);
    EXPECT_STREQ(child->name, "DERIVED");
    EXPECT_EQ(child->size, 48u);
    EXPECT_EQ(child->align, 8u);
    zok_var* t = host_temp_struct(child);
    for (size_t i = 0; i < child->size; ++i)
        ASSERT_EQ(static_cast<char*>(t->value.st.data)[i], 0) << "instance not zeroed at " << i;
    // The own tags continue right after the parent's last tag; a name at an
    // address looked up before may hold another name now.
    auto offset = [&](const char* tag) {
        return static_cast<char*>(host_struct_tag_data(t, tag, 0, 0, 0)) -
               static_cast<char*>(t->value.st.data);
    };
    const std::pair<const char*, ptrdiff_t> offsets[] = {{"TOP", 0},   {"VERSION", 8}, {"OWN", 12},
                                                         {"FLAG", 16}, {"TEXT", 24},   {"PTR", 40}};
    for (const auto& [tag, at] : offsets)
        EXPECT_EQ(offset(tag), at) << tag;
    char reused[8] = "OWN";
    EXPECT_EQ(offset(reused), 12);
    EXPECT_EQ(offset(reused), 12);
    std::strcpy(reused, "FLAG");
    EXPECT_EQ(offset(reused), 16);
    expect_error(ZOK_ERR_STRUCT, [&] { host_struct_tag_data(t, "MISSING", 0, 0, 0); });
    host_release_temp(t);

    // The prepared form lists the string tags.
    const auto* prepared = static_cast<const uint32_t*>(host_struct_prepare("DERIVED", 0, 0, 1, 2));
    ASSERT_NE(prepared, nullptr);
    EXPECT_EQ(prepared[0], 1u);
    EXPECT_EQ(prepared[1], 24u);
}

// ---- Every refusal, raised or recorded as a warning: its code and text, no
// routine run, and nothing a program can observe changed.

TEST(HostRefusals, EachCarriesItsCodeAndTextAndChangesNothing) {
    zok::Host host;
    define_animals(host);
    const zok_routine_entry procs[] = {
        {{.procedure = count_run}, "TWOTHREE", 2, 3, 0, nullptr},
        {{.procedure = count_run}, "TAKESKW", 0, 0, ZOK_RT_KEYWORDS, nullptr}};
    ASSERT_EQ(host_add_routines(procs, 0, 2), 1);
    EXPECT_EQ(host_add_routines(procs, 0, 2), 1); // the same routines again are no clash
    host.define_struct("PART", {{"STATE", ZOK_T_LONG}});
    host.add_function("PART::INIT", 1, 1, [](zok::Call&) { return zok::Value(++g_runs); });
    process(host, {}); // defines KW
    zok::ObjectRef animal = host.new_object("ANIMAL");
    zok_var* part_class = host_find_class("PART");
    zok_var number{};
    number.type = ZOK_T_LONG;
    const uint32_t dead = host_heap_var_new(ZOK_HEAP_POINTER, &number, ZOK_HEAP_NEW_COPY, 2)->id;
    host_heap_free(dead, 0, 0);
    // A call block for `name` listing `argc` arguments, then `after`.
    auto call_block = [&](const char* name, uint8_t is_function, int32_t argc, uint8_t pad,
                          zok_var* after) {
        return [=, &number] {
            std::vector<zok_var*> args(static_cast<size_t>(argc), &number);
            args.push_back(after);
            zok_call_block call{
                is_function, {0, pad},    argc,   host_lookup_name(name, 0, 1, 2, 0),
                nullptr,     args.data(), nullptr};
            host_call_routine(&call);
        };
    };
    auto keywords = [&](const zok::Keywords& kw) { return [&host, kw] { process(host, kw); }; };
    auto procedure = [&](const char* name, const zok::Args& args, const zok::Keywords& kw = {}) {
        return [&host, name, args, kw] { host.call_procedure(name, args, kw); };
    };
    // What no observation shows: routines run, structures and routines defined.
    auto registrations = [&] {
        std::vector<std::string> names;
        for (const zok::RoutineInfo& r : host.routines())
            names.push_back(r.name);
        return std::tuple(g_runs, host.struct_names(), names);
    };
    // OUTER(job) fails inside KW, two calls down, while every frame holds
    // temporaries and KW holds a keyword text.
    const zok_routine_entry unwinding[] = {{{.procedure = outer}, "OUTER", 1, 1, 0, nullptr}};
    ASSERT_EQ(host_add_routines(unwinding, 0, 1), 1);
    host.define_struct("JOB", {{"N", ZOK_T_LONG}});
    host.add_procedure("JOB::EXECUTE", 1, 1, [](zok::Call& c) {
        process(c.host(), {{"messagestring", "a keyword text"}}, {"positional", 2});
        return zok::Value();
    });
    zok::ObjectRef job = host.new_object("JOB");
    struct Refusal {
        int32_t code;
        std::string text;
        std::function<void()> call;
        std::string routine = ""; // that was running when it was raised
    };
    std::vector<Refusal> raised = {
        {ZOK_ERR_ARG_COUNT, "Incorrect number of arguments: TWOTHREE takes 2 to 3, got 1.",
         procedure("TWOTHREE", {1}), "TWOTHREE"},
        {ZOK_ERR_ARG_COUNT, "Incorrect number of arguments: TWOTHREE takes 2 to 3, got 4.",
         procedure("TWOTHREE", {1, 2, 3, 4}), "TWOTHREE"},
        {ZOK_ERR_NO_KEYWORDS, "Keyword EXTRA not allowed in call to: TWOTHREE.",
         procedure("TWOTHREE", {1, 2}, {{"EXTRA", 1}}), "TWOTHREE"},
        {ZOK_ERR_ARG_COUNT, "Incorrect number of arguments: TWOTHREE takes 2 to 3, got 1.",
         call_block("TWOTHREE", 0, 1, 0, nullptr), "TWOTHREE"},
        {ZOK_ERR_BAD_ARGUMENT, "host_call_routine: bad call block.",
         call_block("TWOTHREE", 0, 2, 1, nullptr)},
        // The list is not closed after argc entries.
        {ZOK_ERR_BAD_ARGUMENT, "host_call_routine: bad call block.",
         call_block("TWOTHREE", 0, 2, 0, &number)},
        // A procedure is no function, by name or by handle.
        {ZOK_ERR_UNKNOWN_ROUTINE, "Attempt to call undefined function: TAKESKW.",
         [&] { host.call_function("TAKESKW"); }},
        {ZOK_ERR_UNKNOWN_ROUTINE, "Attempt to call undefined function: TAKESKW.",
         call_block("TAKESKW", 1, 0, 0, nullptr)},
        // A qualified call starts at a class of the object's own chain, never elsewhere.
        {ZOK_ERR_UNKNOWN_METHOD, "Attempt to call undefined method: ANIMAL::SPEAK.",
         [&] { host.call_method(animal, "DOG::SPEAK"); }},
        {ZOK_ERR_UNKNOWN_METHOD, "Attempt to call undefined method: ANIMAL::SPEAK.",
         [&] { host.call_method(animal, host.method("dog::speak")); }},
        {ZOK_ERR_UNKNOWN_CLASS, "Class NOSUCH is not defined.", [&] { host.new_object("NOSUCH"); }},
        // A creation whose result cannot be made makes nothing and runs no INIT.
        {ZOK_ERR_NO_MEMORY, "Unable to allocate memory: making a temporary variable.",
         [&] {
             host.fail_label("(temp)");
             host_object_new(1, &part_class, nullptr);
         }},
        // The text taken for a keyword before an ambiguous one goes back.
        {ZOK_ERR_AMBIGUOUS_KEYWORD, "Ambiguous keyword abbreviation: MESS in KW.",
         keywords({{"MESSAGESTRING", "held"}, {"MESS", 1}}), "KW"},
        {ZOK_ERR_UNKNOWN_KEYWORD, "Keyword NOSUCH not allowed in call to: KW.",
         keywords({{"NOSUCH", 1}}), "KW"},
        {ZOK_ERR_CONVERSION, "Keyword COUNT must be a scalar LONG, got STRING (temporary) in KW.",
         keywords({{"COUNT", "abc"}}), "KW"},
        {ZOK_ERR_CONVERSION, "Keyword HANDLER must be a scalar OBJREF, got LONG (temporary) in KW.",
         keywords({{"HANDLER", 5}}), "KW"},
        {ZOK_ERR_CONVERSION,
         "Keyword COUNT must be a scalar LONG, got LONG array[2] (temporary) in KW.",
         keywords({{"COUNT", std::vector<int32_t>{1, 2}}}), "KW"},
        {ZOK_ERR_BAD_ARGUMENT, "host_heap_var_new: kind 5 is neither pointer nor object.",
         [&] { host_heap_var_new(5, &number, ZOK_HEAP_NEW_COPY, 2); }},
        {ZOK_ERR_BAD_ARGUMENT, "host_heap_var_new: mode 7 is neither copy nor move.",
         [&] { host_heap_var_new(ZOK_HEAP_POINTER, &number, 7, 2); }},
        {ZOK_ERR_BAD_ARGUMENT, "host_heap_var_new: null value.",
         [&] { host_heap_var_new(ZOK_HEAP_POINTER, nullptr, 2, 2); }},
        {ZOK_ERR_NOT_OBJECT,
         "host_heap_var_new: an object needs a scalar structure value, not LONG.",
         [&] { host_heap_var_new(ZOK_HEAP_OBJECT, &number, 2, 2); }},
        {ZOK_ERR_INVALID_POINTER, "Invalid pointer: no live heap variable has identifier 2.",
         [&] { host_heap_free(dead, 0, 0); }},
        {ZOK_ERR_INVALID_OBJECT,
         "Invalid object reference: no live heap variable has identifier 2.",
         [&] { host_object_heap_var(dead, 2); }},
        {ZOK_ERR_BAD_ARGUMENT, "host_lookup_name: bad arguments.",
         [&] { host_lookup_name("X", 1, 1, 2, 0); }},
        {ZOK_ERR_BAD_ARGUMENT, "host_struct_prepare: reserved arguments must be 0, 0, 1.",
         [&] { host_struct_prepare("S", 0, 0, 0, 2); }},
        {ZOK_ERR_UNKNOWN_CLASS, "host_struct_prepare: structure S is not defined.",
         [&] { host_struct_prepare("S", 0, 0, 1, 2); }},
        {ZOK_ERR_BAD_ARGUMENT,
         "Cannot load module /nonexistent/libnothing.so: /nonexistent/libnothing.so: cannot open "
         "shared object file: No such file or directory",
         [&] { host.load_module("/nonexistent/libnothing.so"); }},
        {ZOK_ERR_BAD_ARGUMENT, "Module libm.so.6 has no entry point ZOK_Load.",
         [&] { host.load_module("libm.so.6"); }},
        {ZOK_MSG_TEXT, "failed at 42 in KW", procedure("OUTER", {job}), "KW"},
        // A module whose load fails is never reset.
        {ZOK_ERR_BAD_ARGUMENT, "Module (linked) failed to load: ZOK_Load returned 0.",
         [&] { host.load_module([] { return 0; }, [] { ++g_runs; }); }},
    };
    // A table of a good entry and a bad one is refused whole.
    const zok_routine_entry good = {{return_one}, "GOOD", 0, 1, 0, nullptr};
    const std::pair<const char*, zok_routine_entry> bad_entries[] = {
        {"routine name lower is not an upper-case routine or CLASS::METHOD name.",
         {{return_one}, "lower", 0, 0, 0, nullptr}},
        {"routine name ZOKX:: is not an upper-case routine or CLASS::METHOD name.",
         {{return_one}, "ZOKX::", 0, 0, 0, nullptr}},
        {"MINMAX has minimum 2 above maximum 1.", {{return_one}, "MINMAX", 2, 1, 0, nullptr}},
        {"FLAGS has unknown flags 0x4.", {{return_one}, "FLAGS", 0, 0, 0x4, nullptr}},
        {"ANIMAL::SPEAK clashes with a different routine of that name.",
         {{return_one}, "ANIMAL::SPEAK", 1, 1, 0, nullptr}},
        {"GOOD appears twice in the table.", good},
        {"NOENTRY has no entry point.", {{nullptr}, "NOENTRY", 0, 0, 0, nullptr}},
        {"EXTRA has a non-null reserved field.", {{return_one}, "EXTRA", 0, 0, 0, &good}},
    };
    const zok_tag_entry a{"A", nullptr, ZOK_T_LONG, 0, {}};
    const zok_tag_entry parent{"P", nullptr, 0, ZOK_TAG_INHERIT, {}};
    const std::tuple<const char*, const char*, std::vector<zok_tag_entry>> bad_structs[] = {
        {nullptr, "it has no name.", {a}},
        {"S", "it has no tags.", {}},
        {"S",
         "its inheritance entry has a type.",
         {{"A", nullptr, ZOK_T_LONG, ZOK_TAG_INHERIT, {}}}},
        {"S", "the inheritance entry P is not first.", {a, parent}},
        {"S", "it inherits P, which is not defined.", {parent, a}},
        {"S", "tag D is not a scalar.", {{"D", &a, ZOK_T_LONG, 0, {}}}},
        {"S", "a tag has no name.", {a, {"", nullptr, ZOK_T_LONG, 0, {}}}},
        {"S", "tag A appears twice.", {a, a}},
        {"ONE",
         "a structure of that name exists with another layout.",
         {{"A", nullptr, ZOK_T_DOUBLE, 0, {}}}},
    };
    const zok_tag_entry one[] = {a, {nullptr, nullptr, 0, 0, {}}};
    const zok_struct_def* defined = host_make_struct("ONE", 16, one, 2);
    EXPECT_EQ(host_make_struct("ONE", 16, one, 2), defined); // the same layout again is no clash
    const zok_message_def nameless[] = {{nullptr, "text"}};
    std::vector<Refusal> warned = {
        {ZOK_ERR_INVALID_OBJECT,
         "Invalid object reference: no live heap variable has identifier 2.",
         [&] { EXPECT_EQ(host_object_heap_var(dead, 1), nullptr); }},
        {ZOK_ERR_STRUCT, "Structure S cannot be defined: it has no tag table.",
         [&] { EXPECT_EQ(host_make_struct("S", 16, nullptr, 2), nullptr); }},
        {ZOK_ERR_BAD_ARGUMENT,
         "host_make_struct: reserved arguments must be 16 and 2, not 8 and 2.",
         [&] { EXPECT_EQ(host_make_struct("S", 8, &a, 2), nullptr); }},
        {ZOK_ERR_BAD_ARGUMENT, "Message block  refused: it needs a name and at least one message.",
         [&] { EXPECT_EQ(host_define_message_block("", 1, nameless), nullptr); }},
        {ZOK_ERR_BAD_ARGUMENT, "Message block B refused: it needs a name and at least one message.",
         [&] { EXPECT_EQ(host_define_message_block("B", 0, nameless), nullptr); }},
        {ZOK_ERR_BAD_ARGUMENT, "Message block B refused: message 0 has no name or text.",
         [&] { EXPECT_EQ(host_define_message_block("B", 1, nameless), nullptr); }},
    };
    for (const auto& [text, entry] : bad_entries)
        warned.push_back({ZOK_ERR_ROUTINE_TABLE, std::string("Routine table refused: ") + text,
                          [&good, &entry = entry] {
                              const zok_routine_entry table[] = {good, entry};
                              EXPECT_EQ(host_add_routines(table, 1, 2), 0);
                          }});
    for (const auto& [name, text, tags] : bad_structs)
        warned.push_back({ZOK_ERR_STRUCT,
                          std::string("Structure ") + (name ? name : "(unnamed)") +
                              " cannot be defined: " + text,
                          [name = name, tags = tags]() mutable {
                              tags.push_back({nullptr, nullptr, 0, 0, {}});
                              EXPECT_EQ(host_make_struct(name, 16, tags.data(), 2), nullptr);
                          }});
    // Every message a module may raise through the host, under either action,
    // from the same arguments (a text message is its format).
    const std::pair<int32_t, const char*> messages[] = {
        {ZOK_MSG_TEXT, "R"},
        {ZOK_MSG_ARG_TYPE, "Argument of the wrong type in R."},
        {ZOK_MSG_WRONG_CLASS, "Argument R must be an object of class C."},
        {ZOK_MSG_NOT_OBJECT, "R: the argument is not an object reference."},
        {ZOK_ERR_NOT_STRING, "String expression required."},
        {ZOK_ERR_NOT_POINTER, "Pointer expression required."},
        {ZOK_ERR_NOT_OBJECT, "Object reference required."},
        {ZOK_ERR_NOT_SIMPLE, "Expression must be a scalar."},
        {ZOK_ERR_INVALID_OBJECT, "Invalid object reference."},
        {ZOK_ERR_INVALID_POINTER, "Invalid pointer."},
        {ZOK_ERR_ARG_COUNT, "Incorrect number of arguments."},
        {ZOK_ERR_NO_KEYWORDS, "Keywords are not allowed."},
        {ZOK_ERR_NO_MEMORY, "Unable to allocate memory."},
        {ZOK_ERR_CONVERSION, "Value cannot be converted."},
        {-1234, "Message -1234 raised."},
    };
    for (const auto& [code, text] : messages) {
        raised.push_back({code, text, [code] { host_message(code, ZOK_ACTION_ERROR, "R", "C"); }});
        warned.push_back({code, text, [code] { host_message(code, ZOK_ACTION_WARN, "R", "C"); }});
    }
    for (const auto& [action, refusals] :
         {std::pair{ZOK_ACTION_ERROR, &raised}, std::pair{ZOK_ACTION_WARN, &warned}})
        for (const Refusal& r : *refusals) {
            SCOPED_TRACE(r.text);
            host.clear_messages();
            const zok::Observation before = host.observe();
            const auto registered = registrations();
            if (action == ZOK_ACTION_ERROR)
                expect_error(r.code, r.text, r.call);
            else
                r.call();
            host.clear_faults();
            ASSERT_EQ(host.messages().size(), 1u);
            const zok::Message& m = host.messages()[0];
            EXPECT_EQ(std::tie(m.code, m.action, m.text, m.routine),
                      std::tie(r.code, action, r.text, r.routine));
            EXPECT_EQ(zok::difference(before, host.observe()), "");
            EXPECT_EQ(registrations(), registered);
        }
    EXPECT_TRUE(host.message_blocks().empty());
    // The quiet action records nothing.
    EXPECT_EQ(host_heap_var_new(ZOK_HEAP_OBJECT, &number, 2, ZOK_ACTION_RETURN), nullptr);
    EXPECT_EQ(host_object_heap_var(dead, ZOK_ACTION_RETURN), nullptr);
    EXPECT_EQ(host.messages().size(), 1u);
    const int runs = g_runs;
    host.reset_session(); // runs no reset of the module whose load failed
    EXPECT_EQ(g_runs, runs);
    host_release_temp(part_class);
}

} // namespace
