// The behaviour classes that act when their message arrives: procedure and
// function behaviours calling program routines, object-method behaviours on
// program objects, delayed behaviours with and without an argument, and query
// behaviours answering queries.  Each class: what a delivery does, its
// refusals (code, text, nothing changed), its deliberate leaks counted
// exactly, RESTORE, and allocation failures in INIT.
#include <algorithm>

#include "support/messaging_testing.hpp"

namespace {

using msgtest::Messaging;
using msgtest::Observable;
using zok::ObjectRef;
using zok::Value;

// One call of a program routine: who was called, with how many arguments and
// the first of them.
struct Called {
    std::string routine;
    int32_t argc;
    Value arg;
    bool operator==(const Called&) const = default;
};

class Behaviours : public Messaging {
protected:
    Behaviours() {
        host.add_procedure("RECORD", 0, 1, [this](zok::Call& c) { return note("RECORD", c); });
        host.add_function("ANSWER", 0, 1, [this](zok::Call& c) {
            note("ANSWER", c);
            return Value("an answer nobody reads");
        });
        host.add_procedure("UNITIALIZEDPROCEDURE", 1, 1,
                           [this](zok::Call& c) { return note("UNITIALIZEDPROCEDURE", c); });
        host.add_function("UNITIALIZEDFUNCEDURE", 1, 1,
                          [this](zok::Call& c) { return note("UNITIALIZEDFUNCEDURE", c); });
    }
    Value note(const std::string& routine, zok::Call& c) {
        calls.push_back({routine, c.argc(), c.argc() > 0 ? c.arg(0) : Value()});
        return Value();
    }
    // Heap, texts, temporaries and the registry after a collection of unused
    // identifiers, for "nothing was left behind".
    Observable settled() {
        host.call_procedure("FWIDENT_GC");
        return Observable(host);
    }

    // Makes the identifier held in `tag` look as a restore leaves it: a new
    // heap variable with the same text, the object's use of the live one given back.
    void as_if_restored(ObjectRef obj, const char* tag) {
        const uint32_t live = host.get_tag(obj, tag).as_pointer().id;
        const Value text = host.heap_value(live);
        zok_var* temp = host.make_temp(text);
        const uint32_t copy =
            host_heap_var_new(ZOK_HEAP_POINTER, temp, ZOK_HEAP_NEW_MOVE, ZOK_ACTION_ERROR)->id;
        host_release_temp(temp);
        flux::fwident_release(live);
        host.set_tag(obj, tag, zok::PointerRef{copy});
    }

    std::vector<Called> calls;
};

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), ::toupper);
    return text;
}
std::string lower_case(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), ::tolower);
    return text;
}

// The two twins differ only in these words.
struct Twin {
    const char* cls;
    const char* keyword;
    const char* getter;
    const char* setter;
    const char* field;
    const char* version;
    const char* default_name;
    const char* setter_text;
    const char* target;   // a program routine of the twin's kind
    const char* mismatch; // one of the other kind
};
const Twin twins[] = {
    {"ZOKFWPROCBEHAV", "PROCEDURE", "PROC", "SETPROC", "PROC_STRING", "ZOKFWPROCBEHAV_VERSION",
     "UnitializedProcedure", "ZOKfwProcBehav::SetProc", "RECORD", "ANSWER"},
    {"ZOKFWFUNCBEHAV", "FUNCTION", "FUNC", "SETFUNC", "FUNC_STRING", "ZOKFWFUNCBEHAV_VERSION",
     "UnitializedFuncedure", "ZOKfwFuncBehav::SetFunc", "ANSWER", "RECORD"},
};

TEST_F(Behaviours, RoutineBehavioursCallTheirRoutineWithOneArgument) {
    const ObjectRef h = handler();
    const ObjectRef tick = message("tick", h);
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const ObjectRef b = host.new_object(
            t.cls, {},
            {{"HANDLER", h}, {"MESSAGESTRING", "tick"}, {t.keyword, t.target}, {"REGISTER", 1}});
        EXPECT_EQ(host.call_method(b, t.getter), Value(t.target));
        EXPECT_EQ(host.get_tag(b, t.field), Value(t.target));
        EXPECT_EQ(host.get_tag(b, t.version).as_int(), 1);
        host.set_var("named", "by reference");
        const size_t texts = host.live_texts();
        calls.clear();
        host.call_method(tick, "SEND", {std::vector<int32_t>{3, 4}});
        host.call_method(tick, "SEND");
        host.call_method(b, "EXECUTE");
        host.call_method(b, "EXECUTE", {zok::Ref{"named"}});
        EXPECT_EQ(calls, (std::vector<Called>{{t.target, 1, Value(std::vector<int32_t>{3, 4})},
                                              {t.target, 1, Value()},
                                              {t.target, 1, Value()},
                                              {t.target, 1, Value("by reference")}}));
        EXPECT_EQ(host.live_texts(), texts); // a function's result is not kept
        EXPECT_EQ(host.live_temps(), 0u);

        // Names are looked up in any case.
        const std::string lower = lower_case(t.target);
        host.call_method(b, t.setter, {lower});
        EXPECT_EQ(host.call_method(b, t.getter), Value(lower));
        calls.clear();
        host.call_method(b, "EXECUTE", {1});
        EXPECT_EQ(calls, (std::vector<Called>{{t.target, 1, 1}}));

        // Without a name, the default one is called.
        const ObjectRef plain = host.new_object(t.cls);
        EXPECT_EQ(host.call_method(plain, t.getter), Value(t.default_name));
        calls.clear();
        host.call_method(plain, "EXECUTE", {7});
        EXPECT_EQ(calls, (std::vector<Called>{{upper(t.default_name), 1, 7}}));
        host.destroy(plain);
        host.destroy(b);
    }
    host.erase_var("named");
    EXPECT_EQ(check_all(), "");
}

