// The reference host's internal state and the helpers its source files share.
//
// One State exists per live zok::Host and `g_state` points at it; every C
// operation reaches the host through `state()`, which raises a clear error when
// no host is alive.  Ownership: the state owns every text, temporary, heap
// variable, labelled block and structure definition it hands out, and frees
// them all when the host goes.  Interned names (zok_name) outlive hosts, since
// a module may keep a handle for the whole process; their bindings are cleared
// when a host goes.
#pragma once

#include "host.hpp"
#include "pool.hpp"

#include <zok/zok.h>

#include <array>
#include <cstdarg>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace zok::detail {

// A vector of trivially copyable elements whose first N live in place, so that
// the usual few cost no allocation.
template <typename T, size_t N>
class SmallVector {
public:
    SmallVector() = default;
    SmallVector(const SmallVector&) = delete;
    SmallVector& operator=(const SmallVector&) = delete;
    void push_back(const T& v) {
        if (size_ < N) [[likely]]
            new (in_place() + size_) T(v);
        else
            spill(v);
        ++size_;
    }
    T* data() { return size_ > N ? spilled_.data() : in_place(); }
    const T& operator[](size_t i) const { return begin()[i]; }
    T* begin() { return data(); }
    T* end() { return data() + size_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const T& front() const { return *begin(); }
    const T* begin() const { return size_ > N ? spilled_.data() : in_place(); }
    const T* end() const { return begin() + size_; }

private:
    // Past the first N: every element moves to the vector on the first.
    [[gnu::noinline]] void spill(const T& v) {
        if (spilled_.empty())
            spilled_.assign(in_place(), in_place() + N);
        spilled_.push_back(v);
    }
    // Left unconstructed: the slots are written before they are read, so making
    // a vector costs no construction of N elements.
    union Slots {
        Slots() {} // NOLINT(modernize-use-equals-default): the items stay unconstructed
        std::array<T, N> items;
    };
    T* in_place() { return slots_.items.data(); }
    const T* in_place() const { return slots_.items.data(); }

    static_assert(std::is_trivially_destructible_v<T>, "elements are never destroyed");
    Slots slots_;
    std::vector<T> spilled_;
    size_t size_ = 0;
};

} // namespace zok::detail

// The opaque handle types of zok.h are defined here, in the global namespace.
struct zok_keywords {
    // A keyword of the call: its name in upper case, in text that lives as long
    // as the call, and its argument.
    struct Entry {
        std::string_view name;
        zok_var* var;
    };
    zok::detail::SmallVector<Entry, 8> entries;
};

struct zok_message_block {
    std::string name;
    std::vector<zok_message_def> messages;
    std::vector<std::string> storage; // owns the texts `messages` points at
};

namespace zok::detail {
struct Routine;
struct StructInfo;
} // namespace zok::detail

namespace zok {
// The host's way to the private parts of the program API types.
struct HostAccess {
    static Call make_call(Host* host, int32_t argc, zok_var** argv, zok_keywords* kw) {
        return Call(host, argc, argv, kw);
    }
};
} // namespace zok

struct zok_name {
    std::string text;
    // Where "::" stands in a qualified name (CLASS::METHOD), or npos; and the
    // interned CLASS and METHOD parts of such a name.
    size_t colons = std::string::npos;
    zok_name* qualifier = nullptr;
    zok_name* bare = nullptr;
    // Bindings in the current host (cleared when it goes).
    zok::detail::Routine* routine = nullptr;
    zok::detail::StructInfo* structure = nullptr;
    uint32_t method_routines = 0; // routines CLASS::<text> registered
    // The last method resolution of this name, good while `resolved_in` is the
    // current method generation: most calls of one name go to one class.
    mutable const zok::detail::StructInfo* resolved_class = nullptr;
    mutable zok::detail::Routine* resolved = nullptr;
    mutable uint64_t resolved_in = 0;
};

namespace zok::detail {

// Accounting labels of allocations that carry no label of their own.
inline constexpr const char* kHeapLabel = "(heap)";
inline constexpr const char* kTempLabel = "(temp)";

struct LabelStats {
    std::string label;
    MemStats live;
    size_t frees = 0; // frees made under this label as the freeing label
};

struct LabelHit {
    const char* address = nullptr;
    LabelStats* stats = nullptr;
};

// Plain blocks and structure instances up to this size come from slot pools.
inline constexpr size_t kMaxPooled = 256;

// A structure definition with the host's own view of its layout.
struct StructInfo {
    struct Tag {
        std::string name;
        uint8_t type;
        uint32_t offset;
    };
    std::string name;
    zok_struct_def def{};
    StructInfo* parent = nullptr;
    std::vector<Tag> tags; // every tag, inherited ones first, in instance order
    size_t end = 0;        // where the last tag ends (def.size adds tail padding)
    // The prepared form handed to modules: count, then the string tags' offsets.
    std::vector<uint32_t> string_offsets;
    // Method cache: bare method name -> resolved routine (null: none exists).
    std::unordered_map<const zok_name*, Routine*> methods;

