// The behaviour classes that act when their message arrives: procedure and
// function behaviours calling program routines, object-method behaviours on
// program objects, delayed behaviours with and without an argument, and query
// behaviours answering queries.  Each class: what a delivery does, its
// refusals (code, text, nothing changed), its deliberate leaks counted
// exactly, RESTORE, and allocation failures in INIT.
#include <algorithm>
#include <functional>
#include <optional>

#include "support/messaging_testing.hpp"

namespace {

using msgtest::expect_refusals;
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
                           [this](zok::Call& c) { return note("UnitializedProcedure", c); });
        host.add_function("UNITIALIZEDFUNCEDURE", 1, 1,
                          [this](zok::Call& c) { return note("UnitializedFuncedure", c); });
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

// The two twins differ only in these words.
struct Twin {
    const char* cls;
    const char* keyword;
    const char* getter;
    const char* setter;
    const char* field;
    const char* version;
    const char* default_name;
    const char* target;   // a program routine of the twin's kind
    const char* lower;    // the same in lower case
    const char* mismatch; // one of the other kind
};
const Twin twins[] = {
    {"ZOKFWPROCBEHAV", "PROCEDURE", "PROC", "SETPROC", "PROC_STRING", "ZOKFWPROCBEHAV_VERSION",
     "UnitializedProcedure", "RECORD", "record", "ANSWER"},
    {"ZOKFWFUNCBEHAV", "FUNCTION", "FUNC", "SETFUNC", "FUNC_STRING", "ZOKFWFUNCBEHAV_VERSION",
     "UnitializedFuncedure", "ANSWER", "answer", "RECORD"},
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
        host.call_method(b, t.setter, {t.lower});
        EXPECT_EQ(host.call_method(b, t.getter), Value(t.lower));
        calls.clear();
        host.call_method(b, "EXECUTE", {1});
        EXPECT_EQ(calls, (std::vector<Called>{{t.target, 1, 1}}));

        // Without a name, the default one is called.
        const ObjectRef plain = host.new_object(t.cls);
        EXPECT_EQ(host.call_method(plain, t.getter), Value(t.default_name));
        calls.clear();
        host.call_method(plain, "EXECUTE", {7});
        EXPECT_EQ(calls, (std::vector<Called>{{t.default_name, 1, 7}}));
        host.destroy(plain);
        host.destroy(b);
    }
    host.erase_var("named");
    EXPECT_EQ(check_all(), "");
}

TEST_F(Behaviours, RoutineBehavioursRefuseAndReport) {
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const ObjectRef b = host.new_object(t.cls);
        const std::string in = " in " + std::string(t.cls) + "::EXECUTE.";
        const std::string kind = std::string(t.getter) == "PROC" ? "procedure: " : "function: ";
        // The host reports a name that it does not know, and a routine of the other kind.
        for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
                 {"NOSUCH", "Nothing is registered under the name NOSUCH" + in},
                 {"", "Nothing is registered under the name " + in},
                 {t.mismatch, "Attempt to call undefined " + kind + t.mismatch + in}}) {
            host.call_method(b, t.setter, {name});
            expect_error(ZOK_ERR_UNKNOWN_ROUTINE, text, [&] { host.call_method(b, "EXECUTE"); });
        }
        EXPECT_TRUE(calls.empty());
        host.destroy(b);
    }
}

// The setter and INIT's keyword give up the text they replace, deliberately:
// every other text comes back.
TEST_F(Behaviours, RoutineBehavioursLeakExactlyTheTextsTheyReplace) {
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const size_t texts = settled().host.texts;
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
        EXPECT_EQ(settled().host.texts, texts + 3);
        EXPECT_EQ(host.heap_count(), 0u);
    }
}

// ---- Object-method behaviours on program objects.

