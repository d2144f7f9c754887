// zok::Value, and its conversion to and from host variables.
//
// A Value keeps integers of every width in one 64-bit field, normalised to its
// type's width (so equal values compare equal whatever they were made from),
// floating values in a double, texts in a std::string, and array elements as
// scalar Values of the array's one type.
#include "state.hpp"

#include <cmath>
#include <cstring>
#include <limits>

namespace zok {

namespace {

bool is_integer_type(uint8_t t) {
    switch (t) {
    case ZOK_T_BYTE:
    case ZOK_T_SHORT:
    case ZOK_T_LONG:
    case ZOK_T_USHORT:
    case ZOK_T_ULONG:
    case ZOK_T_LONG64:
    case ZOK_T_ULONG64:
        return true;
    default:
        return false;
    }
}

bool is_float_type(uint8_t t) {
    return t == ZOK_T_FLOAT || t == ZOK_T_DOUBLE;
}

[[noreturn]] void conversion_error(const Value& v, const char* wanted) {
    throw Error(ZOK_ERR_CONVERSION, "Value " + v.to_string() + " cannot be read as " + wanted, {});
}

// The value of a number converted to `type` as the host converts numbers.
Value coerce(const Value& v, uint8_t type) {
    if (v.type() == type || !v.is_number() || !(is_integer_type(type) || is_float_type(type)))
        return v;
    if (is_float_type(type))
        return Value::number(type, v.as_double());
    if (is_float_type(v.type()))
        return Value::number(type, v.as_double());
    if (v.type() == ZOK_T_ULONG64)
        return Value::integer(type, static_cast<int64_t>(v.as_uint()));
    return Value::integer(type, v.as_int());
}

} // namespace

void Value::set_int(uint8_t type, int64_t v) {
    type_ = type;
    switch (type) {
    case ZOK_T_BYTE:
        int_ = static_cast<uint8_t>(v);
        break;
    case ZOK_T_SHORT:
        int_ = static_cast<int16_t>(v);
        break;
    case ZOK_T_USHORT:
        int_ = static_cast<uint16_t>(v);
        break;
    case ZOK_T_LONG:
        int_ = static_cast<int32_t>(v);
        break;
    case ZOK_T_ULONG:
        int_ = static_cast<uint32_t>(v);
        break;
    default:
        int_ = v;
        break;
    }
}

void Value::set_uint64(uint64_t v) {
    type_ = ZOK_T_ULONG64;
    int_ = static_cast<int64_t>(v);
}

Value::Value(float v) : type_(ZOK_T_FLOAT), double_(v) {}
Value::Value(double v) : type_(ZOK_T_DOUBLE), double_(v) {}
Value::Value(const char* text)
    : type_(ZOK_T_STRING),
      payload_(std::in_place, std::in_place_type<std::string>, text ? text : "") {}
Value::Value(std::string text) : type_(ZOK_T_STRING), payload_(std::in_place, std::move(text)) {}
Value::Value(std::string_view text)
    : type_(ZOK_T_STRING), payload_(std::in_place, std::in_place_type<std::string>, text) {}
Value::Value(ObjectRef ref) : type_(ZOK_T_OBJECT), int_(ref.id) {}
Value::Value(PointerRef ref) : type_(ZOK_T_POINTER), int_(ref.id) {}
Value::Value(StructValue st)
    : type_(ZOK_T_STRUCT),
      payload_(std::in_place, std::make_shared<const StructValue>(std::move(st))) {}

Value Value::array(uint8_t type, std::vector<Value> elements) {
    for (Value& e : elements) {
        if (e.is_array_)
            throw Error(ZOK_ERR_CONVERSION, "Array elements must be scalars", {});
        if (e.type_ == type)
            continue;
        Value c = coerce(e, type);
        if (c.type_ != type)
            throw Error(ZOK_ERR_CONVERSION,
                        "Array element " + e.to_string() + " does not fit an array of " +
                            detail::type_name(type),
                        {});
        e = std::move(c);
    }
    Value out;
    out.type_ = type;
    out.is_array_ = true;
    out.payload_.emplace(std::make_shared<const std::vector<Value>>(std::move(elements)));
    return out;
}

Value Value::number(uint8_t type, double v) {
    if (is_float_type(type)) {
        Value out;
        out.type_ = type;
        out.double_ = type == ZOK_T_FLOAT ? static_cast<double>(static_cast<float>(v)) : v;
        return out;
    }
    double t = std::trunc(v);
    if (!std::isfinite(t) || t < -9223372036854775808.0 || t >= 18446744073709551616.0)
        throw Error(ZOK_ERR_CONVERSION, "Number out of range for an integer", {});
    // Past the signed range the unsigned bits are taken and, like every
    // integer, wrapped to the type's width.
    if (t >= 9223372036854775808.0)
        return integer(type, static_cast<int64_t>(static_cast<uint64_t>(t)));
    return integer(type, static_cast<int64_t>(t));
}

Value Value::integer(uint8_t type, int64_t v) {
    if (is_float_type(type))
        return number(type, static_cast<double>(v));
    if (!is_integer_type(type))
        throw Error(ZOK_ERR_CONVERSION, "Not a numeric type", {});
    Value out;
    if (type == ZOK_T_ULONG64)
        out.set_uint64(static_cast<uint64_t>(v));
    else
        out.set_int(type, v);
    return out;
}

void Value::out_of_range() const {
    conversion_error(*this, "a number of the asked width");
}

bool Value::is_number() const {
    return !is_array_ && (is_integer_type(type_) || is_float_type(type_));
}

int64_t Value::as_int() const {
    if (is_array_ || !is_number())
        conversion_error(*this, "an integer");
    if (type_ == ZOK_T_ULONG64 && int_ < 0)
        conversion_error(*this, "a signed integer");
    if (is_float_type(type_)) {
        double t = std::trunc(double_);
        if (!std::isfinite(t) || t < -9223372036854775808.0 || t >= 9223372036854775808.0)
            conversion_error(*this, "an integer");
        return static_cast<int64_t>(t);
    }
    return int_;
}

uint64_t Value::as_uint() const {
    if (type_ == ZOK_T_ULONG64 && !is_array_)
        return static_cast<uint64_t>(int_);
    int64_t v = as_int();
    if (v < 0)
        conversion_error(*this, "an unsigned integer");
    return static_cast<uint64_t>(v);
}

double Value::as_double() const {
    if (is_array_ || !is_number())
        conversion_error(*this, "a number");
    if (is_float_type(type_))
        return double_;
    if (type_ == ZOK_T_ULONG64)
        return static_cast<double>(static_cast<uint64_t>(int_));
    return static_cast<double>(int_);
}

const std::string& Value::as_string() const {
    if (is_array_ || type_ != ZOK_T_STRING)
        conversion_error(*this, "a string");
    return text();
}

ObjectRef Value::as_object() const {
    if (is_array_ || type_ != ZOK_T_OBJECT)
        conversion_error(*this, "an object reference");
    return ObjectRef{static_cast<uint32_t>(int_)};
}

PointerRef Value::as_pointer() const {
    if (is_array_ || type_ != ZOK_T_POINTER)
        conversion_error(*this, "a pointer");
    return PointerRef{static_cast<uint32_t>(int_)};
}

const StructValue& Value::as_struct() const {
    const auto* st = payload_as<std::shared_ptr<const StructValue>>();
    if (is_array_ || type_ != ZOK_T_STRUCT || !st || !*st)
        conversion_error(*this, "a structure");
    return **st;
}

std::vector<Value> Value::elements() const {
    if (is_array_)
        return *elements_of();
    if (!defined())
        return {};
    return {*this};
}

bool operator==(const Value& a, const Value& b) {
    if (a.type_ != b.type_ || a.is_array_ != b.is_array_)
        return false;
    if (a.is_array_)
        return *a.elements_of() == *b.elements_of();
    switch (a.type_) {
    case ZOK_T_UNDEFINED:
        return true;
    case ZOK_T_FLOAT:
    case ZOK_T_DOUBLE:
        return a.double_ == b.double_;
    case ZOK_T_STRING:
        return a.text() == b.text();
    case ZOK_T_STRUCT:
        return a.as_struct().name == b.as_struct().name &&
               a.as_struct().fields == b.as_struct().fields;
    default:
        return a.int_ == b.int_;
    }
}

std::string Value::to_string() const {
    if (is_array_) {
        std::string out = std::string(detail::type_name(type_)) + "[";
        const std::vector<Value>& elements = *elements_of();
        for (size_t i = 0; i < elements.size(); ++i)
            out += (i ? ", " : "") + elements[i].to_string();
        return out + "]";
    }
    switch (type_) {
    case ZOK_T_UNDEFINED:
        return "<undefined>";
    case ZOK_T_FLOAT:
    case ZOK_T_DOUBLE:
        return detail::format("%.17g", double_);
    case ZOK_T_STRING:
        return "'" + text() + "'";
    case ZOK_T_POINTER:
        return detail::format("<pointer %lld>", static_cast<long long>(int_));
    case ZOK_T_OBJECT:
        return detail::format("<object %lld>", static_cast<long long>(int_));
    case ZOK_T_ULONG64:
        return detail::format("%llu", static_cast<unsigned long long>(int_));
    case ZOK_T_STRUCT: {
        std::string out = "{" + as_struct().name;
        for (const auto& [name, v] : as_struct().fields)
            out += ", " + name + ": " + v.to_string();
        return out + "}";
    }
    default:
        return detail::format("%lld", static_cast<long long>(int_));
    }
}

} // namespace zok