    const Tag* find_tag(std::string_view tag) const;
    // find_tag for a module's C name: a name looked up before from the same
    // address costs one comparison with the tag it found then.
    const Tag* find_tag(const char* tag) const;
    // Whether this structure is `ancestor` or inherits from it.
    bool derives_from(const StructInfo* ancestor) const {
        for (const StructInfo* c = this; c; c = c->parent)
            if (c == ancestor)
                return true;
        return false;
    }

private:
    struct TagHit {
        const char* address = nullptr;
        const Tag* tag = nullptr;
    };
    mutable std::array<TagHit, 8> tag_hits_{}; // by name address
};

// A registered routine, from a module (C entry point) or a program (callable).
struct Routine {
    zok_name* name;
    bool is_function;
    uint16_t min_args;
    uint16_t max_args;
    int32_t flags;
    zok_function function = nullptr;
    zok_procedure procedure = nullptr;
    zok::Routine program; // set for program routines
};

// One heap variable: the record modules see, then the host's own fields.
struct HeapSlot {
    zok_heap_record rec;
    uint8_t kind;
    bool live;
    bool mark;  // reached, during a collection
    bool dying; // CLEANUP is running
};

// Identifier -> heap slot: slots live in pages of 1024 identifiers under a flat
// directory of 2^22 page pointers, so a look-up is one load and an address
// computation, whatever the identifier, and a record never moves.
class HeapTable {
public:
    static constexpr unsigned kPageBits = 10;
    static constexpr uint32_t kPageSize = 1u << kPageBits;

    HeapTable();
    ~HeapTable();
    HeapTable(const HeapTable&) = delete;
    HeapTable& operator=(const HeapTable&) = delete;

    HeapSlot* find(uint32_t id) const {
        Page* p = dir_[id >> kPageBits];
        if (!p)
            return nullptr;
        HeapSlot* s = &p->slots[id & (kPageSize - 1)];
        return s->live ? s : nullptr;
    }
    // A new slot with the next identifier; null when memory or identifiers run out.
    HeapSlot* create();
    // Makes sure that the next `count` identifiers can be handed out by create()
    // (or skipped by set_next_id) with no allocation; false when memory or
    // identifiers run short.
    bool reserve(uint64_t count);
    // Forgets a slot (its value must already be freed).
    void destroy(HeapSlot* slot);
    uint64_t next_id() const { return next_id_; }
    void set_next_id(uint64_t next);
    size_t count() const { return count_; }
    // Calls f(slot) for every live slot in identifier order; f may free slots.
    template <typename F>
    void for_each(F&& f) const;
    void check() const;

private:
    struct Page {
        uint32_t live;
        HeapSlot slots[kPageSize];
    };
    void drop_page_if_done(uint32_t page_index);
    // A zeroed page with every slot dead, or null; and its return.
    static Page* new_page();
    static void free_page(Page* page);

    Page** dir_;
    std::vector<Page*> spares_;   // given-back pages for the next ones (all slots dead)
    std::vector<uint32_t> pages_; // indices of allocated pages, ascending
    uint64_t next_id_ = 1;
    size_t count_ = 0;
};

template <typename F>
void HeapTable::for_each(F&& f) const {
    std::vector<uint32_t> pages = pages_;
    for (uint32_t pi : pages)
        for (uint32_t i = 0; i < kPageSize; ++i)
            if (HeapSlot* s = find((pi << kPageBits) | i))
                f(s);
}

// A temporary: the variable, then its place in the list of live temporaries.
struct TempSlot {
    zok_var var;
    uint64_t seq;
    TempSlot* prev;
    TempSlot* next;
};

// One routine call in progress (or the base frame outside any call).
struct Frame {
    Frame* parent = nullptr;
    const Routine* routine = nullptr;
    uint64_t first_temp = 0; // temporaries with seq >= this were made in the call
    // Once keyword processing held texts in this call: State::held_kw from
    // `held_from` on is the call's.
    bool holds_kw = false;
    size_t held_from = 0;
};

struct LoadedModule {
    void* handle = nullptr;
    int32_t (*load)() = nullptr;
    void (*reset)() = nullptr;
    std::string path;
};

} // namespace zok::detail

