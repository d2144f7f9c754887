// Names, routines, calls, methods and objects.
//
// Invariants: an interned name lives for the process and is bound to at most
// one routine and one structure of the current host; a routine, once
// registered, never changes; a structure's method cache maps a bare method
// name to the routine that resolution found (or null) and is emptied whenever
// a routine or structure is added; `State::frame` is the innermost call in
// progress, and each call's frame is popped however the call ends.
#include "state.hpp"

#include <array>
#include <cctype>
#include <cstring>

namespace zok::detail {

namespace {

// Looked up by any text without making a std::string of it.
struct TextHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};
using NameTable =
    std::unordered_map<std::string, std::unique_ptr<zok_name>, TextHash, std::equal_to<>>;

NameTable& name_table() {
    static NameTable table;
    return table;
}

constexpr size_t kSmallArgs = 16;

// The argument vector of a method call: self, then the given arguments, in a
// fixed buffer unless there are many.
class MethodArgs {
public:
    MethodArgs(uint32_t self_id, int32_t argc, zok_var** args) : count_(argc + 1) {
        self_.type = ZOK_T_OBJECT;
        self_.value.heap_id = self_id;
        if (static_cast<size_t>(count_) + 1 > kSmallArgs) [[unlikely]] {
            heap_ = std::make_unique<zok_var*[]>(static_cast<size_t>(count_) + 1);
            v_ = heap_.get();
        }
        v_[0] = &self_;
        for (int32_t i = 0; i < argc; ++i)
            v_[i + 1] = args[i];
        v_[count_] = nullptr;
    }
    MethodArgs(const MethodArgs&) = delete;
    MethodArgs& operator=(const MethodArgs&) = delete;
    zok_var** data() { return v_; }
    int32_t count() const { return count_; }

private:
    zok_var self_{};
    int32_t count_;
    zok_var* small_[kSmallArgs]; // filled up to count_ by the constructor
    zok_var** v_ = small_;
    std::unique_ptr<zok_var*[]> heap_;
};

// The argument vector of a routine called by handle: a null entry of the call
// block stands for an undefined argument, which the routine still receives
// (each in a variable of its own, so that one may be written as an output).
class RoutineArgs {
public:
    RoutineArgs(int32_t argc, zok_var** args) : count_(static_cast<size_t>(argc)) {
        if (count_ + 1 > kSmallArgs) {
            heap_.resize(count_ + 1);
            heap_unset_.resize(count_);
        }
        zok_var** v = data();
        zok_var* unset = unset_data();
        for (size_t i = 0; i < count_; ++i) {
            unset[i] = zok_var{};
            v[i] = args[i] != nullptr ? args[i] : &unset[i];
        }
        v[count_] = nullptr;
    }
    ~RoutineArgs() {
        zok_var* unset = unset_data();
        for (size_t i = 0; i < count_; ++i)
            free_value(unset[i]);
    }
    RoutineArgs(const RoutineArgs&) = delete;
    RoutineArgs& operator=(const RoutineArgs&) = delete;
    zok_var** data() { return heap_.empty() ? small_.data() : heap_.data(); }

private:
    zok_var* unset_data() { return heap_unset_.empty() ? small_unset_.data() : heap_unset_.data(); }

    size_t count_;
    std::array<zok_var*, kSmallArgs> small_;
    std::array<zok_var, kSmallArgs> small_unset_;
    std::vector<zok_var*> heap_;
    std::vector<zok_var> heap_unset_;
};

bool truthy(const zok_var* v) {
    if (!v || v->type == ZOK_T_UNDEFINED)
        return false;
    if (v->flags & ZOK_VF_NOT_SIMPLE)
        return true;
    zok_var as_long{};
    if (!convert_scalar(v->type, &v->value, ZOK_T_LONG64, as_long)) {
        free_value(as_long);
        return true;
    }
    return as_long.value.long64_val != 0;
}

void release_if_temp(zok_var* v) {
    if (v && (v->flags & ZOK_VF_TEMPORARY) && is_live_temp(v))
        release_temp(v);
}

zok_name* name_init() {
    static zok_name* n = intern("INIT");
    return n;
}

zok_name* name_cleanup() {
    static zok_name* n = intern("CLEANUP");
    return n;
}

} // namespace

