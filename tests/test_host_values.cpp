// Host values: every type code, scalar or array, structures included, comes
// back unchanged from a program variable and from a temporary; each reader,
// a call's integer reader too, accepts exactly the values it can represent;
// the host's conversion agrees with the program API's.
#include "support/values.hpp"

namespace {

using namespace zoktest;

// A value is read back unchanged from a program variable and from a
// temporary, and the host's conversion of numbers and numeric text, element by
// element for arrays, agrees with the program API's: integers wrap to the
// target's width, floating values truncate and must lie in [-2^63, 2^64).
TEST(HostValues, EveryShapeComesBackUnchangedAndConvertsAsTheProgramApiDoes) {
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
    }
    host.erase_var("v");
    EXPECT_EQ(host.live_texts() + host.live_temps(), 0u);
}

// Each reader accepts a value exactly when the value's type and magnitude fit,
// and otherwise raises a conversion error.
TEST(HostValues, ReadersAcceptExactlyWhatFits) {
    ValueMaker make;
    const auto accepts = [](const std::function<void()>& read) {
        try {
            read();
            return true;
        } catch (const zok::Error& e) {
            EXPECT_EQ(e.code(), ZOK_ERR_CONVERSION) << e.what();
            return false;
        }
    };
    for (int i = 0; i < 5000; ++i) {
        const int64_t n = make.magnitude();
        const Value v = Value::integer(ZOK_T_LONG64, n);
        SCOPED_TRACE(n);
        EXPECT_EQ(accepts([&] { v.as<int8_t>(); }), n >= -128 && n <= 127);
        EXPECT_EQ(accepts([&] { v.as<uint8_t>(); }), n >= 0 && n <= 255);
        EXPECT_EQ(accepts([&] { v.as<int16_t>(); }), n >= -32768 && n <= 32767);
        EXPECT_EQ(accepts([&] { v.as<uint16_t>(); }), n >= 0 && n <= 65535);
        EXPECT_EQ(accepts([&] { v.as<int32_t>(); }), n == static_cast<int32_t>(n));
        EXPECT_EQ(accepts([&] { v.as<uint32_t>(); }), n >= 0 && n == static_cast<uint32_t>(n));
        EXPECT_EQ(accepts([&] { v.as<uint64_t>(); }), n >= 0);
        EXPECT_EQ(v.as<double>(), static_cast<double>(n));

        const uint64_t u = make.rng();
        const Value big(u);
        EXPECT_EQ(accepts([&] { big.as<int64_t>(); }), u <= uint64_t{INT64_MAX});
        EXPECT_EQ(big.as<uint64_t>(), u);
        const double d = make.floating();
        EXPECT_EQ(accepts([&] { Value(d).as<int64_t>(); }), std::abs(d) < 0x1p63);
        EXPECT_EQ(accepts([&] { Value::number(ZOK_T_LONG, d); }), d >= -0x1p63 && d < 0x1p64);
    }
    // Readers of the wrong kind, and arrays read as scalars.
    const Value samples[] = {Value(), Value("7"), Value(zok::ObjectRef{1}),
                             Value(zok::PointerRef{1}), Value(std::vector<int32_t>{1, 2})};
    const std::function<void(const Value&)> readers[] = {
        [](const Value& v) { v.as_int(); },     [](const Value& v) { v.as_double(); },
        [](const Value& v) { v.as_string(); },  [](const Value& v) { v.as_object(); },
        [](const Value& v) { v.as_pointer(); }, [](const Value& v) { v.as_struct(); },
    };
    for (size_t s = 0; s < std::size(samples); ++s)
        for (size_t r = 0; r < std::size(readers); ++r)
            EXPECT_EQ(accepts([&] { readers[r](samples[s]); }),
                      (s == 1 && r == 2) || (s == 2 && r == 3) || (s == 3 && r == 4))
                << samples[s].to_string() << " reader " << r;
    EXPECT_FALSE(accepts([] { Value::array(ZOK_T_LONG, {Value("x")}); }));
    EXPECT_FALSE(accepts([] { Value::integer(ZOK_T_STRING, 1); }));
}

} // namespace
