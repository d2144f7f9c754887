// The messaging classes in scenarios the model test does not reach: re-entry
// and errors during delivery; the picture and the checker; the routine
// behaviours' deliberate leaks, default names and unknown names; the refusals
// of the classes' own rules, null and lost identifiers among them; vanished
// results and responses; the delayed behaviours with and without an argument;
// RESTORE of every class's old layout; and the restore pass: RESTORE runs once
// per pass however many objects reach an object, the restored flag counts only
// at exactly 1.0, and the pass's two loops treat a dead element differently.
#include <cmath>
#include <limits>

#include "support/messaging_testing.hpp"

namespace msgtest {

// A delivery may change the set it is delivered from: the send goes on over
// its snapshot.  An error inside one ends the send and gives back what the send
// obtained, but not what an earlier delivery obtained for the program.
TEST_F(Messaging, DeliveriesMayChangeTheSetAndErrorsUnwind) {
    const ObjectRef h = handler();
    host.call_method(h, "SCOPEMESSAGE", {"tick"});
    const ObjectRef a = probe("tick", h);
    const ObjectRef b = probe("tick", h);
    const ObjectRef c = probe("tick", h);
    const ObjectRef inner = probe("tock", h);
    const ObjectRef tick = message("tick", h);
    ObjectRef late;
    on_execute[a.id] = [&](zok::Call&) {
        host.call_method(c, "UNREGISTER"); // c still gets this send: it is in the snapshot
        late = probe("tick", h);           // late does not
        host.call_method(message("tock", h), "SEND");
    };
    EXPECT_EQ(send(tick), (std::vector{a.id, inner.id, b.id, c.id}));
    EXPECT_EQ(filed(h, "tick"), (std::vector{a.id, b.id, late.id}));
    host.call_method(c, "REGISTER");
    host.destroy(default_handler());
    const ObjectRef loose = message("tock");
    const size_t texts = host.live_texts();

    // A behaviour destroyed by an earlier one is still in the snapshot; the
    // host refuses to call a method on it.
    on_execute[a.id] = [&](zok::Call&) { host.destroy(b); };
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { send(tick, {std::string("payload")}); });
    EXPECT_EQ(executed, std::vector{a.id});
    // a obtains the default handler and an identifier (its use given back at
    // once), then c raises: the argument shared by both is freed on the way
    // out, what a obtained stays.
    size_t obtained = 0; // texts
    on_execute[a.id] = [&](zok::Call&) {
        obtained = host.live_texts();
        host.set_var("root", host.call_method(loose, "HANDLER"));
        host.set_var("ident", host.call_function("GET_FWIDENT", {"nested"}));
        host.call_procedure("FWIDENT_RELEASE", {zok::Ref{"ident"}});
        obtained = host.live_texts() - obtained;
    };
    on_execute[c.id] = [&](zok::Call&) {
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "%s", "boom");
    };
    expect_error(ZOK_MSG_TEXT, "boom", [&] { send(tick, {std::string("payload")}); });
    EXPECT_EQ(executed, (std::vector{a.id, c.id}));
    EXPECT_EQ(host.live_texts(), texts + obtained);
    EXPECT_EQ(host.live_temps(), 0u);
    EXPECT_EQ(host.memory("ZOkfwBehaviorList").blocks, 0u);
    EXPECT_EQ(filed(h, "tick"), (std::vector{a.id, c.id, late.id}));
    EXPECT_TRUE(default_handler());
    EXPECT_EQ(host.get_var("root"), Value(default_handler()));
    EXPECT_EQ(host.heap_value(host.get_var("ident").as_pointer().id), Value("nested"));
    EXPECT_EQ(host.call_function("ROLLOVER_FWIDENT", {zok::Ref{"ident"}}), host.get_var("ident"));
    EXPECT_EQ(check_all(), "");
}