class ObjectBehaviours : public Behaviours {
protected:
    ObjectBehaviours() {
        host.define_struct("TARGET", {{"HITS", ZOK_T_LONG}});
        host.define_struct("SUBTARGET", {}, "TARGET");
        host.add_procedure("TARGET::HIT", 1, 2, [this](zok::Call& c) {
            hits.push_back({c.self().id, c.argc(), c.argc() == 2 ? c.arg(1) : Value()});
            return Value();
        });
        host.add_procedure("SUBTARGET::HIT", 1, 2, [this](zok::Call& c) {
            hits.push_back({c.self().id, -c.argc(), Value()});
            return Value();
        });
        host.add_procedure("TARGET::DIE", 1, 2, [this](zok::Call& c) {
            host.destroy(c.self());
            return Value();
        });
    }
    ObjectRef obj_behavior(const std::string& text, ObjectRef target, const std::string& method,
                           ObjectRef parent = {}) {
        zok::Keywords kw{{"MESSAGESTRING", text}, {"METHOD", method}, {"REGISTER", 1}};
        if (target)
            kw.push_back({"OBJECT", target});
        if (parent)
            kw.push_back({"HANDLER", parent});
        return host.new_object("ZOKFWOBJBEHAV", {}, kw);
    }

    struct Hit {
        uint32_t target;
        int32_t argc; // negative: the subclass's override ran
        Value arg;
        bool operator==(const Hit&) const = default;
    };
    std::vector<Hit> hits;
};

TEST_F(ObjectBehaviours, TheMethodRunsOnTheTargetWithTheSendsArgument) {
    const ObjectRef h = handler();
    const ObjectRef target = host.new_object("TARGET");
    const ObjectRef sub = host.new_object("SUBTARGET");
    const ObjectRef b = obj_behavior("tick", target, "hit", h);
    const ObjectRef tick = message("tick", h);
    EXPECT_EQ(host.call_method(b, "METHOD"), Value("hit"));
    EXPECT_EQ(host.call_method(b, "OBJECT").as_object(), target);
    host.call_method(tick, "SEND", {"payload"});
    host.call_method(tick, "SEND");
    host.call_method(b, "SETOBJECT", {sub}); // resolved by the target's own class
    host.call_method(tick, "SEND", {1});
    EXPECT_EQ(hits, (std::vector<Hit>{{target.id, 2, Value("payload")},
                                      {target.id, 1, Value()},
                                      {sub.id, -2, Value()}}));

    // A name nobody registered, or an identifier without text, calls nothing.
    hits.clear();
    host.call_method(b, "SETMETHOD", {"NOSUCH"});
    EXPECT_EQ(uses("hit"), 0); // the old name's use was given back
    EXPECT_EQ(uses("NOSUCH"), 1);
    host.call_method(tick, "SEND");
    EXPECT_TRUE(hits.empty());
    EXPECT_EQ(host.call_method(b, "ISREGISTERED").as_int(), 1);
    // A name the target's class lacks is the host's error.
    host.call_method(b, "SETMETHOD", {"DESCRIBE"});
    host.add_procedure("OTHER::DESCRIBE", 1, 1, [](zok::Call&) { return Value(); });
    const zok::Error e =
        expect_error(ZOK_ERR_UNKNOWN_METHOD, [&] { host.call_method(tick, "SEND"); });
    EXPECT_EQ(e.text(), "Attempt to call undefined method: SUBTARGET::DESCRIBE in "
                        "ZOKFWOBJBEHAV::EXECUTE.");
    EXPECT_EQ(check_all(), "");
}

TEST_F(ObjectBehaviours, ADeadOrUnsetTargetUnregistersOnItsFirstDelivery) {
    const ObjectRef h = handler();
    host.call_method(h, "SCOPEMESSAGE", {"tick"});
    const ObjectRef live = host.new_object("TARGET");
    const ObjectRef doomed = host.new_object("TARGET");
    const ObjectRef a = obj_behavior("tick", doomed, "HIT", h);
    const ObjectRef b = obj_behavior("tick", live, "HIT", h);
    const ObjectRef unset = obj_behavior("tick", {}, "HIT", h);
    const ObjectRef k = host.new_object("TARGET");
    const ObjectRef killer = obj_behavior("tick", k, "DIE", h);
    const ObjectRef after = obj_behavior("tick", k, "HIT", h); // finds k dead in the same send
    host.destroy(doomed);
    const ObjectRef tick = message("tick", h);
    host.clear_messages();
    host.call_method(tick, "SEND", {5});
    EXPECT_EQ(hits, (std::vector<Hit>{{live.id, 2, Value(5)}}));
    EXPECT_TRUE(host.messages().empty()) << host.messages().front().text; // dead targets are quiet
    EXPECT_EQ(filed(h, "tick"), (std::vector{b.id, killer.id}));
    for (const ObjectRef gone : {a, unset, after})
        EXPECT_EQ(host.call_method(gone, "ISREGISTERED").as_int(), 0);
    EXPECT_EQ(check_all(), "");
}

