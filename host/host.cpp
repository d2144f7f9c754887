// zok::Host: the program API over the host state, module loading and session
// reset.
//
// Each API call that runs code is one statement of the host program: values go
// in as temporaries, named variables by reference, and when the statement ends
// the host releases the argument temporaries and whatever the call left
// behind (counted in leftover_temps()).  Invariant: outside a statement no
// temporary made by a statement is live.
#include "state.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zok::detail {

State* g_state = nullptr;

void no_host() {
    throw Error(ZOK_ERR_BAD_ARGUMENT, "No host is running: create a zok::Host first.", {});
}

namespace {

// One statement: its argument temporaries, keywords and what it leaves behind.
// What a statement that ran to its end left behind is counted; one that an
// error ends is cleaned up the same way, uncounted.
class Statement {
public:
    explicit Statement(State& s) : s_(s), first_(s.temp_seq) {
        if (s.api_depth++ == 0)
            s.leftover_temps = 0;
    }
    ~Statement() {
        for (auto [var, seq] : temps_)
            if (s_.temps.is_live(var) && reinterpret_cast<TempSlot*>(var)->seq == seq)
                release_temps_one(var);
        size_t left = release_temps_since(first_);
        if (ended_)
            s_.leftover_temps += left;
        --s_.api_depth;
    }
    // The statement's call returned.
    void ended() { ended_ = true; }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    zok_var* arg(const Arg& a) {
        if (a.is_ref()) {
            std::string name = upper(a.ref());
            return &s_.vars[name];
        }
        zok_var* t = new_temp();
        if (!t)
            api_error(ZOK_ERR_NO_MEMORY, "Unable to allocate an argument temporary.");
        temps_.push_back({t, reinterpret_cast<TempSlot*>(t)->seq});
        to_var(a.value(), *t);
        return t;
    }
    // The argument vector of a call: `self` first when given, then the
    // arguments, then the closing null.
    zok_var** args(const Args& args, zok_var* self = nullptr) {
        if (self)
            argv_.push_back(self);
        for (const Arg& a : args)
            argv_.push_back(arg(a));
        argv_.push_back(nullptr);
        return argv_.data();
    }
    // The keyword block: names already in upper case are used in place, the
    // others through upper-case copies kept until the statement ends.
    zok_keywords* keywords(const Keywords& kw) {
        for (const Keyword& k : kw) {
            std::string_view name = k.name;
            if (!is_upper(name)) {
                if (upper_names_.empty())
                    upper_names_.reserve(kw.size()); // no reallocation: the views stay valid
                name = upper_names_.emplace_back(upper(name));
            }
            kw_.entries.push_back({name, arg(k.arg)});
        }
        return &kw_;
    }
    // Reads a result and lets it go.
    Value result(zok_var* v) {
        if (!v) {
            ended();
            return Value();
        }
        Value out = from_var(*v);
        if ((v->flags & ZOK_VF_TEMPORARY) && s_.temps.is_live(v))
            release_temp(v);
        ended();
        return out;
    }

private:
    void release_temps_one(zok_var* v) {
        try {
            release_temp(v);
        } catch (const Error&) {
            // Recorded; the statement ends regardless.
        }
    }

    State& s_;
    uint64_t first_;
    bool ended_ = false;
    SmallVector<std::pair<zok_var*, uint64_t>, 8> temps_;
    SmallVector<zok_var*, 8> argv_;
    zok_keywords kw_;
    std::vector<std::string> upper_names_;
};

Routine* routine_named(std::string_view name) {
    zok_name* n = find_name(upper(name));
    return n ? n->routine : nullptr;
}

HeapSlot* object_slot(ObjectRef obj) {
    HeapSlot* slot = heap_slot(obj.id);
    if (!slot || slot->rec.var.type != ZOK_T_STRUCT || (slot->rec.var.flags & ZOK_VF_ARRAY))
        api_error(ZOK_ERR_INVALID_OBJECT,
                  format("Invalid object reference: no live object has identifier %u.", obj.id));
    return slot;
}

StructInfo& class_of_slot(HeapSlot* slot) {
    StructInfo* info = struct_info(slot->rec.var.value.st.def);
    if (!info)
        api_error(ZOK_ERR_INVALID_OBJECT, "Object of an unknown class.");
    return *info;
}

const StructInfo::Tag& tag_of(StructInfo& cls, std::string_view tag) {
    const StructInfo::Tag* t = cls.find_tag(tag);
    if (!t)
        api_error(ZOK_ERR_STRUCT,
                  "Tag name " + std::string(tag) + " is undefined for structure " + cls.name + ".");
    return *t;
}

} // namespace

} // namespace zok::detail

