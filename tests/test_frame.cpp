// The module frame: loading and its failure paths, the field layouts as the
// host lays them out, the exported symbols, session reset and the shared
// keyword INIT step.  The interface itself is pinned in test_interface.
#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dsmap/ds_map.hpp"
#include "frame/host_api.hpp"
#include "frame/keywords.hpp"
#include "frame/structs.hpp"
#include "fw/fw_saveable.hpp"
#include "host.hpp"
#include "support/testing.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using Tags = std::vector<std::string>;

// A refused registration fails the load; what was registered before it stays,
// and a refused function table never lets the procedures in.  The structures
// are defined before anything that can be refused.
TEST(Load, ARefusedRegistrationFailsTheLoad) {
    const struct {
        zok::Operation refused;
        uint32_t nth;
        Tags present, absent;
    } cases[] = {
        {zok::Operation::DefineMessageBlock,
         1,
         {},
         {"ZOKFWSAVEABLE::INIT", "ZOKFWSAVEABLE::CLEANUP"}},
        {zok::Operation::AddRoutines, 1, {}, {"GET_FWIDENT", "FWIDENT_GC", "ZOKDSMAP::INSERT"}},
        {zok::Operation::AddRoutines, 2, {"GET_FWIDENT"}, {"FWIDENT_GC"}},
    };
    for (const auto& c : cases) {
        zok::Host host;
        host.refuse(c.refused, c.nth);
        EXPECT_EQ(ZOK_Load(), 0);
        EXPECT_NE(host.find_struct("ZOK_MAP_RBH_NODE"), nullptr);
        for (const std::string& name : c.present)
            EXPECT_TRUE(host.has_routine(name)) << name;
        for (const std::string& name : c.absent)
            EXPECT_FALSE(host.has_routine(name)) << name;
    }
}

