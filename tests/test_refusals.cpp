// Refusals and failures change nothing.  Every registered routine refuses a
// single-valued argument of the wrong type code with the host's type error,
// and an array of the right type code with the host's non-scalar error; and
// every routine, and the making of an object of every class with the keywords
// that make it file itself, that fails for want of memory at any of its
// allocations leaves the host and the registry's counts as it found them.
#include <cstdio>
#include <optional>
#include <set>

#include "frame/routines.hpp"
#include "support/checks.hpp"
#include "support/messaging_testing.hpp"

namespace {

using zok::ObjectRef;
using zok::PointerRef;
using zok::Value;

// A host with the module, a map holding "k", a saveable object saved at
// version 0, an identifier, and a heap variable that looks like a restored
// identifier; and a valid call of every registered routine on them.
struct World {
    World() {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        map = host.new_object("ZOKDSMAP");
        host.call_method(map, "INSERT", {"k", 1});
        saveable = host.new_object("ZOKFWSAVEABLE");
        host.set_tag(saveable, "ZOKFWSAVEABLE_VERSION", 0);
        ident = host.call_function("GET_FWIDENT", {"x"}).as_pointer();
        zok_var* text = host.make_temp("y");
        copy = PointerRef{
            host_heap_var_new(ZOK_HEAP_POINTER, text, ZOK_HEAP_NEW_MOVE, ZOK_ACTION_ERROR)->id};
        host_release_temp(text);
        host.set_var("count", 0);
        // The messaging classes: a handler scoping "tick" and one below it, an
        // object of every class under that one (a registered behaviour, filed
        // above), a behaviour of no handler, a program target for the method
        // behaviours, and no default handler: calls have behaviours to move,
        // scopes and a default handler to make.
        host.add_procedure("NOTHING", 1, 1, [](zok::Call&) { return Value(); });
        host.add_function("ZERO", 1, 1, [](zok::Call&) { return Value(0); });
        host.define_struct("SINK", {{"TAKEN", ZOK_T_LONG}});
        host.add_procedure("SINK::TAKE", 1, 2, [](zok::Call&) { return Value(); });
        sink = host.new_object("SINK");
        handler = host.new_object("ZOKFWMESSAGEHANDLER");
        host.call_method(handler, "SCOPEMESSAGE", {"tick"});
        low = host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", handler}});
        const zok::Keywords at{{"HANDLER", low}, {"MESSAGESTRING", "tick"}};
        auto with = [&](std::initializer_list<zok::Keyword> more) {
            zok::Keywords kw = at;
            kw.insert(kw.end(), more);
            return kw;
        };
        hasahandler = host.new_object("ZOKFWHASAHANDLER");
        behavior = host.new_object("ZOKFWBEHAVIOR", {}, with({{"REGISTER", 1}}));
        message = host.new_object("ZOKFWMESSAGE", {}, at);
        proc = host.new_object("ZOKFWPROCBEHAV", {}, with({{"PROCEDURE", "NOTHING"}}));
        func = host.new_object("ZOKFWFUNCBEHAV", {}, with({{"FUNCTION", "ZERO"}}));
        const std::initializer_list<zok::Keyword> take{{"OBJECT", sink}, {"METHOD", "TAKE"}};
        obj = host.new_object("ZOKFWOBJBEHAV", {}, with(take));
        delay = host.new_object("ZOKFWDELAYBEHAV", {}, with(take));
        delayarg = host.new_object("ZOKFWDELAYARGBEHAV", {}, with(take));
        query = host.new_object("ZOKFWQUERY", {}, at);
        querybehav = host.new_object("ZOKFWQUERYBEHAV", {}, with({{"RESPONSE", 5}}));
        loose = host.new_object("ZOKFWBEHAVIOR", {}, {{"MESSAGESTRING", "tock"}});
        host.destroy(ObjectRef{flux::default_handler()});
    }