TEST_F(Behaviours, RoutineBehavioursRefuseAndReport) {
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const ObjectRef b = host.new_object(t.cls, {}, {{t.keyword, t.target}});
        const ObjectRef other = host.new_object(
            std::string(t.cls) == "ZOKFWPROCBEHAV" ? "ZOKFWFUNCBEHAV" : "ZOKFWPROCBEHAV");
        const std::string wrong_type =
            "Argument of the wrong type in " + std::string(t.setter_text) + ".";
        struct Case {
            zok::Args args;
            int32_t code;
            std::string text;
        };
        const std::string routine = std::string(t.cls) + "::EXECUTE";
        auto set_then_execute = [&](const Value& name, const std::string& text, int32_t code) {
            host.call_method(b, t.setter, {name});
            const zok::Error e = expect_error(code, [&] { host.call_method(b, "EXECUTE"); });
            EXPECT_EQ(e.text(), text);
            EXPECT_TRUE(calls.empty());
        };
        calls.clear();
        // The host reports a name that it does not know, and a routine of the other kind.
        set_then_execute("NOSUCH",
                         "Nothing is registered under the name NOSUCH in " + routine + ".",
                         ZOK_ERR_UNKNOWN_ROUTINE);
        set_then_execute("", "Nothing is registered under the name  in " + routine + ".",
                         ZOK_ERR_UNKNOWN_ROUTINE);
        set_then_execute(t.mismatch,
                         std::string("Attempt to call undefined ") +
                             (std::string(t.getter) == "PROC" ? "procedure: " : "function: ") +
                             t.mismatch + " in " + routine + ".",
                         ZOK_ERR_UNKNOWN_ROUTINE);
        host.call_method(b, t.setter, {t.target});
        const std::vector<Case> cases = {
            {{b, 7}, ZOK_MSG_ARG_TYPE, wrong_type},
            {{b, std::vector<std::string>{"RECORD"}}, ZOK_MSG_ARG_TYPE, wrong_type},
            {{b, b}, ZOK_MSG_ARG_TYPE, wrong_type},
            {{other, t.target},
             ZOK_MSG_WRONG_CLASS,
             "Argument 0 must be an object of class " +
                 std::string(t.setter_text).substr(0, std::string(t.setter_text).find(':')) + "."},
        };
        for (const Case& c : cases) {
            const Observable before(host);
            const zok::Error e = expect_error(
                c.code, [&] { host.call_procedure(std::string(t.cls) + "::" + t.setter, c.args); });
            EXPECT_EQ(e.text(), c.text);
            EXPECT_TRUE(Observable(host) == before);
        }
        EXPECT_EQ(host.call_method(b, t.getter), Value(t.target));
        expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_method(b, "EXECUTE", {1, 2}); });
        host.destroy(b);
        host.destroy(other);
    }
}

// The setter and INIT's keyword give up the text they replace, deliberately:
// every other text comes back.
TEST_F(Behaviours, RoutineBehavioursLeakExactlyTheTextsTheyReplace) {
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const size_t texts = settled().texts;
        const ObjectRef named = host.new_object(t.cls, {}, {{t.keyword, "FIRST"}}); // 1
        host.call_method(named, t.setter, {"SECOND"});                              // 2
        host.call_method(named, t.setter, {"THIRD"});                               // 3
        const ObjectRef plain = host.new_object(t.cls);
        host.call_method(plain, t.getter);
        host.call_method(plain, "EXECUTE", {"an argument"});
        host.set_tag(plain, t.version, 0);
        host.set_tag(plain, t.field, "SAVED"); // an upgrading RESTORE gives it back
        as_if_restored(plain, "MESSIDENT");
        host.call_method(plain, "RESTORE");
        EXPECT_EQ(host.call_method(plain, t.getter), Value(t.default_name));
        EXPECT_EQ(host.get_tag(plain, t.version).as_int(), 1);
        as_if_restored(named, "MESSIDENT");
        host.call_method(named, "RESTORE"); // a current one keeps its name
        EXPECT_EQ(host.call_method(named, t.getter), Value("THIRD"));
        host.destroy(named);
        host.destroy(plain);
        EXPECT_EQ(settled().texts, texts + 3);
        EXPECT_EQ(host.heap_count(), 0u);
    }
}

TEST_F(Behaviours, AllocationFailuresInInitLeaveNothingBehind) {
    const ObjectRef h = handler();
    host.set_var("h", h);
    for (const char* cls : {"ZOKFWPROCBEHAV", "ZOKFWFUNCBEHAV"}) {
        SCOPED_TRACE(cls);
        host.call_method(h, "SCOPEMESSAGE", {cls}); // so that no default handler is made
        const Observable before = settled();
        sweep_allocation_failures(
            host, 200,
            [&] {
                host.set_var("made", host.new_object(cls, {},
                                                     {{"HANDLER", h},
                                                      {"MESSAGESTRING", std::string(cls)},
                                                      {"REGISTER", 1}}));
            },
            [&](uint64_t) {
                EXPECT_EQ(check_all(), "");
                EXPECT_TRUE(settled() == before);
            });
        host.destroy(host.get_var("made").as_object());
        host.erase_var("made");
    }
}

} // namespace
