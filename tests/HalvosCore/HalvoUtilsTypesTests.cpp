// Qualified type names, the public kind mapping and the two number helpers. How each runtime
// kind is classified shows in the writers' golden documents, and the usual schema type names
// in the SOAP reply tests.
#include "HalvoUtilsTestSupport.h"

#include <climits>

using namespace hvutils_test;

namespace {

class TypesTest : public UtilsTest {};

TEST_F(TypesTest, QualifiedTypeNames) {
    RtStringRef xsd2001 = HV_SOAP_2001_SCHEMA_NAMESPACE, unrelated = RTSTR("urn:unrelated");
    const struct {
        RtStringRef ns;
        const char *name;
        HVTypeID expected;
    } cases[] = {
        {HV_SOAP_1999_ENCODING_NAMESPACE, "Array", eHVArrayType},
        {RTSTR("HTTP://WWW.W3.ORG/2001/XMLSCHEMA"), "int", eHVIntegerType}, // namespaces are not
        {unrelated, "xsd:float", eHVDoubleType},
        {unrelated, "anything:NULL", eHVNullType}, // the prefix is ignored
        {unrelated, "float", eHVUnknownType},
        {unrelated, ":int", eHVUnknownType},
        {nullptr, "a:b:Dictionary", eHVDictionaryType},
    };
    for (const auto &c : cases) {
        Owned<RtStringRef> name(newString(c.name));
        EXPECT_EQ(HVQualifiedtoHVType(c.ns, name), c.expected) << c.name;
    }
    EXPECT_EQ(HVQualifiedtoHVType(xsd2001, nullptr), eHVUnknownType);

    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDoubleType), RtNumberGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDictionaryType), RtDictionaryGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(static_cast<HVTypeID>(42)), 0u);
}

TEST_F(TypesTest, DictNumberDefaults) {
    double half = 2.5;
    Owned<RtNumberRef> nHalf(RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &half));
    Owned<RtDictionaryRef> dict(rtTypeCreateDictionary(nullptr, RTSTR("seven"), internedInt(7), RTSTR("half"), nHalf.get(),
                                                       RTSTR("text"), RTSTR("7"), nullptr));
    EXPECT_EQ(getDictNumber(dict, RTSTR("seven"), -1), 7);
    EXPECT_EQ(getDictNumber(dict, RTSTR("missing"), -1), -1);
    EXPECT_EQ(getDictNumber(dict, RTSTR("half"), -1), -1); // not exactly an integer
    EXPECT_EQ(getDictNumber(dict, RTSTR("text"), -1), -1);
    EXPECT_EQ(getDictNumber(nullptr, RTSTR("seven"), 3), 3);
}

TEST_F(TypesTest, IntegersFromTextAre32Or64Bit) {
    struct Case {
        std::string in;
        int64_t value;
        bool wide;
    } cases[] = {
        {"09", 0, false}, // a leading 0 is octal; hex, blanks and wide values show in the readers' tests
        {"12abc", 12, false},
        {"abc", 0, false},
        {"-2147483648", INT32_MIN, false},
        {"2147483647", INT32_MAX, false},
        {"-2147483649", -2147483649LL, true},
        {"99999999999999999999", INT64_MAX, true}, // saturates
        {"\xC3\xA9" "5", 5, false},                // non-ASCII reads as a space
        {std::string(128, ' ') + "5", 0, false},   // only the first 128 characters count
        {std::string(127, ' ') + "56", 5, false},
    };
    for (const Case &c : cases) {
        Owned<RtStringRef> s(newString(c.in));
        Owned<RtNumberRef> n(makeIntValueFromString(s));
        ASSERT_NE(n.get(), nullptr) << c.in;
        int64_t v = 0;
        EXPECT_TRUE(RtNumberGetValue(n, kRtNumberSInt64Type, &v));
        EXPECT_EQ(v, c.value) << c.in;
        EXPECT_EQ(RtNumberGetType(n), c.wide ? kRtNumberSInt64Type : kRtNumberSInt32Type) << c.in;
    }
    Owned<RtNumberRef> fromNull(makeIntValueFromString(nullptr));
    EXPECT_EQ(HVGetHVTypeIDFromRtType(fromNull), eHVIntegerType);
}

} // namespace
