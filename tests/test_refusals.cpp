// Refusals and failures change nothing.  Every registered routine refuses a
// single-valued argument of the wrong type code with the host's type error (or
// its class's own), and an array of the right type code with the host's
// non-scalar error (integer arguments, converted from any value, are left
// out); and
// every routine, and the making of an object of every class with the keywords
// that make it file itself, that fails for want of memory at any of its
// allocations leaves the host and the registry's counts as it found them.
#include <algorithm>
#include <tuple>

#include "support/messaging_testing.hpp"

using zok::ObjectRef;
using zok::Value;

// A host with the module, a map holding "k", a saveable object saved at
// version 0, an identifier, and a heap variable that looks like a restored
// identifier; and a valid call of every registered routine on them.
struct World {
    World() {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        routines = host.routines(); // the module's alone
        map = host.new_object("ZOKDSMAP");
        host.call_method(map, "INSERT", {"k", 1});
        saveable = host.new_object("ZOKFWSAVEABLE");
        host.set_tag(saveable, "ZOKFWSAVEABLE_VERSION", 0);
        ident = host.call_function("GET_FWIDENT", {"x"}).as_pointer();
        zok_var* text = host.make_temp("y");
        copy = zok::PointerRef{
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
        const auto make = [&](const char* cls, zok::Keywords kw) {
            kw.insert(kw.end(), {{"HANDLER", low}, {"MESSAGESTRING", "tick"}});
            return host.new_object(cls, {}, kw);
        };
        hasahandler = host.new_object("ZOKFWHASAHANDLER");
        behavior = make("ZOKFWBEHAVIOR", {{"REGISTER", 1}});
        message = make("ZOKFWMESSAGE", {});
        proc = make("ZOKFWPROCBEHAV", {{"PROCEDURE", "NOTHING"}});
        func = make("ZOKFWFUNCBEHAV", {{"FUNCTION", "ZERO"}});
        const zok::Keywords take{{"OBJECT", sink}, {"METHOD", "TAKE"}};
        obj = make("ZOKFWOBJBEHAV", take);
        delay = make("ZOKFWDELAYBEHAV", take);
        delayarg = make("ZOKFWDELAYARGBEHAV", take);
        query = make("ZOKFWQUERY", {});
        querybehav = make("ZOKFWQUERYBEHAV", {{"RESPONSE", 5}});
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
            {"ZOKFWQUERYBEHAV::SETRESPONSE", {querybehav, 6}}};
        if (const auto found = calls.find(routine); found != calls.end())
            return found->second;
        // The first object of each class here is the one to call.
        for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
            if (host.class_of(ObjectRef{id}) == routine.substr(0, routine.find("::")))
                return {ObjectRef{id}};
        ADD_FAILURE() << routine << " has no valid call in this test";
        return {};
    }

    void call(const zok::RoutineInfo& r, const zok::Args& args) {
        r.is_function ? void(host.call_function(r.name, args)) : host.call_procedure(r.name, args);
    }

    zok::Host host;
    std::vector<zok::RoutineInfo> routines;
    zok::PointerRef ident, copy;
    // `fallback` is the default handler, once a test makes one.
    ObjectRef map, saveable, sink, handler, low, loose, hasahandler, behavior, message, proc, func,
        obj, delay, delayarg, query, querybehav, fallback;
};

// Where a class names its own message for its argument 1 of the wrong type (or
// an array): code and text, whatever the wrong value.  A handler's methods name
// their message argument too.
const std::pair<int32_t, std::string> not_message{
    ZOK_MSG_WRONG_CLASS, "Argument message must be an object of class ZOKfwMessage."};
