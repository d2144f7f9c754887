// Variables, temporaries and texts: the host's value model.
//
// Invariants: a variable's value bits (ZOK_VF_ARRAY, ZOK_VF_STRUCT) always
// describe what its value holds; a text with length > 0 that the host stored is
// live (a live slot of a text pool, or listed when longer) until released; a temporary is a live
// slot of the temporary pool, flagged ZOK_VF_TEMPORARY and linked, in creation order, into the list
// of live temporaries (newest at the tail).
#include "state.hpp"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace zok::detail {

// ---- Texts

char* new_text(const char* text, size_t length) {
    State& s = state();
    char* out;
    if (length + 1 <= kMaxPooled) {
        out = static_cast<char*>(pool_for(s.text_pools, length + 1, s.text_chunks).allocate());
        if (!out)
            throw std::bad_alloc();
    } else {
        out = static_cast<char*>(std::malloc(length + 1));
        if (!out)
            throw std::bad_alloc();
        try {
            s.long_texts.insert(out);
        } catch (...) {
            std::free(out);
            throw;
        }
    }
    std::memcpy(out, text, length);
    out[length] = '\0';
    return out;
}

bool free_text(const char* text) {
    State& s = state();
    // A pooled text is live exactly while its slot is: the pool refuses any
    // other address of its chunks, and a text freed before.
    if (s.text_chunks.holds(text))
        return SlotPool::owner(text)->release_in_chunk(const_cast<char*>(text));
    if (s.long_texts.erase(text) == 0)
        return false;
    std::free(const_cast<char*>(text));
    return true;
}

size_t live_text_count(const State& s) {
    size_t count = s.long_texts.size();
    for (const auto& pool : s.text_pools)
        count += pool ? pool->live() : 0;
    return count;
}

void release_text(char* text) {
    if (!free_text(text))
        raise(ZOK_ERR_BAD_FREE, ZOK_ACTION_ERROR,
              "Attempt to release a text that is not live (already released or never stored)" +
                  where() + ".");
}

zok_string make_string(std::string_view text) {
    zok_string out{};
    out.length = static_cast<uint32_t>(text.size());
    if (!text.empty())
        out.text = new_text(text.data(), text.size());
    return out;
}

namespace {

void release_string(zok_string& str) {
    if (str.length > 0 && str.text)
        release_text(str.text);
    str = zok_string{};
}

void duplicate_string(zok_string& str) {
    if (str.length == 0) {
        str.text = nullptr;
        return;
    }
    if (!str.text) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              "String descriptor with a length but no text" + where() + ".");
        str = zok_string{};
        return;
    }
    str.text = new_text(str.text, str.length);
}

} // namespace

// ---- Elements and instances

bool is_valid_type(uint8_t type) {
    switch (type) {
    case ZOK_T_BYTE:
    case ZOK_T_SHORT:
    case ZOK_T_LONG:
    case ZOK_T_FLOAT:
    case ZOK_T_DOUBLE:
    case ZOK_T_STRING:
    case ZOK_T_STRUCT:
    case ZOK_T_POINTER:
    case ZOK_T_OBJECT:
    case ZOK_T_USHORT:
    case ZOK_T_ULONG:
    case ZOK_T_LONG64:
    case ZOK_T_ULONG64:
        return true;
    default:
        return false;
    }
}

size_t elem_size(uint8_t type) {
    switch (type) {
    case ZOK_T_BYTE:
        return 1;
    case ZOK_T_SHORT:
    case ZOK_T_USHORT:
        return 2;
    case ZOK_T_LONG:
    case ZOK_T_ULONG:
    case ZOK_T_FLOAT:
    case ZOK_T_POINTER:
    case ZOK_T_OBJECT:
        return 4;
    case ZOK_T_DOUBLE:
    case ZOK_T_LONG64:
    case ZOK_T_ULONG64:
        return 8;
    case ZOK_T_STRING:
        return sizeof(zok_string);
    default:
        return 0;
    }
}

namespace {

constexpr size_t kArrayHeader = (sizeof(zok_array) + 15) & ~size_t{15};

size_t element_bytes(uint8_t type, const zok_struct_def* def) {
    return type == ZOK_T_STRUCT ? def->size : elem_size(type);
}

const StructInfo& info_of(const zok_struct_def* def) {
    StructInfo* info = struct_info(def);
    if (!info)
        throw Error(ZOK_ERR_STRUCT, "Structure value with an unknown definition" + where() + ".",
                    running_routine());
    return *info;
}

// The string tags' offsets of a structure: the prepared list when the module
// stored ours, else the host's own (they are the same list).
const uint32_t* string_offsets(const StructInfo& info) {
    const auto* prepared = static_cast<const uint32_t*>(info.def.prepared);
    return prepared == info.string_offsets.data() ? prepared : info.string_offsets.data();
}

} // namespace

