// The fourteen named structures, defined in a fixed order.  A class's tags
// follow its parent's (the inheritance entry stands first), so every method
// finds its fields at fixed places behind the anchor tag of its root class.
#include "frame/structs.hpp"

namespace flux {
namespace {

constexpr zok_tag_entry inherit(const char* parent) {
    return {parent, nullptr, 0, ZOK_TAG_INHERIT, {}};
}
constexpr zok_tag_entry tag(const char* name, int64_t type) {
    return {name, nullptr, type, 0, {}};
}
constexpr zok_tag_entry end_of_tags{nullptr, nullptr, 0, 0, {}};

const zok_tag_entry saveable_tags[] = {
    tag("ZOKFWSAVEABLE_TOP", ZOK_T_DOUBLE),
    tag("ZOKFWSAVEABLE_VERSION", ZOK_T_LONG),
    end_of_tags,
};
const zok_tag_entry hasahandler_tags[] = {
    inherit("ZOKFWSAVEABLE"),
    tag("HASAHANDLER_VERSION", ZOK_T_LONG),
    tag("MYHANDLER", ZOK_T_OBJECT),
    end_of_tags,
};
const zok_tag_entry dsmap_tags[] = {
    tag("ZOKDSMAP_VERSION", ZOK_T_LONG),
    tag("THE_MAP", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry behavior_tags[] = {
    inherit("ZOKFWHASAHANDLER"),
    tag("ZOKFWBEHAVIOR_VERSION", ZOK_T_LONG),
    tag("IS_REGISTERED", ZOK_T_BYTE),
    tag("MESSIDENT", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry delaybehav_tags[] = {
    inherit("ZOKFWBEHAVIOR"),          tag("ZOKFWDELAYBEHAV_VERSION", ZOK_T_LONG),
    tag("OBJECT", ZOK_T_OBJECT),       tag("METH_IDENT", ZOK_T_POINTER),
    tag("SUB_BEHAVIOR", ZOK_T_OBJECT), end_of_tags,
};
const zok_tag_entry delayargbehav_tags[] = {
    inherit("ZOKFWDELAYBEHAV"),
    tag("ZOKFWDELAYARGBEHAV_VERSION", ZOK_T_LONG),
    tag("ARG", ZOK_T_LONG),
    end_of_tags,
};
const zok_tag_entry funcbehav_tags[] = {
    inherit("ZOKFWBEHAVIOR"),
    tag("ZOKFWFUNCBEHAV_TOP", ZOK_T_LONG64),
    tag("ZOKFWFUNCBEHAV_VERSION", ZOK_T_LONG),
    tag("FUNC_STRING", ZOK_T_STRING),
    tag("ZOKFWFUNCBEHAV_BOTTOM", ZOK_T_LONG64),
    end_of_tags,
};
const zok_tag_entry message_tags[] = {
    inherit("ZOKFWHASAHANDLER"),
    tag("ZOKFWMESSAGE_VERSION", ZOK_T_LONG),
    tag("MESS_IDENT", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry messagehandler_tags[] = {
    inherit("ZOKFWHASAHANDLER"),
    tag("ZOKFWMESSAGEHANDLER_VERSION", ZOK_T_LONG),
    tag("BEHAVIORS", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry objbehav_tags[] = {
    inherit("ZOKFWBEHAVIOR"),
    tag("ZOKFWOBJBEHAV_VERSION", ZOK_T_LONG),
    tag("OBJECT", ZOK_T_OBJECT),
    tag("METH_IDENT", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry procbehav_tags[] = {
    inherit("ZOKFWBEHAVIOR"),
    tag("ZOKFWPROCBEHAV_TOP", ZOK_T_LONG64),
    tag("ZOKFWPROCBEHAV_VERSION", ZOK_T_LONG),
    tag("PROC_STRING", ZOK_T_STRING),
    tag("ZOKFWPROCBEHAV_BOTTOM", ZOK_T_LONG64),
    end_of_tags,
};
const zok_tag_entry query_tags[] = {
    inherit("ZOKFWMESSAGE"),
    tag("ZOKFWQUERY_VERSION", ZOK_T_LONG),
    tag("QUERY_RESULT", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry querybehav_tags[] = {
    inherit("ZOKFWBEHAVIOR"),
    tag("ZOKFWQUERYBEHAV_VERSION", ZOK_T_LONG),
    tag("RESPONSE", ZOK_T_POINTER),
    end_of_tags,
};
const zok_tag_entry map_rbh_node_tags[] = {
    tag("FLINK", ZOK_T_POINTER),
    tag("BLINK", ZOK_T_POINTER),
    tag("PARENT", ZOK_T_POINTER),
    tag("KEY", ZOK_T_POINTER),
    tag("VAL", ZOK_T_POINTER),
    tag("STATUS0", ZOK_T_BYTE),
    tag("STATUS1", ZOK_T_BYTE),
    tag("STATUS2", ZOK_T_BYTE),
    tag("STATUS3", ZOK_T_BYTE),
    tag("STATUS4", ZOK_T_BYTE),
    end_of_tags,
};

enum StructIndex {
    SAVEABLE,
    HASAHANDLER,
    DSMAP,
    BEHAVIOR,
    DELAYBEHAV,
    DELAYARGBEHAV,
    FUNCBEHAV,
    MESSAGE,
    MESSAGEHANDLER,
    OBJBEHAV,
    PROCBEHAV,
    QUERY,
    QUERYBEHAV,
    MAP_RBH_NODE,
    STRUCT_COUNT
};

struct StructLayout {
    const char* name;
    const zok_tag_entry* tags;
    bool needs_prepare; // brackets a string field; copies and frees must visit it
};

// The order of definition; parents always come before their children.
constexpr StructLayout struct_layouts[STRUCT_COUNT] = {
    {"ZOKFWSAVEABLE", saveable_tags, false},
    {"ZOKFWHASAHANDLER", hasahandler_tags, false},
    {"ZOKDSMAP", dsmap_tags, false},
    {"ZOKFWBEHAVIOR", behavior_tags, false},
    {"ZOKFWDELAYBEHAV", delaybehav_tags, false},
    {"ZOKFWDELAYARGBEHAV", delayargbehav_tags, false},
    {"ZOKFWFUNCBEHAV", funcbehav_tags, true},
    {"ZOKFWMESSAGE", message_tags, false},
    {"ZOKFWMESSAGEHANDLER", messagehandler_tags, false},
    {"ZOKFWOBJBEHAV", objbehav_tags, false},
    {"ZOKFWPROCBEHAV", procbehav_tags, true},
    {"ZOKFWQUERY", query_tags, false},
    {"ZOKFWQUERYBEHAV", querybehav_tags, false},
    {"ZOK_MAP_RBH_NODE", map_rbh_node_tags, false},
};

zok_struct_def* definitions[STRUCT_COUNT];

} // namespace

void define_structures() {
    for (int i = 0; i < STRUCT_COUNT; ++i) {
        const StructLayout& layout = struct_layouts[i];
        zok_struct_def* def = host_make_struct(layout.name, 16, layout.tags, 2);
        definitions[i] = def;
        // A failed definition shows later, when a method looks up its tags.
        if (layout.needs_prepare && def != nullptr && def->prepared == nullptr)
            def->prepared = host_struct_prepare(def->name, 0, 0, 1, ZOK_ACTION_ERROR);
    }
}

zok_struct_def* struct_saveable() {
    return definitions[SAVEABLE];
}
zok_struct_def* struct_hasahandler() {
    return definitions[HASAHANDLER];
}
zok_struct_def* struct_dsmap() {
    return definitions[DSMAP];
}
zok_struct_def* struct_behavior() {
    return definitions[BEHAVIOR];
}
zok_struct_def* struct_delaybehav() {
    return definitions[DELAYBEHAV];
}
zok_struct_def* struct_delayargbehav() {
    return definitions[DELAYARGBEHAV];
}
zok_struct_def* struct_funcbehav() {
    return definitions[FUNCBEHAV];
}
zok_struct_def* struct_message() {
    return definitions[MESSAGE];
}
zok_struct_def* struct_messagehandler() {
    return definitions[MESSAGEHANDLER];
}
zok_struct_def* struct_objbehav() {
    return definitions[OBJBEHAV];
}
zok_struct_def* struct_procbehav() {
    return definitions[PROCBEHAV];
}
zok_struct_def* struct_query() {
    return definitions[QUERY];
}
zok_struct_def* struct_querybehav() {
    return definitions[QUERYBEHAV];
}
zok_struct_def* struct_map_rbh_node() {
    return definitions[MAP_RBH_NODE];
}

} // namespace flux
