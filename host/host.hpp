// The reference host's program API: a host program's view of the interpreter.
//
// One zok::Host lives at a time; while it lives it is the host the C operations
// of zok.h act on.  Programs hand values in as zok::Value (a plain C++ value,
// independent of the host) or name a program variable with zok::Ref; results
// come back as zok::Value.  Every failure raised with the error action leaves an
// API call as a zok::Error, after the host has released what the failed call
// left behind.
#pragma once

#include <zok/zok.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace zok {

// A message raised with the error action, as the program sees it.
class Error : public std::exception {
public:
    Error(int32_t code, std::string text, std::string routine, std::string block = {});
    ~Error() override;
    const char* what() const noexcept override;

    int32_t code() const { return code_; }
    const std::string& text() const { return text_; }
    // The registered routine that was running when the message was raised
    // (empty when none was).
    const std::string& routine() const { return routine_; }
    // The message block the message came from (empty for the host's own).
    const std::string& block() const { return block_; }

private:
    int32_t code_;
    std::string text_;
    std::string routine_;
    std::string block_;
    std::string what_;
};

// One message as recorded by the host, whatever its action.
struct Message {
    int32_t code = 0;
    std::string text;
    int32_t action = 0;
    std::string routine;
    std::string block; // empty for the host's own messages
};

// One message of a module's message block: its name and text.
struct MessageDef {
    std::string name;
    std::string text;
};

// Heap references, kept apart from integers so that they cannot be confused.
struct ObjectRef {
    uint32_t id = 0;
    explicit operator bool() const { return id != 0; }
    friend bool operator==(ObjectRef, ObjectRef) = default;
};
struct PointerRef {
    uint32_t id = 0;
    explicit operator bool() const { return id != 0; }
    friend bool operator==(PointerRef, PointerRef) = default;
};

class Value;

// A structure value: its structure's name and every tag (inherited ones
// first) with its value.
struct StructValue {
    std::string name;
    std::vector<std::pair<std::string, Value>> fields;
};

// A host value as plain C++ data: undefined, a scalar of any type code, or a
// one-dimensional array of one type code.  Converting to and from host
// variables is the host's business; a Value holds no host resources.
class Value {
public:
    Value() = default;
    template <typename T>
    requires std::is_integral_v<T> &&(!std::is_same_v<T, bool>)Value(T v) {
        constexpr bool is_signed = std::is_signed_v<T>;
        if constexpr (sizeof(T) == 1)
            set_int(is_signed ? ZOK_T_SHORT : ZOK_T_BYTE, static_cast<int64_t>(v));
        else if constexpr (sizeof(T) == 2)
            set_int(is_signed ? ZOK_T_SHORT : ZOK_T_USHORT, static_cast<int64_t>(v));
        else if constexpr (sizeof(T) == 4)
            set_int(is_signed ? ZOK_T_LONG : ZOK_T_ULONG, static_cast<int64_t>(v));
        else if constexpr (is_signed)
            set_int(ZOK_T_LONG64, static_cast<int64_t>(v));
        else
            set_uint64(v);
    }
    Value(float v);
    Value(double v);
    Value(const char* text);
    Value(std::string text);
    Value(std::string_view text);
    Value(ObjectRef ref);
    Value(PointerRef ref);
    Value(StructValue st);
    template <typename T>
    Value(const std::vector<T>& elements) : Value(array_of(elements)) {}

    // An array of `type` from elements that each convert to that type.
    static Value array(uint8_t type, std::vector<Value> elements);
    // A scalar of `type` holding the number (converted as the host converts).
    static Value number(uint8_t type, double v);
    static Value integer(uint8_t type, int64_t v);

    uint8_t type() const { return type_; }
    bool defined() const { return type_ != ZOK_T_UNDEFINED; }
    bool is_array() const { return is_array_; }
    bool is_number() const;

    // Scalar readers; each throws zok::Error (ZOK_ERR_CONVERSION) when the value
    // has no such reading.  Numbers convert between widths with range checks:
    // as<int16_t>() of 70000 is an error, not a wrapped number.
    int64_t as_int() const;
    uint64_t as_uint() const;
    double as_double() const;
    const std::string& as_string() const;
    ObjectRef as_object() const;
    PointerRef as_pointer() const;
    const StructValue& as_struct() const;
    template <typename T>
    T as() const;

    // Array elements (a scalar reads as an array of one).
    std::vector<Value> elements() const;
    size_t size() const {
        if (!is_array_)
            return defined() ? 1 : 0;
        const Elements* e = payload_as<Elements>();
        return e && *e ? (*e)->size() : 0;
    }