    // The valid arguments of a routine: self alone for a method of a class
    // with an instance here, unless the table says otherwise; a routine with
    // neither fails the tests.
    zok::Args valid_call(const std::string& routine) const {
        const std::map<std::string, zok::Args> calls = {
            {"FWIDENT_ACQUIRE", {ident}},
            {"FWIDENT_GC", {0}},
            {"FWIDENT_RELEASE", {ident}},
            {"GET_FWIDENT", {"fresh"}},
            {"ROLLOVER_FWIDENT", {copy}},
            {"ZOKDSMAP::GETDATA", {map, "k"}},
            {"ZOKDSMAP::GETKEYS", {map, zok::Ref{"count"}}},
            {"ZOKDSMAP::INSERT", {map, "new", "value"}},
            {"ZOKDSMAP::KEYEXISTS", {map, "k"}},
            {"ZOKDSMAP::REMOVE", {map, "k"}},
            {"ZOKFWSAVEABLERESTOREARRAY", {Value(std::vector<ObjectRef>{saveable})}},
            {"ZOKFWHASAHANDLER::SETHANDLER", {hasahandler, handler}},
            {"ZOKFWBEHAVIOR::REGISTER", {loose}},
            {"ZOKFWBEHAVIOR::SETMESSAGESTRING", {behavior, "tock"}},
            {"ZOKFWMESSAGE::SETMESSAGESTRING", {message, "tock"}},
            {"ZOKFWMESSAGEHANDLER::ADDBEHAVIOR", {low, loose}},
            {"ZOKFWMESSAGEHANDLER::BEHAVIORS", {handler, "tick"}},
            {"ZOKFWMESSAGEHANDLER::ISSCOPED", {handler, "tick"}},
            {"ZOKFWMESSAGEHANDLER::REMOVEBEHAVIOR", {handler, behavior}},
            {"ZOKFWMESSAGEHANDLER::SCOPEMESSAGE", {low, "tick"}},
            {"ZOKFWMESSAGEHANDLER::SENDMESSAGE", {low, "tick"}},
            {"ZOKFWMESSAGEHANDLER::UNSCOPEMESSAGE", {handler, "tick"}},
            {"ZOKFWPROCBEHAV::SETPROC", {proc, "NOTHING"}},
            {"ZOKFWFUNCBEHAV::SETFUNC", {func, "ZERO"}},
            {"ZOKFWOBJBEHAV::SETMETHOD", {obj, "TAKE"}},
            {"ZOKFWOBJBEHAV::SETOBJECT", {obj, sink}},
            {"ZOKFWDELAYBEHAV::SETMETHOD", {delay, "TAKE"}},
            {"ZOKFWDELAYARGBEHAV::EXECUTE", {delayarg, 3}},
            {"ZOKFWQUERY::SETRESULT", {query, 4}},
            {"ZOKFWQUERYBEHAV::EXECUTE", {querybehav, query}},
            {"ZOKFWQUERYBEHAV::SETRESPONSE", {querybehav, 6}},
        };
        if (const auto found = calls.find(routine); found != calls.end())
            return found->second;
        const std::string cls = routine.substr(0, routine.find("::"));
        for (const ObjectRef o : {map, saveable, hasahandler, behavior, message, handler, proc,
                                  func, obj, delay, delayarg, query, querybehav})
            if (host.class_of(o) == cls)
                return {o};
        ADD_FAILURE() << routine << " has no valid call in this test";
        return {};
    }

    void call(const zok::RoutineInfo& r, const zok::Args& args) {
        if (r.is_function)
            host.call_function(r.name, args);
        else
            host.call_procedure(r.name, args);
    }

