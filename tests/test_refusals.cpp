// Refusals and failures change nothing.  Every registered routine refuses a
// single-valued argument of the wrong type code with the host's type error,
// and an array of the right type code with the host's non-scalar error; and
// every routine, and the making of an object of every class, that fails for
// want of memory leaves the host as it found it and the module's checks sound.
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame/module.hpp"
#include "host.hpp"
#include "support/testing.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

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
    }

    // The valid arguments of a routine; a routine missing here fails the tests.
    zok::Args valid_call(const std::string& routine) const {
        const std::map<std::string, zok::Args> calls = {
            {"FWIDENT_ACQUIRE", {ident}},
            {"FWIDENT_GC", {0}},
            {"FWIDENT_RELEASE", {ident}},
            {"GET_FWIDENT", {"fresh"}},
            {"ROLLOVER_FWIDENT", {copy}},
            {"ZOKDSMAP::CLEANUP", {map}},
            {"ZOKDSMAP::GETDATA", {map, "k"}},
            {"ZOKDSMAP::GETKEYS", {map, zok::Ref{"count"}}},
            {"ZOKDSMAP::GETSIZE", {map}},
            {"ZOKDSMAP::INIT", {map}},
            {"ZOKDSMAP::INSERT", {map, "new", "value"}},
            {"ZOKDSMAP::KEYEXISTS", {map, "k"}},
            {"ZOKDSMAP::REMOVE", {map, "k"}},
            {"ZOKFWSAVEABLE::CLEANUP", {saveable}},
            {"ZOKFWSAVEABLE::DORESTORE", {saveable}},
            {"ZOKFWSAVEABLE::INIT", {saveable}},
            {"ZOKFWSAVEABLE::RESETRESTORED", {saveable}},
            {"ZOKFWSAVEABLE::RESTORE", {saveable}},
            {"ZOKFWSAVEABLERESTOREARRAY", {Value(std::vector<ObjectRef>{saveable})}},
        };
        const auto found = calls.find(routine);
        if (found == calls.end())
            ADD_FAILURE() << routine << " has no valid call in this test";
        return found == calls.end() ? zok::Args{} : found->second;
    }

    void call(const zok::RoutineInfo& r, const zok::Args& args) {
        if (r.is_function)
            host.call_function(r.name, args);
        else
            host.call_procedure(r.name, args);
    }

    std::string module_fault() {
        for (const flux::ModuleCheck check : flux::module_checks())
            if (std::string fault = check(); !fault.empty())
                return fault;
        for (const flux::ClassCheck& c : flux::class_checks())
            for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
                if (host.isa(ObjectRef{id}, c.class_name))
                    if (std::string fault = c.check(id); !fault.empty())
                        return fault;
        return "";
    }

    zok::Host host;
    ObjectRef map;
    ObjectRef saveable;
    PointerRef ident;
    PointerRef copy;
};

// Where a routine takes any value, or writes an output.
const std::set<std::pair<std::string, size_t>> any_value = {
    {"ZOKDSMAP::INSERT", 2},
    {"ZOKDSMAP::GETKEYS", 1},
};

// The host's names of type codes in its messages.
const std::map<uint8_t, std::string> type_names = {
    {ZOK_T_LONG, "LONG"},
    {ZOK_T_STRING, "STRING"},
    {ZOK_T_POINTER, "POINTER"},
    {ZOK_T_OBJECT, "OBJREF"},
};

TEST(Refusals, SingleValuedArgumentsRefuseOtherTypesAndArrays) {
    World w;
    for (const zok::RoutineInfo& r : w.host.routines()) {
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
            std::vector<Bad> bad = {
                {Value::array(v.type(), {v, v}), ZOK_ERR_NOT_SIMPLE,
                 required("Scalar expression", type_names.at(v.type()) + " array[2]")}};
            if (v.type() == ZOK_T_STRING)
                bad.push_back({7, ZOK_ERR_NOT_STRING, required("String expression", "LONG")});
            if (v.type() == ZOK_T_POINTER)
                bad.push_back({"p", ZOK_ERR_NOT_POINTER, required("Pointer expression", "STRING")});
            if (v.type() == ZOK_T_OBJECT)
                bad.push_back({"o", ZOK_ERR_NOT_OBJECT, required("Object reference", "STRING")});
            for (const Bad& b : bad) {
                zok::Args given = args;
                given[i] = b.value;
                const zok::Observation before = w.host.observe();
                const zok::Error e = expect_error(b.code, [&] { w.call(r, given); });
                EXPECT_EQ(e.text(), b.text);
                EXPECT_EQ(zok::difference(before, w.host.observe()), "");
                EXPECT_EQ(w.module_fault(), "");
            }
        }
    }
}

// Fails the 1st, 2nd, ... allocation of each valid call, and of making an
// object of each class, each time on a fresh world, until the call makes
// fewer allocations than the failing one's place (a failure that the call
// absorbs, as INIT does when it cannot make its map, does not end the sweep).
TEST(Refusals, RunningOutOfMemoryChangesNothing) {
    std::optional<World> w;
    w.emplace();
    for (const zok::RoutineInfo& r : w->host.routines()) {
        const bool init = r.name.ends_with("::INIT");
        for (const bool make_object : {false, true}) {
            if (make_object && !init)
                continue;
            const std::string cls = init ? r.name.substr(0, r.name.size() - 6) : "";
            SCOPED_TRACE(make_object ? "making a " + cls : r.name);
            int failures = 0;
            for (uint64_t nth = 1;; ++nth) {
                ASSERT_LT(nth, 100u) << "no success within 100 allocations";
                w.reset();
                w.emplace();
                const zok::Args args = w->valid_call(r.name);
                const zok::Observation before = w->host.observe();
                const uint64_t start = w->host.allocations();
                w->host.fail_allocation(nth);
                try {
                    if (make_object)
                        w->host.new_object(cls);
                    else
                        w->call(r, args);
                    if (w->host.allocations() - start < nth)
                        break;
                    continue;
                } catch (const zok::Error& e) {
                    ++failures;
                    EXPECT_TRUE(e.code() == ZOK_ERR_NO_MEMORY ||
                                e.text().ends_with("out of memory"))
                        << e.what();
                }
                w->host.clear_faults();
                EXPECT_EQ(zok::difference(before, w->host.observe()), "") << "allocation " << nth;
                EXPECT_EQ(w->module_fault(), "") << "allocation " << nth;
            }
            EXPECT_GT(failures, 0);
        }
    }
}

} // namespace