struct zok::Host::State {
    explicit State(Host* host);
    ~State();

    Host* host;

    // Messages.
    std::vector<Message> messages;
    bool errors_return = false;
    std::unordered_map<std::string, std::unique_ptr<zok_message_block>> blocks;

    // Faults.
    uint64_t allocation_count = 0;
    uint64_t fail_at = 0; // allocation_count value that fails; 0 = none
    std::unordered_set<std::string> fail_labels;
    std::array<uint64_t, 2> op_calls{};
    std::array<uint64_t, 2> op_refuse_at{};

    // Texts: up to kMaxPooled bytes (the closing null included) from slot pools
    // by 16-byte size class, whose live bits tell a live text from any other
    // address; longer ones from the C allocator, listed.
    using Pools = std::array<std::unique_ptr<detail::SlotPool>, detail::kMaxPooled / 16 + 1>;
    detail::ChunkSource text_chunks;
    Pools text_pools;
    std::unordered_set<const char*> long_texts;

    // Temporaries.
    detail::ChunkSource temp_chunks;
    detail::SlotPool temps{sizeof(detail::TempSlot), temp_chunks};
    detail::TempSlot* temp_tail = nullptr;
    uint64_t temp_seq = 1;
    size_t leftover_temps = 0;

    // Memory.
    std::unordered_map<std::string, std::unique_ptr<detail::LabelStats>> labels;
    // Labels by address: the stats of a label text in read-only memory, or null
    // for an address whose text may change (its text decides on every use).
    std::unordered_map<const char*, detail::LabelStats*> label_by_address;
    // The most recent read-only label addresses, direct-mapped by address.
    std::array<detail::LabelHit, 32> label_hits{};
    std::vector<void*> label_objects; // objects kept loaded for the labels they hold
    struct Block {
        size_t size;
        detail::LabelStats* stats;
    };
    std::unordered_map<void*, Block> blocks_live;
    detail::ChunkSource plain_chunks;
    Pools plain_pools; // by 16-byte size class
    detail::ChunkSource instance_chunks;
    Pools instance_pools; // by 16-byte size class
    detail::LabelStats* plain_stats = nullptr;

    // Heap.
    detail::HeapTable heap;

    // Structures, routines, calls.
    std::map<std::string, std::unique_ptr<detail::StructInfo>, std::less<>> structs;
    detail::StructInfo* last_struct = nullptr; // what find_struct found last
    std::unordered_map<const zok_struct_def*, detail::StructInfo*> struct_by_def;
    // The structure of the definition met last, and of those met recently,
    // direct-mapped by address: a tree node and the object that files it
    // alternate without a search.
    std::pair<const zok_struct_def*, detail::StructInfo*> last_def{}; // (null, null) at first
    std::array<std::pair<const zok_struct_def*, detail::StructInfo*>, 16> def_hits{};
    std::vector<std::unique_ptr<detail::Routine>> routines;
    std::vector<zok_name*> bound_names;
    detail::Frame base_frame;
    detail::Frame* frame = &base_frame;
    // Texts held by keyword processing, frame by frame: inner calls' after outer ones'.
    std::vector<char*> held_kw;
    int api_depth = 0;

    // Program variables (std::map keeps their addresses stable).
    std::map<std::string, zok_var, std::less<>> vars;

    std::vector<detail::LoadedModule> modules;
};

namespace zok::detail {

using State = zok::Host::State;

// The live host's state, or null.
// Hidden: read by every host entry point, it is reached without the symbol table.
extern State* g_state [[gnu::visibility("hidden")]];
[[noreturn]] void no_host();

// The live host's state; throws when no host is alive.
inline State& state() {
    if (!g_state) [[unlikely]]
        no_host();
    return *g_state;
}
inline State* state_or_null() {
    return g_state;
}

// ---- Messages (errors.cpp)
// Records an error of the program API and throws it, whatever errors_return says.
[[noreturn]] void api_error(int32_t code, std::string text);
// A failure of a host operation under `action`: the quiet action records
// nothing (the caller learns of the failure from its null result); otherwise
// as report().
void raise(int32_t code, int32_t action, std::string text, std::string block = {});
// Records the message, with the name of the module message block it came from
// (if any), whatever the action; with the error action (unless errors_return)
// throws zok::Error.  Returns when the action allows it.
void report(int32_t code, int32_t action, std::string text, std::string block = {});
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* fmt, va_list ap);
// The running routine's registered name ("" outside any call).
std::string running_routine();
// "in ROUTINE" (or "") for texts that name the routine where known.
std::string where();
const char* type_name(uint8_t type);
std::string describe(const zok_var& v);

