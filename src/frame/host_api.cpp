// The module's message block handle and self resolution.
#include "frame/host_api.hpp"

#include <cstddef>

namespace flux {
namespace {
const zok_message_block* module_block = nullptr;

// Where the anchor lies in an instance of a framework class: a class lists its parent's
// tags first, so the place is the same in every class under the root.  Learnt from the
// first object resolved after the module loads; negative until then.
std::ptrdiff_t anchor_offset = -1;

// The anchor of an object already known to be of a framework class.
void* framework_anchor(zok_heap_record* rec) {
    auto* data = static_cast<char*>(rec->var.value.st.data);
    if (anchor_offset >= 0 && data != nullptr) [[likely]]
        return data + anchor_offset;
    auto* anchor = static_cast<char*>(host_struct_tag_data(&rec->var, FRAMEWORK_ANCHOR, 0, 0, 0));
    if (anchor != nullptr && data != nullptr)
        anchor_offset = anchor - data;
    return anchor;
}
} // namespace

void anchor_forget() {
    anchor_offset = -1;
}

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

bool is_instance_of(const zok_heap_record* rec, const ClassRef& cls) {
    const zok_var& v = rec->var;
    if (v.type != ZOK_T_STRUCT || (v.flags & ZOK_VF_ARRAY) != 0)
        return false;
    // Membership follows the definitions' parent links: no look-up by name.
    const zok_struct_def* wanted = cls.definition();
    for (const zok_struct_def* d = v.value.st.def; d != nullptr; d = d->parent)
        if (d == wanted)
            return true;
    return false;
}

void* live_instance(uint32_t id, const ClassRef& cls) {
    zok_heap_record* rec = host_heap_var(id);
    if (rec == nullptr || !is_instance_of(rec, cls))
        return nullptr;
    return framework_anchor(rec);
}

Self resolve_instance(uint32_t id, const ClassRef& cls, const char* role) {
    zok_heap_record* rec = host_object_heap_var(id, ZOK_ACTION_ERROR);
    if (!is_instance_of(rec, cls))
        host_message(ZOK_MSG_WRONG_CLASS, ZOK_ACTION_ERROR, role, cls.display_name);
    return Self{framework_anchor(rec), id};
}

} // namespace flux