namespace zok {

using namespace detail;

Host::State::State(Host* h) : host(h) {
    auto stats = std::make_unique<LabelStats>(LabelStats{kPlainLabel, {}, 0});
    plain_stats = stats.get();
    labels[kPlainLabel] = std::move(stats);
}

Host::State::~State() = default;

Host::Host() {
    if (g_state)
        throw Error(ZOK_ERR_BAD_ARGUMENT, "A host is already running in this process.", {});
    state_ = std::make_unique<State>(this);
    g_state = state_.get();
}

Host::~Host() {
    State& s = *state_;
    s.errors_return = true; // teardown reports, it never throws
    try {
        release_held_keywords(s.base_frame);
        for (auto& [name, var] : s.vars)
            free_value(var);
        s.vars.clear();
        release_temps_since(0);
        free_whole_heap(s);
    } catch (...) {
        // Whatever could not be freed cleanly is freed wholesale below.
    }
    free_all_memory(s);
    unbind_names(s);
    for (LoadedModule& m : s.modules)
        if (m.handle)
            dlclose(m.handle);
    g_state = nullptr;
}

Host& Host::current() {
    return *state().host;
}

// ---- Modules

namespace {

void run_load(State& s, LoadedModule m) {
    int32_t ok = 0;
    {
        Statement st(s);
        ok = m.load();
        st.ended();
    }
    if (!ok) {
        m.reset = nullptr; // a module that failed to load is not reset
        s.modules.push_back(m);
        api_error(ZOK_ERR_BAD_ARGUMENT, "Module " +
                                            (m.path.empty() ? std::string("(linked)") : m.path) +
                                            " failed to load: ZOK_Load returned 0.");
    }
    s.modules.push_back(m);
}

} // namespace

void Host::load_module(const std::string& path) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle)
        api_error(ZOK_ERR_BAD_ARGUMENT, "Cannot load module " + path + ": " + dlerror());
    auto load = reinterpret_cast<int32_t (*)()>(dlsym(handle, "ZOK_Load"));
    if (!load) {
        dlclose(handle);
        api_error(ZOK_ERR_BAD_ARGUMENT, "Module " + path + " has no entry point ZOK_Load.");
    }
    auto reset = reinterpret_cast<void (*)()>(dlsym(handle, "ZOK_ResetSession"));
    run_load(*state_, LoadedModule{handle, load, reset, path});
}

void Host::load_module(int32_t (*load)(), void (*reset)()) {
    if (!load)
        api_error(ZOK_ERR_BAD_ARGUMENT, "load_module: no ZOK_Load given.");
    run_load(*state_, LoadedModule{nullptr, load, reset, {}});
}

void Host::reset_session() {
    State& s = *state_;
    for (const LoadedModule& m : s.modules)
        if (m.reset) {
            Statement st(s);
            m.reset();
            st.ended();
        }
    free_whole_heap(s);
}

// ---- Calls

Value Host::call_function(std::string_view name, const Args& args, const Keywords& kw) {
    detail::Routine* r = routine_named(name);
    if (!r || !r->is_function)
        api_error(ZOK_ERR_UNKNOWN_ROUTINE,
                  "Attempt to call undefined function: " + upper(name) + ".");
    Statement st(*state_);
    zok_var** argv = st.args(args);
    zok_keywords* k = st.keywords(kw);
    return st.result(invoke(*r, static_cast<int32_t>(args.size()), argv, k));
}