TEST_F(Messaging, TheCheckerAndThePictureShowTheChain) {
    const ObjectRef top = handler();
    const ObjectRef low = handler(top);
    host.call_method(top, "SCOPEMESSAGE", {"say \"hi\""});
    const ObjectRef b = probe("say \"hi\"", low);
    probe("tock"); // files at the root, so the default handler exists
    // A behaviour is drawn with its own text, not the scope's it is filed in.
    host.call_method(b, "SETMESSAGESTRING", {"moved \"on\""});
    const std::string dot = flux::handler_chain_dot(std::vector{low.id});
    for (const std::string& line : std::vector<std::string>{
             "  h" + std::to_string(default_handler().id) +
                 " [shape=box, peripheries=2, label=\"ZOKFWMESSAGEHANDLER\\n(default handler)\"];",
             "  b" + std::to_string(b.id) +
                 " [shape=box, style=rounded, label=\"PROBE\\nmoved \\\"on\\\"\"];",
         })
        EXPECT_NE(dot.find(line), std::string::npos) << line << "\n" << dot;
    EXPECT_NE(flux::handler_chain_dot(std::vector{b.id}).find("label=\"no handler\""),
              std::string::npos);

    // A behaviour filed without registration and then destroyed stays filed:
    // the checker names it, and the next send meets it.
    const ObjectRef added = probe("say \"hi\"", {}, false);
    host.call_method(top, "ADDBEHAVIOR", {added});
    host.destroy(added);
    EXPECT_NE(flux::messagehandler_check(top.id).find("no live behaviour"), std::string::npos);
    EXPECT_EQ(flux::messagehandler_check_structure(top.id), "");
    EXPECT_EQ(flux::messagehandler_check(low.id), "");
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { send_from(low, "say \"hi\""); });
}

// One call of a program routine: which, with how many arguments (self
// included) and the last of them.
using Called = std::tuple<std::string, int32_t, Value>;

