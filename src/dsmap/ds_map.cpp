// ZOKDSMAP.  Each entry of the object's heap-backed map has a key and a value
// that are pointer heap variables the class owns: the key holds a copy of the
// key string, the value a copy of the stored value.  Entries are ordered by
// the host's string comparison of the key texts.
//
// A map identifier of 0 (INIT could not make the map) reads as an empty map;
// an identifier whose heap variable has gone raises "ZOKdsMap heap
// dereference error", as does a key or value heap variable that has gone.
#include "dsmap/ds_map.hpp"

#include <set>

#include "frame/host_api.hpp"
#include "maps/maph.hpp"
#include "maps/rbh.hpp"

namespace flux {
namespace {

zok_heap_record* deref(uint32_t heap_id) {
    zok_heap_record* rec = host_heap_var(heap_id);
    if (rec == nullptr)
        raise_module_message(MSG_DSMAP_HEAPDEREFERR);
    return rec;
}

// A key heap variable's text.
const zok_string& key_text(uint32_t key) {
    const zok_heap_record* rec = deref(key);
    if (rec->var.type != ZOK_T_STRING)
        host_require_string(&rec->var, ZOK_ACTION_ERROR);
    return rec->var.value.str;
}

// Orders the key argument's text against an entry's key: the search needs no heap copy
// of the key it looks for.
auto order_against(const zok_var* key) {
    return [text = &key->value.str](uint32_t entry_key) {
        return text_order(*text, key_text(entry_key));
    };
}

struct DsMap {
    uint32_t map; // 0 when INIT could not make one

