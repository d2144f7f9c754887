// The reference host's calls: routine registration, argument-count and
// keyword refusals, method resolution through inheritance (a program subclass
// overriding a module method), object life (INIT, CLEANUP), errors unwinding
// nested calls without leaks, and keyword processing.  The "module" here is a
// handful of C routines registered through the C interface.
#include "host.hpp"
#include "support/testing.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace {

zok_var* return_one(int32_t, zok_var**, zok_keywords*) {
    return host_temp_long(1);
}

int g_runs = 0;
void count_run(int32_t, zok_var**, zok_keywords*) {
    ++g_runs;
}

TEST(HostRoutines, ABadEntryRefusesTheWholeTable) {
    zok::Host host;
    const zok_routine_entry clash = {{return_one}, "CLASH", 0, 0, 0, nullptr};
    ASSERT_EQ(host_add_routines(&clash, 1, 1), 1);
    EXPECT_EQ(host_add_routines(&clash, 1, 1), 1); // the same routine again is no clash
    const zok_routine_entry good = {{return_one}, "GOOD", 0, 1, 0, nullptr};
    const zok_routine_entry bad[] = {
        {{return_one}, "lower", 0, 0, 0, nullptr},
        {{return_one}, "ZOKX::", 0, 0, 0, nullptr},
        {{return_one}, "MINMAX", 2, 1, 0, nullptr},
        {{return_one}, "FLAGS", 0, 0, 0x4, nullptr},
        {{return_one}, "CLASH", 0, 1, 0, nullptr},
        {{return_one}, "GOOD", 0, 1, 0, nullptr}, // twice in one table
    };
    for (const zok_routine_entry& entry : bad) {
        const zok_routine_entry table[] = {good, entry};
        EXPECT_EQ(host_add_routines(table, 1, 2), 0) << entry.name;
        EXPECT_FALSE(host.has_routine("GOOD")) << entry.name;
        EXPECT_EQ(host.messages().back().code, ZOK_ERR_ROUTINE_TABLE);
    }
    EXPECT_EQ(host.call_function("CLASH").as_int(), 1);
}

TEST(HostRoutines, CountAndKeywordRefusalsComeBeforeTheRoutineRuns) {
    zok::Host host;
    const zok_routine_entry procs[] = {
        {{.procedure = count_run}, "TWOTHREE", 2, 3, 0, nullptr},
        {{.procedure = count_run}, "TAKESKW", 0, 0, ZOK_RT_KEYWORDS, nullptr}};
    ASSERT_EQ(host_add_routines(procs, 0, 2), 1);
    g_runs = 0;
    zok::Error e = expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_procedure("TWOTHREE", {1}); });
    EXPECT_EQ(e.routine(), "TWOTHREE");
    expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_procedure("TWOTHREE", {1, 2, 3, 4}); });
    expect_error(ZOK_ERR_NO_KEYWORDS, [&] {
        host.call_procedure("TWOTHREE", {1, 2}, {{"EXTRA", 1}});
    });
    EXPECT_EQ(g_runs, 0);
    host.call_procedure("TWOTHREE", {1, 2});
    host.call_procedure("TAKESKW", {}, {{"ANY", "x"}});
    EXPECT_EQ(g_runs, 2);
    // A procedure is no function, by name or by handle.
    expect_error(ZOK_ERR_UNKNOWN_ROUTINE, [&] { host.call_function("TAKESKW"); });
    zok_call_block call{1,       {},      0,      host_lookup_name("TAKESKW", 0, 1, 2, 0),
                        nullptr, nullptr, nullptr};
    expect_error(ZOK_ERR_UNKNOWN_ROUTINE, [&] { host_call_routine(&call); });
    EXPECT_EQ(g_runs, 2);
    EXPECT_EQ(host.live_temps(), 0u);
}

// A call block lists exactly the arguments the routine gets; a null entry is
// an undefined argument, which the routine may still write.
TEST(HostRoutines, ACallBlockPassesExactlyItsArguments) {
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
    EXPECT_EQ(host.live_texts(), 0u);

    args[1] = nullptr;
    call.argc = 0;
    expect_error(ZOK_ERR_ARG_COUNT, [&] { host_call_routine(&call); });
    call.argc = 1;
    call.pad[1] = 1;
    expect_error(ZOK_ERR_BAD_ARGUMENT, [&] { host_call_routine(&call); });
    call.pad[1] = 0;
    zok_var one{};
    args[1] = &one; // the list is not closed after argc entries
    expect_error(ZOK_ERR_BAD_ARGUMENT, [&] { host_call_routine(&call); });
    EXPECT_EQ(seen.size(), 2u);
}

// ---- Methods: a module class tree and a program subclass.