zok_name* find_name(std::string_view text) {
    auto& table = name_table();
    auto it = table.find(text);
    return it == table.end() ? nullptr : it->second.get();
}

zok_name* intern(std::string_view text) {
    if (zok_name* known = find_name(text))
        return known;
    auto& table = name_table();
    std::string key(text);
    auto& slot = table[key];
    if (!slot) {
        auto made = std::make_unique<zok_name>();
        made->text = key;
        made->colons = key.find("::");
        // The table's nodes stay put, so `slot` survives the parts' insertions.
        if (made->colons != std::string::npos) {
            made->qualifier = intern(key.substr(0, made->colons));
            made->bare = intern(key.substr(made->colons + 2));
        }
        slot = std::move(made);
    }
    return slot.get();
}

uint64_t g_method_generation = 1;

void invalidate_method_caches() {
    ++g_method_generation;
    for (auto& [name, info] : state().structs)
        info->methods.clear();
}

void unbind_names(State& s) {
    ++g_method_generation;
    for (zok_name* n : s.bound_names) {
        n->routine = nullptr;
        n->structure = nullptr;
        n->method_routines = 0;
    }
    s.bound_names.clear();
}

void add_routine(std::unique_ptr<Routine> r) {
    State& s = state();
    zok_name* n = r->name;
    n->routine = r.get();
    s.bound_names.push_back(n);
    if (zok_name* method = n->bare) {
        ++method->method_routines;
        s.bound_names.push_back(method);
    }
    s.routines.push_back(std::move(r));
    invalidate_method_caches();
}

Routine* resolve_method_slow(StructInfo* cls, const zok_name* method) {
    Routine* found = nullptr;
    if (auto hit = cls->methods.find(method); hit != cls->methods.end()) {
        found = hit->second;
    } else {
        for (StructInfo* c = cls; c && !found; c = c->parent)
            if (zok_name* n = find_name(c->name + "::" + method->text))
                found = n->routine;
        cls->methods.emplace(method, found);
    }
    method->resolved_class = cls;
    method->resolved = found;
    method->resolved_in = g_method_generation;
    return found;
}

void FrameGuard::end_unusually() {
    const bool failing = !done_;
    if (frame_.holds_kw && s_.held_kw.size() != frame_.held_from && !failing)
        s_.messages.push_back(Message{ZOK_ERR_BAD_FREE,
                                      "Keyword texts were not freed by " +
                                          frame_.routine->name->text + "; the host freed them.",
                                      ZOK_ACTION_WARN,
                                      frame_.routine->name->text,
                                      {}});
    release_held_keywords(frame_);
    if (failing)
        release_temps_since(frame_.first_temp);
}

namespace {

// The refusals of a call, kept out of line so that the call's own frame stays small.
[[gnu::cold, gnu::noinline]] void refuse_arg_count(const Routine& r, int32_t argc) {
    raise(ZOK_ERR_ARG_COUNT, ZOK_ACTION_ERROR,
          format("Incorrect number of arguments: %s takes %u to %u, got %d.", r.name->text.c_str(),
                 r.min_args, r.max_args, argc));
}

[[gnu::cold, gnu::noinline]] void refuse_keywords(const Routine& r, const zok_keywords& kw) {
    raise(ZOK_ERR_NO_KEYWORDS, ZOK_ACTION_ERROR,
          "Keyword " + std::string(kw.entries.front().name) +
              " not allowed in call to: " + r.name->text + ".");
}

[[gnu::cold, gnu::noinline]] void refuse_null_argument(const Routine& r, int32_t i) {
    raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
          format("Argument %d of %s is null.", i, r.name->text.c_str()));
}

[[gnu::cold, gnu::noinline]] void refuse_no_result(const Routine& r) {
    raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
          "Function " + r.name->text + " returned no variable.");
}

[[gnu::noinline]] zok_var* program_result(const Value& out) {
    zok_var* result = new_temp();
    if (result)
        to_var(out, *result);
    return result;
}