// ---- Queries and query behaviours.

class Queries : public Behaviours {
protected:
    ObjectRef query(const std::string& text, ObjectRef parent) {
        return host.new_object("ZOKFWQUERY", {}, {{"MESSAGESTRING", text}, {"HANDLER", parent}});
    }
    ObjectRef answer(const std::string& text, ObjectRef parent, std::optional<Value> response) {
        zok::Keywords kw{{"MESSAGESTRING", text}, {"HANDLER", parent}, {"REGISTER", 1}};
        if (response)
            kw.push_back({"RESPONSE", *response});
        return host.new_object("ZOKFWQUERYBEHAV", {}, kw);
    }
    uint32_t held(ObjectRef obj, const char* tag) { return host.get_tag(obj, tag).as_pointer().id; }
};

TEST_F(Queries, AQueryIsAnsweredUpItsChainWithCopies) {
    const ObjectRef top = handler();
    const ObjectRef low = handler(handler(top));
    host.call_method(top, "SCOPEMESSAGE", {"ask"});
    const ObjectRef qb = answer("ask", top, Value(42));
    const ObjectRef q = query("ask", low);
    EXPECT_EQ(host.call_method(q, "RESULT"), Value("UnInitialized Result"));
    EXPECT_EQ(host.call_method(q, "SENDQUERY"), Value(42));
    const uint32_t result = held(q, "QUERY_RESULT");
    ASSERT_NE(result, 0u);

    // Every later answer lands in the same heap variable, as a copy.
    const Value list(std::vector<std::string>{"a", "b"});
    host.call_method(qb, "SETRESPONSE", {list});
    EXPECT_EQ(host.call_method(qb, "RESPONSE"), list);
    EXPECT_EQ(host.call_method(q, "SENDQUERY"), list);
    EXPECT_EQ(held(q, "QUERY_RESULT"), result);
    host.call_method(qb, "SETRESPONSE", {"changed later"});
    EXPECT_EQ(host.call_method(q, "RESULT"), list);

    // Two answers: each runs, in identifier order, so the later one's stays.
    const ObjectRef blank = answer("ask", top, std::nullopt);
    EXPECT_EQ(host.call_method(blank, "RESPONSE"), Value("UnInitialized Response"));
    EXPECT_EQ(host.call_method(q, "SENDQUERY"), Value("UnInitialized Response"));
    host.destroy(blank);

    // Nobody answers: the previous result stays.
    const ObjectRef lonely = query("nobody", low);
    EXPECT_EQ(host.call_method(lonely, "SENDQUERY"), Value("UnInitialized Result"));
    host.call_method(lonely, "SETRESULT", {2.5});
    EXPECT_EQ(host.call_method(lonely, "SENDQUERY"), Value(2.5));

    // EXECUTE called directly; SETRESPONSE with self alone clears.
    host.call_method(qb, "EXECUTE", {lonely});
    host.call_method(qb, "EXECUTE", {lonely});
    EXPECT_EQ(host.call_method(lonely, "RESULT"), Value("changed later"));
    const uint32_t response = held(qb, "RESPONSE");
    host.call_method(qb, "SETRESPONSE");
    EXPECT_FALSE(host.heap_alive(response));
    EXPECT_EQ(held(qb, "RESPONSE"), 0u);
    EXPECT_EQ(host.call_method(qb, "RESPONSE"), Value("UnInitialized Response"));

    // CLEANUP frees the response.
    host.call_method(qb, "SETRESPONSE", {"x"});
    const uint32_t last_response = held(qb, "RESPONSE");
    host.destroy(qb);
    EXPECT_FALSE(host.heap_alive(last_response));
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(check_all(), "");
}

