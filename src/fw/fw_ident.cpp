// The FW_Ident registry.
//
// Name index: one entry per live identifier, ordered by text with the host's
// string comparison; key = a 16-byte descriptor holding the registry's own
// copy of the text ("FW_Ident key"), value = an IdentRecord ("FW_Ident
// data").  Rollover index: the stale identifiers met by rollover since the
// last collection, ordered by identifier, with no value.
//
// Invariant: every name-index entry's identifier names a live heap pointer
// variable flagged ZOK_HEAP_HELD whose string has the entry's text.
#include "fw/fw_ident.hpp"

#include <cstring>

#include "frame/host_api.hpp"
#include "maps/map.hpp"
#include "maps/rb.hpp"
#include "maps/rb_access.hpp"

namespace flux {

struct IdentRecord {
    uint32_t ident;
    int32_t uses; // acquisitions not yet released; release has no floor
};

namespace {

RbNode* name_index = nullptr;
RbNode* rollover_index = nullptr;

// Two shortcuts past the search by text, each forgotten whenever an entry goes
// and with the indexes, so that neither outlives its record.  The record that a
// reservation of a fixed name (a text of the module's own, told by its address)
// found or made last: every INIT reserves the generic message's.
struct FixedName {
    const char* name = nullptr;
    IdentRecord* record = nullptr;
} last_fixed;
// The record whose uses were counted last, by its own identifier: an object
// releases what its INIT acquired.
struct LastCounted {
    uint32_t ident = 0;
    IdentRecord* record = nullptr;
} last_counted;

const zok_string& text_at(RbWord word) {
    return *reinterpret_cast<const zok_string*>(word);
}

int compare_names(RbWord key, RbWord leaf_key) {
    return text_order(text_at(key), text_at(leaf_key));
}

// Identifiers compare by their wrapping difference.
int compare_idents(RbWord key, RbWord leaf_key) {
    return static_cast<int32_t>(static_cast<uint32_t>(key) - static_cast<uint32_t>(leaf_key));
}

// Makes `index` on first use.  The guard it returns frees an index made here
// again unless committed, so that an error which unwinds leaves none behind.
auto made_index(RbNode*& index) {
    const bool fresh = index == nullptr;
    if (fresh && (index = map_new()) == nullptr)
        raise_no_memory("FW_Ident");
    return Undo([&index, fresh] {
        if (fresh) {
            map_free(index);
            index = nullptr;
        }
    });
}

IdentRecord* record_of(RbNode* entry) {
    return reinterpret_cast<IdentRecord*>(map_node_value(entry));
}
zok_string* key_of(RbNode* entry) {
    return reinterpret_cast<zok_string*>(map_node_key(entry));
}

IdentRecord* find_record(const zok_string* name) {
    if (name_index == nullptr)
        return nullptr;
    // The comparison inline: an acquire of a known name is this search alone.
    bool found;
    RbNode* entry = RbTree::find(
        name_index, [name](RbWord leaf_key) { return text_order(*name, text_at(leaf_key)); },
        RbAccess::complaints.find_gkey_non_head, found);
    return found ? record_of(entry) : nullptr;
}

void free_ident_heap_var(uint32_t ident) {
    if (host_heap_var(ident) != nullptr)
        host_heap_free(ident, 0, 0);
}

// Makes the entry for a text that has none: its key, its heap variable and its
// record (and the index itself on first use), all given back if any step fails.
IdentRecord* make_entry(const zok_string* name) {
    auto drop_index = made_index(name_index);
    auto* key = static_cast<zok_string*>(host_mem_alloc(sizeof(zok_string), "FW_Ident key"));
    if (key == nullptr)
        raise_no_memory("FW_Ident");
    *key = zok_string{};
    Undo drop_key([key] {
        host_string_release(key, 1);
        host_mem_free(key);
    });
    zok_string own = *name; // the caller's text until the duplicate is made
    host_string_duplicate(&own, 1);
    *key = own;

    TempGuard text(host_temp_var());
    text->type = ZOK_T_STRING;
    text->value.str = *key;
    host_string_duplicate(&text->value.str, 1);
    zok_heap_record* heap_var =
        host_heap_var_new(ZOK_HEAP_POINTER, text.get(), ZOK_HEAP_NEW_MOVE, ZOK_ACTION_ERROR);
    heap_var->flags |= ZOK_HEAP_HELD;
    const uint32_t ident = heap_var->id;
    Undo drop_heap_var([ident] { free_ident_heap_var(ident); });

    auto* record = static_cast<IdentRecord*>(host_mem_alloc(sizeof(IdentRecord), "FW_Ident data"));
    if (record == nullptr)
        raise_no_memory("FW_Ident");
    *record = IdentRecord{ident, 0};
    Undo drop_record([record] { host_mem_free(record); });

    if (map_put(name_index, reinterpret_cast<RbWord>(key), reinterpret_cast<RbWord>(record),
                compare_names) == nullptr)
        raise_no_memory("FW_Ident");
    drop_record.commit();
    drop_heap_var.commit();
    drop_key.commit();
    drop_index.commit();
    return record;
}

// Frees an entry's key, heap variable and record, then the entry itself.
void drop_entry(RbNode* entry) {
    last_fixed = {};
    last_counted = {};
    zok_string* key = key_of(entry);
    IdentRecord* record = record_of(entry);
    host_string_release(key, 1);
    host_mem_free(key);
    free_ident_heap_var(record->ident);
    host_mem_free(record);
    map_remove_node(entry);
}

void adjust_uses(uint32_t ident, int32_t delta) {
    const zok_string* text = fwident_text(ident);
    if (text == nullptr)
        return;
    // The entry of a live identifier is the entry of its text.
    IdentRecord* record = ident == last_counted.ident ? last_counted.record : find_record(text);
    if (record == nullptr)
        return;
    if (record->ident == ident)
        last_counted = {ident, record};
    record->uses += delta;
}

} // namespace

const zok_string* fwident_text(uint32_t ident) {
    const zok_heap_record* rec = host_heap_var(ident);
    if (rec == nullptr || rec->var.type != ZOK_T_STRING ||
        (rec->var.flags & ZOK_VF_NOT_SIMPLE) != 0)
        return nullptr;
    return &rec->var.value.str;
}

uint32_t fwident_acquire_name(const zok_string* name) {
    IdentRecord* record = find_record(name);
    if (record == nullptr)
        record = make_entry(name);
    record->uses += 1;
    return record->ident;
}

void fwident_acquire(uint32_t ident) {
    adjust_uses(ident, +1);
}

void fwident_release(uint32_t ident) {
    adjust_uses(ident, -1);
}

uint32_t fwident_rollover(uint32_t ident) {
    const zok_string* text = fwident_text(ident);
    if (text == nullptr)
        return 0;
    const zok_string name = *text; // the stale variable stays alive until a collection
    if (IdentRecord* record = find_record(&name); record != nullptr && record->ident == ident) {
        record->uses += 1;
        return ident;
    }
    // A stale identifier is parked before the live one is acquired, and taken
    // back out if that fails.
    auto drop_index = made_index(rollover_index);
    RbNode* parked = map_find(rollover_index, ident, compare_idents);
    const bool parked_here = parked == nullptr;
    if (parked_here && (parked = map_put(rollover_index, ident, 0, compare_idents)) == nullptr)
        raise_no_memory("FW_Ident");
    Undo unpark([parked, parked_here] {
        if (parked_here)
            map_remove_node(parked);
    });
    const uint32_t live = fwident_acquire_name(&name);
    unpark.commit();
    drop_index.commit();
    return live;
}

void fwident_collect(bool all) {
    // The name index is made here too, and kept: the one step that can fail
    // comes before anything is freed.
    made_index(name_index).commit();
    if (rollover_index != nullptr) {
        RbNode* parked = rollover_index;
        rollover_index = nullptr;
        for (RbNode* e = map_first(parked); e != parked; e = map_next(e))
            free_ident_heap_var(static_cast<uint32_t>(map_node_key(e)));
        map_free(parked);
    }
    RbNode* index = name_index;
    for (RbNode* e = map_first(index); e != index; e = map_next(e)) {
        if (!all && record_of(e)->uses > 0)
            continue;
        RbNode* previous = e->right; // the previous leaf: deleting must not lose the place
        drop_entry(e);
        e = previous;
    }
}

int fwident_order(uint32_t a, uint32_t b) {
    const zok_string* text_a = fwident_text(a);
    const zok_string* text_b = b == a ? text_a : fwident_text(b);
    if (text_a == nullptr || text_b == nullptr) {
        raise_module_message(MSG_FWMSG_IDCORRUPT);
        return 0;
    }
    return text_a == text_b ? 0 : text_order(*text_a, *text_b);
}

IdentReservation::IdentReservation(const zok_string* name) {
    obtain(name);
}

IdentReservation::IdentReservation(const char* fixed_name) {
    if (last_fixed.name == fixed_name) {
        record_ = last_fixed.record;
        ident_ = record_->ident;
        return;
    }
    // A borrowed descriptor: the registry copies the text when it keeps it.
    const zok_string borrowed{static_cast<uint32_t>(std::strlen(fixed_name)), 0, 0,
                              const_cast<char*>(fixed_name)};
    last_fixed = {fixed_name, obtain(&borrowed)};
}

IdentRecord* IdentReservation::obtain(const zok_string* name) {
    record_ = find_record(name);
    if (record_ == nullptr) {
        record_ = make_entry(name);
        made_ = true;
    }
    ident_ = record_->ident;
    return record_;
}

void IdentReservation::acquire() {
    record_->uses += 1;
}

IdentReservation::~IdentReservation() {
    if (!made_)
        return;
    // Nothing ran between the making and here that could have handed the identifier out.
    const zok_string* text = fwident_text(ident_);
    RbNode* entry = text != nullptr && name_index != nullptr
                        ? map_find(name_index, reinterpret_cast<RbWord>(text), compare_names)
                        : nullptr;
    if (entry != nullptr && record_of(entry)->uses <= 0)
        drop_entry(entry);
}

void fwident_session_reset() {
    fwident_collect(true);
}

void fwident_forget() {
    name_index = nullptr;
    rollover_index = nullptr;
    last_fixed = {};
    last_counted = {};
}

std::vector<FwIdentEntry> fwident_entries() {
    std::vector<FwIdentEntry> entries;
    if (name_index == nullptr)
        return entries;
    for (RbNode* e = map_first(name_index); e != name_index; e = map_next(e)) {
        const zok_string* key = key_of(e);
        entries.push_back(
            {std::string(key->text, key->length), record_of(e)->ident, record_of(e)->uses});
    }
    return entries;
}

std::vector<uint32_t> fwident_parked() {
    std::vector<uint32_t> parked;
    if (rollover_index != nullptr)
        for (RbNode* e = map_first(rollover_index); e != rollover_index; e = map_next(e))
            parked.push_back(static_cast<uint32_t>(map_node_key(e)));
    return parked;
}

std::string fwident_check() {
    for (RbNode* index : {name_index, rollover_index}) {
        if (index == nullptr)
            continue;
        std::string tree =
            map_rb_check(index, index == name_index ? compare_names : compare_idents);
        if (!tree.empty())
            return tree;
    }
    if (name_index == nullptr)
        return "";
    RbNode* previous = nullptr;
    for (RbNode* e = map_first(name_index); e != name_index; e = map_next(e)) {
        const zok_string* key = key_of(e);
        const uint32_t ident = record_of(e)->ident;
        const zok_heap_record* rec = host_heap_var(ident);
        const std::string name(key->text, key->length);
        if (rec == nullptr || rec->var.type != ZOK_T_STRING)
            return "identifier of \"" + name + "\" has no string heap variable";
        if ((rec->flags & ZOK_HEAP_HELD) == 0)
            return "identifier of \"" + name + "\" is not held";
        if (host_string_compare(key, &rec->var.value.str) != 0)
            return "identifier of \"" + name + "\" holds another text";
        if (previous != nullptr && compare_names(map_node_key(previous), map_node_key(e)) >= 0)
            return "name index holds \"" + name + "\" twice or out of order";
        previous = e;
    }
    return "";
}

namespace {

// Makes the result before the registry changes, so that a failure to make it
// leaves no use counted that nobody holds.
template <class Acquire>
zok_var* pointer_result(Acquire&& acquire) {
    TempGuard result(host_temp_var());
    result->value.heap_id = acquire();
    result->type = ZOK_T_POINTER;
    return result.release();
}

zok_var* get_fwident(int32_t, zok_var** argv, zok_keywords*) {
    const zok_string* name = string_argument(argv[0]);
    return pointer_result([name] { return fwident_acquire_name(name); });
}

zok_var* rollover_fwident(int32_t, zok_var** argv, zok_keywords*) {
    const uint32_t ident = pointer_argument(argv[0]);
    return pointer_result([ident] { return fwident_rollover(ident); });
}

void fwident_acquire_routine(int32_t, zok_var** argv, zok_keywords*) {
    fwident_acquire(pointer_argument(argv[0]));
}

void fwident_release_routine(int32_t, zok_var** argv, zok_keywords*) {
    fwident_release(pointer_argument(argv[0]));
}

void fwident_gc(int32_t argc, zok_var** argv, zok_keywords*) {
    bool all = false;
    if (argc == 1) {
        require_scalar(argv[0]);
        TempGuard converted(host_convert_var(argv[0], ZOK_T_LONG));
        all = converted->value.long_val == 1;
    }
    fwident_collect(all);
}

constexpr zok_routine_entry functions[] = {
    function_entry(get_fwident, "GET_FWIDENT", 1, 1),
    function_entry(rollover_fwident, "ROLLOVER_FWIDENT", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(fwident_acquire_routine, "FWIDENT_ACQUIRE", 1, 1),
    procedure_entry(fwident_gc, "FWIDENT_GC", 0, 1),
    procedure_entry(fwident_release_routine, "FWIDENT_RELEASE", 1, 1),
};

} // namespace

const RoutineList fwident_routines{functions, procedures};

} // namespace flux