// ---- Texts, temporaries, variables (vars.cpp)
char* new_text(const char* text, size_t length);
void release_text(char* text);
// Frees a live text the host stored; false, freeing nothing, for any other address.
bool free_text(const char* text);
size_t live_text_count(const State& s);
zok_string make_string(std::string_view text);
zok_var* new_temp(int32_t action = ZOK_ACTION_ERROR);
void release_temp(zok_var* v);
bool is_live_temp(const zok_var* v);
// Releases every live temporary made since `first_seq`; returns the count.
size_t release_temps_since(uint64_t first_seq);
void free_value(zok_var& v);
// dest (undefined) := a deep copy of src; value bits of flags follow src.
void copy_value(const zok_var& src, zok_var& dest);
void assign(zok_var& dest, const zok_var& src);
size_t elem_size(uint8_t type);
bool is_valid_type(uint8_t type);
zok_array* new_array(uint8_t type, uint32_t count, zok_struct_def* def);
void* new_instance(const StructInfo& info);
void free_instance(const StructInfo& info, void* data);
void copy_instance(const StructInfo& info, const void* src, void* dest);
// Converts one scalar element to `type` into `out` (which must be undefined).
// False when the value has no such conversion.
bool convert_scalar(uint8_t from_type, const void* from, uint8_t type, zok_var& out);
void to_var(const Value& v, zok_var& out);
Value from_var(const zok_var& v);
// One element of `type` at `src` / into empty storage at `dst`.
Value read_element(uint8_t type, const void* src, const zok_struct_def* def);
void write_element(uint8_t type, const Value& v, void* dst);

// ---- Memory and faults (memory.cpp)
bool fails_by_label(const char* label);
// Counts one allocation under `label`; true when fault injection fails it.
inline bool inject_fault(const char* label) {
    State& s = state();
    ++s.allocation_count;
    if (s.allocation_count == s.fail_at) [[unlikely]]
        return true;
    return !s.fail_labels.empty() && fails_by_label(label);
}
// The slot of label_hits for a label address.
inline size_t label_hit_index(const char* label) {
    auto a = reinterpret_cast<uintptr_t>(label);
    return (a ^ (a >> 7)) % std::tuple_size_v<decltype(State::label_hits)>;
}
LabelStats& stats_for_text(const char* label);
// The stats of `label` (null: ""); a label in read-only memory, such as a
// literal, is found by its address alone.
inline LabelStats& stats_for(const char* label) {
    State& s = state();
    if (!label)
        label = "";
    const LabelHit& hit = s.label_hits[label_hit_index(label)];
    if (hit.address == label) [[likely]]
        return *hit.stats;
    return stats_for_text(label);
}
// The pool of a block size's 16-byte size class, made on first use.
SlotPool& pool_for(State::Pools& pools, size_t size, ChunkSource& source);
void* alloc_instance_memory(size_t size);
void free_instance_memory(void* p, size_t size);
void free_all_memory(State& s);

// ---- Heap (heap.cpp)
inline HeapSlot* heap_slot(uint32_t id) {
    return state().heap.find(id);
}
void heap_free_slot(HeapSlot* slot);
void free_whole_heap(State& s);
// Frees the heap variables no root reaches; returns the count freed.
size_t collect_garbage(State& s);

// ---- Structures (structs.cpp)
StructInfo* struct_info_slow(const zok_struct_def* def);
// The slot of State::def_hits for a definition.  Definitions sit at the same
// offset in equal-sized blocks, so their low bits agree: the index is taken
// from the top of a multiplicative hash.
inline size_t def_hit_index(const zok_struct_def* def) {
    static_assert(std::tuple_size_v<decltype(State::def_hits)> == 16);
    return (reinterpret_cast<uintptr_t>(def) * uint64_t{0x9E3779B97F4A7C15}) >> 60;
}
// The host's structure of a definition, or null when the definition is not one
// of this host's; definitions live as long as the host, so one found stays valid.
inline StructInfo* struct_info(const zok_struct_def* def) {
    State& s = state();
    if (def == s.last_def.first) [[likely]]
        return s.last_def.second;
    const auto& hit = s.def_hits[def_hit_index(def)];
    if (def == hit.first && def) {
        s.last_def = hit;
        return hit.second;
    }
    return struct_info_slow(def);
}
StructInfo* find_struct(std::string_view name);
StructInfo* define_struct(const char* name, const zok_tag_entry* tags);
std::string upper(std::string_view s);
// Whether upper() would leave the text as it is.
bool is_upper(std::string_view s);