TEST_F(Queries, RefusalsAndVanishedValues) {
    const ObjectRef h = handler();
    host.call_method(h, "SCOPEMESSAGE", {"ask"});
    const ObjectRef qb = answer("ask", h, Value("yes"));
    const ObjectRef q = query("ask", h);
    const ObjectRef plain = message("ask", h);
    const ObjectRef dead = query("ask", h);
    host.destroy(dead);
    expect_refusals(
        host, {
                  {[&] { host.call_method(qb, "EXECUTE", {plain}); }, ZOK_MSG_WRONG_CLASS,
                   "Argument 1 must be an object of class ZOKfwQuery."},
                  {[&] { host.call_method(qb, "EXECUTE", {dead}); }, ZOK_ERR_INVALID_OBJECT, ""},
                  // A query behaviour takes the query as its argument: a plain send has none.
                  {[&] { host.call_method(plain, "SEND"); }, ZOK_ERR_ARG_COUNT, ""},
              });

    // A result or response whose heap variable has gone reads as undefined;
    // setting it is the host's error.
    host.call_method(q, "SENDQUERY");
    host_heap_free(held(q, "QUERY_RESULT"), 0, 0);
    EXPECT_FALSE(host.call_method(q, "RESULT").defined());
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { host.call_method(q, "SETRESULT", {1}); });
    host_heap_free(held(qb, "RESPONSE"), 0, 0);
    host.call_method(qb, "EXECUTE", {query("other", h)});
    host.set_tag(q, "QUERY_RESULT", zok::PointerRef{0});

    // A heap variable that cannot be made leaves no value and no message.
    host.set_tag(qb, "RESPONSE", zok::PointerRef{0});
    host.clear_messages();
    host.fail_label("(heap)");
    host.call_method(qb, "SETRESPONSE", {1});
    host.call_method(q, "SETRESULT", {1});
    host.clear_faults();
    EXPECT_EQ(held(qb, "RESPONSE"), 0u);
    EXPECT_EQ(held(q, "QUERY_RESULT"), 0u);

    EXPECT_EQ(check_all(), "");
}

// ---- Delayed behaviours.

class Delayed : public ObjectBehaviours {
protected:
    Delayed() {
        h = handler();
        host.call_method(h, "SCOPEMESSAGE", {"arm"});
        host.call_method(h, "SCOPEMESSAGE", {"fire"});
        target = host.new_object("TARGET");
        arm = message("arm", h);
        fire = message("fire", h);
    }
    ObjectRef delayed(const char* cls, ObjectRef object, bool delay_message = true) {
        zok::Keywords kw{
            {"HANDLER", h}, {"MESSAGESTRING", "arm"}, {"METHOD", "hit"}, {"REGISTER", 1}};
        if (object)
            kw.push_back({"OBJECT", object});
        if (delay_message)
            kw.push_back({"DELAYMESSAGESTRING", "fire"});
        return host.new_object(cls, {}, kw);
    }
    ObjectRef inner(ObjectRef d) { return host.get_tag(d, "SUB_BEHAVIOR").as_object(); }

    ObjectRef h, target, arm, fire;
};