    friend bool operator==(const Value& a, const Value& b);
    // A readable rendering for test failure messages.
    std::string to_string() const;

private:
    template <typename T>
    static Value array_of(const std::vector<T>& elements) {
        std::vector<Value> values;
        values.reserve(elements.size());
        for (const T& e : elements)
            values.emplace_back(e);
        return array(values.empty() ? element_type_of<T>() : values.front().type(),
                     std::move(values));
    }
    template <typename T>
    static uint8_t element_type_of() {
        if constexpr (std::is_constructible_v<Value, T>)
            return Value(T{}).type();
        else
            return ZOK_T_UNDEFINED;
    }
    void set_int(uint8_t type, int64_t v);
    void set_uint64(uint64_t v);
    [[noreturn]] void out_of_range() const;

    // Shared, as a Value never changes once made: copying or dropping a Value
    // costs no walk of its elements.
    using Elements = std::shared_ptr<const std::vector<Value>>;
    template <typename T>
    const T* payload_as() const {
        return payload_ ? std::get_if<T>(&*payload_) : nullptr;
    }
    const std::string& text() const { return std::get<std::string>(payload_.value()); }
    const Elements& elements_of() const { return std::get<Elements>(payload_.value()); }

    uint8_t type_ = ZOK_T_UNDEFINED;
    bool is_array_ = false;
    int64_t int_ = 0;
    double double_ = 0;
    // A string's text, a structure's fields or an array's elements; none for a
    // scalar, which is then made and dropped without touching any of them.
    std::optional<std::variant<std::string, std::shared_ptr<const StructValue>, Elements>> payload_;
};

template <typename T>
T Value::as() const {
    if constexpr (std::is_same_v<T, bool>) {
        return as_int() != 0;
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        int64_t v = as_int();
        if constexpr (sizeof(T) < sizeof(int64_t))
            if (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max())
                out_of_range();
        return static_cast<T>(v);
    } else if constexpr (std::is_integral_v<T>) {
        uint64_t v = as_uint();
        if constexpr (sizeof(T) < sizeof(uint64_t))
            if (v > std::numeric_limits<T>::max())
                out_of_range();
        return static_cast<T>(v);
    } else if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(as_double());
    } else if constexpr (std::is_same_v<T, std::string>) {
        return as_string();
    } else if constexpr (std::is_same_v<T, ObjectRef>) {
        return as_object();
    } else {
        static_assert(std::is_same_v<T, PointerRef>, "no such reading of a Value");
        return as_pointer();
    }
}

// A named program variable, passed by reference: the callee may write it.
struct Ref {
    std::string name;
};

// One argument of a call: a value (passed as a temporary the callee may
// consume) or a named program variable (passed by reference, not temporary).
class Arg {
public:
    template <typename T>
    requires std::is_constructible_v<Value, T>
    Arg(T&& v) // NOLINT(bugprone-forwarding-reference-overload): the constraint excludes Arg
        : value_(std::forward<T>(v)) {}
    Arg(Value v) : value_(std::move(v)) {}
    Arg(Ref ref) : ref_(std::move(ref.name)), is_ref_(true) {}

    bool is_ref() const { return is_ref_; }
    const Value& value() const { return value_; }
    const std::string& ref() const { return ref_; }

private:
    Value value_;
    std::string ref_;
    bool is_ref_ = false;
};

// A keyword of a call: its name (any case, any unique prefix) and argument.
struct Keyword {
    std::string name;
    Arg arg;
};

using Args = std::vector<Arg>;
using Keywords = std::vector<Keyword>;

// A method name looked up once (Host::method), for calls that skip the
// upper-casing and the name look-up of a call by text.  Valid for the process.
class Method {
public:
    Method() = default;
    explicit operator bool() const { return name_ != nullptr; }

private:
    friend class Host;
    explicit Method(const zok_name* name) : name_(name) {}
    const zok_name* name_ = nullptr;
};

class Host;

