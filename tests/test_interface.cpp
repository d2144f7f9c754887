// The module's interface as a host sees it, written down once as data: every
// registered routine (33 functions, 59 procedures), every structure with its
// tags, every INIT keyword table and the message block.  The tests fail for a
// registered routine without a row and for a row whose routine is not
// registered.
#include <algorithm>
#include <set>
#include <tuple>

#include <gtest/gtest.h>

#include "frame/keywords.hpp"
#include "frame/routines.hpp"
#include "frame/structs.hpp"
#include "support/checks.hpp"

using zok::PointerRef;
using zok::TagSpec;

enum Kind { function, procedure };
constexpr int32_t keywords = ZOK_RT_KEYWORDS;

// A function's result is checked on a fresh object of its class (or with `args`
// alone for a routine that is no method): its type code and whether it is an
// array.  `args` follow self and make the call valid.
struct RoutineRow {
    const char* name;
    Kind kind;
    uint16_t min_args;
    uint16_t max_args;
    int32_t flags = 0;
    uint8_t result = ZOK_T_UNDEFINED;
    bool array = false;
    std::vector<zok::Value> args = {};
};

// clang-format off
const RoutineRow routines[] = {
    {"ZOKFWSAVEABLE::INIT", function, 1, 1, 0, ZOK_T_LONG},
    {"ZOKFWSAVEABLE::CLEANUP", procedure, 1, 1},
    {"ZOKFWSAVEABLE::DORESTORE", procedure, 1, 1},
    {"ZOKFWSAVEABLE::RESETRESTORED", procedure, 1, 1},
    {"ZOKFWSAVEABLE::RESTORE", procedure, 1, 1},
    {"ZOKFWHASAHANDLER::HANDLER", function, 1, 1, 0, ZOK_T_OBJECT},
    {"ZOKFWHASAHANDLER::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWHASAHANDLER::CLEANUP", procedure, 1, 1},
    {"ZOKFWHASAHANDLER::RESTORE", procedure, 1, 1},
    {"ZOKFWHASAHANDLER::SETHANDLER", procedure, 2, 2},
    {"ZOKFWBEHAVIOR::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWBEHAVIOR::ISREGISTERED", function, 1, 1, 0, ZOK_T_BYTE},
    {"ZOKFWBEHAVIOR::MESSAGESTRING", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWBEHAVIOR::CLEANUP", procedure, 1, 1, keywords},
    {"ZOKFWBEHAVIOR::EXECUTE", procedure, 1, 2},
    {"ZOKFWBEHAVIOR::REGISTER", procedure, 1, 1},
    {"ZOKFWBEHAVIOR::RESTORE", procedure, 1, 1},
    {"ZOKFWBEHAVIOR::SETMESSAGESTRING", procedure, 2, 2},
    {"ZOKFWBEHAVIOR::UNREGISTER", procedure, 1, 1},
    {"ZOKFWDELAYBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWDELAYBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWDELAYBEHAV::DELAYEXECUTE", procedure, 1, 1},
    {"ZOKFWDELAYBEHAV::EXECUTE", procedure, 1, 1},
    {"ZOKFWDELAYBEHAV::RESTORE", procedure, 1, 1},
    {"ZOKFWDELAYBEHAV::SETMETHOD", procedure, 2, 2},
    {"ZOKFWDELAYARGBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWDELAYARGBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWDELAYARGBEHAV::DELAYEXECUTE", procedure, 1, 1},
    {"ZOKFWDELAYARGBEHAV::EXECUTE", procedure, 2, 2},
    {"ZOKFWFUNCBEHAV::FUNC", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWFUNCBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWFUNCBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWFUNCBEHAV::EXECUTE", procedure, 1, 2},
    {"ZOKFWFUNCBEHAV::RESTORE", procedure, 1, 1},
    {"ZOKFWFUNCBEHAV::SETFUNC", procedure, 2, 2},
    {"ZOKFWPROCBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWPROCBEHAV::PROC", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWPROCBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWPROCBEHAV::EXECUTE", procedure, 1, 2},
    {"ZOKFWPROCBEHAV::RESTORE", procedure, 1, 1},
    {"ZOKFWPROCBEHAV::SETPROC", procedure, 2, 2},
    {"ZOKFWOBJBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWOBJBEHAV::METHOD", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWOBJBEHAV::OBJECT", function, 1, 1, 0, ZOK_T_OBJECT},
    {"ZOKFWOBJBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWOBJBEHAV::EXECUTE", procedure, 1, 2},
    {"ZOKFWOBJBEHAV::RESTORE", procedure, 1, 1},
    {"ZOKFWOBJBEHAV::SETMETHOD", procedure, 2, 2},
    {"ZOKFWOBJBEHAV::SETOBJECT", procedure, 2, 2},
    {"ZOKFWQUERYBEHAV::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWQUERYBEHAV::RESPONSE", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWQUERYBEHAV::CLEANUP", procedure, 1, 1},
    {"ZOKFWQUERYBEHAV::EXECUTE", procedure, 2, 2},
    {"ZOKFWQUERYBEHAV::RESTORE", procedure, 1, 1},
    {"ZOKFWQUERYBEHAV::SETRESPONSE", procedure, 1, 2},
    {"ZOKFWMESSAGE::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWMESSAGE::MESSAGESTRING", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWMESSAGE::CLEANUP", procedure, 1, 1, keywords},
    {"ZOKFWMESSAGE::RESTORE", procedure, 1, 1},
    {"ZOKFWMESSAGE::SEND", procedure, 1, 2},
    {"ZOKFWMESSAGE::SETMESSAGESTRING", procedure, 2, 2},
    {"ZOKFWQUERY::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWQUERY::RESULT", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWQUERY::SENDQUERY", function, 1, 1, 0, ZOK_T_STRING},
    {"ZOKFWQUERY::CLEANUP", procedure, 1, 1},
    {"ZOKFWQUERY::RESTORE", procedure, 1, 1},
    {"ZOKFWQUERY::SETRESULT", procedure, 2, 2},
    {"ZOKFWMESSAGEHANDLER::BEHAVIORS", function, 2, 2, 0, ZOK_T_OBJECT, false, {"message"}},
    {"ZOKFWMESSAGEHANDLER::INIT", function, 1, 1, keywords, ZOK_T_LONG},
    {"ZOKFWMESSAGEHANDLER::ISSCOPED", function, 2, 2, 0, ZOK_T_SHORT, false, {"message"}},
    {"ZOKFWMESSAGEHANDLER::SCOPEDMESSAGES", function, 1, 1, 0, ZOK_T_STRING, true},
    {"ZOKFWMESSAGEHANDLER::ADDBEHAVIOR", procedure, 2, 3},
    {"ZOKFWMESSAGEHANDLER::CLEANUP", procedure, 1, 1},
    {"ZOKFWMESSAGEHANDLER::REMOVEBEHAVIOR", procedure, 2, 3},
    {"ZOKFWMESSAGEHANDLER::RESTORE", procedure, 1, 1},
    {"ZOKFWMESSAGEHANDLER::SCOPEMESSAGE", procedure, 2, 2},
    {"ZOKFWMESSAGEHANDLER::SENDMESSAGE", procedure, 2, 3},
    {"ZOKFWMESSAGEHANDLER::UNSCOPEMESSAGE", procedure, 2, 2},
    {"ZOKDSMAP::GETDATA", function, 2, 2, 0, ZOK_T_UNDEFINED, false, {"absent"}},
    {"ZOKDSMAP::GETKEYS", function, 1, 2, 0, ZOK_T_STRING},
    {"ZOKDSMAP::GETSIZE", function, 1, 1, 0, ZOK_T_LONG},
    {"ZOKDSMAP::INIT", function, 1, 1, 0, ZOK_T_LONG},
    {"ZOKDSMAP::KEYEXISTS", function, 2, 2, 0, ZOK_T_BYTE, false, {"absent"}},
    {"ZOKDSMAP::CLEANUP", procedure, 1, 1},
    {"ZOKDSMAP::INSERT", procedure, 3, 3},
    {"ZOKDSMAP::REMOVE", procedure, 2, 2},
    {"GET_FWIDENT", function, 1, 1, 0, ZOK_T_POINTER, false, {"name"}},
    {"ROLLOVER_FWIDENT", function, 1, 1, 0, ZOK_T_POINTER, false, {PointerRef{}}},
    {"FWIDENT_ACQUIRE", procedure, 1, 1},
    {"FWIDENT_GC", procedure, 0, 1},
    {"FWIDENT_RELEASE", procedure, 1, 1},
    {"ZOKFWSAVEABLERESTOREARRAY", procedure, 1, 1},
};
// clang-format on

constexpr uint8_t byte = ZOK_T_BYTE, i32 = ZOK_T_LONG, dbl = ZOK_T_DOUBLE, str = ZOK_T_STRING,
                  ptr = ZOK_T_POINTER, obj = ZOK_T_OBJECT, i64 = ZOK_T_LONG64;

// A structure's name, parent, own tags (which follow its parent's) and the
// module's getter of its definition.
using StructRow = std::tuple<const char*, const char*, std::vector<TagSpec>, zok_struct_def* (*)()>;

// clang-format off
const StructRow structures[] = {
    {"ZOKFWSAVEABLE", "", {{"ZOKFWSAVEABLE_TOP", dbl}, {"ZOKFWSAVEABLE_VERSION", i32}},
     flux::struct_saveable},
    {"ZOKFWHASAHANDLER", "ZOKFWSAVEABLE", {{"HASAHANDLER_VERSION", i32}, {"MYHANDLER", obj}},
     flux::struct_hasahandler},
    {"ZOKDSMAP", "", {{"ZOKDSMAP_VERSION", i32}, {"THE_MAP", ptr}}, flux::struct_dsmap},
    {"ZOKFWBEHAVIOR", "ZOKFWHASAHANDLER",
     {{"ZOKFWBEHAVIOR_VERSION", i32}, {"IS_REGISTERED", byte}, {"MESSIDENT", ptr}},
     flux::struct_behavior},
    {"ZOKFWDELAYBEHAV", "ZOKFWBEHAVIOR",
     {{"ZOKFWDELAYBEHAV_VERSION", i32}, {"OBJECT", obj}, {"METH_IDENT", ptr},
      {"SUB_BEHAVIOR", obj}}, flux::struct_delaybehav},
    {"ZOKFWDELAYARGBEHAV", "ZOKFWDELAYBEHAV", {{"ZOKFWDELAYARGBEHAV_VERSION", i32}, {"ARG", i32}},
     flux::struct_delayargbehav},
    {"ZOKFWFUNCBEHAV", "ZOKFWBEHAVIOR",
     {{"ZOKFWFUNCBEHAV_TOP", i64}, {"ZOKFWFUNCBEHAV_VERSION", i32}, {"FUNC_STRING", str},
      {"ZOKFWFUNCBEHAV_BOTTOM", i64}}, flux::struct_funcbehav},
    {"ZOKFWMESSAGE", "ZOKFWHASAHANDLER", {{"ZOKFWMESSAGE_VERSION", i32}, {"MESS_IDENT", ptr}},
     flux::struct_message},
    {"ZOKFWMESSAGEHANDLER", "ZOKFWHASAHANDLER",
     {{"ZOKFWMESSAGEHANDLER_VERSION", i32}, {"BEHAVIORS", ptr}}, flux::struct_messagehandler},
    {"ZOKFWOBJBEHAV", "ZOKFWBEHAVIOR",
     {{"ZOKFWOBJBEHAV_VERSION", i32}, {"OBJECT", obj}, {"METH_IDENT", ptr}}, flux::struct_objbehav},
    {"ZOKFWPROCBEHAV", "ZOKFWBEHAVIOR",
     {{"ZOKFWPROCBEHAV_TOP", i64}, {"ZOKFWPROCBEHAV_VERSION", i32}, {"PROC_STRING", str},
      {"ZOKFWPROCBEHAV_BOTTOM", i64}}, flux::struct_procbehav},
    {"ZOKFWQUERY", "ZOKFWMESSAGE", {{"ZOKFWQUERY_VERSION", i32}, {"QUERY_RESULT", ptr}},
     flux::struct_query},
    {"ZOKFWQUERYBEHAV", "ZOKFWBEHAVIOR", {{"ZOKFWQUERYBEHAV_VERSION", i32}, {"RESPONSE", ptr}},
     flux::struct_querybehav},
    {"ZOK_MAP_RBH_NODE", "",
     {{"FLINK", ptr}, {"BLINK", ptr}, {"PARENT", ptr}, {"KEY", ptr}, {"VAL", ptr},
      {"STATUS0", byte}, {"STATUS1", byte}, {"STATUS2", byte}, {"STATUS3", byte},
      {"STATUS4", byte}},
     flux::struct_map_rbh_node},
};
// clang-format on

// A keyword's name, type and flags.
using Keyword = std::tuple<const char*, uint8_t, uint16_t>;
constexpr Keyword HANDLER{"HANDLER", obj, 0}, MESSAGESTRING{"MESSAGESTRING", str, 0},
    SCOPE{"SCOPE", i32, 0x4000}, REGISTER{"REGISTER", i32, 0x4000}, FUNCTION{"FUNCTION", str, 0},
    PROCEDURE{"PROCEDURE", str, 0}, METHOD{"METHOD", str, 0},
    RESPONSE{"RESPONSE", ZOK_T_UNDEFINED, 0x3000}, OBJECT{"OBJECT", obj, 0},
    DELAYMESSAGESTRING{"DELAYMESSAGESTRING", str, 0};

// The keyword table of each class's INIT and its keywords, in table order.
using KeywordRow = std::tuple<const char*, const zok_keyword_entry*, std::vector<Keyword>>;

// clang-format off
const KeywordRow keyword_tables[] = {
    {"ZOKFWHASAHANDLER", flux::handler_keyword_table, {HANDLER}},
    {"ZOKFWMESSAGEHANDLER", flux::handler_keyword_table, {HANDLER}},
    {"ZOKFWBEHAVIOR", flux::behavior_keyword_table, {HANDLER, MESSAGESTRING, REGISTER, SCOPE}},
    {"ZOKFWMESSAGE", flux::message_keyword_table, {HANDLER, MESSAGESTRING, SCOPE}},
    {"ZOKFWQUERY", flux::message_keyword_table, {HANDLER, MESSAGESTRING, SCOPE}},
    {"ZOKFWFUNCBEHAV", flux::funcbehav_keyword_table,
     {FUNCTION, HANDLER, MESSAGESTRING, REGISTER, SCOPE}},
    {"ZOKFWPROCBEHAV", flux::procbehav_keyword_table,
     {HANDLER, MESSAGESTRING, PROCEDURE, REGISTER, SCOPE}},
    {"ZOKFWOBJBEHAV", flux::objbehav_keyword_table,
     {HANDLER, MESSAGESTRING, METHOD, OBJECT, REGISTER, SCOPE}},
    {"ZOKFWDELAYBEHAV", flux::delaybehav_keyword_table,
     {DELAYMESSAGESTRING, HANDLER, MESSAGESTRING, METHOD, OBJECT, REGISTER, SCOPE}},
    {"ZOKFWDELAYARGBEHAV", flux::delaybehav_keyword_table,
     {DELAYMESSAGESTRING, HANDLER, MESSAGESTRING, METHOD, OBJECT, REGISTER, SCOPE}},
    {"ZOKFWQUERYBEHAV", flux::querybehav_keyword_table,
     {HANDLER, MESSAGESTRING, REGISTER, RESPONSE, SCOPE}},
};
// clang-format on

constexpr const char* message_block = "ZOK_MBLK_FLUXTOOLS";
const std::tuple<int, std::string, std::string> messages[] = {
    // code, name, text
    {0, "ZOK_M_FLUXTOOLS_DSMAP_HEAPDEREFERR", "ZOKdsMap heap dereference error"},
    {-1, "ZOK_M_FLUXTOOLS_FWMSG_IDCORRUPT", "FWIdent corruption"},
};

// Each row's routine is registered as the row says and a function returns its
// result type; each structure, keyword table and message block is as its rows
// say; nothing is registered or defined without a row.
TEST(Interface, RoutinesStructuresKeywordTablesAndMessagesAreTheRows) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    std::set<std::tuple<std::string, bool, int, int, bool>> registered, rows;
    for (const zok::RoutineInfo& r : host.routines())
        registered.emplace(r.name, r.is_function, r.min_args, r.max_args, r.keywords);
    for (const RoutineRow& row : routines) {
        rows.emplace(row.name, row.kind == function, row.min_args, row.max_args,
                     row.flags == keywords);
        if (row.kind == procedure)
            continue;
        const std::string name = row.name, cls = name.substr(0, name.find("::"));
        const zok::Args args(row.args.begin(), row.args.end());
        const zok::Value result = cls == name ? host.call_function(name, args)
                                              : host.call_method(host.new_object(cls), name, args);
        EXPECT_EQ(std::pair(result.type(), result.is_array()), std::pair(row.result, row.array))
            << name << " gave " << result.to_string();
    }
    EXPECT_EQ(registered, rows);
    EXPECT_EQ(flux::function_table().size() + flux::procedure_table().size(), std::size(routines));

    EXPECT_EQ(host.struct_names().size(), std::size(structures));
    for (const auto& [name, parent, own_tags, definition] : structures) {
        SCOPED_TRACE(name);
        EXPECT_EQ(host.parent_of(name), parent);
        std::vector<TagSpec> expected = host.tag_specs(parent);
        expected.insert(expected.end(), own_tags.begin(), own_tags.end());
        EXPECT_TRUE(std::ranges::equal(host.tag_specs(name), expected,
                                       [](const TagSpec& a, const TagSpec& b) {
                                           return a.name == b.name && a.type == b.type;
                                       }))
            << "tags differ";
        EXPECT_EQ(definition(), host.find_struct(name));
    }
    for (const auto& [init_of, table, table_keywords] : keyword_tables) {
        SCOPED_TRACE(init_of);
        const zok_keyword_entry* e = table;
        EXPECT_STREQ(e->keyword, "");
        EXPECT_EQ(e->type + e->mask + e->flags + e->given + e->value, 0);
        for (const auto& [name, type, flags] : table_keywords) {
            ASSERT_NE((++e)->keyword, nullptr) << "the table ends before " << name;
            EXPECT_EQ(std::tuple(std::string(e->keyword), e->type, e->mask, e->flags),
                      std::tuple(name, type, 1, flags));
        }
        EXPECT_EQ((++e)->keyword, nullptr) << "the table goes on after its rows";
    }
    std::vector<std::tuple<std::string, int, std::string, std::string>> blocks, message_rows;
    for (const auto& [block, defs] : host.message_blocks())
        for (size_t i = 0; i < defs.size(); ++i) // code 0 first, then -1, ...
            blocks.emplace_back(block, -int(i), defs[i].name, defs[i].text);
    for (const auto& [code, name, text] : messages)
        message_rows.emplace_back(message_block, code, name, text);
    EXPECT_EQ(blocks, message_rows);
}