zok_array* new_array(uint8_t type, uint32_t count, zok_struct_def* def) {
    size_t bytes = kArrayHeader + static_cast<size_t>(count) * element_bytes(type, def);
    auto* mem = static_cast<unsigned char*>(std::calloc(1, bytes));
    if (!mem)
        throw std::bad_alloc();
    auto* arr = reinterpret_cast<zok_array*>(mem);
    arr->count = count;
    arr->elem_type = type;
    arr->data = mem + kArrayHeader;
    arr->def = def;
    return arr;
}

void* new_instance(const StructInfo& info) {
    void* data = alloc_instance_memory(info.def.size);
    if (!data)
        throw std::bad_alloc();
    std::memset(data, 0, info.def.size);
    return data;
}

void free_instance(const StructInfo& info, void* data) {
    const uint32_t* offsets = string_offsets(info);
    for (uint32_t i = 1; i <= offsets[0]; ++i)
        release_string(*reinterpret_cast<zok_string*>(static_cast<char*>(data) + offsets[i]));
    free_instance_memory(data, info.def.size);
}

void copy_instance(const StructInfo& info, const void* src, void* dest) {
    std::memcpy(dest, src, info.def.size);
    const uint32_t* offsets = string_offsets(info);
    for (uint32_t i = 1; i <= offsets[0]; ++i)
        duplicate_string(*reinterpret_cast<zok_string*>(static_cast<char*>(dest) + offsets[i]));
}

namespace {

void free_elements(zok_array* arr) {
    if (arr->elem_type == ZOK_T_STRING) {
        auto* strs = static_cast<zok_string*>(arr->data);
        for (uint32_t i = 0; i < arr->count; ++i)
            release_string(strs[i]);
    } else if (arr->elem_type == ZOK_T_STRUCT) {
        const StructInfo& info = info_of(arr->def);
        const uint32_t* offsets = string_offsets(info);
        for (uint32_t i = 0; i < arr->count; ++i)
            for (uint32_t k = 1; k <= offsets[0]; ++k)
                release_string(*reinterpret_cast<zok_string*>(static_cast<char*>(arr->data) +
                                                              i * info.def.size + offsets[k]));
    }
}

} // namespace

void free_value(zok_var& v) {
    if (v.flags & ZOK_VF_ARRAY) {
        if (zok_array* arr = v.value.array) {
            v.value.array = nullptr;
            free_elements(arr);
            std::free(arr);
        }
    } else if (v.type == ZOK_T_STRING) {
        release_string(v.value.str);
    } else if (v.type == ZOK_T_STRUCT && v.value.st.data) {
        void* data = v.value.st.data;
        v.value.st.data = nullptr;
        free_instance(info_of(v.value.st.def), data);
    }
    v.type = ZOK_T_UNDEFINED;
    v.flags &= static_cast<uint8_t>(~(ZOK_VF_ARRAY | ZOK_VF_STRUCT));
    std::memset(&v.value, 0, sizeof v.value);
}

void copy_value(const zok_var& src, zok_var& dest) {
    zok_var out{};
    out.type = src.type;
    out.flags = src.flags & (ZOK_VF_ARRAY | ZOK_VF_STRUCT);
    if (src.flags & ZOK_VF_ARRAY) {
        const zok_array* a = src.value.array;
        zok_array* b = new_array(a->elem_type, a->count, a->def);
        out.value.array = b;
        try {
            if (a->elem_type == ZOK_T_STRUCT) {
                const StructInfo& info = info_of(a->def);
                for (uint32_t i = 0; i < a->count; ++i)
                    copy_instance(info, static_cast<const char*>(a->data) + i * info.def.size,
                                  static_cast<char*>(b->data) + i * info.def.size);
            } else {
                std::memcpy(b->data, a->data, a->count * elem_size(a->elem_type));
                if (a->elem_type == ZOK_T_STRING) {
                    // Clear first, so a failed duplication frees only what it made.
                    auto* strs = static_cast<zok_string*>(b->data);
                    std::vector<zok_string> from(strs, strs + a->count);
                    std::memset(b->data, 0, a->count * sizeof(zok_string));
                    for (uint32_t i = 0; i < a->count; ++i) {
                        strs[i] = from[i];
                        duplicate_string(strs[i]);
                    }
                }
            }
        } catch (...) {
            free_value(out);
            throw;
        }
    } else if (src.type == ZOK_T_STRING) {
        zok_string copy = src.value.str;
        duplicate_string(copy);
        out.value.str = copy;
    } else if (src.type == ZOK_T_STRUCT && src.value.st.data) {
        const StructInfo& info = info_of(src.value.st.def);
        // Not zeroed: the copy writes every byte.
        void* data = alloc_instance_memory(info.def.size);
        if (!data)
            throw std::bad_alloc();
        try {
            copy_instance(info, src.value.st.data, data);
        } catch (...) {
            free_instance_memory(data, info.def.size);
            throw;
        }
        out.value.st = {data, src.value.st.def};
    } else {
        out.value = src.value;
    }
    uint8_t keep = dest.flags & static_cast<uint8_t>(~(ZOK_VF_ARRAY | ZOK_VF_STRUCT));
    dest.type = out.type;
    dest.flags = keep | out.flags;
    dest.value = out.value;
}