// Program routines of each kind that record their calls, and delayed
// behaviours that arm on "arm" and call HIT or DIE on a program object at "fire".
class Behaviours : public Messaging {
protected:
    Behaviours() {
        // Routines of each kind that a behaviour of the other kind may not call.
        host.add_procedure("RECORD", 0, 1, [](zok::Call&) { return Value(); });
        host.add_function("ANSWER", 0, 1, [](zok::Call&) { return Value(); });
        host.add_procedure("UNITIALIZEDPROCEDURE", 1, 1,
                           [this](zok::Call& c) { return note("UnitializedProcedure", c); });
        host.add_function("UNITIALIZEDFUNCEDURE", 1, 1,
                          [this](zok::Call& c) { return note("UnitializedFuncedure", c); });
        host.define_struct("TARGET", {{"HITS", ZOK_T_LONG}});
        host.add_procedure("TARGET::HIT", 1, 2, [this](zok::Call& c) { return note("HIT", c); });
        host.add_procedure("TARGET::DIE", 1, 2, [this](zok::Call& c) {
            host.destroy(c.self());
            return Value();
        });
        h = handler();
        host.call_method(h, "SCOPEMESSAGE", {"arm"});
        host.call_method(h, "SCOPEMESSAGE", {"fire"});
        target = host.new_object("TARGET");
        arm = message("arm", h);
        fire = message("fire", h);
    }
    Value note(const std::string& routine, zok::Call& c) {
        calls.push_back({routine, c.argc(), c.argc() > 0 ? c.arg(c.argc() - 1) : Value()});
        return Value();
    }
    // Makes the identifier held in `tag` look as a restore leaves it: a new
    // heap variable with the same text, the object's use of the live one given back.
    void as_if_restored(ObjectRef obj, const char* tag) {
        const uint32_t live = pointer(obj.id, tag);
        zok_var* temp = host.make_temp(host.heap_value(live));
        const uint32_t copy =
            host_heap_var_new(ZOK_HEAP_POINTER, temp, ZOK_HEAP_NEW_MOVE, ZOK_ACTION_ERROR)->id;
        host_release_temp(temp);
        flux::fwident_release(live);
        host.set_tag(obj, tag, zok::PointerRef{copy});
    }
    // Makes obj look as an old layout saved it (its version below 1, `saved`
    // as that layout left them, its identifiers as a restore leaves them),
    // restores it, and checks its version: 1, and then a version above 1 stays.
    void upgrade(ObjectRef obj, std::vector<std::pair<std::string, Value>> saved = {}) {
        SCOPED_TRACE(host.class_of(obj));
        const std::string version = host.class_of(obj) + "_VERSION";
        saved.emplace_back(version, -3);
        for (const int want : {1, 3}) {
            for (const auto& [cls, ident] : {std::pair{"ZOKFWBEHAVIOR", "MESSIDENT"},
                                             {"ZOKFWMESSAGE", "MESS_IDENT"},
                                             {"ZOKFWOBJBEHAV", "METH_IDENT"},
                                             {"ZOKFWDELAYBEHAV", "METH_IDENT"}})
                if (host.isa(obj, cls))
                    as_if_restored(obj, ident);
            for (const auto& [field, value] : saved)
                host.set_tag(obj, field, value);
            host.call_method(obj, "RESTORE");
            EXPECT_EQ(host.get_tag(obj, version).as_int(), want);
            saved = {{version, 3}};
        }
        EXPECT_EQ(check_all(), "");
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

    std::vector<Called> calls;
    ObjectRef h, target, arm, fire;
};

// The two twins differ only in these words.
struct Twin {
    const char* cls;
    const char* keyword;
    const char* getter; // SET and it is the setter; _STRING and it is the field
    const char* default_name;
    const char* mismatch; // a program routine of the other kind
};
const Twin twins[] = {
    {"ZOKFWPROCBEHAV", "PROCEDURE", "PROC", "UnitializedProcedure", "ANSWER"},
    {"ZOKFWFUNCBEHAV", "FUNCTION", "FUNC", "UnitializedFuncedure", "RECORD"},
};

// The setter and INIT's keyword give up the text they replace, deliberately:
// every other text comes back.  Without a name the default one is called; a
// name the host does not know, or of the other kind, is its error.
TEST_F(Behaviours, RoutineBehavioursLeakOnlyWhatTheyReplaceAndReportUnknownNames) {
    for (const Twin& t : twins) {
        SCOPED_TRACE(t.cls);
        const std::string setter = "SET" + std::string(t.getter);
        host.call_procedure("FWIDENT_GC");
        const Observable before(host);
        const ObjectRef named = host.new_object(t.cls, {}, {{t.keyword, "FIRST"}}); // 1
        host.call_method(named, setter, {"SECOND"});                                // 2
        const ObjectRef plain = host.new_object(t.cls);
        EXPECT_EQ(host.get_tag(plain, t.cls + std::string("_VERSION")).as_int(), 1);
        EXPECT_EQ(host.call_method(plain, t.getter), Value(t.default_name));
        host.call_method(plain, "EXECUTE", {"an argument"});
        EXPECT_EQ(calls, (std::vector<Called>{{t.default_name, 1, Value("an argument")}}));
        calls.clear();
        upgrade(plain, {{t.getter + std::string("_STRING"),
                         "SAVED"}}); // an upgrading RESTORE gives the default back
        EXPECT_EQ(host.call_method(plain, t.getter), Value(t.default_name));
        as_if_restored(named, "MESSIDENT");
        host.call_method(named, "RESTORE"); // a current one keeps its name
        EXPECT_EQ(host.call_method(named, t.getter), Value("SECOND"));
        host.destroy(named);
        host.destroy(plain);
        host.call_procedure("FWIDENT_GC");
        const Observable after(host);
        EXPECT_EQ(after.host.texts, before.host.texts + 2);
        EXPECT_EQ(after.host.heap.size(), before.host.heap.size());
        const ObjectRef b = host.new_object(t.cls);
        const std::string in = " in " + std::string(t.cls) + "::EXECUTE.";
        const std::string kind = std::string(t.getter) == "PROC" ? "procedure: " : "function: ";
        for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
                 {"NOSUCH", "Nothing is registered under the name NOSUCH" + in},
                 {"", "Nothing is registered under the name " + in},
                 {t.mismatch, "Attempt to call undefined " + kind + t.mismatch + in}}) {
            host.call_method(b, setter, {name});
            expect_error(ZOK_ERR_UNKNOWN_ROUTINE, text, [&] { host.call_method(b, "EXECUTE"); });
        }
        host.destroy(b);
        EXPECT_TRUE(calls.empty());
    }
}

