// Value kinds, qualified type names, and the two number helpers.
#include "HalvoUtilsTestSupport.h"

#include <climits>

using namespace hvutils_test;

namespace {

class TypesTest : public UtilsTest {};

TEST_F(TypesTest, ClassifiesEveryRuntimeKind) {
    int64_t big = INT64_MAX;
    float f = 1.5f;
    int i = 3;
    Owned<RtNumberRef> n64(RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &big));
    Owned<RtNumberRef> nFloat(RtNumberCreate(kRtAllocatorDefault, kRtNumberFloat32Type, &f));
    Owned<RtNumberRef> nInt(RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &i));
    Owned<RtDateRef> date(RtDateCreate(kRtAllocatorDefault, 0));
    Owned<RtDataRef> data(newData("x"));
    Owned<RtMutableArrayRef> array(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks));
    Owned<RtDictionaryRef> dict(RtDictionaryCreate(kRtAllocatorDefault, nullptr, nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                                   &kRtTypeDictionaryValueCallBacks));
    Owned<RtURLRef> url(RtURLCreateWithString(kRtAllocatorDefault, RTSTR("http://127.0.0.1/"), nullptr));

    EXPECT_EQ(HVGetHVTypeIDFromRtType(n64), eHVIntegerType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(nInt), eHVIntegerType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(nFloat), eHVDoubleType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(kRtNull), eHVNullType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(kRtBooleanFalse), eHVBooleanType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(RTSTR("s")), eHVStringType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(date), eHVDateType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(data), eHVDataType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(array), eHVArrayType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(dict), eHVDictionaryType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(url), eHVUnknownType);
    EXPECT_EQ(HVGetHVTypeIDFromRtType(nullptr), eHVUnknownType);

    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVIntegerType), RtNumberGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDoubleType), RtNumberGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVStringType), RtStringGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVDictionaryType), RtDictionaryGetTypeID());
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(eHVUnknownType), 0u);
    EXPECT_EQ(HVGetRtTypeIDFromHVTypeID(static_cast<HVTypeID>(42)), 0u);
}

TEST_F(TypesTest, QualifiedTypeNames) {
    RtStringRef xsd2001 = HV_SOAP_2001_SCHEMA_NAMESPACE;
    RtStringRef unrelated = RTSTR("urn:unrelated");
    EXPECT_EQ(HVQualifiedtoHVType(xsd2001, RTSTR("base64Binary")), eHVDataType);
    EXPECT_EQ(HVQualifiedtoHVType(xsd2001, RTSTR("Int")), eHVUnknownType); // names are case-sensitive
    EXPECT_EQ(HVQualifiedtoHVType(HV_SOAP_1999_SCHEMA_NAMESPACE, RTSTR("timeInstant")), eHVDateType);
    EXPECT_EQ(HVQualifiedtoHVType(HV_SOAP_1999_ENCODING_NAMESPACE, RTSTR("Array")), eHVArrayType);
    EXPECT_EQ(HVQualifiedtoHVType(RTSTR("HTTP://WWW.W3.ORG/2001/XMLSCHEMA"), RTSTR("int")), eHVIntegerType);
    EXPECT_EQ(HVQualifiedtoHVType(unrelated, RTSTR("xsd:float")), eHVDoubleType);
    EXPECT_EQ(HVQualifiedtoHVType(unrelated, RTSTR("anything:NULL")), eHVNullType); // the prefix is ignored
    EXPECT_EQ(HVQualifiedtoHVType(unrelated, RTSTR("float")), eHVUnknownType);
    EXPECT_EQ(HVQualifiedtoHVType(unrelated, RTSTR(":int")), eHVUnknownType);
    EXPECT_EQ(HVQualifiedtoHVType(nullptr, RTSTR("a:b:Dictionary")), eHVDictionaryType);
    EXPECT_EQ(HVQualifiedtoHVType(xsd2001, nullptr), eHVUnknownType);

    Owned<RtStringRef> local;
    EXPECT_TRUE(burstFakeQName(RTSTR("a:b:c"), local.out()));
    EXPECT_EQ(text(local.get()), "c");
    Owned<RtStringRef> whole;
    EXPECT_FALSE(burstFakeQName(RTSTR(":int"), whole.out()));
    EXPECT_EQ(text(whole.get()), ":int");
    Owned<RtStringRef> plain;
    EXPECT_FALSE(burstFakeQName(RTSTR("int"), plain.out()));
    EXPECT_EQ(text(plain.get()), "int");
    Owned<RtStringRef> empty;
    EXPECT_TRUE(burstFakeQName(RTSTR("a:"), empty.out()));
    EXPECT_EQ(text(empty.get()), "");
}

TEST_F(TypesTest, DictNumberDefaults) {
    int seven = 7;
    double half = 2.5;
    Owned<RtNumberRef> n7(RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &seven));
    Owned<RtNumberRef> nHalf(RtNumberCreate(kRtAllocatorDefault, kRtNumberDoubleType, &half));
    const void *keys[] = {RTSTR("seven"), RTSTR("half"), RTSTR("text")};
    const void *values[] = {n7.get(), nHalf.get(), RTSTR("7")};
    Owned<RtDictionaryRef> dict(RtDictionaryCreate(kRtAllocatorDefault, keys, values, 3, &kRtTypeDictionaryKeyCallBacks,
                                                   &kRtTypeDictionaryValueCallBacks));
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
        {" 42", 42, false},
        {"0x1F", 31, false},
        {"010", 8, false},
        {"09", 0, false},
        {"3000000000", 3000000000LL, true},
        {"12abc", 12, false},
        {"", 0, false},
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