void Host::call_procedure(std::string_view name, const Args& args, const Keywords& kw) {
    detail::Routine* r = routine_named(name);
    if (!r || r->is_function)
        api_error(ZOK_ERR_UNKNOWN_ROUTINE,
                  "Attempt to call undefined procedure: " + upper(name) + ".");
    Statement st(*state_);
    zok_var** argv = st.args(args);
    zok_keywords* k = st.keywords(kw);
    invoke(*r, static_cast<int32_t>(args.size()), argv, k);
    st.ended();
}

namespace detail {
namespace {

// The routine a method call of `name` (interned from `text`, or null when
// never interned) on an object of `cls` runs, or the unknown-method error.
// CLASS::METHOD starts the search at CLASS, which must be in the object's chain.
detail::Routine& method_routine(StructInfo& cls, const zok_name* name, std::string_view text) {
    StructInfo* from = &cls;
    if (name && name->qualifier) {
        from = name->qualifier->structure;
        name = name->bare;
    }
    detail::Routine* r =
        name && from && cls.derives_from(from) ? resolve_method(from, name) : nullptr;
    if (!r) {
        const size_t colons = text.find("::");
        api_error(
            ZOK_ERR_UNKNOWN_METHOD,
            "Attempt to call undefined method: " + cls.name + "::" +
                std::string(colons == std::string_view::npos ? text : text.substr(colons + 2)) +
                ".");
    }
    return *r;
}

Value run_method(State& s, ObjectRef self, const detail::Routine& r, const Args& args,
                 const Keywords& kw) {
    Statement st(s);
    zok_var self_var{};
    self_var.type = ZOK_T_OBJECT;
    self_var.value.heap_id = self.id;
    zok_var** argv = st.args(args, &self_var);
    zok_keywords* k = st.keywords(kw);
    return st.result(invoke(r, static_cast<int32_t>(args.size() + 1), argv, k));
}

} // namespace
} // namespace detail

Value Host::call_method(ObjectRef self, std::string_view method, const Args& args,
                        const Keywords& kw) {
    StructInfo& cls = class_of_slot(object_slot(self));
    // A name nobody interned names no method; one already in upper case needs no copy.
    const std::string upper_text = is_upper(method) ? std::string() : upper(method);
    const std::string_view text = upper_text.empty() ? method : upper_text;
    return run_method(*state_, self, method_routine(cls, find_name(text), text), args, kw);
}

Method Host::method(std::string_view name) {
    return Method(intern(upper(name)));
}

Value Host::call_method(ObjectRef self, Method method, const Args& args) {
    if (!method)
        api_error(ZOK_ERR_BAD_ARGUMENT, "call_method: the method handle is empty.");
    StructInfo& cls = class_of_slot(object_slot(self));
    static const Keywords none;
    return run_method(*state_, self, method_routine(cls, method.name_, method.name_->text), args,
                      none);
}

ObjectRef Host::new_object(std::string_view class_name, const Args& args, const Keywords& kw) {
    StructInfo* cls = detail::find_struct(class_name);
    if (!cls)
        api_error(ZOK_ERR_UNKNOWN_CLASS, "Class " + upper(class_name) + " is not defined.");
    Statement st(*state_);
    zok_var** argv = st.args(args);
    zok_keywords* k = st.keywords(kw);
    const ObjectRef made{create_object(cls, static_cast<int32_t>(args.size()), argv, k)};
    st.ended();
    return made;
}

void Host::destroy(ObjectRef obj) {
    Statement st(*state_);
    destroy_object(obj.id, nullptr);
    st.ended();
}

bool Host::isa(ObjectRef obj, std::string_view class_name) {
    HeapSlot* slot = object_slot(obj);
    return host_object_isa(slot->rec.var.value.st.def, std::string(class_name).c_str(), 0, 0,
                           ZOK_ACTION_ERROR) != 0;
}

std::string Host::class_of(ObjectRef obj) const {
    HeapSlot* slot = heap_slot(obj.id);
    if (!slot || slot->rec.var.type != ZOK_T_STRUCT || (slot->rec.var.flags & ZOK_VF_ARRAY))
        return {};
    StructInfo* info = struct_info(slot->rec.var.value.st.def);
    return info ? info->name : std::string();
}