// What a program routine sees of its call.
class Call {
public:
    int32_t argc() const { return argc_; }
    // Argument i as a value (throws for i out of range).
    Value arg(int32_t i) const;
    // Argument i as an integer, read straight from a scalar integer variable:
    // the same reading and errors as arg(i).as_int() without making a Value.
    int64_t integer(int32_t i) const {
        if (i >= 0 && i < argc_) [[likely]] {
            const zok_var& v = *argv_[i];
            if (v.type == ZOK_T_LONG && !(v.flags & ZOK_VF_ARRAY))
                return v.value.long_val;
        }
        return other_integer(i);
    }
    // Argument i as the host variable itself, for routines that write outputs.
    zok_var* var(int32_t i) const {
        if (i < 0 || i >= argc_) [[unlikely]]
            no_argument(i);
        return argv_[i];
    }
    // Stores a copy of `v` into argument i (an output argument).
    void set(int32_t i, const Value& v) const;
    // Argument 0 of a method.
    ObjectRef self() const;
    // The keyword given under `name` (exact upper-case name), if any.
    std::optional<Value> keyword(std::string_view name) const;
    zok_var* keyword_var(std::string_view name) const;
    // The opaque keyword block, for host_keywords_process.
    zok_keywords* keywords() const { return kw_; }
    zok_var** argv() const { return argv_; }
    Host& host() const { return *host_; }

private:
    friend class Host;
    friend struct HostAccess;
    Call(Host* host, int32_t argc, zok_var** argv, zok_keywords* kw)
        : host_(host), argc_(argc), argv_(argv), kw_(kw) {}
    [[noreturn, gnu::cold, gnu::noinline]] void no_argument(int32_t i) const;
    [[gnu::noinline]] int64_t other_integer(int32_t i) const;
    Host* host_;
    int32_t argc_;
    zok_var** argv_;
    zok_keywords* kw_;
};

// A program routine.  A function's result is returned; a procedure returns
// Value() (ignored).
using Routine = std::function<Value(Call&)>;

// One tag of a structure defined by a program.
struct TagSpec {
    std::string name;
    uint8_t type = ZOK_T_LONG;
};

// A registered routine as the program sees it.
struct RoutineInfo {
    std::string name;
    bool is_function = false;
    uint16_t min_args = 0;
    uint16_t max_args = 0;
    bool keywords = false;
};

// Live blocks and bytes under one allocation label.
struct MemStats {
    size_t blocks = 0;
    size_t bytes = 0;
    friend bool operator==(const MemStats&, const MemStats&) = default;
};

// Everything a host program can observe of the host at one moment: every heap
// variable (identifier, kind, heap flags, value), the counts of live texts and
// temporaries, live memory by label, and the program variables.  A call that
// raised an error must leave it as it was.
struct Observation {
    struct HeapVar {
        uint32_t id = 0;
        int32_t kind = 0;
        uint32_t flags = 0;
        Value value;
    };
    std::vector<HeapVar> heap; // in identifier order
    size_t texts = 0;
    size_t temps = 0;
    std::map<std::string, MemStats> memory;
    std::map<std::string, Value> vars;
};

// The first difference between two observations, in words, or "" when there
// is none.  Floating values compare by their bits, so a NaN equals itself.
std::string difference(const Observation& before, const Observation& after);

// Registration operations that fault injection can make refuse.
enum class Operation { DefineMessageBlock, AddRoutines };

// Label under which host_mem_alloc_plain blocks are accounted.
inline constexpr const char* kPlainLabel = "(plain)";

class Host {
public:
    // Becomes the current host; throws when another host is alive.
    Host();
    // Tears everything down: heap, temporaries, texts, memory, registrations.
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // The current host (throws zok::Error when there is none).
    static Host& current();

    // ---- Modules
    // Loads a shared library and runs its ZOK_Load; a missing file, missing entry
    // point or ZOK_Load returning 0 is a zok::Error.
    void load_module(const std::string& path);
    // The same for a module linked into the program; `reset` may be null.
    void load_module(int32_t (*load)(), void (*reset)());
    // Calls every loaded module's ZOK_ResetSession, then frees the heap.
    void reset_session();

    // ---- Calls
    Value call_function(std::string_view name, const Args& args = {}, const Keywords& kw = {});
    void call_procedure(std::string_view name, const Args& args = {}, const Keywords& kw = {});
    // Calls METHOD (or CLASS::METHOD, resolved from CLASS up) on the object; a
    // procedure's result is Value().
    Value call_method(ObjectRef self, std::string_view method, const Args& args = {},
                      const Keywords& kw = {});
    // The handle of METHOD or CLASS::METHOD (any case), whether or not anything
    // is registered under it yet.
    Method method(std::string_view name);
    // The same call by handle: resolved through the name's last resolution and
    // the class's method cache, with the same checks and errors as by text.
    Value call_method(ObjectRef self, Method method, const Args& args = {});
    // Creates an object (INIT runs with args and kw); a null ref when INIT returned 0.
    ObjectRef new_object(std::string_view class_name, const Args& args = {},
                         const Keywords& kw = {});
    // CLEANUP, then free; null or dead: nothing.
    void destroy(ObjectRef obj);
    bool isa(ObjectRef obj, std::string_view class_name);
    std::string class_of(ObjectRef obj) const;