TEST(Load, SharedLibraryLoadsAndExportsOnlyItsEntryPoints) {
    zok::Host host;
    host.load_module(ZOK_MODULE_PATH);
    EXPECT_TRUE(host.has_routine("ZOKDSMAP::GETKEYS"));

    FILE* nm = popen(("nm -D --defined-only -j " + std::string(ZOK_MODULE_PATH)).c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    for (char name[1024]; std::fscanf(nm, "%1023s", name) == 1;)
        exported.insert(name);
    ASSERT_EQ(pclose(nm), 0);
    // The linker's own markers may be there; nothing else of ours.
    for (const char* marker : {"_init", "_fini", "__bss_start", "_edata", "_end"})
        exported.erase(marker);
    EXPECT_EQ(exported, (std::set<std::string>{"ZOK_Load", "ZOK_ResetSession"}));
}

class Loaded : public ::testing::Test {
protected:
    void SetUp() override { host.load_module(ZOK_Load, ZOK_ResetSession); }
    zok::Host host;
};

// The module reaches fields at fixed places behind the anchor tag; the host
// must lay them out at the same places.
TEST_F(Loaded, FieldLayoutsMatchTheHost) {
    auto offset_of = [](zok_struct_def* def, const char* anchor, const char* tag) {
        zok_var* instance = host_temp_struct(def);
        auto* base = static_cast<char*>(host_struct_tag_data(instance, anchor, 0, 0, 0));
        auto* field = static_cast<char*>(host_struct_tag_data(instance, tag, 0, 0, 0));
        host_release_temp(instance);
        return static_cast<size_t>(field - base);
    };
    using flux::SaveableFields;
    EXPECT_EQ(offset_of(flux::struct_saveable(), "ZOKFWSAVEABLE_TOP", "ZOKFWSAVEABLE_VERSION"),
              offsetof(SaveableFields, saveable_version));
    EXPECT_EQ(offset_of(flux::struct_dsmap(), "ZOKDSMAP_VERSION", "THE_MAP"),
              offsetof(flux::DsMapFields, the_map));
    using flux::RbhNodeData;
    // Five words, then the status bytes one by one.
    const size_t words[] = {offsetof(RbhNodeData, flink), offsetof(RbhNodeData, blink),
                            offsetof(RbhNodeData, parent), offsetof(RbhNodeData, key),
                            offsetof(RbhNodeData, val)};
    const Tags tags = host.tags_of("ZOK_MAP_RBH_NODE");
    ASSERT_EQ(tags.size(), 10u);
    for (size_t i = 0; i < tags.size(); ++i)
        EXPECT_EQ(offset_of(flux::struct_map_rbh_node(), "FLINK", tags[i].c_str()),
                  i < 5 ? words[i] : offsetof(RbhNodeData, status) + i - 5)
            << tags[i];
}

TEST_F(Loaded, StringBracketingStructuresArePrepared) {
    for (const char* name : {"ZOKFWFUNCBEHAV", "ZOKFWPROCBEHAV"})
        EXPECT_NE(host.find_struct(name)->prepared, nullptr) << name;
    EXPECT_EQ(host.find_struct("ZOKFWBEHAVIOR")->prepared, nullptr);
}

// The registry's name index is made on first use and never freed, so the reset
// may leave one empty tree head in the node pool; nothing a program sees.
TEST_F(Loaded, ResetRightAfterLoadChangesNothingVisible) {
    auto labelled_memory = [&] {
        auto m = host.memory_by_label();
        m.erase(zok::kPlainLabel);
        return m;
    };
    const auto heap = host.heap_ids();
    const auto memory = labelled_memory();
    const size_t texts = host.live_texts();
    host.clear_messages();
    ZOK_ResetSession();
    EXPECT_EQ(host.heap_ids(), heap);
    EXPECT_EQ(labelled_memory(), memory);
    EXPECT_EQ(host.live_texts(), texts);
    EXPECT_TRUE(host.messages().empty());
}

TEST_F(Loaded, MethodOnADestroyedSelfIsTheHostsError) {
    const zok::ObjectRef obj = host.new_object("ZOKFWSAVEABLE");
    host.destroy(obj);
    expect_error(ZOK_ERR_INVALID_OBJECT,
                 "Invalid object reference: no live object has identifier " +
                     std::to_string(obj.id) + ".",
                 [&] { host.call_method(obj, "RESETRESTORED"); });
}

// The INIT step every framework class shares: keywords processed, self held
// against the host's collection, the class's status returned, texts given back.
TEST_F(Loaded, KeywordInitRunsTheClassStepOnSelf) {
    host.define_struct("PROBE", {}, "ZOKFWSAVEABLE");
    std::string seen;
    host.add_function(
        "PROBE::INIT", 1, 1,
        [&](zok::Call& call) -> zok::Value {
            zok_var* status = flux::keyword_init<flux::KeywordFront>(
                call.argc(), call.argv(), call.keywords(), flux::message_keyword_table,
                flux::ClassRef{flux::struct_saveable, "ZOKFWSAVEABLE", "ZOKfwSaveable"},
                [&](flux::Self self, const flux::KeywordFront& kw) {
                    EXPECT_EQ(self.heap_id, call.self().id);
                    if (kw.messagestring_given)
                        seen.assign(kw.messagestring.text, kw.messagestring.length);
                    return kw.scope_given ? 0 : 1;
                });
            const zok::Value result = host.read(*status);
            host_release_temp(status);
            return result;
        },
        true);
    host.clear_messages();
    const zok::ObjectRef probe = host.new_object("PROBE", {}, {{"MESS", std::string("ping")}});
    ASSERT_TRUE(probe);
    EXPECT_TRUE(host.messages().empty()); // the host had no keyword texts left to free
    EXPECT_EQ(seen, "ping");
    EXPECT_NE(host.heap_flags(probe.id) & ZOK_HEAP_HELD, 0u);
    EXPECT_FALSE(host.new_object("PROBE", {}, {{"SCOPE", 1}})); // status 0: no object
    EXPECT_EQ(host.live_texts(), 0u);
    EXPECT_EQ(host.live_temps(), 0u);
}

} // namespace