// ---- Program routines

namespace {

void add_program_routine(std::string name, uint16_t min_args, uint16_t max_args, zok::Routine fn,
                         bool keywords, bool is_function) {
    name = upper(name);
    std::string why = program_routine_problem(name, min_args, max_args);
    if (!why.empty() || !fn)
        api_error(ZOK_ERR_ROUTINE_TABLE,
                  "Routine refused: " + (why.empty() ? name + " has no callable" : why) + ".");
    auto r = std::make_unique<detail::Routine>();
    r->name = intern(name);
    r->is_function = is_function;
    r->min_args = min_args;
    r->max_args = max_args;
    r->flags = keywords ? ZOK_RT_KEYWORDS : 0;
    r->program = std::move(fn);
    add_routine(std::move(r));
}

} // namespace

void Host::add_function(std::string name, uint16_t min_args, uint16_t max_args, zok::Routine fn,
                        bool keywords) {
    add_program_routine(std::move(name), min_args, max_args, std::move(fn), keywords, true);
}

void Host::add_procedure(std::string name, uint16_t min_args, uint16_t max_args, zok::Routine fn,
                         bool keywords) {
    add_program_routine(std::move(name), min_args, max_args, std::move(fn), keywords, false);
}

bool Host::has_routine(std::string_view name) const {
    return routine_named(name) != nullptr;
}

std::vector<RoutineInfo> Host::routines() const {
    std::vector<RoutineInfo> out;
    for (const auto& r : state_->routines)
        out.push_back({r->name->text, r->is_function, r->min_args, r->max_args,
                       (r->flags & ZOK_RT_KEYWORDS) != 0});
    std::sort(out.begin(), out.end(),
              [](const RoutineInfo& a, const RoutineInfo& b) { return a.name < b.name; });
    return out;
}

// ---- Structures

zok_struct_def* Host::define_struct(const std::string& name, const std::vector<TagSpec>& tags,
                                    std::string_view parent) {
    std::string parent_name(parent);
    std::vector<zok_tag_entry> table;
    if (!parent_name.empty())
        table.push_back(zok_tag_entry{parent_name.c_str(), nullptr, 0, ZOK_TAG_INHERIT, {}});
    for (const TagSpec& t : tags)
        table.push_back(zok_tag_entry{t.name.c_str(), nullptr, t.type, 0, {}});
    table.push_back(zok_tag_entry{});
    size_t before = state_->messages.size();
    StructInfo* info = detail::define_struct(name.c_str(), table.data());
    if (!info) {
        std::string why = state_->messages.size() > before ? state_->messages.back().text
                                                           : "Structure " + name + " refused.";
        throw Error(ZOK_ERR_STRUCT, why, {});
    }
    return &info->def;
}

zok_struct_def* Host::find_struct(std::string_view name) const {
    StructInfo* info = detail::find_struct(name);
    return info ? &info->def : nullptr;
}

std::vector<std::string> Host::tags_of(std::string_view name) const {
    StructInfo* info = detail::find_struct(name);
    std::vector<std::string> out;
    if (info)
        for (const StructInfo::Tag& t : info->tags)
            out.push_back(t.name);
    return out;
}

std::vector<TagSpec> Host::tag_specs(std::string_view name) const {
    StructInfo* info = detail::find_struct(name);
    std::vector<TagSpec> out;
    if (info)
        for (const StructInfo::Tag& t : info->tags)
            out.push_back({t.name, t.type});
    return out;
}

std::vector<std::string> Host::struct_names() const {
    std::vector<std::string> out;
    for (const auto& [name, info] : state_->structs)
        out.push_back(name);
    return out;
}

std::string Host::parent_of(std::string_view name) const {
    StructInfo* info = detail::find_struct(name);
    return info && info->parent ? info->parent->name : std::string();
}

// ---- Object tags

Value Host::get_tag(ObjectRef obj, std::string_view tag) const {
    HeapSlot* slot = object_slot(obj);
    StructInfo& cls = class_of_slot(slot);
    const StructInfo::Tag& t = tag_of(cls, tag);
    return read_element(t.type, static_cast<char*>(slot->rec.var.value.st.data) + t.offset,
                        nullptr);
}