// Refusals of the messaging classes' own rules (code, text, nothing changed),
// a looping chain among them, and a result or response whose heap variable
// has gone.
TEST_F(Behaviours, RefusalsAndVanishedValues) {
    // A null or lost identifier as the message is the identifier itself: only
    // a comparison with a key raises.  An empty default handler has no key to
    // meet: a send from it ends there, and it goes when a scope goes.
    const Value lost = host.call_function("GET_FWIDENT", {"gone"});
    host.call_procedure("FWIDENT_RELEASE", {lost});
    host.call_procedure("FWIDENT_GC");
    for (const Value& ident : {Value(zok::PointerRef{0}), lost}) {
        SCOPED_TRACE(ident.to_string());
        const ObjectRef empty = host.call_method(message("x"), "HANDLER").as_object();
        EXPECT_EQ(host.call_method(empty, "ISSCOPED", {ident}).as_int(), 0);
        EXPECT_FALSE(host.call_method(empty, "BEHAVIORS", {ident}).as_object());
        EXPECT_TRUE(send_from(empty, ident).empty());
        expect_module_error(-1, "FWIdent corruption",
                            [&] { host.call_method(empty, "SCOPEMESSAGE", {ident}); });
        host.call_method(empty, "UNSCOPEMESSAGE", {ident});
        EXPECT_FALSE(host.heap_alive(empty.id));
        EXPECT_EQ(flux::default_handler(), 0u);
    }
    const ObjectRef qb = host.new_object(
        "ZOKFWQUERYBEHAV", {},
        {{"MESSAGESTRING", "ask"}, {"HANDLER", h}, {"RESPONSE", "yes"}, {"REGISTER", 1}});
    const ObjectRef q =
        host.new_object("ZOKFWQUERY", {}, {{"MESSAGESTRING", "ask"}, {"HANDLER", h}});
    const ObjectRef plain = message("ask", h);
    const ObjectRef dead = message("ask", h);
    host.destroy(dead);
    host.add_procedure("OTHER::DESCRIBE", 1, 1, [](zok::Call&) { return Value(); });
    const ObjectRef describe = host.new_object(
        "ZOKFWOBJBEHAV", {},
        {{"HANDLER", h}, {"MESSAGESTRING", "fire"}, {"METHOD", "DESCRIBE"}, {"OBJECT", target}});
    const ObjectRef d = delayed("ZOKFWDELAYBEHAV", target);
    const ObjectRef darg = delayed("ZOKFWDELAYARGBEHAV", target);
    host.call_method(d, "UNREGISTER");
    host.set_var("keep", plain); // lets a failed INIT's object be told apart from leftovers
    const ObjectRef a = handler();
    const ObjectRef loop = handler(a);
    host.call_method(a, "SETHANDLER", {loop});
    const ObjectRef ping = message("ping", loop);
    const std::string loops = "ZOKfwMessageHandler: the handler chain loops at handler ";
    const std::string not_handler = "Argument 1 must be an object of class ZOKfwMessageHandler.";
    const auto making = [&](const char* cls, const zok::Keywords& kw) {
        return [&, cls, kw] { host.new_object(cls, {}, kw); };
    };
    // Wrong types, arrays and selves of another class are the refusal suite's;
    // these are the refusals of the messaging classes' own rules.
    std::vector<Refusal> refusals = {
        {[&] { host.call_method(qb, "EXECUTE", {plain}); }, ZOK_MSG_WRONG_CLASS,
         "Argument 1 must be an object of class ZOKfwQuery."},
        {[&] { host.call_method(qb, "EXECUTE", {dead}); }, ZOK_ERR_INVALID_OBJECT, ""},
        // A query behaviour takes the query as its argument: a plain send has none.
        {[&] { host.call_method(plain, "SEND"); }, ZOK_ERR_ARG_COUNT, ""},
        // A name the target's class lacks is the host's error.
        {[&] { host.call_method(describe, "EXECUTE"); }, ZOK_ERR_UNKNOWN_METHOD,
         "Attempt to call undefined method: TARGET::DESCRIBE in ZOKFWOBJBEHAV::EXECUTE."},
        // The delayed methods take self alone, the one with argument exactly one.
        {[&] { host.call_method(d, "EXECUTE", {1}); }, ZOK_ERR_ARG_COUNT, ""},
        {[&] { host.call_method(arm, "SEND"); }, ZOK_ERR_ARG_COUNT, ""},
        {[&] { host.call_method(darg, "EXECUTE", {"seven"}); }, ZOK_ERR_CONVERSION, ""},
        {[&] { host.call_method(describe, "SETHANDLER", {plain}); }, ZOK_MSG_WRONG_CLASS,
         not_handler},
        {[&] { host.call_method(describe, "SETHANDLER", {dead}); }, ZOK_ERR_INVALID_OBJECT, ""},
        {[&] { host.call_method(h, "ISSCOPED", {qb}); }, ZOK_MSG_WRONG_CLASS,
         "Argument message must be an object of class ZOKfwMessage."},
        {[&] { host.call_method(h, "ADDBEHAVIOR", {plain}); }, ZOK_MSG_WRONG_CLASS,
         "Argument 1 must be an object of class ZOKfwBehavior."},
        {making("PROBE", {{"HANDLER", plain}, {"REGISTER", 1}}), ZOK_MSG_WRONG_CLASS, not_handler},
        {making("ZOKFWMESSAGE", {{"HANDLER", dead}}), ZOK_ERR_INVALID_OBJECT, ""},
        {[&] { host.call_method(ping, "SEND"); }, ZOK_MSG_TEXT, loops + std::to_string(loop.id)},
        {[&] { probe("ping", a); }, ZOK_MSG_TEXT, loops + std::to_string(a.id)},
    };
    for (const Value& ident : {Value(zok::PointerRef{0}), lost})
        for (const char* routine :
             {"ISSCOPED", "BEHAVIORS", "SENDMESSAGE", "UNSCOPEMESSAGE", "SCOPEMESSAGE"})
            refusals.push_back({[&, ident, routine] { host.call_method(h, routine, {ident}); }, -1,
                                "FWIdent corruption", "ZOK_MBLK_FLUXTOOLS"});
    expect_refusals(host, refusals);

    // A result or response whose heap variable has gone reads as undefined;
    // setting it is the host's error.
    host.call_method(q, "SENDQUERY");
    EXPECT_EQ(host.call_method(q, "RESULT"), Value("yes"));
    host_heap_free(pointer(q.id, "QUERY_RESULT"), 0, 0);
    EXPECT_FALSE(host.call_method(q, "RESULT").defined());
    expect_error(ZOK_ERR_INVALID_OBJECT, [&] { host.call_method(q, "SETRESULT", {1}); });
    host_heap_free(pointer(qb.id, "RESPONSE"), 0, 0);
    host.call_method(qb, "EXECUTE", {host.new_object("ZOKFWQUERY")});
    host.set_tag(q, "QUERY_RESULT", zok::PointerRef{0});

    // A heap variable that cannot be made leaves no value and no message.
    host.set_tag(qb, "RESPONSE", zok::PointerRef{0});
    host.clear_messages();
    host.fail_label("(heap)");
    host.call_method(qb, "SETRESPONSE", {1});
    host.call_method(q, "SETRESULT", {1});
    host.clear_faults();
    EXPECT_EQ(pointer(qb.id, "RESPONSE"), 0u);
    EXPECT_EQ(pointer(q.id, "QUERY_RESULT"), 0u);
    EXPECT_TRUE(host.messages().empty());
    EXPECT_EQ(check_all(), "");
}

