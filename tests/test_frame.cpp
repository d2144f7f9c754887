// The module frame: loading and its failure paths, the structures as the host
// sees them, the routine tables, the exported symbols, and session reset.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dsmap/ds_map.hpp"
#include "frame/host_api.hpp"
#include "frame/keywords.hpp"
#include "frame/module.hpp"
#include "frame/structs.hpp"
#include "fw/fw_saveable.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using Tags = std::vector<std::string>;

TEST(Load, RefusedMessageBlockRegistersNoRoutine) {
    zok::Host host;
    host.refuse(zok::Operation::DefineMessageBlock);
    EXPECT_EQ(ZOK_Load(), 0);
    EXPECT_FALSE(host.has_routine("ZOKFWSAVEABLE::INIT"));
    EXPECT_FALSE(host.has_routine("ZOKFWSAVEABLE::CLEANUP"));
    // The structures were defined before the block was refused.
    EXPECT_NE(host.find_struct("ZOK_MAP_RBH_NODE"), nullptr);
}

TEST(Load, RefusedFunctionTableNeverOffersProcedures) {
    zok::Host host;
    host.refuse(zok::Operation::AddRoutines, 1);
    EXPECT_EQ(ZOK_Load(), 0);
    EXPECT_FALSE(host.has_routine("GET_FWIDENT"));
    EXPECT_FALSE(host.has_routine("FWIDENT_GC"));
    EXPECT_FALSE(host.has_routine("ZOKDSMAP::INSERT"));
}

TEST(Load, RefusedProcedureTableFailsTheLoad) {
    zok::Host host;
    host.refuse(zok::Operation::AddRoutines, 2);
    EXPECT_EQ(ZOK_Load(), 0);
    EXPECT_TRUE(host.has_routine("GET_FWIDENT"));
    EXPECT_FALSE(host.has_routine("FWIDENT_GC"));
}

TEST(Load, SharedLibraryLoadsAndExportsOnlyItsEntryPoints) {
    zok::Host host;
    host.load_module(ZOK_MODULE_PATH);
    EXPECT_TRUE(host.has_routine("ZOKDSMAP::GETKEYS"));

    const std::string command = std::string("nm -D --defined-only ") + ZOK_MODULE_PATH;
    FILE* nm = popen(command.c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    char line[1024];
    while (std::fgets(line, sizeof line, nm) != nullptr) {
        char address[64], kind[8], name[900];
        if (std::sscanf(line, "%63s %7s %899s", address, kind, name) == 3)
            exported.insert(name);
    }
    ASSERT_EQ(pclose(nm), 0);
    // The linker's own markers may be there; nothing else of ours.
    for (const char* marker : {"_init", "_fini", "__bss_start", "_edata", "_end"})
        exported.erase(marker);
    EXPECT_EQ(exported, (std::set<std::string>{"ZOK_Load", "ZOK_ResetSession"}));
}

TEST(Load, MissingModuleIsAClearError) {
    zok::Host host;
    EXPECT_THROW(host.load_module("/nonexistent/libnothing.so"), zok::Error);
}

class Loaded : public ::testing::Test {
protected:
    void SetUp() override { host.load_module(ZOK_Load, ZOK_ResetSession); }
    zok::Host host;
};

// The class tree as loaded, and every class's instance starting with its
// parent's tags.
TEST_F(Loaded, StructuresFormTheClassTree) {
    const std::map<std::string, std::string> parents = {
        {"ZOKFWSAVEABLE", ""},
        {"ZOKFWHASAHANDLER", "ZOKFWSAVEABLE"},
        {"ZOKDSMAP", ""},
        {"ZOKFWBEHAVIOR", "ZOKFWHASAHANDLER"},
        {"ZOKFWDELAYBEHAV", "ZOKFWBEHAVIOR"},
        {"ZOKFWDELAYARGBEHAV", "ZOKFWDELAYBEHAV"},
        {"ZOKFWFUNCBEHAV", "ZOKFWBEHAVIOR"},
        {"ZOKFWMESSAGE", "ZOKFWHASAHANDLER"},
        {"ZOKFWMESSAGEHANDLER", "ZOKFWHASAHANDLER"},
        {"ZOKFWOBJBEHAV", "ZOKFWBEHAVIOR"},
        {"ZOKFWPROCBEHAV", "ZOKFWBEHAVIOR"},
        {"ZOKFWQUERY", "ZOKFWMESSAGE"},
        {"ZOKFWQUERYBEHAV", "ZOKFWBEHAVIOR"},
        {"ZOK_MAP_RBH_NODE", ""},
    };
    EXPECT_EQ(host.struct_names().size(), parents.size());
    for (const auto& [name, parent] : parents) {
        EXPECT_EQ(host.parent_of(name), parent) << name;
        const Tags tags = host.tags_of(name);
        const Tags inherited = host.tags_of(parent);
        ASSERT_GT(tags.size(), inherited.size()) << name;
        EXPECT_TRUE(std::equal(inherited.begin(), inherited.end(), tags.begin())) << name;
        // Each class's own tags open with its version tag.
        if (name.starts_with("ZOKFW") && name != "ZOKFWSAVEABLE") {
            const std::string& own_first = tags[inherited.size()];
            EXPECT_TRUE(own_first.ends_with("_VERSION") || own_first.ends_with("_TOP")) << name;
        }
    }
}

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
    const size_t node_offsets[] = {
        offsetof(RbhNodeData, flink),      offsetof(RbhNodeData, blink),
        offsetof(RbhNodeData, parent),     offsetof(RbhNodeData, key),
        offsetof(RbhNodeData, val),        offsetof(RbhNodeData, status) + 0,
        offsetof(RbhNodeData, status) + 1, offsetof(RbhNodeData, status) + 2,
        offsetof(RbhNodeData, status) + 3, offsetof(RbhNodeData, status) + 4};
    const Tags node_tags = host.tags_of("ZOK_MAP_RBH_NODE");
    for (size_t i = 0; i < node_tags.size(); ++i)
        EXPECT_EQ(offset_of(flux::struct_map_rbh_node(), "FLINK", node_tags[i].c_str()),
                  node_offsets[i])
            << node_tags[i];
}