    // ---- Program routines (functions and procedures; methods are CLASS::METHOD)
    void add_function(std::string name, uint16_t min_args, uint16_t max_args, Routine fn,
                      bool keywords = false);
    void add_procedure(std::string name, uint16_t min_args, uint16_t max_args, Routine fn,
                       bool keywords = false);
    bool has_routine(std::string_view name) const;
    // Every registered routine, in byte order of name.
    std::vector<RoutineInfo> routines() const;

    // ---- Structures and classes
    // Same rules as host_make_struct; throws zok::Error when refused.
    zok_struct_def* define_struct(const std::string& name, const std::vector<TagSpec>& tags,
                                  std::string_view parent = {});
    zok_struct_def* find_struct(std::string_view name) const;
    // Tag names of a structure in instance order (inherited first).
    std::vector<std::string> tags_of(std::string_view name) const;
    // The same with each tag's type code.
    std::vector<TagSpec> tag_specs(std::string_view name) const;
    // Every defined structure's name, in byte order, and a structure's parent
    // ("" for none).
    std::vector<std::string> struct_names() const;
    std::string parent_of(std::string_view name) const;

    // ---- Object tags
    Value get_tag(ObjectRef obj, std::string_view tag) const;
    void set_tag(ObjectRef obj, std::string_view tag, const Value& v);

    // ---- Program variables (roots of the collection)
    void set_var(const std::string& name, const Value& v);
    Value get_var(std::string_view name) const;
    bool has_var(std::string_view name) const;
    void erase_var(std::string_view name);
    // The host variable itself (null when there is no such variable).
    zok_var* raw_var(std::string_view name);

    // ---- Values and host variables
    // A new temporary holding `v` (for tests that drive the C operations).
    zok_var* make_temp(const Value& v);
    // Reads a host variable as a value.
    Value read(const zok_var& var) const;

    // ---- Heap inspection
    // Live heap identifiers in increasing order; kind 0 for both kinds.
    std::vector<uint32_t> heap_ids(int32_t kind = 0) const;
    size_t heap_count() const;
    bool heap_alive(uint32_t id) const;
    uint32_t heap_flags(uint32_t id) const;
    int32_t heap_kind(uint32_t id) const;
    Value heap_value(uint32_t id) const;
    // Moves the next heap identifier forward (never backward).
    void set_next_heap_id(uint32_t next);
    uint32_t next_heap_id() const;
    // Frees every heap variable that neither the program's variables, live
    // temporaries nor heap variables flagged ZOK_HEAP_HELD reach.  Returns the
    // count freed.
    size_t collect();
    // Checks the heap table's invariants; throws std::logic_error naming the first
    // broken one.
    void check_heap() const;
    // What a program can observe of the host now.
    Observation observe() const;

    // ---- Save and restore
    // Writes the named program variables, and every heap variable they reach
    // through heap pointers, object references and structure fields, to `path`.
    void save(const std::string& path, const std::vector<std::string>& variables) const;
    // Reads `path` whole; when it is sound and fits this host, makes its heap
    // variables anew and sets its program variables (replacing any of the same
    // name); returns their names. Anything else is a zok::Error and changes nothing.
    // New identifiers keep the saved order, heap flags are kept, and no method
    // runs: the program restores its objects' own state afterwards.
    std::vector<std::string> restore(const std::string& path);

    // ---- Temporaries, texts, memory
    size_t live_temps() const;
    // Temporaries the last outermost call left behind (the host released them).
    size_t leftover_temps() const;
    size_t live_texts() const;
    MemStats memory(std::string_view label) const;
    std::map<std::string, MemStats> memory_by_label() const;
    MemStats memory_total() const;
    // Frees made under a freeing label (host_mem_free_tagged, host_mem_free_labelled).
    size_t frees(std::string_view label) const;
    // Allocations of every kind so far.
    uint64_t allocations() const;

    // ---- Fault injection
    // The nth allocation from now (1 = the next) fails; 0 turns it off.
    void fail_allocation(uint64_t nth);
    // Every allocation under `label` fails (kPlainLabel for plain blocks).
    void fail_label(std::string label);
    // The nth call from now of the operation (1 = the next) refuses.
    void refuse(Operation op, uint32_t nth = 1);
    void clear_faults();

    // ---- Messages
    const std::vector<Message>& messages() const;
    void clear_messages();
    // Every defined message block by name, its messages in code order (code
    // 0 first, then -1, -2, ...).
    std::map<std::string, std::vector<MessageDef>> message_blocks() const;
    // Test hook: the error action records and returns instead of raising.
    void set_errors_return(bool on);

    struct State;

private:
    friend class Call;
    friend struct HostAccess;
    std::unique_ptr<State> state_;
};

} // namespace zok