TEST_F(Behaviours, ManyArmingMessagesGiveOneCallAtTheDelayMessage) {
    const ObjectRef d = delayed("ZOKFWDELAYBEHAV", target);
    const ObjectRef in = inner(d);
    EXPECT_EQ(host.get_tag(d, "ZOKFWDELAYBEHAV_VERSION").as_int(), 1);

    host.call_method(fire, "SEND"); // unarmed: nothing
    for (int i = 0; i < 3; ++i)
        host.call_method(arm, "SEND");
    EXPECT_EQ(filed(h, "fire"), std::vector{in.id});
    EXPECT_TRUE(calls.empty());
    host.call_method(fire, "SEND");
    host.call_method(fire, "SEND");
    EXPECT_EQ(calls, (std::vector<Called>{{"HIT", 1, target}}));
    EXPECT_TRUE(filed(h, "fire").empty());
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 1);

    host.call_method(d, "SETMETHOD", {"DIE"});
    host.call_method(arm, "SEND");
    host.call_method(fire, "SEND"); // the target dies during the deferred call
    EXPECT_FALSE(host.heap_alive(target.id));
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 1);
    host.call_method(arm, "SEND");
    host.call_method(fire, "SEND"); // now there is no target: unregistered and disarmed
    EXPECT_EQ(host.call_method(d, "ISREGISTERED").as_int(), 0);
    EXPECT_TRUE(filed(h, "fire").empty());

    // Without a delay message the inner behaviour keeps its own; it dies with its owner.
    const ObjectRef plain = delayed("ZOKFWDELAYBEHAV", {}, false);
    EXPECT_EQ(host.call_method(inner(plain), "MESSAGESTRING"), Value("Generic Message"));
    host.destroy(d);
    EXPECT_FALSE(host.heap_alive(in.id));
    EXPECT_EQ(check_all(), "");
}