// Calls f(id) for every heap identifier a structure instance holds in its
// pointer and object-reference tags.
template <typename F>
void instance_references(const StructInfo& info, const char* data, F&& f) {
    for (const StructInfo::Tag& tag : info.tags)
        if (tag.type == ZOK_T_POINTER || tag.type == ZOK_T_OBJECT) {
            uint32_t id;
            std::memcpy(&id, data + tag.offset, sizeof id);
            f(id);
        }
}

// Calls f(id) for every heap identifier a value holds: pointers, object
// references and the fields of those types in structures, arrays included.
template <typename F>
void for_each_reference(const zok_var& v, F&& f) {
    if (v.flags & ZOK_VF_ARRAY) {
        const zok_array* a = v.value.array;
        if (!a)
            return;
        if (a->elem_type == ZOK_T_POINTER || a->elem_type == ZOK_T_OBJECT) {
            const auto* ids = static_cast<const uint32_t*>(a->data);
            for (uint32_t i = 0; i < a->count; ++i)
                f(ids[i]);
        } else if (a->elem_type == ZOK_T_STRUCT) {
            if (StructInfo* info = struct_info(a->def))
                for (uint32_t i = 0; i < a->count; ++i)
                    instance_references(*info,
                                        static_cast<const char*>(a->data) + i * info->def.size, f);
        }
    } else if (v.type == ZOK_T_POINTER || v.type == ZOK_T_OBJECT) {
        f(v.value.heap_id);
    } else if (v.type == ZOK_T_STRUCT && v.value.st.data) {
        if (StructInfo* info = struct_info(v.value.st.def))
            instance_references(*info, static_cast<const char*>(v.value.st.data), f);
    }
}

// ---- Names, routines, calls (calls.cpp)
zok_name* intern(std::string_view text);
// The interned name, or null when the text was never interned.
zok_name* find_name(std::string_view text);
void add_routine(std::unique_ptr<Routine> r);
// Bumped whenever a routine or structure is added or the host goes, which
// makes every name's last resolution stale.  Hidden, as g_state: every method
// call reads it.
extern uint64_t g_method_generation [[gnu::visibility("hidden")]];
// The routine a method call of `method` on `cls` runs (null: none): the name's
// last resolution when it still holds, else the class's cache or the search.
Routine* resolve_method_slow(StructInfo* cls, const zok_name* method);
inline Routine* resolve_method(StructInfo* cls, const zok_name* method) {
    if (method->resolved_class == cls && method->resolved_in == g_method_generation) [[likely]]
        return method->resolved;
    return resolve_method_slow(cls, method);
}
void invalidate_method_caches();
// Why a program routine cannot be registered ("" when it can).
std::string program_routine_problem(const std::string& name, uint16_t min_args, uint16_t max_args);
void unbind_names(State& s);
// Makes an object of `cls` and runs INIT; returns its id (0 when INIT said no).
uint32_t create_object(StructInfo* cls, int32_t argc, zok_var** args, zok_keywords* kw);
void destroy_object(uint32_t id, zok_keywords* kw);

// ---- Keywords (keywords.cpp)
void release_held_keywords(Frame& f);

// Frees every text a frame's keyword processing still holds and every temporary
// made during the frame when it ends by an exception; pops the frame.
class FrameGuard {
public:
    FrameGuard(State& s, const Routine* r) : s_(s) {
        frame_.parent = s.frame;
        frame_.routine = r;
        frame_.first_temp = s.temp_seq;
        s.frame = &frame_;
    }
    ~FrameGuard() {
        if (!done_ || frame_.holds_kw) [[unlikely]]
            end_unusually();
        s_.frame = frame_.parent;
    }
    FrameGuard(const FrameGuard&) = delete;
    FrameGuard& operator=(const FrameGuard&) = delete;
    // The routine returned; a frame left without this is unwinding an error.
    void done() { done_ = true; }

private:
    // An error unwinds the frame, or keyword texts are still held.
    void end_unusually();

    State& s_;
    Frame frame_;
    bool done_ = false;
};

// Runs a routine whose frame is already pushed: the argument checks, then the call.
zok_var* invoke_in_frame(State& s, const Routine& r, int32_t argc, zok_var** argv,
                         zok_keywords* kw);

// Runs a routine in a frame of its own.
inline zok_var* invoke(const Routine& r, int32_t argc, zok_var** argv, zok_keywords* kw) {
    State& s = state();
    FrameGuard guard(s, &r);
    zok_var* result = invoke_in_frame(s, r, argc, argv, kw);
    guard.done();
    return result;
}

} // namespace zok::detail
