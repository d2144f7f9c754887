// Random host values of every type, for the host's suites: integers of every
// magnitude and both signs, floating values also beyond the 64-bit range and
// below 1, texts, structures and references to heap variables.
#pragma once

#include <cmath>
#include <functional>

#include "support/testing.hpp"

namespace zoktest {

using zok::Value;

constexpr uint8_t kNumbers[] = {ZOK_T_BYTE,   ZOK_T_SHORT, ZOK_T_LONG,   ZOK_T_FLOAT,  ZOK_T_DOUBLE,
                                ZOK_T_USHORT, ZOK_T_ULONG, ZOK_T_LONG64, ZOK_T_ULONG64};
constexpr uint8_t kOthers[] = {ZOK_T_STRING, ZOK_T_STRUCT, ZOK_T_POINTER, ZOK_T_OBJECT};

// Structure values are LEAF, which define_value_structs defines.
struct ValueMaker {
    std::mt19937_64 rng{test_seed()};
    // The heap identifier each reference holds.
    std::function<uint32_t()> id = [this] { return static_cast<uint32_t>(rng() % 4); };

    int64_t magnitude() { return static_cast<int64_t>(rng()) >> (rng() % 64); }
    double floating() {
        return std::ldexp(static_cast<double>(magnitude()), static_cast<int>(rng() % 24) - 12);
    }
    uint8_t type_of(auto& types) { return types[rng() % std::size(types)]; }
    uint8_t any_type() { return rng() % 2 ? type_of(kNumbers) : type_of(kOthers); }
    Value scalar(uint8_t type) {
        const uint64_t bits = rng();
        switch (type) {
        case ZOK_T_FLOAT:
        case ZOK_T_DOUBLE:
            return Value::number(type, floating());
        case ZOK_T_STRING: // letters, or digits that read as a number
            return Value(std::string(
                bits % 5, static_cast<char>(bits & 32 ? 'a' + bits % 26 : '0' + bits % 10)));
        case ZOK_T_POINTER:
            return Value(zok::PointerRef{id()});
        case ZOK_T_OBJECT:
            return Value(zok::ObjectRef{id()});
        case ZOK_T_STRUCT:
            return Value(zok::StructValue{"LEAF",
                                          {{"A", Value(static_cast<int32_t>(bits))},
                                           {"S", scalar(ZOK_T_STRING)},
                                           {"D", scalar(ZOK_T_DOUBLE)},
                                           {"P", scalar(ZOK_T_POINTER)}}});
        default:
            return Value::integer(type, magnitude());
        }
    }
    // A scalar, or an array of one to four elements.
    Value any(uint8_t type) {
        if (rng() % 2)
            return scalar(type);
        std::vector<Value> elements(1 + rng() % 4);
        for (Value& e : elements)
            e = scalar(type);
        return Value::array(type, std::move(elements));
    }
};

inline void define_value_structs(zok::Host& host) {
    host.define_struct("BASE", {{"A", ZOK_T_LONG}, {"S", ZOK_T_STRING}});
    host.define_struct("LEAF", {{"D", ZOK_T_DOUBLE}, {"P", ZOK_T_POINTER}}, "BASE");
}

} // namespace zoktest