TEST_F(Behaviours, WithArgumentTheLargestValueSinceTheLastCallIsPassed) {
    const ObjectRef d = delayed("ZOKFWDELAYARGBEHAV", target);
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
    EXPECT_EQ(calls, (std::vector<Called>{{"HIT", 2, Value(7)},
                                          {"HIT", 2, Value(0)},
                                          {"HIT", 2, Value(0)},
                                          {"HIT", 2, expected}}));

    // SETMETHOD and RESTORE are the delayed behaviour's.
    host.call_method(d, "SETMETHOD", {"NOSUCH"});
    host.call_method(d, "EXECUTE", {1});
    host.call_method(fire, "SEND");
    EXPECT_EQ(calls.size(), 4u);
    EXPECT_EQ(host.get_tag(d, "ARG").as_int(), 0); // reset even though nothing was called
    host.destroy(d);
    EXPECT_EQ(check_all(), "");
}

// RESTORE of an object saved before its class had a version (its version
// field below 1, and other fields as the old layout left them) brings the
// version to 1 and drops what the old layout lacked.  Identifiers only look as
// a restore leaves them: their translation is the save tests'.
TEST_F(Behaviours, RestoreUpgradesTheOldLayoutOfEveryClass) {
    const zok::Keywords at_h{{"HANDLER", h}, {"MESSAGESTRING", "arm"}};
    const ObjectRef b = host.new_object("ZOKFWBEHAVIOR", {}, {at_h[0], at_h[1], {"REGISTER", 1}});
    upgrade(b, {{"HASAHANDLER_VERSION", 0}}); // unregistered, but left where it was filed
    EXPECT_EQ(host.call_method(b, "ISREGISTERED").as_int(), 0);
    EXPECT_EQ(host.get_tag(b, "HASAHANDLER_VERSION").as_int(), 1);
    EXPECT_EQ(host.get_tag(b, "ZOKFWSAVEABLE_TOP").as_double(), 1.0);
    EXPECT_EQ(filed(h, "arm").back(), b.id);
    upgrade(host.new_object("ZOKFWMESSAGE", {}, at_h));
    upgrade(host.new_object("ZOKFWSAVEABLE"));
    const ObjectRef old = host.new_object("ZOKFWMESSAGEHANDLER");
    upgrade(old, {{"BEHAVIORS", zok::PointerRef{0}}}); // an empty table of its own
    EXPECT_TRUE(scoped(old).empty());
    host.call_method(old, "SCOPEMESSAGE", {"tick"});
    EXPECT_EQ(scoped(old), std::vector<std::string>{"tick"});
    const ObjectRef ob =
        host.new_object("ZOKFWOBJBEHAV", {}, {{"OBJECT", target}, {"METHOD", "HIT"}});
    upgrade(ob); // the target goes, the method stays
    EXPECT_FALSE(host.call_method(ob, "OBJECT").as_object());
    EXPECT_EQ(host.call_method(ob, "METHOD"), Value("HIT"));
    const ObjectRef q = host.new_object("ZOKFWQUERY", {}, at_h);
    host.call_method(q, "SETRESULT", {5});
    const uint32_t result = pointer(q.id, "QUERY_RESULT");
    upgrade(q); // the result is dropped, not freed
    EXPECT_EQ(pointer(q.id, "QUERY_RESULT"), 0u);
    EXPECT_TRUE(host.heap_alive(result));
    const ObjectRef qb = host.new_object("ZOKFWQUERYBEHAV", {}, {{"RESPONSE", "kept"}});
    upgrade(qb);
    EXPECT_EQ(host.call_method(qb, "RESPONSE"), Value("kept"));
    const ObjectRef d =
        host.new_object("ZOKFWDELAYBEHAV", {},
                        {{"OBJECT", target}, {"METHOD", "hit"}, {"DELAYMESSAGESTRING", "fire"}});
    as_if_restored(inner(d), "MESSIDENT");
    upgrade(d); // the inner behaviour is restored too
    EXPECT_EQ(host.get_tag(inner(d), "ZOKFWSAVEABLE_TOP").as_double(), 1.0);
    EXPECT_NE((" " + zoktest::registry_counts()).find(" hit=1 "), std::string::npos);
}

