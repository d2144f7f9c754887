// The saveable root class and the restore pass: RESTORE runs once per pass
// however many objects reach an object, the restored flag counts only at
// exactly 1.0, and the pass's two loops treat a dead element differently.
#include <cmath>
#include <limits>
#include <map>
#include <vector>

#include "support/messaging_testing.hpp"

namespace {

using zok::ObjectRef;

// A program subclass whose RESTORE restores its peer first, as objects that
// refer to each other do, and counts its runs.
class RestorePass : public msgtest::Messaging {
protected:
    RestorePass() {
        host.define_struct("LINKED", {{"PEER", ZOK_T_OBJECT}}, "ZOKFWSAVEABLE");
        host.add_procedure("LINKED::RESTORE", 1, 1, [this](zok::Call& call) {
            const ObjectRef self = call.self();
            runs[self.id] += 1;
            host.call_method(self, "ZOKFWSAVEABLE::RESTORE");
            if (const ObjectRef peer = host.get_tag(self, "PEER").as_object())
                host.call_method(peer, "DORESTORE");
            if (const auto victim = doomed.find(self.id); victim != doomed.end())
                host.destroy(victim->second);
            return zok::Value();
        });
    }

    ObjectRef linked(ObjectRef peer = {}) {
        const ObjectRef obj = host.new_object("LINKED");
        host.set_tag(obj, "PEER", peer);
        return obj;
    }
    void pass(const std::vector<ObjectRef>& objects) {
        host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Value(objects)});
    }
    double flag(ObjectRef obj) { return host.get_tag(obj, "ZOKFWSAVEABLE_TOP").as_double(); }

    std::map<uint32_t, int> runs;
    std::map<uint32_t, ObjectRef> doomed; // object whose RESTORE destroys another
};

// Across a cycle each object restores once per pass; DORESTORE runs RESTORE
// once until RESETRESTORED, and only a flag of exactly 1.0 counts as restored.
TEST_F(RestorePass, EachObjectRestoresOncePerPass) {
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
}

// A dead element ends the first loop (flags already reset) and is skipped in
// the second; a failing RESTORE stops the pass.
TEST_F(RestorePass, DeadElementsAndFailuresStopOrAreSkipped) {
    const ObjectRef a = linked();
    const ObjectRef dead = linked();
    host.destroy(dead);
    host.set_tag(a, "ZOKFWSAVEABLE_TOP", 1.0);
    expect_error(ZOK_ERR_INVALID_OBJECT,
                 "Invalid object reference: no live heap variable has identifier " +
                     std::to_string(dead.id) + " in ZOKFWSAVEABLERESTOREARRAY.",
                 [&] {
                     pass({a, dead});
                 });
    EXPECT_EQ(flag(a), 0.0);
    EXPECT_EQ(runs[a.id], 0);

    // b dies during the second loop, at a's RESTORE: the pass skips it.
    const ObjectRef b = linked();
    doomed[a.id] = b;
    pass({a, b});
    EXPECT_EQ(runs[a.id], 1);
    EXPECT_EQ(runs[b.id], 0);

    doomed.clear();
    host.define_struct("FAILING", {}, "ZOKFWSAVEABLE");
    host.add_procedure("FAILING::RESTORE", 1, 1, [](zok::Call&) -> zok::Value {
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "restore failed");
        return {};
    });
    const ObjectRef f = host.new_object("FAILING");
    const ObjectRef c = linked();
    const zok::Error e = expect_error(ZOK_MSG_TEXT, "restore failed", [&] { pass({a, f, c}); });
    EXPECT_EQ(e.routine(), "FAILING::RESTORE");
    EXPECT_EQ(flag(a), 1.0);
    EXPECT_EQ(flag(c), 0.0);
    EXPECT_EQ(host.live_temps(), 0u);
}

TEST_F(RestorePass, VersionsBelowOneComeBackAsOne) {
    const ObjectRef a = host.new_object("ZOKFWSAVEABLE");
    EXPECT_EQ(host.get_tag(a, "ZOKFWSAVEABLE_VERSION").as_int(), 1);
    EXPECT_NE(host.heap_flags(a.id) & ZOK_HEAP_HELD, 0u);
    for (auto [saved, restored] : {std::pair{0, 1}, {-7, 1}, {3, 3}}) {
        host.set_tag(a, "ZOKFWSAVEABLE_VERSION", saved);
        host.call_method(a, "RESTORE");
        EXPECT_EQ(host.get_tag(a, "ZOKFWSAVEABLE_VERSION").as_int(), restored);
    }
}

} // namespace