void assign(zok_var& dest, const zok_var& src) {
    if (&dest == &src)
        return;
    // Copy first: src may live inside dest's value.
    zok_var copy{};
    copy_value(src, copy);
    free_value(dest);
    dest.type = copy.type;
    dest.flags |= copy.flags;
    dest.value = copy.value;
}

// ---- Temporaries

zok_var* new_temp(int32_t action) {
    State& s = state();
    void* mem = inject_fault(kTempLabel) ? nullptr : s.temps.allocate();
    if (!mem) {
        raise(ZOK_ERR_NO_MEMORY, action,
              "Unable to allocate memory: making a temporary variable" + where() + ".");
        return nullptr;
    }
    auto* t = static_cast<TempSlot*>(mem);
    t->var = zok_var{};
    t->var.flags = ZOK_VF_TEMPORARY;
    t->seq = s.temp_seq++;
    t->next = nullptr;
    t->prev = s.temp_tail;
    if (s.temp_tail)
        s.temp_tail->next = t;
    s.temp_tail = t;
    return &t->var;
}

bool is_live_temp(const zok_var* v) {
    return state().temps.is_live(v);
}

namespace {

void unlink_and_free(State& s, TempSlot* t) {
    if (t->prev)
        t->prev->next = t->next;
    if (t->next)
        t->next->prev = t->prev;
    else
        s.temp_tail = t->prev;
    s.temps.release_in_chunk(t);
}

} // namespace

void release_temp(zok_var* v) {
    State& s = state();
    if (!v || !s.temps.is_live(v) || !(v->flags & ZOK_VF_TEMPORARY)) {
        raise(ZOK_ERR_BAD_FREE, ZOK_ACTION_ERROR,
              "Attempt to release a variable that is not a live temporary" + where() + ".");
        return;
    }
    auto* t = reinterpret_cast<TempSlot*>(v);
    try {
        free_value(t->var);
    } catch (...) {
        unlink_and_free(s, t);
        throw;
    }
    unlink_and_free(s, t);
}

size_t release_temps_since(uint64_t first_seq) {
    State& s = state();
    size_t n = 0;
    while (s.temp_tail && s.temp_tail->seq >= first_seq) {
        TempSlot* t = s.temp_tail;
        try {
            free_value(t->var);
        } catch (const Error&) {
            // Recorded already; the slot goes regardless.
        }
        unlink_and_free(s, t);
        ++n;
    }
    return n;
}

// ---- Conversions