TEST_F(Delayed, ManyArmingMessagesGiveOneCallAtTheDelayMessage) {
    const ObjectRef d = delayed("ZOKFWDELAYBEHAV", target);
    const ObjectRef in = inner(d);
    EXPECT_EQ(host.class_of(in), "ZOKFWOBJBEHAV");
    EXPECT_EQ(host.call_method(in, "OBJECT").as_object(), d);
    EXPECT_EQ(host.call_method(in, "METHOD"), Value("DELAYEXECUTE"));
    EXPECT_EQ(host.call_method(in, "HANDLER").as_object(), h);
    EXPECT_EQ(host.call_method(in, "MESSAGESTRING"), Value("fire"));
    EXPECT_EQ(host.call_method(in, "ISREGISTERED").as_int(), 0);
    EXPECT_EQ(host.get_tag(d, "ZOKFWDELAYBEHAV_VERSION").as_int(), 1);

    host.call_method(fire, "SEND"); // unarmed: nothing
    for (int i = 0; i < 3; ++i)
        host.call_method(arm, "SEND");
    EXPECT_EQ(filed(h, "fire"), std::vector{in.id});
    EXPECT_TRUE(hits.empty());
    host.call_method(fire, "SEND");
    host.call_method(fire, "SEND");
    EXPECT_EQ(hits, (std::vector<Hit>{{target.id, 1, Value()}}));
    EXPECT_TRUE(filed(h, "fire").empty());
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 1);

    // The methods take self alone: a send that carries an argument is refused by the host.
    expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_method(arm, "SEND", {1}); });
    host.call_method(d, "SETMETHOD", {"DIE"});
    host.call_method(arm, "SEND");
    host.call_method(fire, "SEND"); // the target dies during the deferred call
    EXPECT_FALSE(host.heap_alive(target.id));
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 1);
    host.call_method(arm, "SEND");
    host.call_method(fire, "SEND"); // now there is no target: unregistered and disarmed
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 0);
    EXPECT_TRUE(filed(h, "fire").empty());
    host.call_method(arm, "SEND");
    EXPECT_TRUE(filed(h, "fire").empty());

    // Without a delay message the inner behaviour keeps its own; it dies with its owner.
    const ObjectRef plain = delayed("ZOKFWDELAYBEHAV", {}, false);
    EXPECT_EQ(host.call_method(inner(plain), "MESSAGESTRING"), Value("Generic Message"));
    host.destroy(d);
    EXPECT_FALSE(host.heap_alive(in.id));
    EXPECT_EQ(check_all(), "");
}

TEST_F(Delayed, WithArgumentTheLargestValueSinceTheLastCallIsPassed) {
    const ObjectRef d = delayed("ZOKFWDELAYARGBEHAV", target);
    EXPECT_EQ(host.get_tag(d, "ARG").as_int(), 0);
    EXPECT_EQ(host.get_tag(d, "ZOKFWDELAYARGBEHAV_VERSION").as_int(), 0);
    for (const int v : {3, 7, 5})
        host.call_method(arm, "SEND", {v});
    host.call_method(fire, "SEND");
    host.call_method(d, "DELAYEXECUTE"); // no arming since: 0
    for (const int v : {-4, -1})
        host.call_method(arm, "SEND", {v});
    host.call_method(fire, "SEND");
    zok_var* converted = host_convert_var(host.make_temp(7.9), ZOK_T_LONG);
    const Value expected = host.read(*converted);
    host.call_method(d, "EXECUTE", {7.9});
    host.call_method(d, "EXECUTE", {"6"});
    host.call_method(fire, "SEND");
    EXPECT_EQ(hits, (std::vector<Hit>{{target.id, 2, Value(7)},
                                      {target.id, 2, Value(0)},
                                      {target.id, 2, Value(0)},
                                      {target.id, 2, expected}}));
    EXPECT_EQ(host.get_tag(d, "ARG").as_int(), 0);

    expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_method(d, "EXECUTE"); });
    expect_error(ZOK_ERR_ARG_COUNT, [&] { host.call_method(arm, "SEND"); });
    const Observable before(host);
    expect_error(ZOK_ERR_CONVERSION, [&] { host.call_method(d, "EXECUTE", {"seven"}); });
    EXPECT_EQ(Observable(host).since(before), "");
    // SETMETHOD and RESTORE are the delayed behaviour's.
    host.call_method(d, "SETMETHOD", {"NOSUCH"});
    host.call_method(d, "EXECUTE", {1});
    host.call_method(fire, "SEND");
    EXPECT_EQ(hits.size(), 4u);
    EXPECT_EQ(host.get_tag(d, "ARG").as_int(), 0); // reset even though nothing was called
    host.destroy(d);
    EXPECT_EQ(check_all(), "");
}