namespace zok::detail {

namespace {

template <typename T>
void store(void* dst, T v) {
    std::memcpy(dst, &v, sizeof v);
}

template <typename T>
T load(const void* src) {
    T v;
    std::memcpy(&v, src, sizeof v);
    return v;
}

StructInfo& struct_named(const std::string& name) {
    StructInfo* info = find_struct(name);
    if (!info)
        throw Error(ZOK_ERR_UNKNOWN_CLASS, "Structure " + name + " is not defined", {});
    return *info;
}

void fill_instance(const StructInfo& info, const StructValue& st, void* data) {
    for (const auto& [name, v] : st.fields) {
        const StructInfo::Tag* tag = info.find_tag(name);
        if (!tag)
            throw Error(ZOK_ERR_STRUCT, "Structure " + info.name + " has no tag " + name, {});
        write_element(tag->type, v, static_cast<char*>(data) + tag->offset);
    }
}

} // namespace

// Writes one scalar into element storage that holds nothing yet.
void write_element(uint8_t type, const Value& given, void* dst) {
    if (!given.defined())
        return;
    // A value of the type already is read in place, not copied.
    const Value coerced = given.type() == type ? Value() : coerce(given, type);
    const Value& v = given.type() == type ? given : coerced;
    if (v.type() != type)
        throw Error(ZOK_ERR_CONVERSION,
                    "Value " + given.to_string() + " does not fit a " + type_name(type), {});
    switch (type) {
    case ZOK_T_BYTE:
        return store(dst, static_cast<uint8_t>(v.as_int()));
    case ZOK_T_SHORT:
        return store(dst, static_cast<int16_t>(v.as_int()));
    case ZOK_T_USHORT:
        return store(dst, static_cast<uint16_t>(v.as_int()));
    case ZOK_T_LONG:
        return store(dst, static_cast<int32_t>(v.as_int()));
    case ZOK_T_ULONG:
        return store(dst, static_cast<uint32_t>(v.as_int()));
    case ZOK_T_LONG64:
        return store(dst, v.as_int());
    case ZOK_T_ULONG64:
        return store(dst, v.as_uint());
    case ZOK_T_FLOAT:
        return store(dst, static_cast<float>(v.as_double()));
    case ZOK_T_DOUBLE:
        return store(dst, v.as_double());
    case ZOK_T_STRING:
        return store(dst, make_string(v.as_string()));
    case ZOK_T_POINTER:
        return store(dst, v.as_pointer().id);
    case ZOK_T_OBJECT:
        return store(dst, v.as_object().id);
    case ZOK_T_STRUCT: {
        const StructInfo& info = struct_named(v.as_struct().name);
        fill_instance(info, v.as_struct(), dst);
        return;
    }
    default:
        throw Error(ZOK_ERR_CONVERSION, "Unknown type code", {});
    }
}

Value read_element(uint8_t type, const void* src, const zok_struct_def* def) {
    switch (type) {
    case ZOK_T_BYTE:
        return Value(load<uint8_t>(src));
    case ZOK_T_SHORT:
        return Value(load<int16_t>(src));
    case ZOK_T_USHORT:
        return Value(load<uint16_t>(src));
    case ZOK_T_LONG:
        return Value(load<int32_t>(src));
    case ZOK_T_ULONG:
        return Value(load<uint32_t>(src));
    case ZOK_T_LONG64:
        return Value(load<int64_t>(src));
    case ZOK_T_ULONG64:
        return Value(load<uint64_t>(src));
    case ZOK_T_FLOAT:
        return Value(load<float>(src));
    case ZOK_T_DOUBLE:
        return Value(load<double>(src));
    case ZOK_T_STRING: {
        auto str = load<zok_string>(src);
        return Value(std::string(str.length ? str.text : "", str.length));
    }
    case ZOK_T_POINTER:
        return Value(PointerRef{load<uint32_t>(src)});
    case ZOK_T_OBJECT:
        return Value(ObjectRef{load<uint32_t>(src)});
    case ZOK_T_STRUCT: {
        StructInfo* info = struct_info(def);
        if (!info)
            throw Error(ZOK_ERR_STRUCT, "Structure value with an unknown definition", {});
        StructValue st{info->name, {}};
        for (const StructInfo::Tag& tag : info->tags)
            st.fields.emplace_back(
                tag.name,
                read_element(tag.type, static_cast<const char*>(src) + tag.offset, nullptr));
        return Value(std::move(st));
    }
    default:
        return Value();
    }
}

void to_var(const Value& v, zok_var& out) {
    zok_var made{};
    made.type = v.type();
    try {
        if (v.is_array()) {
            std::vector<Value> elems = v.elements();
            zok_struct_def* def = nullptr;
            if (v.type() == ZOK_T_STRUCT) {
                if (elems.empty())
                    throw Error(ZOK_ERR_CONVERSION, "An empty structure array has no structure",
                                {});
                def = &struct_named(elems.front().as_struct().name).def;
                made.flags |= ZOK_VF_STRUCT;
            }
            made.flags |= ZOK_VF_ARRAY;
            made.value.array = new_array(v.type(), static_cast<uint32_t>(elems.size()), def);
            size_t size = def ? def->size : elem_size(v.type());
            for (size_t i = 0; i < elems.size(); ++i) {
                if (def && elems[i].as_struct().name != def->name)
                    throw Error(ZOK_ERR_CONVERSION, "Structure array of mixed structures", {});
                write_element(v.type(), elems[i],
                              static_cast<char*>(made.value.array->data) + i * size);
            }
        } else if (v.type() == ZOK_T_STRUCT) {
            StructInfo& info = struct_named(v.as_struct().name);
            made.flags |= ZOK_VF_STRUCT;
            made.value.st = {new_instance(info), &info.def};
            fill_instance(info, v.as_struct(), made.value.st.data);
        } else if (v.defined()) {
            write_element(v.type(), v, &made.value);
        }
    } catch (...) {
        free_value(made);
        throw;
    }
    out.type = made.type;
    out.flags = static_cast<uint8_t>((out.flags & ~(ZOK_VF_ARRAY | ZOK_VF_STRUCT)) | made.flags);
    out.value = made.value;
}

Value from_var(const zok_var& v) {
    if (v.type == ZOK_T_UNDEFINED)
        return Value();
    if (v.flags & ZOK_VF_ARRAY) {
        const zok_array* a = v.value.array;
        size_t size = a->elem_type == ZOK_T_STRUCT ? a->def->size : elem_size(a->elem_type);
        std::vector<Value> elems;
        elems.reserve(a->count);
        for (uint32_t i = 0; i < a->count; ++i)
            elems.push_back(
                read_element(a->elem_type, static_cast<const char*>(a->data) + i * size, a->def));
        return Value::array(a->elem_type, std::move(elems));
    }
    if (v.type == ZOK_T_STRUCT)
        return read_element(ZOK_T_STRUCT, v.value.st.data, v.value.st.def);
    return read_element(v.type, &v.value, nullptr);
}

} // namespace zok::detail