namespace {

enum class Kind { Int, UInt, Float, Other };

struct Number {
    Kind kind = Kind::Other;
    int64_t i = 0;
    uint64_t u = 0;
    double d = 0;
};

Number read_number(uint8_t type, const void* p) {
    Number n;
    auto get = [p](auto zero) {
        decltype(zero) v;
        std::memcpy(&v, p, sizeof v);
        return v;
    };
    switch (type) {
    case ZOK_T_BYTE:
        n = {Kind::Int, get(uint8_t{}), 0, 0};
        break;
    case ZOK_T_SHORT:
        n = {Kind::Int, get(int16_t{}), 0, 0};
        break;
    case ZOK_T_USHORT:
        n = {Kind::Int, get(uint16_t{}), 0, 0};
        break;
    case ZOK_T_LONG:
        n = {Kind::Int, get(int32_t{}), 0, 0};
        break;
    case ZOK_T_ULONG:
        n = {Kind::Int, get(uint32_t{}), 0, 0};
        break;
    case ZOK_T_LONG64:
        n = {Kind::Int, get(int64_t{}), 0, 0};
        break;
    case ZOK_T_ULONG64:
        n = {Kind::UInt, 0, get(uint64_t{}), 0};
        break;
    case ZOK_T_FLOAT:
        n = {Kind::Float, 0, 0, get(float{})};
        break;
    case ZOK_T_DOUBLE:
        n = {Kind::Float, 0, 0, get(double{})};
        break;
    default:
        break;
    }
    return n;
}

// Numeric text: surrounding blanks allowed, the rest must be one number; the
// empty text reads as 0.
bool parse_number(std::string_view text, Number& n) {
    std::string t(text);
    size_t b = t.find_first_not_of(" \t");
    if (b == std::string::npos) {
        n = {Kind::Int, 0, 0, 0};
        return true;
    }
    size_t e = t.find_last_not_of(" \t");
    t = t.substr(b, e - b + 1);
    char* end = nullptr;
    errno = 0;
    long long i = std::strtoll(t.c_str(), &end, 10);
    if (*end == '\0' && errno == 0) {
        n = {Kind::Int, i, 0, 0};
        return true;
    }
    errno = 0;
    double d = std::strtod(t.c_str(), &end);
    if (*end == '\0' && errno == 0) {
        n = {Kind::Float, 0, 0, d};
        return true;
    }
    return false;
}

// Integer bits of a number for an integer target (wrapping to the width later,
// as integer conversions do).  Floating values must be finite and in range.
bool integer_bits(const Number& n, uint64_t& bits) {
    switch (n.kind) {
    case Kind::Int:
        bits = static_cast<uint64_t>(n.i);
        return true;
    case Kind::UInt:
        bits = n.u;
        return true;
    case Kind::Float: {
        double t = std::trunc(n.d);
        if (!std::isfinite(t) || t < -9223372036854775808.0 || t >= 18446744073709551616.0)
            return false;
        bits = t < 0 ? static_cast<uint64_t>(static_cast<int64_t>(t)) : static_cast<uint64_t>(t);
        return true;
    }
    default:
        return false;
    }
}

double as_floating(const Number& n) {
    switch (n.kind) {
    case Kind::Int:
        return static_cast<double>(n.i);
    case Kind::UInt:
        return static_cast<double>(n.u);
    default:
        return n.d;
    }
}

std::string number_text(const Number& n) {
    switch (n.kind) {
    case Kind::Int:
        return format("%lld", static_cast<long long>(n.i));
    case Kind::UInt:
        return format("%llu", static_cast<unsigned long long>(n.u));
    default:
        return format("%g", n.d);
    }
}

template <typename T>
void put(zok_value& v, T x) {
    std::memcpy(&v, &x, sizeof x);
}

} // namespace

bool convert_scalar(uint8_t from_type, const void* from, uint8_t type, zok_var& out) {
    Number n;
    if (from_type == ZOK_T_STRING) {
        const auto* str = static_cast<const zok_string*>(from);
        if (type == ZOK_T_STRING) {
            zok_string copy = *str;
            duplicate_string(copy);
            out.type = ZOK_T_STRING;
            out.value.str = copy;
            return true;
        }
        if (!parse_number(std::string_view(str->text ? str->text : "", str->length), n))
            return false;
    } else {
        n = read_number(from_type, from);
    }
    if (n.kind == Kind::Other) {
        // Identifiers convert only to their own type.
        if (from_type != type || (type != ZOK_T_POINTER && type != ZOK_T_OBJECT))
            return false;
        out.type = type;
        std::memcpy(&out.value.heap_id, from, sizeof(uint32_t));
        return true;
    }
    uint64_t bits = 0;
    switch (type) {
    case ZOK_T_FLOAT:
        put(out.value, static_cast<float>(as_floating(n)));
        break;
    case ZOK_T_DOUBLE:
        put(out.value, as_floating(n));
        break;
    case ZOK_T_STRING:
        out.value.str = make_string(number_text(n));
        break;
    case ZOK_T_BYTE:
    case ZOK_T_SHORT:
    case ZOK_T_USHORT:
    case ZOK_T_LONG:
    case ZOK_T_ULONG:
    case ZOK_T_LONG64:
    case ZOK_T_ULONG64:
        if (!integer_bits(n, bits))
            return false;
        // Little-endian: the low bytes of the 64-bit pattern are the narrower value.
        put(out.value, bits);
        std::memset(out.value.raw + elem_size(type), 0, sizeof out.value - elem_size(type));
        break;
    default:
        return false;
    }
    out.type = type;
    return true;
}

} // namespace zok::detail