const std::map<std::string, std::pair<int32_t, std::string>> named_refusals = [] {
    const auto wrong_type = [](const std::string& routine) {
        return std::pair{ZOK_MSG_ARG_TYPE, "Argument of the wrong type in " + routine + "."};
    };
    return std::map<std::string, std::pair<int32_t, std::string>>{
        {"ZOKFWHASAHANDLER::SETHANDLER",
         {ZOK_MSG_NOT_OBJECT,
          "ZOKfwHasAHandler::SetHandler: the argument is not an object reference."}},
        {"ZOKFWBEHAVIOR::SETMESSAGESTRING", wrong_type("ZOKfwBehavior::SetMessageString")},
        {"ZOKFWMESSAGE::SETMESSAGESTRING", wrong_type("ZOKfwMessage::SetMessageString")},
        {"ZOKFWPROCBEHAV::SETPROC", wrong_type("ZOKfwProcBehav::SetProc")},
        {"ZOKFWFUNCBEHAV::SETFUNC", wrong_type("ZOKfwFuncBehav::SetFunc")},
        {"ZOKFWOBJBEHAV::SETMETHOD", wrong_type("ZOKfwObjBehav::SetMethod")},
        {"ZOKFWOBJBEHAV::SETOBJECT", wrong_type("ZOKfwObjBehav::SetMethod")},
    };
}();

// For a single-valued argument of each type: the host's name of the type, a
// value of another type and its name, the host's code for that value and its
// name of what was required.
const std::map<uint8_t, std::tuple<std::string, Value, std::string, int32_t, std::string>>
    wrong_types = {
        {ZOK_T_STRING, {"STRING", 7, "LONG", ZOK_ERR_NOT_STRING, "String expression"}},
        {ZOK_T_POINTER, {"POINTER", "p", "STRING", ZOK_ERR_NOT_POINTER, "Pointer expression"}},
        {ZOK_T_OBJECT, {"OBJREF", "o", "STRING", ZOK_ERR_NOT_OBJECT, "Object reference"}},
};

// The name a messaging class shows in its messages.
std::string display_name(const std::string& cls) {
    for (std::string name :
         {"ZOKfwHasAHandler", "ZOKfwBehavior", "ZOKfwMessage", "ZOKfwMessageHandler",
          "ZOKfwProcBehav", "ZOKfwFuncBehav", "ZOKfwObjBehav", "ZOKfwDelayBehav",
          "ZOKfwDelayArgBehav", "ZOKfwQuery", "ZOKfwQueryBehav"})
        if (std::ranges::equal(name, cls, {}, ::toupper))
            return name;
    return "(no name for " + cls + ")";
}

// Every single-valued argument refuses a value of another type and an array of
// its own; a method of a messaging class called by its full name with an
// object of another class as self is refused before it reads a field.
TEST(Refusals, SingleValuedArgumentsRefuseOtherTypesAndArrays) {
    World w;
    for (const zok::RoutineInfo& r : w.routines) {
        const zok::Args args = w.valid_call(r.name);
        const std::string cls = r.name.substr(0, r.name.find("::"));
        for (size_t i = 0; i < args.size(); ++i) {
            const Value& v = args[i].value();
            // Integers are converted from a value of any type; a map holds any value.
            if (args[i].is_ref() || v.is_array() || v.type() == ZOK_T_LONG ||
                (r.name == "ZOKDSMAP::INSERT" && i == 2))
                continue;
            SCOPED_TRACE(r.name + " argument " + std::to_string(i));
            std::vector<msgtest::Refusal> refusals;
            const auto refused = [&](const Value& bad, int32_t code, std::string text) {
                if (const auto named = named_refusals.find(r.name);
                    i == 1 && named != named_refusals.end())
                    std::tie(code, text) = named->second;
                if (cls == "ZOKFWMESSAGEHANDLER" && v.type() == ZOK_T_STRING)
                    std::tie(code, text) = not_message;
                zok::Args given = args;
                given[i] = bad;
                refusals.push_back({[&w, r, given] { w.call(r, given); }, code, text});
            };
            const auto& [name, other, other_name, code, what] = wrong_types.at(v.type());
            const std::string in = " required in " + r.name + ": got ";
            refused(Value::array(v.type(), {v, v}), ZOK_ERR_NOT_SIMPLE,
                    "Scalar expression" + in + name + " array[2] (temporary).");
            refused(other, code, what + in + other_name + " (temporary).");
            // The saveable object is of the root class.
            if (i == 0 && cls.starts_with("ZOKFW") && cls != "ZOKFWSAVEABLE")
                refused(w.saveable, ZOK_MSG_WRONG_CLASS,
                        "Argument 0 must be an object of class " + display_name(cls) + ".");
            msgtest::expect_refusals(w.host, refusals);
            EXPECT_EQ(zoktest::module_fault(w.host), "");
        }
    }
}

