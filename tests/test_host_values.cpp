// Host values: every type code, scalar or array, structures included, comes
// back unchanged from a program variable and from a temporary; each reader,
// a call's integer reader too, accepts exactly the values it can represent;
// the host's conversion agrees with the program API's.
#include "support/values.hpp"

namespace {

using namespace zoktest;

// Whether `read` accepts; a refusal must be a conversion error.
bool accepts(const std::function<void()>& read) {
    try {
        read();
        return true;
    } catch (const zok::Error& e) {
        EXPECT_EQ(e.code(), ZOK_ERR_CONVERSION) << e.what();
        return false;
    }
}

// A value is read back unchanged from a program variable and from a
// temporary, and the host's conversion of numbers and numeric text, element by
// element for arrays, agrees with the program API's: integers wrap to the
// target's width, floating values truncate and must lie in [-2^63, 2^64).
// Texts, references and structures read only as themselves, an array as no
// scalar, and each integer reader accepts exactly its range.
TEST(HostValues, EveryShapeComesBackUnchangedReadsAndConvertsAsTheProgramApiDoes) {
    zok::Host host;
    define_value_structs(host);
    // The integer reader of a call reads and refuses as a reading through a Value does.
    host.add_function("AGREES", 1, 1, [](zok::Call& c) {
        auto read = [](auto how) {
            try {
                return std::to_string(how());
            } catch (const zok::Error& e) {
                return std::to_string(e.code()) + " " + e.text();
            }
        };
        return Value(
            read([&] { return c.integer(0); }) == read([&] { return c.arg(0).as_int(); }) ? 1 : 0);
    });
    const auto model = [](const Value& v, uint8_t type) {
        if (v.type() == ZOK_T_STRING)
            return Value::integer(type, std::stoll(v.as_string()));
        if (type == ZOK_T_FLOAT || type == ZOK_T_DOUBLE || v.type() == ZOK_T_FLOAT ||
            v.type() == ZOK_T_DOUBLE)
            return Value::number(type, v.as_double());
        return Value::integer(type, v.type() == ZOK_T_ULONG64 ? static_cast<int64_t>(v.as_uint())
                                                              : v.as_int());
    };
    ValueMaker make;
    for (int i = 0; i < 8000; ++i) {
        const bool text = make.rng() % 16 == 0, number = make.rng() % 2;
        const Value v = text ? Value(" " + std::to_string(make.magnitude()) + " ")
                             : make.any(number ? make.type_of(kNumbers) : make.type_of(kOthers));
        const uint8_t to = make.type_of(kNumbers);
        SCOPED_TRACE(v.to_string() + " to type " + std::to_string(to));
        host.set_var("v", v);
        ASSERT_EQ(host.get_var("v"), v);
        zok_var* temp = host.make_temp(v);
        ASSERT_EQ(host.read(*temp), v);
        ASSERT_TRUE(host.call_function("AGREES", {v}).as_int());
        const bool scalar = !v.is_array();
        const std::pair<bool, std::function<void()>> readers[] = {
            {scalar && v.is_number(), [&] { v.as_double(); }},
            {scalar && v.type() == ZOK_T_STRING, [&] { v.as_string(); }},
            {scalar && v.type() == ZOK_T_OBJECT, [&] { v.as_object(); }},
            {scalar && v.type() == ZOK_T_POINTER, [&] { v.as_pointer(); }},
            {scalar && v.type() == ZOK_T_STRUCT, [&] { v.as_struct(); }}};
        for (const auto& [fits, read] : readers)
            EXPECT_EQ(accepts(read), fits);
        if (text || number) {
            std::optional<Value> expected;
            try {
                std::vector<Value> converted;
                for (const Value& e : v.elements())
                    converted.push_back(model(e, to));
                expected = v.is_array() ? Value::array(to, converted) : converted.front();
            } catch (const zok::Error& e) {
                ASSERT_EQ(e.code(), ZOK_ERR_CONVERSION);
            }
            try {
                zok_var* result = host_convert_var(temp, to);
                EXPECT_EQ(std::optional(host.read(*result)), expected);
                host_release_temp(result);
            } catch (const zok::Error& e) {
                EXPECT_EQ(e.code(), ZOK_ERR_CONVERSION);
                EXPECT_FALSE(expected) << "refused " << e.text();
            }
        }
        host_release_temp(temp);

        const int64_t n = make.magnitude();
        const Value wide = Value::integer(ZOK_T_LONG64, n);
        const auto fits = [&](auto type) {
            using T = decltype(type);
            EXPECT_EQ(accepts([&] { wide.as<T>(); }), std::in_range<T>(n)) << n;
        };
        std::apply([&](auto... type) { (fits(type), ...); },
                   std::tuple<int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t, uint64_t>());
        const uint64_t u = make.rng();
        EXPECT_EQ(accepts([&] { Value(u).as<int64_t>(); }), u <= uint64_t{INT64_MAX});
        const double d = make.floating();
        EXPECT_EQ(accepts([&] { Value(d).as<int64_t>(); }), std::abs(d) < 0x1p63) << d;
        EXPECT_EQ(accepts([&] { Value::number(ZOK_T_LONG, d); }), d >= -0x1p63 && d < 0x1p64);
    }
    host.erase_var("v");
    EXPECT_EQ(host.live_texts() + host.live_temps(), 0u);
    EXPECT_FALSE(accepts([] { Value::array(ZOK_T_LONG, {Value("x")}); }));
    EXPECT_FALSE(accepts([] { Value::integer(ZOK_T_STRING, 1); }));
}

} // namespace