// invoke_in_frame's body, also inlined where a method call runs it.
// Arguments before `checked_from` are the host's own (a method's self) and are
// never null.
[[gnu::always_inline]] inline zok_var* run_in_frame(State& s, const Routine& r, int32_t argc,
                                                    zok_var** argv, zok_keywords* kw,
                                                    int32_t checked_from = 0) {
    if (argc < r.min_args || argc > r.max_args) [[unlikely]] {
        refuse_arg_count(r, argc);
        return nullptr;
    }
    if (kw && !kw->entries.empty() && !(r.flags & ZOK_RT_KEYWORDS)) [[unlikely]] {
        refuse_keywords(r, *kw);
        return nullptr;
    }
    for (int32_t i = checked_from; i < argc; ++i)
        if (!argv[i]) [[unlikely]] {
            refuse_null_argument(r, i);
            return nullptr;
        }
    if (r.program) {
        Call call = HostAccess::make_call(s.host, argc, argv, kw);
        const Value out = r.program(call);
        return r.is_function ? program_result(out) : nullptr;
    }
    if (!r.is_function) {
        r.procedure(argc, argv, kw);
        return nullptr;
    }
    zok_var* result = r.function(argc, argv, kw);
    if (!result) [[unlikely]]
        refuse_no_result(r);
    return result;
}

} // namespace

zok_var* invoke_in_frame(State& s, const Routine& r, int32_t argc, zok_var** argv,
                         zok_keywords* kw) {
    return run_in_frame(s, r, argc, argv, kw);
}

uint32_t create_object(StructInfo* cls, int32_t argc, zok_var** args, zok_keywords* kw) {
    State& s = state();
    zok_var inst{};
    inst.type = ZOK_T_STRUCT;
    inst.flags = ZOK_VF_STRUCT;
    inst.value.st = {new_instance(*cls), &cls->def};
    HeapSlot* slot = inject_fault(kHeapLabel) ? nullptr : s.heap.create();
    if (!slot) {
        free_value(inst);
        raise(ZOK_ERR_NO_MEMORY, ZOK_ACTION_ERROR,
              "Unable to allocate an object of class " + cls->name + where() + ".");
        return 0;
    }
    slot->kind = ZOK_HEAP_OBJECT;
    slot->rec.var = inst;
    uint32_t id = slot->rec.id;
    Routine* init = resolve_method(cls, name_init());
    if (!init) {
        if (argc > 0 || (kw && !kw->entries.empty())) {
            heap_free_slot(slot);
            raise(ZOK_ERR_ARG_COUNT, ZOK_ACTION_ERROR,
                  "Class " + cls->name + " has no INIT to take arguments" + where() + ".");
            return 0;
        }
        return id;
    }
    MethodArgs argv(id, argc, args);
    zok_var* result = nullptr;
    try {
        result = invoke(*init, argv.count(), argv.data(), kw);
    } catch (...) {
        // A failed INIT leaves no object behind (and calls no CLEANUP).
        if (HeapSlot* left = heap_slot(id))
            heap_free_slot(left);
        throw;
    }
    bool ok = !init->is_function || truthy(result);
    release_if_temp(result);
    if (!ok) {
        destroy_object(id, nullptr);
        return 0;
    }
    return heap_slot(id) ? id : 0;
}

void destroy_object(uint32_t id, zok_keywords* kw) {
    HeapSlot* slot = heap_slot(id);
    if (!slot || slot->dying)
        return;
    StructInfo* cls = slot->rec.var.type == ZOK_T_STRUCT && !(slot->rec.var.flags & ZOK_VF_ARRAY)
                          ? struct_info(slot->rec.var.value.st.def)
                          : nullptr;
    if (slot->kind != ZOK_HEAP_OBJECT || !cls) {
        raise(ZOK_ERR_INVALID_OBJECT, ZOK_ACTION_ERROR,
              format("Heap variable %u is not an object", id) + where() + ".");
        return;
    }
    if (Routine* cleanup = resolve_method(cls, name_cleanup())) {
        slot->dying = true;
        MethodArgs argv(id, 0, nullptr);
        zok_var* result = nullptr;
        try {
            result = invoke(*cleanup, argv.count(), argv.data(), kw);
        } catch (...) {
            if (HeapSlot* left = heap_slot(id))
                left->dying = false;
            throw;
        }
        release_if_temp(result);
    }
    if (HeapSlot* left = heap_slot(id))
        heap_free_slot(left);
}

} // namespace zok::detail