using namespace zok::detail;

namespace {

bool reserved_ok(std::initializer_list<bool> checks, const char* op) {
    for (bool ok : checks)
        if (!ok) {
            raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
                  std::string(op) + ": a reserved argument has a value other than the one allowed" +
                      where() + ".");
            return false;
        }
    return true;
}

bool not_null(const void* p, const char* op) {
    if (!p)
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              std::string(op) + ": null variable" + where() + ".");
    return p != nullptr;
}

zok_var* convert_var(const zok_var* var, int32_t type) {
    auto fail = [&](zok_var* made) -> zok_var* {
        if (made)
            release_temp(made);
        raise(ZOK_ERR_CONVERSION, ZOK_ACTION_ERROR,
              "Type conversion error: unable to convert " + describe(*var) + " to " +
                  type_name(static_cast<uint8_t>(type)) + where() + ".");
        return nullptr;
    };
    if (!is_valid_type(static_cast<uint8_t>(type)) || type == ZOK_T_STRUCT ||
        var->type == ZOK_T_STRUCT || var->type == ZOK_T_UNDEFINED)
        return fail(nullptr);
    zok_var* out = new_temp();
    if (!out)
        return nullptr;
    auto t = static_cast<uint8_t>(type);
    if (!(var->flags & ZOK_VF_ARRAY)) {
        if (!convert_scalar(var->type, &var->value, t, *out))
            return fail(out);
        return out;
    }
    const zok_array* a = var->value.array;
    out->value.array = new_array(t, a->count, nullptr);
    out->type = t;
    out->flags |= ZOK_VF_ARRAY;
    size_t from_size = elem_size(var->type), to_size = elem_size(t);
    for (uint32_t i = 0; i < a->count; ++i) {
        zok_var one{};
        if (!convert_scalar(var->type, static_cast<const char*>(a->data) + i * from_size, t, one))
            return fail(out);
        std::memcpy(static_cast<char*>(out->value.array->data) + i * to_size, &one.value, to_size);
    }
    return out;
}

void require(const zok_var* var, int32_t action, bool ok, int32_t code, const char* what) {
    if (ok)
        return;
    raise(code, action,
          std::string(what) + " required" + where() + ": got " +
              (var ? describe(*var) : std::string("no variable")) + ".");
}

} // namespace

extern "C" {

zok_var* host_temp_var(void) {
    return new_temp();
}

zok_var* host_temp_long(int32_t value) {
    zok_var* t = new_temp();
    if (t) {
        t->type = ZOK_T_LONG;
        t->value.long_val = value;
    }
    return t;
}

zok_var* host_temp_struct(zok_struct_def* def) {
    StructInfo* info = struct_info(def);
    if (!info) {
        raise(ZOK_ERR_STRUCT, ZOK_ACTION_ERROR,
              "host_temp_struct: not a structure definition of this host" + where() + ".");
        return nullptr;
    }
    // Tree nodes are made this way: running out of memory is a null result.
    void* data = alloc_instance_memory(info->def.size);
    if (!data) {
        raise(ZOK_ERR_NO_MEMORY, ZOK_ACTION_RETURN,
              "Unable to allocate memory: making a structure instance" + where() + ".");
        return nullptr;
    }
    zok_var* t = new_temp(ZOK_ACTION_RETURN);
    if (!t) {
        free_instance_memory(data, info->def.size);
        return nullptr;
    }
    std::memset(data, 0, info->def.size);
    t->type = ZOK_T_STRUCT;
    t->flags |= ZOK_VF_STRUCT;
    t->value.st = {data, def};
    return t;
}

void host_release_temp(zok_var* temp) {
    release_temp(temp);
}

zok_var* host_convert_var(const zok_var* var, int32_t type) {
    if (!not_null(var, "host_convert_var"))
        return nullptr;
    return convert_var(var, type);
}

void host_require_string(const zok_var* var, int32_t action) {
    require(var, action, var && var->type == ZOK_T_STRING, ZOK_ERR_NOT_STRING, "String expression");
}

void host_require_pointer(const zok_var* var, int32_t action) {
    require(var, action, var && var->type == ZOK_T_POINTER, ZOK_ERR_NOT_POINTER,
            "Pointer expression");
}

void host_require_object(const zok_var* var, int32_t action) {
    require(var, action, var && var->type == ZOK_T_OBJECT, ZOK_ERR_NOT_OBJECT, "Object reference");
}

void host_require_simple(const zok_var* var, int32_t action) {
    require(var, action, var && !(var->flags & ZOK_VF_NOT_SIMPLE), ZOK_ERR_NOT_SIMPLE,
            "Scalar expression");
}

void host_var_copy(const zok_var* src, zok_var* dest, int32_t reserved) {
    if (!reserved_ok({reserved == 0}, "host_var_copy") || !not_null(src, "host_var_copy") ||
        !not_null(dest, "host_var_copy"))
        return;
    assign(*dest, *src);
}

void host_var_store(zok_var* dest, const zok_var* src) {
    if (!not_null(src, "host_var_store") || !not_null(dest, "host_var_store"))
        return;
    assign(*dest, *src);
}

void host_var_copy_out(const zok_var* src, zok_var* temp) {
    if (!not_null(src, "host_var_copy_out") || !not_null(temp, "host_var_copy_out"))
        return;
    assign(*temp, *src);
}

void host_var_elements(const zok_var* var, int32_t* count, void** data, int32_t reserved) {
    if (!reserved_ok({reserved == 0}, "host_var_elements") || !not_null(var, "host_var_elements") ||
        !not_null(count, "host_var_elements") || !not_null(data, "host_var_elements"))
        return;
    if (var->type == ZOK_T_UNDEFINED) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR, "Variable is undefined" + where() + ".");
        return;
    }
    if (var->flags & ZOK_VF_ARRAY) {
        *count = static_cast<int32_t>(var->value.array->count);
        *data = var->value.array->data;
    } else {
        *count = 1;
        *data =
            var->type == ZOK_T_STRUCT ? var->value.st.data : const_cast<zok_value*>(&var->value);
    }
}