    zok::Host host;
    ObjectRef map;
    ObjectRef saveable;
    PointerRef ident;
    PointerRef copy;
    ObjectRef sink, handler, low, loose, hasahandler, behavior, message, proc, func, obj, delay,
        delayarg, query, querybehav;
};

// The module's routines, beside the program routines the world registers.
std::vector<zok::RoutineInfo> module_routines(zok::Host& host) {
    std::set<std::string> names;
    for (auto table : {flux::function_table(), flux::procedure_table()})
        for (const zok_routine_entry& e : table)
            names.insert(e.name);
    std::vector<zok::RoutineInfo> out;
    for (const zok::RoutineInfo& r : host.routines())
        if (names.count(r.name))
            out.push_back(r);
    return out;
}

bool messaging(const std::string& routine) {
    return routine.starts_with("ZOKFW") && !routine.starts_with("ZOKFWSAVEABLE");
}

// Where a routine takes any value, or writes an output.
const std::set<std::pair<std::string, size_t>> any_value = {
    {"ZOKDSMAP::INSERT", 2},
    {"ZOKDSMAP::GETKEYS", 1},
    {"ZOKFWDELAYARGBEHAV::EXECUTE", 1}, // converted to an integer
    {"ZOKFWQUERY::SETRESULT", 1},
    {"ZOKFWQUERYBEHAV::SETRESPONSE", 1},
};

// Where a class names its own message for an argument of the wrong type (or an
// array): code and text, whatever the wrong value.
struct Named {
    int32_t code;
    std::string text;
};
const std::map<std::pair<std::string, size_t>, Named> named_refusals = [] {
    const Named not_message{ZOK_MSG_WRONG_CLASS,
                            "Argument message must be an object of class ZOKfwMessage."};
    auto wrong_type = [](const char* routine) {
        return Named{ZOK_MSG_ARG_TYPE,
                     std::string("Argument of the wrong type in ") + routine + "."};
    };
    return std::map<std::pair<std::string, size_t>, Named>{
        {{"ZOKFWHASAHANDLER::SETHANDLER", 1},
         {ZOK_MSG_NOT_OBJECT,
          "ZOKfwHasAHandler::SetHandler: the argument is not an object reference."}},
        {{"ZOKFWBEHAVIOR::SETMESSAGESTRING", 1}, wrong_type("ZOKfwBehavior::SetMessageString")},
        {{"ZOKFWMESSAGE::SETMESSAGESTRING", 1}, wrong_type("ZOKfwMessage::SetMessageString")},
        {{"ZOKFWPROCBEHAV::SETPROC", 1}, wrong_type("ZOKfwProcBehav::SetProc")},
        {{"ZOKFWFUNCBEHAV::SETFUNC", 1}, wrong_type("ZOKfwFuncBehav::SetFunc")},
        {{"ZOKFWOBJBEHAV::SETMETHOD", 1}, wrong_type("ZOKfwObjBehav::SetMethod")},
        {{"ZOKFWOBJBEHAV::SETOBJECT", 1}, wrong_type("ZOKfwObjBehav::SetMethod")},
        {{"ZOKFWMESSAGEHANDLER::BEHAVIORS", 1}, not_message},
        {{"ZOKFWMESSAGEHANDLER::ISSCOPED", 1}, not_message},
        {{"ZOKFWMESSAGEHANDLER::SCOPEMESSAGE", 1}, not_message},
        {{"ZOKFWMESSAGEHANDLER::SENDMESSAGE", 1}, not_message},
        {{"ZOKFWMESSAGEHANDLER::UNSCOPEMESSAGE", 1}, not_message},
    };
}();

// The host's names of type codes in its messages.
const std::map<uint8_t, std::string> type_names = {
    {ZOK_T_LONG, "LONG"},
    {ZOK_T_STRING, "STRING"},
    {ZOK_T_POINTER, "POINTER"},
    {ZOK_T_OBJECT, "OBJREF"},
};

// The names the messaging classes show in their messages.
const std::map<std::string, std::string> display_names = {
    {"ZOKFWHASAHANDLER", "ZOKfwHasAHandler"},
    {"ZOKFWBEHAVIOR", "ZOKfwBehavior"},
    {"ZOKFWMESSAGE", "ZOKfwMessage"},
    {"ZOKFWMESSAGEHANDLER", "ZOKfwMessageHandler"},
    {"ZOKFWPROCBEHAV", "ZOKfwProcBehav"},
    {"ZOKFWFUNCBEHAV", "ZOKfwFuncBehav"},
    {"ZOKFWOBJBEHAV", "ZOKfwObjBehav"},
    {"ZOKFWDELAYBEHAV", "ZOKfwDelayBehav"},
    {"ZOKFWDELAYARGBEHAV", "ZOKfwDelayArgBehav"},
    {"ZOKFWQUERY", "ZOKfwQuery"},
    {"ZOKFWQUERYBEHAV", "ZOKfwQueryBehav"},
};

// Every single-valued argument refuses a value of another type and an array of
// its own; a method of a messaging class called by its full name with an
// object of another class as self is refused before it reads a field.
TEST(Refusals, SingleValuedArgumentsRefuseOtherTypesAndArrays) {
    World w;
    for (const zok::RoutineInfo& r : module_routines(w.host)) {
        const zok::Args args = w.valid_call(r.name);
        for (size_t i = 0; i < args.size(); ++i) {
            const Value& v = args[i].value();
            if (args[i].is_ref() || v.is_array() || any_value.count({r.name, i}))
                continue;
            SCOPED_TRACE(r.name + " argument " + std::to_string(i));
            auto required = [&](const char* what, const std::string& got) {
                return std::string(what) + " required in " + r.name + ": got " + got +
                       " (temporary).";
            };
            struct Bad {
                Value value;
                int32_t code;
                std::string text;
            };
            std::vector<Bad> bad;
            bad.push_back({Value::array(v.type(), {v, v}), ZOK_ERR_NOT_SIMPLE,
                           required("Scalar expression", type_names.at(v.type()) + " array[2]")});
            if (v.type() == ZOK_T_STRING)
                bad.push_back({7, ZOK_ERR_NOT_STRING, required("String expression", "LONG")});
            if (v.type() == ZOK_T_POINTER)
                bad.push_back({"p", ZOK_ERR_NOT_POINTER, required("Pointer expression", "STRING")});
            if (v.type() == ZOK_T_OBJECT)
                bad.push_back({"o", ZOK_ERR_NOT_OBJECT, required("Object reference", "STRING")});
            if (i == 0 && messaging(r.name)) // the saveable object is of the root class
                bad.push_back({w.saveable, ZOK_MSG_WRONG_CLASS,
                               "Argument 0 must be an object of class " +
                                   display_names.at(r.name.substr(0, r.name.find("::"))) + "."});
            if (const auto named = named_refusals.find({r.name, i}); named != named_refusals.end())
                for (Bad& b : bad) {
                    b.code = named->second.code;
                    b.text = named->second.text;
                }
            for (const Bad& b : bad) {
                zok::Args given = args;
                given[i] = b.value;
                const msgtest::Observable before(w.host);
                const zok::Error e = expect_error(b.code, [&] { w.call(r, given); });
                EXPECT_EQ(e.text(), b.text);
                EXPECT_EQ(msgtest::Observable(w.host).since(before), "");
                EXPECT_EQ(zoktest::module_fault(w.host), "");
            }
        }
    }
}

// The keywords with which an object of each class files itself: below a
// handler, scoping a message that a handler above files a registered behaviour
// under; and with no handler, so that the default handler must be made.
std::vector<zok::Keywords> filing_keywords(const World& w, const std::string& cls) {
    const bool behaviour = cls.ends_with("BEHAV") || cls == "ZOKFWBEHAVIOR";
    const bool message = cls == "ZOKFWMESSAGE" || cls == "ZOKFWQUERY";
    if (cls == "ZOKFWHASAHANDLER" || cls == "ZOKFWMESSAGEHANDLER")
        return {{{"HANDLER", w.low}}};
    if (!behaviour && !message)
        return {{}};
    std::vector<zok::Keywords> sets = {
        {{"HANDLER", w.low}, {"MESSAGESTRING", "tick"}, {"SCOPE", 1}},
        {{"MESSAGESTRING", "new"}, {"SCOPE", 1}},
    };
    if (behaviour)
        for (zok::Keywords& kw : sets)
            kw.push_back({"REGISTER", 1});
    if (cls.starts_with("ZOKFWDELAY"))
        sets.front().insert(sets.front().end(),
                            {{"METHOD", "TAKE"}, {"DELAYMESSAGESTRING", "later"}});
    return sets;
}

// Fails the 1st, 2nd, ... allocation of every routine's valid call, of making an
// object of every class with each set of filing keywords, and of unscoping on
// the default handler, each time on a fresh world, until the call makes fewer
// allocations than the failing one's place (a failure that the call absorbs,
// as INIT does when it cannot make its map, does not end the sweep).
TEST(Refusals, RunningOutOfMemoryChangesNothing) {
    struct Case {
        std::string name;
        std::function<void(World&)> call;
        std::function<void(World&)> set_up = nullptr;
    };
    std::vector<Case> cases;
    {
        World w;
        for (const zok::RoutineInfo& r : module_routines(w.host)) {
            cases.push_back({r.name, [r](World& x) { x.call(r, x.valid_call(r.name)); }});
            if (!r.name.ends_with("::INIT"))
                continue;
            const std::string cls = r.name.substr(0, r.name.size() - 6);
            for (const zok::Keywords& kw : filing_keywords(w, cls))
                cases.push_back(
                    {"making a " + cls + " with " + std::to_string(kw.size()) + " keywords",
                     [cls, kw](World& x) {
                         zok::Keywords given = kw;
                         for (zok::Keyword& k : given)
                             if (k.name == "HANDLER")
                                 k.arg = x.low;
                         x.host.new_object(cls, {}, given);
                     }});
        }
    }
    cases.push_back({"unscoping on the default handler",
                     [](World& x) {
                         x.host.call_method(ObjectRef{flux::default_handler()}, "UNSCOPEMESSAGE",
                                            {"tock"});
                     },
                     [](World& x) { x.host.call_method(x.loose, "REGISTER"); }});
    // Re-filing empties the default handler's only scope, which frees it, and
    // files the behaviour at the root again, in a new default handler.
    for (const char* routine : {"SCOPEMESSAGE", "RESTORE"})
        cases.push_back({std::string(routine) + " re-filing the default handler's only behaviour",
                         [routine](World& x) {
                             if (routine[0] == 'S')
                                 x.host.call_method(x.handler, routine, {"tock"});
                             else
                                 x.host.call_method(x.loose, routine);
                         },
                         [](World& x) { x.host.call_method(x.loose, "REGISTER"); }});
    // A registered behaviour whose identifier the registry does not know (as
    // one read back before its restore) is filed again under a new root scope.
    for (const char* routine : {"SCOPEMESSAGE", "UNSCOPEMESSAGE"})
        cases.push_back({std::string(routine) + " moving a behaviour of an unknown identifier",
                         [routine](World& x) {
                             const ObjectRef at = routine[0] == 'S' ? x.low : x.handler;
                             x.host.call_method(at, routine, {"tick"});
                         },
                         [](World& x) { x.host.set_tag(x.behavior, "MESSIDENT", x.copy); }});
    uint64_t sites = 0;
    uint64_t failures = 0;
    std::optional<World> w;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        int failed_here = 0;
        for (uint64_t nth = 1;; ++nth) {
            ASSERT_LT(nth, 200u) << "no success within 200 allocations";
            w.reset();
            w.emplace();
            if (c.set_up)
                c.set_up(*w);
            const msgtest::Observable before(w->host);
            const uint64_t start = w->host.allocations();
            w->host.fail_allocation(nth);
            try {
                c.call(*w);
                if (w->host.allocations() - start < nth) {
                    sites += nth - 1;
                    break;
                }
                continue;
            } catch (const zok::Error& e) {
                ++failed_here;
                EXPECT_TRUE(e.code() == ZOK_ERR_NO_MEMORY || e.text().ends_with("out of memory"))
                    << e.what();
            }
            w->host.clear_faults();
            EXPECT_EQ(msgtest::Observable(w->host).since(before), "") << "allocation " << nth;
            EXPECT_EQ(zoktest::module_fault(w->host), "") << "allocation " << nth;
        }
        EXPECT_GT(failed_here, 0);
        failures += failed_here;
    }
    std::printf("%zu calls, %llu allocation sites reached, %llu failing runs checked\n",
                cases.size(), static_cast<unsigned long long>(sites),
                static_cast<unsigned long long>(failures));
}

} // namespace
