// The module's thin layer over the host interface: the message block, self
// resolution, RAII guards for what the host lends (temporaries, keyword
// results), and the INIT-with-keywords step that every framework class
// shares.  Errors raised with ZOK_ACTION_ERROR unwind as exceptions through
// module code, so everything borrowed from the host is held by a guard.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

#include <zok/zok.h>

namespace flux {

// Codes of the module's own message block.
enum ModuleMessage : int32_t {
    MSG_DSMAP_HEAPDEREFERR = 0, // "ZOKdsMap heap dereference error"
    MSG_FWMSG_IDCORRUPT = -1,   // "FWIdent corruption"
};

// The handle of the module's message block; null until the module has loaded.
const zok_message_block* message_block();
void set_message_block(const zok_message_block* block);

// Raises one of the module's own messages with the error action.
void raise_module_message(ModuleMessage code);

// Anchor tags: every framework object is reached from its root class's first
// tag; the map class has an anchor of its own.
inline constexpr const char* FRAMEWORK_ANCHOR = "ZOKFWSAVEABLE_TOP";
inline constexpr const char* DSMAP_ANCHOR = "ZOKDSMAP_VERSION";

// What every method builds first: where the object's fields start, and the
// object's heap identifier.  Valid for one call only.
struct Self {
    void* data;
    uint32_t heap_id;

    // The object's fields as laid out from the anchor tag (a layout struct).
    template <class Layout>
    Layout& fields() const {
        return *static_cast<Layout*>(data);
    }
};

// The host's order of texts (bytes, then length) where a search compares many:
// the same sign as host_string_compare, without a call per comparison.
inline int text_order(const zok_string& a, const zok_string& b) {
    const uint32_t n = a.length < b.length ? a.length : b.length;
    const int c = n != 0 ? std::memcmp(a.text, b.text, n) : 0;
    return c != 0 ? c : (a.length > b.length) - (a.length < b.length);
}

// ---- Arguments.  A routine that takes one value (a text, an identifier, an
// object) refuses a value of the wrong type code with the host's type error,
// and an array, file or structure of the right type code with the host's
// non-scalar error, before it allocates or changes anything.
inline void require_scalar(const zok_var* v) {
    if ((v->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_require_simple(v, ZOK_ACTION_ERROR);
}

// The argument's text.
inline const zok_string* string_argument(const zok_var* v) {
    if (v->type != ZOK_T_STRING)
        host_require_string(v, ZOK_ACTION_ERROR);
    require_scalar(v);
    return &v->value.str;
}

// The heap identifier of a heap pointer argument.
inline uint32_t pointer_argument(const zok_var* v) {
    if (v->type != ZOK_T_POINTER)
        host_require_pointer(v, ZOK_ACTION_ERROR);
    require_scalar(v);
    return v->value.heap_id;
}

// The heap identifier of an object reference argument (not resolved).
inline uint32_t object_argument(const zok_var* v) {
    if (v->type != ZOK_T_OBJECT)
        host_require_object(v, ZOK_ACTION_ERROR);
    require_scalar(v);
    return v->value.heap_id;
}

// Resolves an object reference argument; the host raises its error when the
// argument is not a live object.
Self resolve_object(const zok_var* object, const char* anchor);

inline Self framework_self(zok_var** argv) {
    return resolve_object(argv[0], FRAMEWORK_ANCHOR);
}

// A framework class as its methods check it: the structure, its name, and the
// mixed-case name that messages show.
struct ClassRef {
    zok_struct_def* (*definition)();
    const char* name;
    const char* display_name;
};

// Whether a live object heap variable holds an object of `cls` or of a class
// derived from it.
bool is_instance_of(const zok_heap_record* rec, const ClassRef& cls);

// Resolves a framework object that must be of `cls` (or derive from it): the
// host raises its error when `id` is no live object, and an object of another
// class is refused with host message -572, `role` and the class's name.
Self resolve_instance(uint32_t id, const ClassRef& cls, const char* role);

// Forgets where framework objects keep their anchor (learnt again after a load).
void anchor_forget();

// The fields of a live object of `cls` (or of a class derived from it), or
// null; raises nothing, for code that must tolerate a dead or foreign object.
void* live_instance(uint32_t id, const ClassRef& cls);

// A method's self, of the method's class: a program that calls a method by its
// full name may hand any object as self, which is refused (-572) rather than
// read as if it were of the class, deliberately.
inline Self class_self(zok_var** argv, const ClassRef& cls) {
    return resolve_instance(object_argument(argv[0]), cls, "0");
}

// Releases a temporary at scope exit unless it has been handed on (release()
// or the host cleared its temporary mark).
class TempGuard {
public:
    explicit TempGuard(zok_var* var) : var_(var) {}
    TempGuard(const TempGuard&) = delete;
    TempGuard& operator=(const TempGuard&) = delete;
    ~TempGuard() {
        if (var_ != nullptr && (var_->flags & ZOK_VF_TEMPORARY) != 0)
            host_release_temp(var_);
    }
    zok_var* get() const { return var_; }
    zok_var* operator->() const { return var_; }
    // Hands the temporary to the caller (for example as a function's result).
    zok_var* release() {
        zok_var* v = var_;
        var_ = nullptr;
        return v;
    }

private:
    zok_var* var_;
};

// Runs an undo step at scope exit unless the work it guards was committed;
// used for multi-step acquisitions that an error may interrupt.
template <class Fn>
class Undo {
public:
    explicit Undo(Fn fn) : fn_(std::move(fn)) {}
    Undo(const Undo&) = delete;
    Undo& operator=(const Undo&) = delete;
    ~Undo() {
        if (armed_)
            fn_();
    }
    void commit() { armed_ = false; }

private:
    Fn fn_;
    bool armed_ = true;
};

// Raises the module's out-of-memory complaint for `routine`.
void raise_no_memory(const char* routine);

// Sets the heap flag that keeps a module-held heap variable alive through the
// host's collection.
inline void hold_heap_var(uint32_t heap_id) {
    if (zok_heap_record* rec = host_heap_var(heap_id))
        rec->flags |= ZOK_HEAP_HELD;
}

// The INIT of a class that takes keywords: process the keywords into a
// results record (which opens with the host's 64-bit leading word), resolve
// self (which must be of `cls`), flag its heap variable as module-held, run the
// class's initialisation and return its status as a temporary integer.
template <class Results, class Init>
zok_var* keyword_init(int32_t argc, zok_var** argv, zok_keywords* kw,
                      const zok_keyword_entry* table, const ClassRef& cls, Init&& init) {
    Results results{};
    // Every INIT is registered with at most one positional argument (self),
    // and the host enforces that before the routine runs.
    std::array<zok_var*, 1> plain{};
    host_keywords_process(argc, argv, kw, table, plain.data(), 1, &results);
    struct KeywordsGuard {
        const Results& r;
        ~KeywordsGuard() {
            int64_t leading;
            std::memcpy(&leading, &r, sizeof leading);
            if (leading != 0)
                host_keywords_free();
        }
    } keywords_guard{results};
    const Self self = class_self(plain.data(), cls);
    // The result before any change: failing to make it leaves self as it was,
    // and an INIT that raises has the host free the object without its CLEANUP.
    TempGuard result(host_temp_long(0));
    hold_heap_var(self.heap_id);
    result->value.long_val = init(self, results);
    return result.release();
}

} // namespace flux