using namespace zok::detail;

namespace {

// The refusals of host_call_method, out of line like those of a call.
[[gnu::cold, gnu::noinline]] zok_var* refuse_method_call(int32_t code, const char* why) {
    raise(code, ZOK_ACTION_ERROR, why + where() + ".");
    return nullptr;
}

[[gnu::cold, gnu::noinline]] zok_var* refuse_not_object(uint32_t id) {
    return refuse_method_call(
        ZOK_ERR_NOT_OBJECT,
        format("host_call_method: heap variable %u holds no object", id).c_str());
}

[[gnu::cold, gnu::noinline]] zok_var* refuse_unknown_method(const StructInfo& cls,
                                                            const zok_name& method) {
    raise(ZOK_ERR_UNKNOWN_METHOD, ZOK_ACTION_ERROR,
          "Attempt to call undefined method: " + cls.name + "::" + method.text + where() + ".");
    return nullptr;
}

// Whether `text`, in any case, is the (upper-case) class name `name`.
bool names_class(std::string_view name, const char* text) {
    for (char c : name) {
        if (*text == '\0' ||
            static_cast<char>(std::toupper(static_cast<unsigned char>(*text))) != c)
            return false;
        ++text;
    }
    return *text == '\0';
}

bool is_routine_name(std::string_view name) {
    if (name.empty())
        return false;
    size_t colons = name.find("::");
    if (colons != std::string_view::npos && (colons == 0 || colons + 2 == name.size() ||
                                             name.find("::", colons + 2) != std::string_view::npos))
        return false;
    for (size_t i = 0; i < name.size(); ++i) {
        char c = name[i];
        bool ok = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
                  (colons != std::string_view::npos && (i == colons || i == colons + 1));
        if (!ok)
            return false;
    }
    return !(name[0] >= '0' && name[0] <= '9');
}

bool same_routine(const Routine& a, const zok_routine_entry& e, bool is_function) {
    return a.is_function == is_function && !a.program && a.min_args == e.min_args &&
           a.max_args == e.max_args && a.flags == e.flags &&
           (is_function ? a.function == e.entry.function : a.procedure == e.entry.procedure);
}

std::string entry_problem(const zok_routine_entry& e, bool is_function) {
    std::string name = e.name ? e.name : "(null)";
    if (!e.name || !is_routine_name(e.name))
        return "routine name " + name + " is not an upper-case routine or CLASS::METHOD name";
    if (!e.entry.function)
        return name + " has no entry point";
    if (e.min_args > e.max_args)
        return format("%s has minimum %u above maximum %u", name.c_str(), e.min_args, e.max_args);
    if (e.flags & ~ZOK_RT_KEYWORDS)
        return format("%s has unknown flags 0x%x", name.c_str(), static_cast<unsigned>(e.flags));
    if (e.extra)
        return name + " has a non-null reserved field";
    zok_name* n = find_name(name);
    if (n && n->routine && !same_routine(*n->routine, e, is_function))
        return name + " clashes with a different routine of that name";
    return {};
}

} // namespace

namespace zok::detail {

// Checks a program routine as host_add_routines checks a table entry.
std::string program_routine_problem(const std::string& name, uint16_t min_args, uint16_t max_args) {
    if (!is_routine_name(name))
        return "routine name " + name + " is not a routine or CLASS::METHOD name";
    if (min_args > max_args)
        return format("%s has minimum %u above maximum %u", name.c_str(), min_args, max_args);
    zok_name* n = find_name(name);
    if (n && n->routine)
        return name + " clashes with a routine of that name";
    return {};
}

} // namespace zok::detail