zok_string* host_var_string(zok_var* var, int32_t reserved0, int32_t reserved1) {
    if (!reserved_ok({reserved0 == 0, reserved1 == 1}, "host_var_string"))
        return nullptr;
    if (!var || var->type != ZOK_T_STRING || (var->flags & ZOK_VF_ARRAY)) {
        require(var, ZOK_ACTION_ERROR, false, ZOK_ERR_NOT_STRING, "Scalar string expression");
        return nullptr;
    }
    return &var->value.str;
}

void* host_make_temp_vector(int32_t type, int32_t count, int32_t reserved, zok_var** out) {
    if (!reserved_ok({reserved == 0 || reserved == 1}, "host_make_temp_vector") ||
        !not_null(out, "host_make_temp_vector"))
        return nullptr;
    auto t = static_cast<uint8_t>(type);
    if (!is_valid_type(t) || t == ZOK_T_STRUCT || count < 0) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_ERROR,
              format("host_make_temp_vector: cannot make an array of type %d with %d elements",
                     type, count) +
                  where() + ".");
        return nullptr;
    }
    zok_var* v = new_temp();
    if (!v)
        return nullptr;
    v->value.array = new_array(t, static_cast<uint32_t>(count), nullptr);
    v->type = t;
    v->flags |= ZOK_VF_ARRAY;
    *out = v;
    return v->value.array->data;
}

void host_var_free_value(zok_var* var) {
    if (not_null(var, "host_var_free_value"))
        free_value(*var);
}

void host_string_store(zok_string* dest, const char* text) {
    if (!not_null(dest, "host_string_store"))
        return;
    *dest = make_string(text ? std::string_view(text) : std::string_view());
}

void host_string_duplicate(zok_string* descs, int32_t count) {
    if (count > 0 && !not_null(descs, "host_string_duplicate"))
        return;
    for (int32_t i = 0; i < count; ++i)
        duplicate_string(descs[i]);
}

void host_string_release(zok_string* descs, int32_t count) {
    if (count > 0 && !not_null(descs, "host_string_release"))
        return;
    for (int32_t i = 0; i < count; ++i)
        release_string(descs[i]);
}

int32_t host_string_compare(const zok_string* a, const zok_string* b) {
    if (!not_null(a, "host_string_compare") || !not_null(b, "host_string_compare"))
        return 0;
    size_t n = std::min(a->length, b->length);
    int c = n ? std::memcmp(a->text, b->text, n) : 0;
    if (c == 0)
        c = (a->length > b->length) - (a->length < b->length);
    return (c > 0) - (c < 0);
}

} // extern "C"