    // Resolves self and checks that its map still exists.
    static DsMap of(zok_var** argv) {
        const Self self = resolve_object(argv[0], DSMAP_ANCHOR);
        const uint32_t map = self.fields<DsMapFields>().the_map;
        if (map != 0)
            deref(map);
        return DsMap{map};
    }
};

const zok_var* key_argument(zok_var** argv) {
    string_argument(argv[1]);
    return argv[1];
}

// The entry for the key argument, or 0.
uint32_t find_entry(const DsMap& m, const zok_var* key) {
    if (m.map == 0)
        return 0;
    bool found;
    const uint32_t at = maph_search(m.map, order_against(key), found);
    return found ? at : 0;
}

void free_if_alive(uint32_t heap_id) {
    if (host_heap_var(heap_id) != nullptr)
        host_heap_free(heap_id, 0, 0);
}

zok_var* dsmap_init(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = resolve_object(argv[0], DSMAP_ANCHOR);
    // The result first: failing to make it must not leave a map behind.
    TempGuard result(host_temp_long(1));
    self.fields<DsMapFields>().the_map = maph_new();
    return result.release();
}

void dsmap_cleanup(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = resolve_object(argv[0], DSMAP_ANCHOR);
    const uint32_t map = self.fields<DsMapFields>().the_map;
    if (map == 0 || host_heap_var(map) == nullptr)
        return; // never made, or already cleaned up
    for (uint32_t e = maph_first(map); e != map; e = maph_next(e)) {
        free_if_alive(maph_node_key(e));
        free_if_alive(maph_node_value(e));
    }
    maph_free(map);
}

void dsmap_insert(int32_t, zok_var** argv, zok_keywords*) {
    const DsMap m = DsMap::of(argv);
    const zok_var* key = key_argument(argv);
    if (m.map == 0)
        raise_module_message(MSG_DSMAP_HEAPDEREFERR);
    // One search finds the entry or the place of a new one.
    bool found;
    const uint32_t at = maph_search(m.map, order_against(key), found);
    if (found) {
        host_var_store(&deref(maph_node_value(at))->var, argv[2]);
        return;
    }
    // The key and value copies first, then the entry: a failure frees what was made.
    const uint32_t k = host_heap_var_new(ZOK_HEAP_POINTER, const_cast<zok_var*>(key),
                                         ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR)
                           ->id;
    Undo drop_key([k] { host_heap_free(k, 0, 0); });
    const uint32_t v =
        host_heap_var_new(ZOK_HEAP_POINTER, argv[2], ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR)->id;
    Undo drop_value([v] { host_heap_free(v, 0, 0); });
    if (maph_insert_before(at, k, v) == 0)
        raise_no_memory("ZOKdsMap::Insert");
    drop_value.commit();
    drop_key.commit();
}

void dsmap_remove(int32_t, zok_var** argv, zok_keywords*) {
    const DsMap m = DsMap::of(argv);
    const uint32_t entry = find_entry(m, key_argument(argv));
    if (entry == 0)
        return;
    free_if_alive(maph_node_key(entry));
    free_if_alive(maph_node_value(entry));
    maph_remove_node(entry);
}

zok_var* dsmap_keyexists(int32_t, zok_var** argv, zok_keywords*) {
    const DsMap m = DsMap::of(argv);
    const bool present = find_entry(m, key_argument(argv)) != 0;
    zok_var* result = host_temp_var();
    result->type = ZOK_T_BYTE;
    result->value.byte_val = present ? 1 : 0;
    return result;
}

zok_var* dsmap_getdata(int32_t, zok_var** argv, zok_keywords*) {
    const DsMap m = DsMap::of(argv);
    const uint32_t entry = find_entry(m, key_argument(argv));
    TempGuard result(host_temp_var());
    if (entry != 0)
        host_var_copy_out(&deref(maph_node_value(entry))->var, result.get());
    return result.release();
}

size_t entry_count(const DsMap& m) {
    return m.map == 0 ? 0 : maph_count(m.map);
}

zok_var* dsmap_getsize(int32_t, zok_var** argv, zok_keywords*) {
    return host_temp_long(static_cast<int32_t>(entry_count(DsMap::of(argv))));
}

zok_var* dsmap_getkeys(int32_t argc, zok_var** argv, zok_keywords*) {
    const DsMap m = DsMap::of(argv);
    const auto n = static_cast<int32_t>(entry_count(m));
    zok_var* keys = nullptr;
    if (n < 1) {
        keys = host_temp_var();
        keys->type = ZOK_T_STRING;
        host_string_store(&keys->value.str, "");
    } else {
        auto* elements = static_cast<zok_string*>(host_make_temp_vector(ZOK_T_STRING, n, 1, &keys));
        TempGuard guard(keys);
        int32_t i = 0;
        for (uint32_t e = maph_first(m.map); e != m.map; e = maph_next(e), ++i) {
            const zok_heap_record* key = deref(maph_node_key(e));
            if (key->var.type != ZOK_T_STRING)
                host_require_string(&key->var, ZOK_ACTION_ERROR);
            elements[i] = key->var.value.str;
            host_string_duplicate(&elements[i], 1);
        }
        guard.release();
    }
    if (argc == 2) {
        host_var_free_value(argv[1]);
        argv[1]->type = ZOK_T_LONG;
        argv[1]->value.long_val = n;
    }
    return keys;
}

constexpr zok_routine_entry functions[] = {
    function_entry(dsmap_getdata, "ZOKDSMAP::GETDATA", 2, 2),
    function_entry(dsmap_getkeys, "ZOKDSMAP::GETKEYS", 1, 2),
    function_entry(dsmap_getsize, "ZOKDSMAP::GETSIZE", 1, 1),
    function_entry(dsmap_init, "ZOKDSMAP::INIT", 1, 1),
    function_entry(dsmap_keyexists, "ZOKDSMAP::KEYEXISTS", 2, 2),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(dsmap_cleanup, "ZOKDSMAP::CLEANUP", 1, 1),
    procedure_entry(dsmap_insert, "ZOKDSMAP::INSERT", 3, 3),
    procedure_entry(dsmap_remove, "ZOKDSMAP::REMOVE", 2, 2),
};

} // namespace

const RoutineList dsmap_routines{functions, procedures};

std::string dsmap_check(uint32_t object) {
    const zok_heap_record* rec = host_heap_var(object);
    if (rec == nullptr)
        return "object " + std::to_string(object) + " is gone";
    const auto* fields =
        static_cast<const DsMapFields*>(host_struct_tag_data(&rec->var, DSMAP_ANCHOR, 0, 0, 0));
    const uint32_t map = fields->the_map;
    if (map == 0 || host_heap_var(map) == nullptr)
        return ""; // never made, or freed by CLEANUP
    const std::string where = "map " + std::to_string(map) + " of object " + std::to_string(object);
    // The tree's shape first, so that the walk below runs over a sound ring;
    // the walk then checks the key order strictly, one entry per key.
    if (const std::string tree = map_rbh_check(map, nullptr); !tree.empty())
        return where + ": " + tree;
    std::set<uint32_t> owned;
    const zok_string* previous = nullptr;
    for (uint32_t e = maph_first(map); e != map; e = maph_next(e)) {
        const uint32_t key_id = maph_node_key(e);
        const uint32_t value_id = maph_node_value(e);
        const zok_heap_record* key = host_heap_var(key_id);
        const std::string entry = where + ", entry " + std::to_string(e);
        if (key == nullptr || key->var.type != ZOK_T_STRING ||
            (key->var.flags & ZOK_VF_NOT_SIMPLE) != 0)
            return entry + ": the key is no string heap variable";
        if (host_heap_var(value_id) == nullptr)
            return entry + ": the value heap variable is gone";
        if (key_id == value_id || !owned.insert(key_id).second || !owned.insert(value_id).second)
            return entry + ": a key or value heap variable serves twice";
        if (previous != nullptr && host_string_compare(previous, &key->var.value.str) >= 0)
            return entry + ": keys not in ascending order";
        previous = &key->var.value.str;
    }
    return "";
}

} // namespace flux
