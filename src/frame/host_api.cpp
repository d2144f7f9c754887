// The module's message block handle and self resolution.
#include "frame/host_api.hpp"

namespace flux {
namespace {
const zok_message_block* module_block = nullptr;
} // namespace

const zok_message_block* message_block() {
    return module_block;
}
void set_message_block(const zok_message_block* block) {
    module_block = block;
}

void raise_module_message(ModuleMessage code) {
    host_message_from_block(module_block, code, ZOK_ACTION_ERROR);
}

void raise_no_memory(const char* routine) {
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, "%s: out of memory", routine);
}

Self resolve_object(const zok_var* object, const char* anchor) {
    const uint32_t id = object_argument(object);
    zok_heap_record* rec = host_object_heap_var(id, ZOK_ACTION_ERROR);
    return Self{host_struct_tag_data(&rec->var, anchor, 0, 0, 0), id};
}

} // namespace flux