extern "C" {

int32_t host_add_routines(const zok_routine_entry* table, int32_t is_function, int32_t count) {
    State& s = state();
    auto refuse = [&](const std::string& why) {
        raise(ZOK_ERR_ROUTINE_TABLE, ZOK_ACTION_WARN,
              "Routine table refused: " + why + where() + ".");
        return 0;
    };
    if (++s.op_calls[1] == s.op_refuse_at[1])
        return refuse("refused by fault injection");
    if ((is_function != 0 && is_function != 1) || count < 0 || (count > 0 && !table))
        return refuse("bad arguments");
    std::unordered_set<std::string> seen;
    for (int32_t i = 0; i < count; ++i) {
        std::string why = entry_problem(table[i], is_function == 1);
        if (why.empty() && !seen.insert(table[i].name).second)
            why = std::string(table[i].name) + " appears twice in the table";
        if (!why.empty())
            return refuse(why);
    }
    for (int32_t i = 0; i < count; ++i) {
        const zok_routine_entry& e = table[i];
        zok_name* n = intern(e.name);
        if (n->routine)
            continue; // the same routine again
        auto r = std::make_unique<Routine>();
        r->name = n;
        r->is_function = is_function == 1;
        r->min_args = e.min_args;
        r->max_args = e.max_args;
        r->flags = e.flags;
        r->function = is_function ? e.entry.function : nullptr;
        r->procedure = is_function ? nullptr : e.entry.procedure;
        add_routine(std::move(r));
    }
    return 1;
}

const zok_name* host_lookup_name(const char* name, int32_t reserved0, int32_t kind, int32_t action,
                                 int32_t reserved1) {
    if (reserved0 != 0 || reserved1 != 0 || (kind != 0 && kind != 1) || !name) {
        raise(ZOK_ERR_BAD_ARGUMENT, action, "host_lookup_name: bad arguments" + where() + ".");
        return nullptr;
    }
    zok_name* n = find_name(upper(name));
    if (n && (n->routine || n->method_routines > 0 || (kind == 0 && n->structure)))
        return n;
    raise(ZOK_ERR_UNKNOWN_ROUTINE, action,
          "Nothing is registered under the name " + std::string(name) + where() + ".");
    return nullptr;
}

} // extern "C"

namespace {

// host_call_method past its reserved arguments; `slot` is the object's live
// heap slot, or null when `object` is none.
[[gnu::always_inline]] inline zok_var* call_method(State& s, const zok_name* name,
                                                   const zok_heap_record* object, HeapSlot* slot,
                                                   int32_t argc, zok_var** args) {
    if (!name || argc < 0 || (argc > 0 && !args)) [[unlikely]]
        return refuse_method_call(ZOK_ERR_BAD_ARGUMENT, "host_call_method: bad arguments");
    if (!slot) [[unlikely]]
        return refuse_method_call(ZOK_ERR_INVALID_OBJECT,
                                  "host_call_method: the object is not a live heap variable");
    const zok_var& var = slot->rec.var;
    StructInfo* cls = var.type == ZOK_T_STRUCT && !(var.flags & ZOK_VF_ARRAY)
                          ? struct_info(var.value.st.def)
                          : nullptr;
    if (!cls) [[unlikely]]
        return refuse_not_object(object->id);
    // CLASS::METHOD starts the search at CLASS, which must be in the object's chain.
    StructInfo* from = cls;
    const zok_name* method = name;
    if (name->qualifier) {
        from = name->qualifier->structure;
        method = name->bare;
    }
    Routine* r = from && cls->derives_from(from) ? resolve_method(from, method) : nullptr;
    if (!r) [[unlikely]]
        return refuse_unknown_method(*cls, *method);
    MethodArgs argv(object->id, argc, args);
    FrameGuard guard(s, r);
    zok_var* result = run_in_frame(s, *r, argv.count(), argv.data(), nullptr, 1);
    guard.done();
    return result;
}

} // namespace

