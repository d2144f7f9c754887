// The module's named structures: the instance layouts of its classes and the
// node record of the heap-backed tree.  Defined once at load; each getter
// returns the definition the host handed back (null before the module loads).
#pragma once

#include <zok/zok.h>

namespace flux {

// Defines all fourteen structures with the host, in their fixed order.
void define_structures();

zok_struct_def* struct_saveable();
zok_struct_def* struct_hasahandler();
zok_struct_def* struct_dsmap();
zok_struct_def* struct_behavior();
zok_struct_def* struct_delaybehav();
zok_struct_def* struct_delayargbehav();
zok_struct_def* struct_funcbehav();
zok_struct_def* struct_message();
zok_struct_def* struct_messagehandler();
zok_struct_def* struct_objbehav();
zok_struct_def* struct_procbehav();
zok_struct_def* struct_query();
zok_struct_def* struct_querybehav();
zok_struct_def* struct_map_rbh_node();

// Instance data of ZOK_MAP_RBH_NODE, in tag order.
struct RbhNodeData {
    uint32_t flink;
    uint32_t blink;
    uint32_t parent;
    uint32_t key;
    uint32_t val;
    uint8_t status[5]; // red, internal, left child, root, head
};

} // namespace flux