// The restore pass over objects of a program subclass whose RESTORE restores
// its peer first, as objects that refer to each other do, counts its runs, and
// then does what `after` holds for it.  Across a cycle each object restores
// once per pass; DORESTORE runs RESTORE once until RESETRESTORED, and only a
// flag of exactly 1.0 counts as restored.  A dead element ends the first loop
// (flags already reset) and is skipped in the second; a failing RESTORE stops
// the pass.
TEST_F(Messaging, TheRestorePassRestoresEachObjectOnceAndStopsAtDeadOrFailing) {
    std::map<uint32_t, int> runs;
    std::map<uint32_t, std::function<void()>> after;
    host.define_struct("LINKED", {{"PEER", ZOK_T_OBJECT}}, "ZOKFWSAVEABLE");
    host.add_procedure("LINKED::RESTORE", 1, 1, [&](zok::Call& call) {
        const ObjectRef self = call.self();
        runs[self.id] += 1;
        host.call_method(self, "ZOKFWSAVEABLE::RESTORE");
        if (const ObjectRef peer = host.get_tag(self, "PEER").as_object())
            host.call_method(peer, "DORESTORE");
        if (const auto action = after.find(self.id); action != after.end())
            action->second();
        return zok::Value();
    });
    const auto linked = [&](ObjectRef peer = {}) {
        const ObjectRef obj = host.new_object("LINKED");
        host.set_tag(obj, "PEER", peer);
        return obj;
    };
    const auto pass = [&](const std::vector<ObjectRef>& objects) {
        host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Value(objects)});
    };
    const auto flag = [&](ObjectRef obj) {
        return host.get_tag(obj, "ZOKFWSAVEABLE_TOP").as_double();
    };
    const ObjectRef c = linked();
    const ObjectRef b = linked(c);
    const ObjectRef a = linked(b);
    host.set_tag(c, "PEER", a);
    for (int round = 0; round < 2; ++round) {
        pass({a, b, c, a});
        for (ObjectRef o : {a, b, c}) {
            EXPECT_EQ(runs[o.id], round + 1);
            EXPECT_EQ(flag(o), 1.0);
        }
    }
    pass({});
    EXPECT_EQ(runs[a.id], 2);
    // A single reference is read as an array of one.
    host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {b});
    EXPECT_EQ(runs[b.id], 3);

    host.call_method(a, "DORESTORE");
    EXPECT_EQ(runs[a.id], 2);
    host.call_method(a, "RESETRESTORED");
    EXPECT_EQ(flag(a), 0.0);
    int expected = 2;
    for (double v : {0.0, 0.5, 2.0, -1.0, std::numeric_limits<double>::quiet_NaN(),
                     std::nextafter(1.0, 2.0)}) {
        host.set_tag(a, "ZOKFWSAVEABLE_TOP", v);
        host.call_method(a, "DORESTORE");
        EXPECT_EQ(runs[a.id], ++expected) << v;
        EXPECT_EQ(flag(a), 1.0);
    }

    const ObjectRef d = linked();
    const ObjectRef dead = linked();
    host.destroy(dead);
    host.set_tag(d, "ZOKFWSAVEABLE_TOP", 1.0);
    const std::string gone = "Invalid object reference: no live heap variable has identifier " +
                             std::to_string(dead.id) + " in ZOKFWSAVEABLERESTOREARRAY.";
    expect_error(ZOK_ERR_INVALID_OBJECT, gone, [&] { pass({d, dead}); });
    EXPECT_EQ(flag(d), 0.0);
    EXPECT_EQ(runs[d.id], 0);
    // e dies during the second loop, at d's RESTORE: the pass skips it.
    const ObjectRef e = linked();
    after[d.id] = [&] { host.destroy(e); };
    pass({d, e});
    EXPECT_EQ(runs[d.id], 1);
    EXPECT_EQ(runs[e.id], 0);
    after.clear();
    const ObjectRef f = linked();
    const ObjectRef g = linked();
    after[f.id] = [] { host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "restore failed"); };
    const zok::Error error = expect_error(ZOK_MSG_TEXT, "restore failed", [&] { pass({d, f, g}); });
    EXPECT_EQ(error.routine(), "LINKED::RESTORE");
    EXPECT_EQ(runs[f.id], 1);
    EXPECT_EQ(flag(d), 1.0);
    EXPECT_EQ(flag(g), 0.0);
    EXPECT_EQ(host.live_temps(), 0u);
}

} // namespace msgtest