// RESTORE of an object saved before its class had a version (its version
// field below 1, and other fields as the old layout left them) brings the
// version to 1 and drops what the old layout lacked.  Identifiers only look as
// a restore leaves them: their translation is the save tests'.
TEST_F(Delayed, RestoreUpgradesTheOldLayoutOfEveryClass) {
    struct Old {
        const char* cls;
        zok::Keywords kw;
        std::vector<std::pair<const char*, Value>> saved;
        std::function<void(ObjectRef)> after;
    };
    const zok::Keywords at_h{{"HANDLER", h}, {"MESSAGESTRING", "arm"}};
    const zok::Keyword on_target{"OBJECT", target};
    uint32_t result = 0;
    const std::vector<Old> olds = {
        {"ZOKFWBEHAVIOR",
         {at_h[0], at_h[1], {"REGISTER", 1}},
         {{"HASAHANDLER_VERSION", 0}},
         [&](ObjectRef b) { // unregistered, but left where it was filed
             EXPECT_EQ(host.call_method(b, "ISREGISTERED").as_int(), 0);
             EXPECT_EQ(host.get_tag(b, "HASAHANDLER_VERSION").as_int(), 1);
             EXPECT_EQ(host.get_tag(b, "ZOKFWSAVEABLE_TOP").as_double(), 1.0);
             EXPECT_EQ(filed(h, "arm").back(), b.id);
         }},
        {"ZOKFWMESSAGE", at_h, {}, nullptr},
        {"ZOKFWMESSAGEHANDLER",
         {},
         {{"BEHAVIORS", zok::PointerRef{0}}},
         [&](ObjectRef old) { // an empty table of its own
             EXPECT_TRUE(scoped(old).empty());
             host.call_method(old, "SCOPEMESSAGE", {"tick"});
             EXPECT_EQ(scoped(old), std::vector<std::string>{"tick"});
         }},
        {"ZOKFWOBJBEHAV",
         {on_target, {"METHOD", "HIT"}},
         {},
         [&](ObjectRef b) { // the target goes, the method stays
             EXPECT_FALSE(host.call_method(b, "OBJECT").as_object());
             EXPECT_EQ(host.call_method(b, "METHOD"), Value("HIT"));
         }},
        {"ZOKFWQUERY",
         at_h,
         {},
         [&](ObjectRef q) { // the result is dropped, not freed
             EXPECT_EQ(host.get_tag(q, "QUERY_RESULT").as_pointer().id, 0u);
             EXPECT_TRUE(host.heap_alive(result));
         }},
        {"ZOKFWQUERYBEHAV",
         {{"RESPONSE", "kept"}},
         {},
         [&](ObjectRef qb) { EXPECT_EQ(host.call_method(qb, "RESPONSE"), Value("kept")); }},
        {"ZOKFWDELAYBEHAV",
         {on_target, {"METHOD", "hit"}, {"DELAYMESSAGESTRING", "fire"}},
         {},
         [&](ObjectRef d) { // the inner behaviour is restored too
             EXPECT_EQ(host.get_tag(inner(d), "ZOKFWSAVEABLE_TOP").as_double(), 1.0);
             EXPECT_EQ(uses("hit"), 1);
         }},
    };
    for (const Old& old : olds) {
        SCOPED_TRACE(old.cls);
        const ObjectRef obj = host.new_object(old.cls, {}, old.kw);
        if (host.isa(obj, "ZOKFWQUERY")) {
            host.call_method(obj, "SETRESULT", {5});
            result = host.get_tag(obj, "QUERY_RESULT").as_pointer().id;
        }
        if (host.isa(obj, "ZOKFWDELAYBEHAV"))
            as_if_restored(inner(obj), "MESSIDENT");
        for (const auto& [cls, ident] : {std::pair{"ZOKFWBEHAVIOR", "MESSIDENT"},
                                         {"ZOKFWMESSAGE", "MESS_IDENT"},
                                         {"ZOKFWOBJBEHAV", "METH_IDENT"},
                                         {"ZOKFWDELAYBEHAV", "METH_IDENT"}})
            if (host.isa(obj, cls))
                as_if_restored(obj, ident);
        const std::string version = std::string(old.cls) + "_VERSION";
        host.set_tag(obj, version, -3);
        for (const auto& [field, value] : old.saved)
            host.set_tag(obj, field, value);
        host.call_method(obj, "RESTORE");
        EXPECT_EQ(host.get_tag(obj, version).as_int(), 1);
        if (old.after)
            old.after(obj);
        EXPECT_EQ(check_all(), "");
    }
}

} // namespace
