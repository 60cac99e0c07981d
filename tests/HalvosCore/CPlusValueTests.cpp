// The C++ values: hv::Ref ownership, hv::Value conversions both ways, their errors and paths,
// hv::Record order, and HV_RECORD at 0, 1, 9, 10 and 64 fields.
#include <HalvosCore/HalvosCore.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

namespace people {
struct Address {
    std::string city;
    std::optional<std::string> zip;
};
HV_RECORD(Address, city, zip)

struct Person {
    std::string name;
    int age = 0;
    std::vector<Address> addresses;
};
HV_RECORD(Person, name, age, addresses)

struct Settings {
    int retries = 3;
    std::string mode = "fast";
};
HV_RECORD_WITH_DEFAULTS(Settings, retries, mode)

struct Empty {};
HV_RECORD(Empty)
struct One {
    bool on = false;
};
HV_RECORD(One, on)
struct Nine {
    int z, y, x, w, v, u, t, s, r;
};
HV_RECORD(Nine, z, y, x, w, v, u, t, s, r)
struct Ten {
    int j, i, h, g, f, e, d, c, b, a;
};
HV_RECORD(Ten, j, i, h, g, f, e, d, c, b, a)
#define HV_TEST_EIGHT(p) p##0, p##1, p##2, p##3, p##4, p##5, p##6, p##7
struct Wide {
    int HV_TEST_EIGHT(a), HV_TEST_EIGHT(b), HV_TEST_EIGHT(c), HV_TEST_EIGHT(d), HV_TEST_EIGHT(e),
        HV_TEST_EIGHT(f), HV_TEST_EIGHT(g), HV_TEST_EIGHT(h);
};
HV_RECORD(Wide, HV_TEST_EIGHT(a), HV_TEST_EIGHT(b), HV_TEST_EIGHT(c), HV_TEST_EIGHT(d), HV_TEST_EIGHT(e),
          HV_TEST_EIGHT(f), HV_TEST_EIGHT(g), HV_TEST_EIGHT(h))
} // namespace people

namespace {

using hv::ConversionErrc;
using hv::Value;
using Kind = hv::Value::Kind;

// The member names of a dictionary value, in its own (wire) order.
std::vector<std::string> memberNames(const Value &dictionary) {
    std::vector<std::string> names;
    for (const auto &member : dictionary.as<hv::Record>())
        names.push_back(member.first);
    return names;
}

// Runs f, expecting a ConversionError of code whose what() is message.
void expectError(const std::function<void()> &f, ConversionErrc code, const std::string &message) {
    try {
        f();
        ADD_FAILURE() << "no error; expected: " << message;
    } catch (const hv::ConversionError &error) {
        EXPECT_EQ(error.code(), code) << error.what();
        EXPECT_EQ(std::string(error.what()), message);
    }
}

TEST(CPlusRefTest, CopiesRetainMovesStealAndFactoriesSayWhoOwns) {
    long live = RtRuntimeGetLiveObjectCount();
    RtDataRef data = RtDataCreate(kRtAllocatorDefault, nullptr, 0);
    {
        hv::Ref<RtDataRef> owner = hv::adopt(data);
        hv::Ref<RtDataRef> second = hv::retain(data);
        hv::Ref<RtTypeRef> widened = second; // converting copy of a narrower handle type
        EXPECT_EQ(RtGetRetainCount(data), 3);
        hv::Ref<RtDataRef> moved = std::move(owner);
        EXPECT_FALSE(owner);
        EXPECT_EQ(RtGetRetainCount(data), 3);
        RtDataRef handedBack = moved.release();
        EXPECT_EQ(RtGetRetainCount(data), 3);
        RtRelease(handedBack);
        EXPECT_EQ(RtGetRetainCount(data), 2);
    }
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);
}