TEST_F(Loaded, StringBracketingStructuresArePrepared) {
    for (const char* name : {"ZOKFWFUNCBEHAV", "ZOKFWPROCBEHAV"})
        EXPECT_NE(host.find_struct(name)->prepared, nullptr) << name;
    EXPECT_EQ(host.find_struct("ZOKFWBEHAVIOR")->prepared, nullptr);
}

// Each table is in byte order of name, and every entry keeps to the rules the
// host checks plus the module's own: keywords only on INITs and two CLEANUPs.
TEST_F(Loaded, RoutineTablesAreSortedAndWellFormed) {
    for (auto table : {flux::function_table(), flux::procedure_table()}) {
        ASSERT_FALSE(table.empty());
        for (size_t i = 0; i < table.size(); ++i) {
            const zok_routine_entry& e = table[i];
            if (i > 0) {
                EXPECT_LT(std::strcmp(table[i - 1].name, e.name), 0) << e.name;
            }
            EXPECT_LE(e.min_args, e.max_args) << e.name;
            EXPECT_EQ(e.extra, nullptr);
            const bool may_take_keywords = std::strstr(e.name, "::INIT") != nullptr ||
                                           std::strcmp(e.name, "ZOKFWBEHAVIOR::CLEANUP") == 0 ||
                                           std::strcmp(e.name, "ZOKFWMESSAGE::CLEANUP") == 0;
            if (e.flags != 0) {
                EXPECT_TRUE(may_take_keywords && e.flags == ZOK_RT_KEYWORDS) << e.name;
            }
            EXPECT_TRUE(host.has_routine(e.name)) << e.name;
        }
    }
    EXPECT_LE(flux::function_table().size(), 33u);
    EXPECT_LE(flux::procedure_table().size(), 59u);
    // FWIDENT_GC is the only routine that can be called with no argument.
    host.call_procedure("FWIDENT_GC");
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
    try {
        host.call_method(obj, "RESETRESTORED");
        FAIL() << "no error";
    } catch (const zok::Error& e) {
        EXPECT_EQ(e.code(), ZOK_ERR_INVALID_OBJECT);
    }
}

} // namespace

namespace {

// Every INIT keyword table, processed by the host: each keyword lands at its
// place in the results record, converted; absent ones are flagged absent, with
// integers zeroed and the any-type keyword null.
TEST_F(Loaded, KeywordTablesFillTheirRecords) {
    const zok::ObjectRef obj = host.new_object("ZOKFWSAVEABLE");
    const zok_keyword_entry* tables[] = {
        flux::handler_keyword_table,    flux::behavior_keyword_table,  flux::message_keyword_table,
        flux::funcbehav_keyword_table,  flux::procbehav_keyword_table, flux::objbehav_keyword_table,
        flux::delaybehav_keyword_table, flux::querybehav_keyword_table};
    const zok_keyword_entry* table = nullptr;
    host.add_function(
        "KW", 0, 0,
        [&](zok::Call& call) -> zok::Value {
            alignas(16) unsigned char record[256];
            std::memset(record, 0xA5, sizeof record);
            zok_var* plain[1];
            host_keywords_process(call.argc(), call.argv(), call.keywords(), table, plain, 1,
                                  record);
            const bool given = call.keyword("HANDLER").has_value();
            EXPECT_STREQ(table[0].keyword, "");
            for (const zok_keyword_entry* e = table + 1; e->keyword != nullptr; ++e) {
                if (e > table + 1) {
                    EXPECT_LT(std::strcmp(e[-1].keyword, e->keyword), 0);
                }
                int32_t flag;
                std::memcpy(&flag, record + e->given, sizeof flag);
                EXPECT_EQ(flag, given ? 1 : 0) << e->keyword;
                const unsigned char* value = record + e->value;
                switch (e->type) {
                case ZOK_T_OBJECT:
                    if (given) {
                        EXPECT_EQ(*reinterpret_cast<const uint32_t*>(value), obj.id) << e->keyword;
                    }
                    break;
                case ZOK_T_STRING:
                    if (given) {
                        EXPECT_EQ(std::string(reinterpret_cast<const zok_string*>(value)->text),
                                  e->keyword);
                    }
                    break;
                case ZOK_T_LONG:
                    EXPECT_EQ(*reinterpret_cast<const int32_t*>(value), given ? 7 : 0)
                        << e->keyword;
                    break;
                default:
                    EXPECT_EQ(*reinterpret_cast<zok_var* const*>(value) != nullptr, given);
                }
            }
            if (*reinterpret_cast<const int64_t*>(record) != 0)
                host_keywords_free();
            return 1;
        },
        true);
    for (const zok_keyword_entry* t : tables) {
        table = t;
        zok::Keywords all;
        for (const zok_keyword_entry* e = t + 1; e->keyword != nullptr; ++e) {
            if (e->type == ZOK_T_OBJECT)
                all.push_back({e->keyword, obj});
            else if (e->type == ZOK_T_STRING)
                all.push_back({e->keyword, std::string(e->keyword)});
            else
                all.push_back({e->keyword, 7});
        }
        host.call_function("KW", {}, all);
        host.call_function("KW");
    }
    EXPECT_EQ(host.live_texts(), 0u);
}

} // namespace

namespace {

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