// The keywords with which an object of each class files itself: below a
// handler, scoping a message that a handler above files a registered behaviour
// under; and with no handler, so that the default handler must be made.
std::vector<zok::Keywords> filing_keywords(ObjectRef low, const std::string& cls) {
    const bool behaviour = cls.ends_with("BEHAV") || cls == "ZOKFWBEHAVIOR";
    if (cls == "ZOKFWHASAHANDLER" || cls == "ZOKFWMESSAGEHANDLER")
        return {{{"HANDLER", low}}};
    if (!behaviour && cls != "ZOKFWMESSAGE" && cls != "ZOKFWQUERY")
        return {{}};
    std::vector<zok::Keywords> sets = {
        {{"HANDLER", low}, {"MESSAGESTRING", "tick"}, {"SCOPE", 1}},
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
// object of every class with each set of filing keywords, and of calls that
// move a behaviour filed where it cannot stay, each time on a fresh world,
// until the call makes fewer allocations than the failing one's place (a
// failure that the call absorbs, as INIT does when it cannot make its map, does
// not end the sweep).
TEST(Refusals, RunningOutOfMemoryChangesNothing) {
    using Step = std::function<void(World&)>;
    std::vector<std::tuple<std::string, Step, Step>> cases; // name, call, set-up
    for (const zok::RoutineInfo& r : World().routines) {
        cases.push_back({r.name, [r](World& x) { x.call(r, x.valid_call(r.name)); }, {}});
        if (!r.name.ends_with("::INIT"))
            continue;
        const std::string cls = r.name.substr(0, r.name.size() - 6);
        for (size_t n = filing_keywords({}, cls).size(); n-- > 0;)
            cases.push_back(
                {"making a " + cls + " with keyword set " + std::to_string(n),
                 [cls, n](World& x) { x.host.new_object(cls, {}, filing_keywords(x.low, cls)[n]); },
                 {}});
    }
    // Re-filing empties the default handler's only scope, which frees it, and
    // files the behaviour at the root again, in a new default handler; a
    // registered behaviour whose identifier the registry does not know (as one
    // read back before its restore) is filed again under a new root scope.
    const auto register_loose = [](World& x) {
        x.host.call_method(x.loose, "REGISTER");
        x.fallback = ObjectRef{flux::default_handler()};
    };
    const auto unknown_ident = [](World& x) { x.host.set_tag(x.behavior, "MESSIDENT", x.copy); };
    const std::tuple<ObjectRef World::*, const char*, zok::Args, Step> moves[] = {
        {&World::fallback, "UNSCOPEMESSAGE", {"tock"}, register_loose},
        {&World::handler, "SCOPEMESSAGE", {"tock"}, register_loose},
        {&World::loose, "RESTORE", {}, register_loose},
        {&World::low, "SCOPEMESSAGE", {"tick"}, unknown_ident},
        {&World::handler, "UNSCOPEMESSAGE", {"tick"}, unknown_ident}};
    for (const auto& [self, method, args, set_up] : moves)
        cases.push_back({"moving behaviours, case " + std::to_string(cases.size()) + ": " + method,
                         [=](World& x) { x.host.call_method(x.*self, method, args); }, set_up});
    std::unique_ptr<World> w;
    for (const auto& [name, call, set_up] : cases) {
        SCOPED_TRACE(name);
        int failed = 0;
        for (uint64_t nth = 1;; ++nth) {
            ASSERT_LT(nth, 200u) << "no success within 200 allocations";
            w.reset();
            w = std::make_unique<World>();
            if (set_up)
                set_up(*w);
            const msgtest::Observable before(w->host);
            const uint64_t start = w->host.allocations();
            w->host.fail_allocation(nth);
            try {
                call(*w);
                if (w->host.allocations() - start < nth)
                    break;
                continue;
            } catch (const zok::Error& e) {
                ++failed;
                EXPECT_TRUE(e.code() == ZOK_ERR_NO_MEMORY || e.text().ends_with("out of memory"))
                    << e.what();
            }
            w->host.clear_faults();
            EXPECT_EQ(msgtest::Observable(w->host).since(before), "") << "allocation " << nth;
            EXPECT_EQ(zoktest::module_fault(w->host), "") << "allocation " << nth;
        }
        EXPECT_GT(failed, 0);
    }
}