void Host::set_tag(ObjectRef obj, std::string_view tag, const Value& v) {
    HeapSlot* slot = object_slot(obj);
    StructInfo& cls = class_of_slot(slot);
    const StructInfo::Tag& t = tag_of(cls, tag);
    char* at = static_cast<char*>(slot->rec.var.value.st.data) + t.offset;
    std::vector<char> fresh(elem_size(t.type));
    write_element(t.type, v, fresh.data());
    if (t.type == ZOK_T_STRING)
        host_string_release(reinterpret_cast<zok_string*>(at), 1);
    std::memcpy(at, fresh.data(), fresh.size());
}

// ---- Program variables

void Host::set_var(const std::string& name, const Value& v) {
    zok_var fresh{};
    to_var(v, fresh);
    zok_var& var = state_->vars[upper(name)];
    free_value(var);
    var = fresh;
}

Value Host::get_var(std::string_view name) const {
    auto it = state_->vars.find(upper(name));
    if (it == state_->vars.end())
        api_error(ZOK_ERR_BAD_ARGUMENT, "Variable " + upper(name) + " is not defined.");
    return from_var(it->second);
}

bool Host::has_var(std::string_view name) const {
    return state_->vars.count(upper(name)) != 0;
}

void Host::erase_var(std::string_view name) {
    auto it = state_->vars.find(upper(name));
    if (it == state_->vars.end())
        return;
    free_value(it->second);
    state_->vars.erase(it);
}

zok_var* Host::raw_var(std::string_view name) {
    auto it = state_->vars.find(upper(name));
    return it == state_->vars.end() ? nullptr : &it->second;
}

// ---- Values and host variables

zok_var* Host::make_temp(const Value& v) {
    zok_var* t = new_temp();
    if (!t)
        api_error(ZOK_ERR_NO_MEMORY, "Unable to allocate a temporary.");
    try {
        to_var(v, *t);
    } catch (...) {
        release_temp(t);
        throw;
    }
    return t;
}

Value Host::read(const zok_var& var) const {
    return from_var(var);
}

// ---- Heap inspection

std::vector<uint32_t> Host::heap_ids(int32_t kind) const {
    std::vector<uint32_t> out;
    state_->heap.for_each([&](HeapSlot* slot) {
        if (kind == 0 || slot->kind == kind)
            out.push_back(slot->rec.id);
    });
    return out;
}

size_t Host::heap_count() const {
    return state_->heap.count();
}

bool Host::heap_alive(uint32_t id) const {
    return heap_slot(id) != nullptr;
}

uint32_t Host::heap_flags(uint32_t id) const {
    HeapSlot* slot = heap_slot(id);
    if (!slot)
        api_error(ZOK_ERR_INVALID_POINTER, format("No live heap variable has identifier %u.", id));
    return slot->rec.flags;
}

int32_t Host::heap_kind(uint32_t id) const {
    HeapSlot* slot = heap_slot(id);
    return slot ? slot->kind : 0;
}

Value Host::heap_value(uint32_t id) const {
    HeapSlot* slot = heap_slot(id);
    if (!slot)
        api_error(ZOK_ERR_INVALID_POINTER, format("No live heap variable has identifier %u.", id));
    return from_var(slot->rec.var);
}

void Host::set_next_heap_id(uint32_t next) {
    state_->heap.set_next_id(next);
}

uint32_t Host::next_heap_id() const {
    return static_cast<uint32_t>(state_->heap.next_id());
}

size_t Host::collect() {
    return collect_garbage(*state_);
}

void Host::check_heap() const {
    state_->heap.check();
}

// ---- Temporaries, texts, memory

size_t Host::live_temps() const {
    return state_->temps.live();
}

size_t Host::leftover_temps() const {
    return state_->leftover_temps;
}

size_t Host::live_texts() const {
    return live_text_count(*state_);
}

MemStats Host::memory(std::string_view label) const {
    auto it = state_->labels.find(std::string(label));
    return it == state_->labels.end() ? MemStats{} : it->second->live;
}