extern "C" {

zok_var* host_call_method(int32_t mode, const zok_name* name, const zok_heap_record* object,
                          int32_t reserved0, int32_t argc, zok_var** args, int32_t reserved1,
                          int32_t reserved2, int32_t reserved3) {
    if (mode != 2 || reserved0 != 0 || reserved1 != 0 || reserved2 != 0 || reserved3 != 0)
        [[unlikely]]
        return refuse_method_call(ZOK_ERR_BAD_ARGUMENT, "host_call_method: bad arguments");
    State& s = state();
    HeapSlot* slot = object ? s.heap.find(object->id) : nullptr;
    return call_method(s, name, object, slot && &slot->rec == object ? slot : nullptr, argc, args);
}

zok_var* host_call_method_id(const zok_name* name, uint32_t id, int32_t argc, zok_var** args) {
    State& s = state();
    HeapSlot* slot = s.heap.find(id);
    // Exactly as host_object_heap_var, then host_call_method: the same errors.
    if (!slot) [[unlikely]]
        return host_call_method(2, name, host_object_heap_var(id, ZOK_ACTION_ERROR), 0, argc, args,
                                0, 0, 0);
    return call_method(s, name, &slot->rec, slot, argc, args);
}

zok_var* host_call_routine(const zok_call_block* call) {
    if (!call || call->pad[0] != 0 || call->pad[1] != 0 || call->pad[2] != 0 || !call->routine ||
        call->object || call->keywords || call->argc < 0 || (call->argc > 0 && !call->args) ||
        (call->args && call->args[call->argc] != nullptr)) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "host_call_routine: bad call block" + where() + ".");
        return nullptr;
    }
    const Routine* r = call->routine->routine;
    bool want_function = call->is_function != 0;
    if (!r || r->is_function != want_function) {
        raise(ZOK_ERR_UNKNOWN_ROUTINE, ZOK_ACTION_ERROR,
              std::string("Attempt to call undefined ") +
                  (want_function ? "function: " : "procedure: ") + call->routine->text + where() +
                  ".");
        return nullptr;
    }
    RoutineArgs argv(call->argc, call->args);
    return invoke(*r, call->argc, argv.data(), nullptr);
}

int32_t host_object_isa(const zok_struct_def* def, const char* class_name, int32_t reserved0,
                        int32_t reserved1, int32_t action) {
    const StructInfo* info = struct_info(def);
    if (!info || !class_name || reserved0 != 0 || reserved1 != 0) {
        raise(ZOK_ERR_BAD_ARGUMENT, action,
              "host_object_isa: not a structure definition of this host" + where() + ".");
        return 0;
    }
    // Up the parent links, comparing names in place: no copy, no look-up.
    for (const StructInfo* c = info; c; c = c->parent)
        if (names_class(c->name, class_name))
            return 1;
    return 0;
}

zok_var* host_find_class(const char* class_name) {
    StructInfo* info = class_name ? find_struct(class_name) : nullptr;
    if (!info)
        return nullptr;
    zok_var* t = new_temp();
    if (t) {
        // A class handle: a structure value with a definition and no instance.
        t->type = ZOK_T_STRUCT;
        t->flags |= ZOK_VF_STRUCT;
        t->value.st = {nullptr, &info->def};
    }
    return t;
}

zok_var* host_object_new(int32_t argc, zok_var** args, zok_keywords* kw) {
    const zok_var* handle = argc >= 1 && args ? args[0] : nullptr;
    StructInfo* cls = handle && handle->type == ZOK_T_STRUCT && !(handle->flags & ZOK_VF_ARRAY) &&
                              !handle->value.st.data
                          ? struct_info(handle->value.st.def)
                          : nullptr;
    if (!cls) {
        raise(ZOK_ERR_UNKNOWN_CLASS, ZOK_ACTION_ERROR,
              "host_object_new: argument 0 is not a class handle" + where() + ".");
        return nullptr;
    }
    // The result exists before the object: a result that cannot be made must
    // not leave an object that nobody can reach.
    zok_var* out = new_temp();
    if (!out)
        return nullptr;
    out->type = ZOK_T_OBJECT;
    out->value.heap_id = create_object(cls, argc - 1, args + 1, kw);
    return out;
}

void host_object_destroy(int32_t argc, zok_var** args, zok_keywords* kw) {
    if (argc < 1 || !args) {
        raise(ZOK_ERR_ARG_COUNT, ZOK_ACTION_ERROR,
              "host_object_destroy: no object given" + where() + ".");
        return;
    }
    for (int32_t i = 0; i < argc; ++i) {
        const zok_var* v = args[i];
        if (!v || v->type != ZOK_T_OBJECT) {
            host_require_object(v, ZOK_ACTION_ERROR);
            return;
        }
        if (v->flags & ZOK_VF_ARRAY) {
            std::vector<uint32_t> ids(static_cast<const uint32_t*>(v->value.array->data),
                                      static_cast<const uint32_t*>(v->value.array->data) +
                                          v->value.array->count);
            for (uint32_t id : ids)
                destroy_object(id, kw);
        } else {
            destroy_object(v->value.heap_id, kw);
        }
    }
}

} // extern "C"