zok_var* animal_speak(int32_t, zok_var**, zok_keywords*) {
    zok_var* t = host_temp_var();
    t->type = ZOK_T_STRING;
    host_string_store(&t->value.str, "...");
    return t;
}

zok_var* dog_speak(int32_t, zok_var**, zok_keywords*) {
    zok_var* t = host_temp_var();
    t->type = ZOK_T_STRING;
    host_string_store(&t->value.str, "woof");
    return t;
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
    // A qualified call starts at a class of the object's own chain, never elsewhere.
    expect_error(ZOK_ERR_UNKNOWN_METHOD, [&] { host.call_method(animal, "DOG::SPEAK"); });
    EXPECT_TRUE(host.isa(puppy, "ANIMAL"));
    EXPECT_FALSE(host.isa(dog, "PUPPY"));
    // Names in any case, on every path.
    EXPECT_EQ(host.call_method(puppy, "animal::speak").as_string(), "...");
    EXPECT_TRUE(host.isa(puppy, "animal"));
    EXPECT_FALSE(host.isa(puppy, "animalx"));

    // A method added later is found, though a failed look-up was cached.
    expect_error(ZOK_ERR_UNKNOWN_METHOD, [&] { host.call_method(puppy, "SIT"); });
    host.add_function("ANIMAL::SIT", 1, 1, [](zok::Call&) { return zok::Value("sits"); });
    EXPECT_EQ(host.call_method(puppy, "SIT").as_string(), "sits");
    // ... and an override added later wins over what was resolved before it.
    host.add_function("PUPPY::SIT", 1, 1, [](zok::Call&) { return zok::Value("wags"); });
    EXPECT_EQ(host.call_method(puppy, "SIT").as_string(), "wags");

    const zok_name* handle = host_lookup_name("speak", 0, 1, ZOK_ACTION_RETURN, 0);
    EXPECT_NE(handle, nullptr);
    EXPECT_EQ(host_lookup_name("SPEAK", 0, 1, ZOK_ACTION_RETURN, 0), handle);
    EXPECT_EQ(host_lookup_name("NOSUCH", 0, 1, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_EQ(host_lookup_name("DOG", 0, 1, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_NE(host_lookup_name("DOG", 0, 0, ZOK_ACTION_RETURN, 0), nullptr);
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(host.live_texts(), 0u);
}

// The integer reader of a call reads, and refuses, as a reading through a Value does.
TEST(HostCalls, TheIntegerReaderAgreesWithTheValueReading) {
    zok::Host host;
    host.add_function("AGREES", 1, 1, [](zok::Call& c) {
        auto read = [](auto how) {
            try {
                return std::to_string(how());
            } catch (const zok::Error& e) {
                return std::to_string(e.code()) + " " + e.text();
            }
        };
        const bool same =
            read([&] { return c.integer(0); }) == read([&] { return c.arg(0).as_int(); });
        return zok::Value(same ? 1 : 0);
    });
    const std::vector<zok::Value> values = {
        uint8_t{200},          int16_t{-7},       uint16_t{65535},           int32_t{-2000000000},
        uint32_t{4000000000u}, int64_t{-5},       uint64_t{1} << 63,         2.75,
        std::string("12"),     zok::ObjectRef{1}, std::vector<int32_t>{1, 2}};
    for (const zok::Value& v : values)
        EXPECT_EQ(host.call_function("AGREES", {v}).as_int(), 1) << v.to_string();
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

// Creation by class handle: when the result cannot be made, no object is left
// behind that nobody could reach.
TEST(HostObjects, ACreationThatCannotReturnMakesNothing) {
    zok::Host host;
    int inits = 0;
    host.define_struct("PART", {{"STATE", ZOK_T_LONG}});
    host.add_function("PART::INIT", 1, 1, [&](zok::Call&) {
        ++inits;
        return zok::Value(1);
    });
    zok_var* cls = host_find_class("PART");
    zok_var* args[] = {cls};
    host.fail_label("(temp)");
    expect_error(ZOK_ERR_NO_MEMORY, [&] { host_object_new(1, args, nullptr); });
    host.clear_faults();
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(inits, 0);
    zok_var* made = host_object_new(1, args, nullptr);
    EXPECT_EQ(host.class_of(zok::ObjectRef{made->value.heap_id}), "PART");
    host_release_temp(made);
    host_release_temp(cls);
}

// ---- Errors through nested calls.

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

// INNER: takes keywords (so processing holds a text), then fails.
void inner(int32_t argc, zok_var** argv, zok_keywords* kw) {
    static const zok_keyword_entry table[] = {
        {"", 0, 0, 0, 0, 0, 0, 0},
        {"NOTE", ZOK_T_STRING, 0, 1, 0, 0, 8, 16},
        {nullptr, 0, 0, 0, 0, 0, 0, 0},
    };
    struct {
        uint64_t holds;
        int32_t given;
        int32_t pad;
        zok_string note;
    } rec;
    zok_var* plain[4];
    host_keywords_process(argc, argv, kw, table, plain, 1, &rec);
    host_temp_long(7);
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "failed at %d in %s", 42, "inner");
    host_keywords_free();
}

TEST(HostErrors, AnErrorUnwindsNestedCallsAndLeavesNothingBehind) {
    zok::Host host;
    const zok_routine_entry procs[] = {
        {{.procedure = inner}, "INNER", 0, 1, ZOK_RT_KEYWORDS, nullptr},
        {{.procedure = outer}, "OUTER", 1, 1, 0, nullptr}};
    ASSERT_EQ(host_add_routines(procs, 0, 2), 1);
    host.define_struct("JOB", {{"N", ZOK_T_LONG}});
    host.add_procedure("JOB::EXECUTE", 1, 1, [](zok::Call& c) {
        c.host().call_procedure("INNER", {"positional"}, {{"note", "a keyword text"}});
        return zok::Value();
    });
    zok::ObjectRef job = host.new_object("JOB");
    host.set_var("KEEP", "a program text");
    size_t texts = host.live_texts();
    zok::MemStats memory = host.memory_total();

    zok::Error e = expect_error(ZOK_MSG_TEXT, [&] { host.call_procedure("OUTER", {job}); });
    EXPECT_EQ(e.text(), "failed at 42 in inner");
    EXPECT_EQ(e.routine(), "INNER");
    EXPECT_EQ(host.messages().back().routine, "INNER");
    EXPECT_EQ(host.messages().back().action, ZOK_ACTION_ERROR);
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(host.live_texts(), texts);
    EXPECT_EQ(host.memory_total(), memory);
    EXPECT_EQ(host.heap_count(), 1u);

    // Nothing of the failed call's frames is left: a later raise outside any
    // routine names none, and the return action records and goes on.
    expect_error(ZOK_MSG_TEXT, [&] { host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "top"); });
    EXPECT_EQ(host.messages().back().routine, "");
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_RETURN, "note %s", "recorded");
    EXPECT_EQ(host.messages().back().text, "note recorded");
    host.set_errors_return(true);
    host_message(ZOK_MSG_WRONG_CLASS, ZOK_ACTION_ERROR, "message", "ZOKfwMessage");
    EXPECT_EQ(host.messages().back().action, ZOK_ACTION_ERROR);
    EXPECT_NE(host.messages().back().text.find("ZOKfwMessage"), std::string::npos);
}

// SETOUT(out): writes 42 into its argument; leaks one temporary on purpose.
void set_out(int32_t, zok_var** argv, zok_keywords*) {
    zok_var* v = host_temp_long(42);
    host_var_copy(v, argv[0], 0);
    host_temp_var();
    host_release_temp(v);
}

TEST(HostCalls, OutputArgumentsAndWhatAStatementLeavesBehind) {
    zok::Host host;
    const zok_routine_entry proc = {{.procedure = set_out}, "SETOUT", 1, 1, 0, nullptr};
    ASSERT_EQ(host_add_routines(&proc, 0, 1), 1);
    host.call_procedure("SETOUT", {zok::Ref{"out"}});
    EXPECT_EQ(host.get_var("OUT").as_int(), 42);
    EXPECT_EQ(host.leftover_temps(), 1u);
    EXPECT_EQ(host.live_temps(), 0u);
}

// ---- Keywords.

struct KwRecord {
    uint64_t holds;
    int32_t count_given;
    int32_t count;
    int32_t handler_given;
    uint32_t handler;
    int32_t message_given;
    int32_t message;
    int32_t text_given;
    int32_t pad;
    zok_string text;
    int32_t response_given;
    int32_t pad2;
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

struct KwResult {
    KwRecord rec;
    std::string text;
    int32_t plain;
    size_t texts_held;
};

KwResult* g_kw_result = nullptr;

// Runs keyword processing the way a module's INIT does and keeps the result.
KwResult process(zok::Host& host, const zok::Keywords& kw) {
    if (!host.has_routine("KW"))
        host.add_function(
            "KW", 0, 2,
            [](zok::Call& c) {
                KwResult& out = *g_kw_result;
                zok_var* plain[2];
                size_t before = c.host().live_texts();
                out.plain = host_keywords_process(c.argc(), c.argv(), c.keywords(), kw_table, plain,
                                                  1, &out.rec);
                out.texts_held = c.host().live_texts() - before;
                if (out.rec.text_given)
                    out.text.assign(out.rec.text.text ? out.rec.text.text : "",
                                    out.rec.text.length);
                if (out.rec.holds)
                    host_keywords_free();
                return zok::Value(out.plain);
            },
            true);
    KwResult out{};
    g_kw_result = &out;
    host.call_function("KW", {1}, kw);
    return out;
}

TEST(HostKeywords, AbsentValuesAreZeroedNulledOrPoisoned) {
    zok::Host host;
    KwResult r = process(host, {});
    EXPECT_EQ(r.plain, 1);
    EXPECT_EQ(r.rec.holds, 0u);
    EXPECT_EQ(r.rec.count_given + r.rec.handler_given + r.rec.message_given + r.rec.text_given +
                  r.rec.response_given,
              0);
    EXPECT_EQ(r.rec.count, 0);
    EXPECT_EQ(r.rec.response, nullptr);
    EXPECT_EQ(r.rec.handler, 0xA5A5A5A5u);
    EXPECT_EQ(r.rec.message, static_cast<int32_t>(0xA5A5A5A5u));
}

TEST(HostKeywords, MatchingByPrefixWithExactMatchWinning) {
    zok::Host host;
    KwResult exact = process(host, {{"message", 5}});
    EXPECT_EQ(exact.rec.message_given, 1);
    EXPECT_EQ(exact.rec.message, 5);
    EXPECT_EQ(exact.rec.text_given, 0);

    KwResult prefix = process(host, {{"MESSAGES", "hi"}, {"c", "12"}, {"H", zok::ObjectRef{7}}});
    EXPECT_EQ(prefix.rec.text_given, 1);
    EXPECT_EQ(prefix.text, "hi");
    EXPECT_NE(prefix.rec.holds, 0u);
    EXPECT_EQ(prefix.texts_held, 1u);
    EXPECT_EQ(prefix.rec.count, 12);
    EXPECT_EQ(prefix.rec.handler, 7u);
    EXPECT_EQ(host.live_texts(), 0u);

    host.set_var("R", 3.5);
    KwResult any = process(host, {{"RESP", zok::Ref{"R"}}, {"COUNT", 3.9}});
    EXPECT_EQ(any.rec.response, host.raw_var("R"));
    EXPECT_EQ(any.rec.count, 3);
}

TEST(HostKeywords, UnknownAmbiguousAndUnconvertibleKeywordsAreErrors) {
    zok::Host host;
    size_t texts = host.live_texts();
    expect_error(ZOK_ERR_AMBIGUOUS_KEYWORD, [&] {
        process(host, {{"MESSAGESTRING", "held"}, {"MESS", 1}});
    });
    EXPECT_EQ(host.live_texts(), texts); // the text taken before the error went back
    expect_error(ZOK_ERR_UNKNOWN_KEYWORD, [&] { process(host, {{"NOSUCH", 1}}); });
    expect_error(ZOK_ERR_CONVERSION, [&] { process(host, {{"COUNT", "abc"}}); });
    expect_error(ZOK_ERR_CONVERSION, [&] { process(host, {{"HANDLER", 5}}); });
    expect_error(ZOK_ERR_CONVERSION, [&] {
        process(host, {{"COUNT", std::vector<int32_t>{1, 2}}});
    });
    EXPECT_EQ(host.live_temps(), 0u);
}

// ---- Modules and the session.

size_t g_heap_at_reset = 0;
int g_resets = 0;

int32_t load_ok() {
    static const zok_routine_entry fn = {{return_one}, "PING", 0, 0, 0, nullptr};
    return host_add_routines(&fn, 1, 1);
}

int32_t load_fails() {
    return 0;
}

void count_reset() {
    ++g_resets;
    g_heap_at_reset = zok::Host::current().heap_count();
}

TEST(HostModules, LoadFailuresAreErrorsAndResetKeepsRegistrations) {
    zok::Host host;
    expect_error(ZOK_ERR_BAD_ARGUMENT, [&] { host.load_module("/nonexistent/libnothing.so"); });
    expect_error(ZOK_ERR_BAD_ARGUMENT, [&] { host.load_module("libm.so.6"); }); // no ZOK_Load
    expect_error(ZOK_ERR_BAD_ARGUMENT, [&] { host.load_module(load_fails, count_reset); });
    host.load_module(load_ok, count_reset);
#ifdef ZOK_MODULE_PATH
    host.load_module(ZOK_MODULE_PATH);
    EXPECT_TRUE(host.has_routine("GET_FWIDENT"));
#endif
    g_resets = 0;
    host.define_struct("THING", {{"N", ZOK_T_LONG}});
    zok::ObjectRef obj = host.new_object("THING");
    host_heap_var(obj.id)->flags |= ZOK_HEAP_HELD;
    size_t heap = host.heap_count();
    host.reset_session();
    EXPECT_EQ(g_resets, 1); // the module whose load failed is not reset
    EXPECT_EQ(g_heap_at_reset, heap);
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.call_function("PING").as_int(), 1);
    EXPECT_TRUE(host.new_object("THING"));
}

} // namespace