std::map<std::string, MemStats> Host::memory_by_label() const {
    std::map<std::string, MemStats> out;
    for (const auto& [label, stats] : state_->labels)
        if (stats->live.blocks != 0)
            out[label] = stats->live;
    return out;
}

MemStats Host::memory_total() const {
    MemStats total;
    for (const auto& [label, stats] : state_->labels) {
        total.blocks += stats->live.blocks;
        total.bytes += stats->live.bytes;
    }
    return total;
}

size_t Host::frees(std::string_view label) const {
    auto it = state_->labels.find(std::string(label));
    return it == state_->labels.end() ? 0 : it->second->frees;
}

uint64_t Host::allocations() const {
    return state_->allocation_count;
}

// ---- Fault injection

void Host::fail_allocation(uint64_t nth) {
    state_->fail_at = nth == 0 ? 0 : state_->allocation_count + nth;
}

void Host::fail_label(std::string label) {
    state_->fail_labels.insert(std::move(label));
}

void Host::refuse(Operation op, uint32_t nth) {
    auto i = static_cast<size_t>(op);
    state_->op_refuse_at[i] = nth == 0 ? 0 : state_->op_calls[i] + nth;
}

void Host::clear_faults() {
    state_->fail_at = 0;
    state_->fail_labels.clear();
    state_->op_refuse_at = {};
}

// ---- Messages

const std::vector<Message>& Host::messages() const {
    return state_->messages;
}

void Host::clear_messages() {
    state_->messages.clear();
}

std::map<std::string, std::vector<MessageDef>> Host::message_blocks() const {
    std::map<std::string, std::vector<MessageDef>> out;
    for (const auto& [name, block] : state_->blocks) {
        std::vector<MessageDef>& defs = out[name];
        for (const zok_message_def& m : block->messages)
            defs.push_back({m.name, m.text});
    }
    return out;
}

void Host::set_errors_return(bool on) {
    state_->errors_return = on;
}

// ---- Call

Value Call::arg(int32_t i) const {
    return from_var(*var(i));
}

// Every reading but the inline one: the other integer types, then every other
// type with its reading or its error.
int64_t Call::other_integer(int32_t i) const {
    const zok_var& v = *var(i);
    if (!(v.flags & ZOK_VF_ARRAY)) {
        switch (v.type) {
        case ZOK_T_BYTE:
            return v.value.byte_val;
        case ZOK_T_SHORT:
            return v.value.short_val;
        case ZOK_T_USHORT:
            return v.value.ushort_val;
        case ZOK_T_LONG:
            return v.value.long_val;
        case ZOK_T_ULONG:
            return v.value.ulong_val;
        case ZOK_T_LONG64:
            return v.value.long64_val;
        default:
            break;
        }
    }
    return arg(i).as_int();
}

void Call::no_argument(int32_t i) const {
    throw Error(ZOK_ERR_ARG_COUNT, format("Argument %d asked of a call with %d.", i, argc_),
                running_routine());
}

void Call::set(int32_t i, const Value& v) const {
    zok_var* target = var(i);
    zok_var fresh{};
    to_var(v, fresh);
    free_value(*target);
    target->type = fresh.type;
    target->flags |= fresh.flags;
    target->value = fresh.value;
}

ObjectRef Call::self() const {
    zok_var* v = var(0);
    if (v->type != ZOK_T_OBJECT || (v->flags & ZOK_VF_ARRAY))
        throw Error(ZOK_ERR_NOT_OBJECT, "Argument 0 is not an object reference.",
                    running_routine());
    return ObjectRef{v->value.heap_id};
}

zok_var* Call::keyword_var(std::string_view name) const {
    if (!kw_)
        return nullptr;
    const std::string wanted = upper(name);
    for (const auto& [k, v] : kw_->entries)
        if (k == wanted)
            return v;
    return nullptr;
}

std::optional<Value> Call::keyword(std::string_view name) const {
    zok_var* v = keyword_var(name);
    if (!v)
        return std::nullopt;
    return from_var(*v);
}

} // namespace zok