TEST(CPlusValueTest, EveryKindRoundTrips) {
    using namespace std::chrono;
    auto when = system_clock::time_point(seconds(-4906137600)); // 1815-12-10, before the epoch
    std::vector<std::byte> bytes = {std::byte(0), std::byte(0xff), std::byte('M')};
    struct Case {
        Value value;
        Kind kind;
        std::function<bool(const Value &)> readsBack;
    };
    const Case cases[] = {
        {true, Kind::Boolean, [](const Value &v) { return v.as<bool>(); }},
        {INT32_MIN, Kind::Integer, [](const Value &v) { return v.as<int32_t>() == INT32_MIN; }},
        {int64_t(1) << 40, Kind::Integer, [](const Value &v) { return v.as<int64_t>() == int64_t(1) << 40; }},
        {uint8_t(255), Kind::Integer, [](const Value &v) { return v.as<uint8_t>() == 255; }},
        {0.1, Kind::Double, [](const Value &v) { return v.as<double>() == 0.1; }},
        {7, Kind::Integer, [](const Value &v) { return v.as<double>() == 7.0; }}, // integers widen
        {"caf\xc3\xa9 \xe2\x82\xac", Kind::String,
         [](const Value &v) { return v.as<std::string>() == "caf\xc3\xa9 \xe2\x82\xac"; }},
        {std::string_view("a\0b", 3), Kind::String,
         [](const Value &v) { return v.as<std::string>() == std::string("a\0b", 3); }},
        {when, Kind::Date, [&](const Value &v) { return v.as<system_clock::time_point>() == when; }},
        {bytes, Kind::Data, [&](const Value &v) { return v.as<std::vector<std::byte>>() == bytes; }},
        {std::vector<int>{1, 2, 3}, Kind::Array,
         [](const Value &v) {
             return v.as<std::vector<long>>() == std::vector<long>{1, 2, 3};
         }},
        {std::map<std::string, double>{{"b", 1.5}, {"a", 2}}, Kind::Dictionary,
         [](const Value &v) { return v.as<std::map<std::string, double>>().at("a") == 2; }},
        {std::optional<int>(), Kind::Absent, [](const Value &v) { return !v.as<std::optional<int>>(); }},
        {Value::null(), Kind::Null, [](const Value &v) { return !v.as<std::optional<std::string>>(); }},
        {std::vector<Value>{1, "x", nullptr}, Kind::Array,
         [](const Value &v) { return v[2].isNull() && v[1] == Value("x"); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.value.description());
        EXPECT_EQ(c.value.kind(), c.kind);
        EXPECT_TRUE(c.readsBack(c.value));
        EXPECT_EQ(c.value.tryAs<Value>(), c.value);
    }
}

TEST(CPlusValueTest, ConversionsThatWouldLoseSomethingFailWithKindAndRange) {
    using namespace std::chrono;
    const Value text = "12";
    const Value big = int64_t(3000000000);
    const Value farDate = time_point<system_clock, hours>(hours(24 * 365 * 7000)); // about the year 8970
    struct Case {
        std::function<void()> convert;
        ConversionErrc code;
        std::string message;
    };
    const Case cases[] = {
        {[&] { (void)text.as<int>(); }, ConversionErrc::WrongKind, "expected integer, got string"},
        {[&] { (void)Value(2.5).as<int>(); }, ConversionErrc::WrongKind, "expected integer, got double"},
        {[&] { (void)Value(1).as<bool>(); }, ConversionErrc::WrongKind, "expected boolean, got integer"},
        {[&] { (void)Value().as<std::string>(); }, ConversionErrc::Absent, "expected string, got no value"},
        {[&] { (void)big.as<int32_t>(); }, ConversionErrc::OutOfRange,
         "3000000000 does not fit the range -2147483648 to 2147483647"},
        {[&] { (void)Value(300).as<int8_t>(); }, ConversionErrc::OutOfRange,
         "300 does not fit the range -128 to 127"},
        {[&] { (void)Value(-1).as<unsigned>(); }, ConversionErrc::OutOfRange,
         "-1 does not fit the range 0 to 4294967295"},
        {[&] { (void)Value(1e300).as<float>(); }, ConversionErrc::OutOfRange, "1e+300 does not fit a float"},
        {[&] { (void)Value(uint64_t(1) << 63); }, ConversionErrc::OutOfRange,
         "9223372036854775808 does not fit a 64-bit signed integer"},
        {[&] { (void)farDate.as<system_clock::time_point>(); }, ConversionErrc::OutOfRange,
         "the date does not fit this time point's range"},
        {[&] { (void)Value(time_point<system_clock, hours>(hours(24 * 366 * 8100))); },
         ConversionErrc::OutOfRange, "the date lies outside the years 1 to 9999 that the wire's dates carry"},
        {[&] { (void)Value(static_cast<const char *>(nullptr)); }, ConversionErrc::Absent,
         "a null const char* is no string"},
        {[&] {
             (void)Value(std::vector<std::optional<int>>{1, std::nullopt});
         },
         ConversionErrc::Absent,
         "[1]: an array element cannot be absent (an empty std::optional); use hv::Value::null()"},
        {[&] { (void)text[0]; }, ConversionErrc::WrongKind, "expected array, got string"},
        {[&] { (void)Value(std::vector<int>{1})[1]; }, ConversionErrc::OutOfRange,
         "index 1 is past the end of 1 elements"},
    };
    for (const Case &c : cases)
        expectError(c.convert, c.code, c.message);
    EXPECT_EQ(text.tryAs<int>(), std::nullopt);
}

TEST(CPlusValueTest, TextMustBeValidUTF8) {
    const std::pair<std::string, size_t> invalid[] = {
        {"ok\xff", 2},           // a byte UTF-8 never uses
        {"\xc0\xaf", 0},         // overlong '/'
        {"ab\xed\xa0\x80", 2},   // a UTF-16 surrogate
        {"\xe2\x82", 0},         // cut short
        {"x\x80", 1},            // a lone continuation byte
        {"\xf4\x90\x80\x80", 0}, // past U+10FFFF
    };
    for (const auto &[bytes, offset] : invalid)
        expectError([&] { (void)Value(bytes); }, ConversionErrc::InvalidText,
                    "not valid UTF-8 (byte " + std::to_string(offset) + " of " +
                        std::to_string(bytes.size()) + ")");
    expectError(
        [] {
            (void)Value(std::map<std::string, int>{{"bad\xff", 1}});
        },
        ConversionErrc::InvalidText, "bad\xff: not valid UTF-8 (byte 3 of 4)");
    EXPECT_EQ(Value("\xf0\x9f\x98\x80").as<std::string>(), "\xf0\x9f\x98\x80"); // outside the BMP
}

TEST(CPlusValueTest, RecordsKeepTheirOrderAndErrorsNameThePath) {
    long live = RtRuntimeGetLiveObjectCount();
    people::Person ada{"Ada", 36, {{"London", "W1"}, {"Paris", std::nullopt}}};
    Value sent = ada;
    EXPECT_EQ(memberNames(sent), (std::vector<std::string>{"name", "age", "addresses"}));
    EXPECT_EQ(memberNames(sent[std::string_view("addresses")][1]),
              std::vector<std::string>{"city"}); // absent zip left out

    // Read by name, whatever the order, extra members ignored; an absent optional reads as nullopt.
    Value received = hv::Record{{"addresses", std::vector<Value>{hv::Record{{"city", "Rome"}}}},
                                {"extra", true},
                                {"age", 40},
                                {"name", "Bea"}};
    auto bea = received.as<people::Person>();
    EXPECT_EQ(bea.name, "Bea");
    EXPECT_EQ(bea.age, 40);
    ASSERT_EQ(bea.addresses.size(), 1u);
    EXPECT_EQ(bea.addresses[0].zip, std::nullopt);
    EXPECT_EQ(sent.as<people::Person>().addresses[0].zip, std::optional<std::string>("W1"));

    hv::Record order{{"z", 1}, {"a", 2}};
    order.set("m", 3).set("z", 4); // a replaced member keeps its place
    EXPECT_EQ(memberNames(order), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(Value(order).as<hv::Record>(), order);

    std::map<std::string, std::vector<Value>> nested = {
        {"team",
         {Value(ada), hv::Record{{"name", "Cy"}, {"age", "old"}, {"addresses", std::vector<int>{}}}}}};
    expectError([&] { (void)Value(nested).as<std::map<std::string, std::vector<people::Person>>>(); },
                ConversionErrc::WrongKind, "team[1].age: expected integer, got string");
    expectError(
        [] {
            (void)Value(hv::Record{{"age", 1}}).as<people::Person>();
        },
        ConversionErrc::MissingMember, "missing member \"name\" of Person");
    expectError([] { (void)Value(3).as<people::Person>(); }, ConversionErrc::WrongKind,
                "expected dictionary (for Person), got integer");
    // A failure half way through building a nested value leaves nothing behind.
    people::Person broken{"ok", 1, {{"fine", {}}, {"bad\xc3", {}}}};
    expectError(
        [&] {
            (void)Value(std::vector<people::Person>{ada, broken});
        },
        ConversionErrc::InvalidText, "[1].addresses[1].city: not valid UTF-8 (byte 3 of 4)");

    people::Settings settings = Value(hv::Record{{"mode", "slow"}}).as<people::Settings>();
    EXPECT_EQ(settings.retries, 3); // HV_RECORD_WITH_DEFAULTS: a missing member keeps the default
    EXPECT_EQ(settings.mode, "slow");
    sent = Value();
    received = Value();
    nested.clear();
    order = {};
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);
}

TEST(CPlusValueTest, RecordMacroAtZeroOneNineTenAndSixtyFourFields) {
    EXPECT_EQ(Value(people::Empty{}).size(), 0u);
    (void)Value(hv::Record{}).as<people::Empty>();
    EXPECT_TRUE(Value(people::One{true}).as<people::One>().on);

    people::Nine nine{9, 8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_EQ(memberNames(nine), (std::vector<std::string>{"z", "y", "x", "w", "v", "u", "t", "s", "r"}));
    EXPECT_EQ(Value(nine).as<people::Nine>().r, 1);
    people::Ten ten{10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_EQ(memberNames(ten).back(), "a");
    EXPECT_EQ(Value(ten).as<people::Ten>().j, 10);

    people::Wide wide{};
    wide.a0 = 1;
    wide.h7 = 64;
    Value wideValue = wide;
    std::vector<std::string> names = memberNames(wideValue);
    ASSERT_EQ(names.size(), 64u);
    EXPECT_EQ(names[8], "b0");
    EXPECT_EQ(names[63], "h7");
    people::Wide back = wideValue.as<people::Wide>();
    EXPECT_EQ(back.a0 + back.h7, 65);
}

TEST(CPlusValueTest, PrintsTheRuntimeDescription) {
    Value value = hv::Record{{"n", 1}, {"list", std::vector<std::string>{"a"}}};
    RtStringRef description = RtCopyDescription(value.get());
    char expected[256];
    ASSERT_TRUE(RtStringGetCString(description, expected, sizeof expected, kRtStringEncodingUTF8));
    RtRelease(description);
    std::ostringstream printed;
    printed << value;
    EXPECT_EQ(printed.str(), expected);
    printed.str("");
    printed << Value();
    EXPECT_EQ(printed.str(), "(absent)");
}

} // namespace
