// Property lists: the written form, round trips of every kind, uniquing of constant strings,
// mutability options, and refusal of malformed or hostile documents.
#include "RtValueTestSupport.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <string>

using namespace rttest;

namespace {

class PropertyListTests : public LeakChecked {};

// Reads xml; on failure returns NULL and stores the error text in *error.
RtTypeRef read(const std::string &xml, std::string *error = nullptr,
               RtOptionFlags options = kRtPropertyListImmutable) {
    RtDataRef d = dataOf(xml);
    RtStringRef err = nullptr;
    RtTypeRef v = RtPropertyListCreateFromXMLData(nullptr, d, options, &err);
    RtRelease(d);
    std::string e = take(err);
    if (error) *error = e;
    return v;
}

// Adds value under key to d and releases value.
void put(RtMutableDictionaryRef d, const char *key, RtTypeRef value) {
    RtStringRef k = str(key);
    RtDictionarySetValue(d, k, value);
    RtRelease(k);
    RtRelease(value);
}

RtMutableDictionaryRef newDict() {
    return RtDictionaryCreateMutable(nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                     &kRtTypeDictionaryValueCallBacks);
}

// A tree holding every kind, nested, with awkward texts and extreme numbers.
RtDictionaryRef everyKind() {
    RtMutableDictionaryRef root = newDict();
    put(root, "z-first", str("keys keep their order, not sorted"));
    put(root, "markup", str("a < b && c > d \"quoted\" 'single' ]]>"));
    put(root, "whitespace", str("  leading\ttab\r\nCRLF\nand trailing  "));
    put(root, "unicode", str("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
    put(root, "empty string", str(""));
    put(root, "int", num<int32_t>(kRtNumberIntType, -42));
    put(root, "int64 max", num<int64_t>(kRtNumberSInt64Type, std::numeric_limits<int64_t>::max()));
    put(root, "int64 min", num<int64_t>(kRtNumberSInt64Type, std::numeric_limits<int64_t>::min()));
    put(root, "real", num<double>(kRtNumberDoubleType, 0.1));
    put(root, "float", num<float>(kRtNumberFloatType, 0.1f));
    put(root, "tiny", num<double>(kRtNumberDoubleType, 5e-324));
    put(root, "huge", num<double>(kRtNumberDoubleType, -1.7976931348623157e308));
    put(root, "infinity", RtRetain(kRtNumberPositiveInfinity));
    put(root, "nan", RtRetain(kRtNumberNaN));
    put(root, "yes", kRtBooleanTrue);
    put(root, "no", kRtBooleanFalse);
    put(root, "date", RtDateCreate(nullptr, 700000000.0));
    put(root, "date fraction", RtDateCreate(nullptr, -3000000000.5));
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes += char(i);
    put(root, "data", dataOf(bytes));
    put(root, "empty data", RtDataCreate(nullptr, nullptr, 0));
    RtMutableArrayRef list = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    RtArrayAppendValue(list, kRtBooleanFalse);
    RtMutableArrayRef emptyList = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    RtArrayAppendValue(list, emptyList);
    RtRelease(emptyList);
    RtMutableDictionaryRef inner = newDict();
    put(inner, "deeper", dataOf(bytes.substr(0, 5)));
    put(inner, "empty dict", newDict());
    RtArrayAppendValue(list, inner);
    RtRelease(inner);
    put(root, "list", list);
    return root;
}

TEST_F(PropertyListTests, WrittenForm) {
    RtMutableDictionaryRef d = newDict();
    put(d, "b", num<int32_t>(kRtNumberIntType, 1));
    put(d, "a&", str("x<y"));
    RtMutableArrayRef arr = RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks);
    RtArrayAppendValue(arr, kRtBooleanTrue);
    put(d, "list", arr);
    put(d, "when", RtDateCreate(nullptr, 0));
    const uint8_t bytes[] = {0, 1, 2, 0xff};
    put(d, "bytes", RtDataCreate(nullptr, bytes, 4));
    put(d, "pi", num<double>(kRtNumberDoubleType, 3.25));
    EXPECT_EQ(takeData(RtPropertyListCreateXMLData(nullptr, d)),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "\t<key>b</key>\n\t<integer>1</integer>\n"
              "\t<key>a&amp;</key>\n\t<string>x&lt;y</string>\n"
              "\t<key>list</key>\n\t<array>\n\t\t<true/>\n\t</array>\n"
              "\t<key>when</key>\n\t<date>2001-01-01T00:00:00Z</date>\n"
              "\t<key>bytes</key>\n\t<data>\n\tAAEC/w==\n\t</data>\n"
              "\t<key>pi</key>\n\t<real>3.25</real>\n"
              "</dict>\n</plist>\n");
    RtRelease(d);
}

TEST_F(PropertyListTests, RoundTripsEveryKind) {
    RtDictionaryRef original = own(everyKind());
    RtDataRef xml = own(RtPropertyListCreateXMLData(nullptr, original));
    ASSERT_NE(xml, nullptr);
    for (RtOptionFlags option : {kRtPropertyListImmutable, kRtPropertyListMutableContainers,
                                 kRtPropertyListMutableContainersAndLeaves}) {
        std::string error;
        RtTypeRef back = own(read(bytesOf(xml), &error, option));
        ASSERT_NE(back, nullptr) << error;
        EXPECT_TRUE(RtEqual(original, back)) << description(back);
        // Mutability as asked: containers are mutable unless immutable was asked for.
        auto list = static_cast<RtMutableArrayRef>(
            const_cast<void *>(RtDictionaryGetValue(static_cast<RtDictionaryRef>(back), RTSTR("list"))));
        RtArrayAppendValue(list, kRtNull);
        EXPECT_EQ(RtArrayGetCount(list), option == kRtPropertyListImmutable ? 3 : 4);
    }
    // Reading the written form and writing it again gives the same bytes.
    EXPECT_EQ(takeData(RtPropertyListCreateXMLData(nullptr, own(read(bytesOf(xml))))), bytesOf(xml));
}

TEST_F(PropertyListTests, ConstantStringsComeBackAsTheConstants) {
    RtStringRef constant = RTSTR("RtPropertyListTestsProtocolConstant");
    RtMutableDictionaryRef d = own(newDict());
    RtDictionarySetValue(d, RTSTR("RtPropertyListTestsKeyConstant"), constant);
    put(d, "plain", str("not registered anywhere"));
    std::string xml = takeData(RtPropertyListCreateXMLData(nullptr, d));
    const void *keys[2], *values[2];
    RtDictionaryGetKeysAndValues(static_cast<RtDictionaryRef>(own(read(xml))), keys, values);
    EXPECT_EQ(keys[0], RTSTR("RtPropertyListTestsKeyConstant"));
    EXPECT_EQ(values[0], constant); // the very object, not an equal copy
    EXPECT_EQ(RtStringGetRegisteredConstant(static_cast<RtStringRef>(values[1])), nullptr);
    // A mutable leaf cannot be the constant: equal text, different object.
    RtTypeRef leaves = own(read(xml, nullptr, kRtPropertyListMutableContainersAndLeaves));
    const void *v =
        RtDictionaryGetValue(static_cast<RtDictionaryRef>(leaves), RTSTR("RtPropertyListTestsKeyConstant"));
    EXPECT_NE(v, constant);
    EXPECT_TRUE(RtEqual(v, constant));
}

TEST_F(PropertyListTests, WriterRefusesWhatAPropertyListCannotHold) {
    RtMutableDictionaryRef numericKey = own(newDict());
    RtDictionarySetValue(numericKey, kRtBooleanTrue, kRtBooleanTrue);
    RtMutableArrayRef self = own(RtArrayCreateMutable(nullptr, 0, nullptr)); // holds itself, unretained
    RtArrayAppendValue(self, self);
    RtTypeRef url = own(RtURLCreateWithString(nullptr, own(str("http://host/")), nullptr));
    for (RtTypeRef bad : {RtTypeRef(kRtNull), url, RtTypeRef(numericKey), RtTypeRef(own(str("bell\x07"))),
                          RtTypeRef(self), RtTypeRef(nullptr)})
        EXPECT_EQ(RtPropertyListCreateXMLData(nullptr, bad), nullptr) << description(bad);
}

TEST_F(PropertyListTests, MalformedDocumentsGiveNullAndAnError) {
    const std::string head = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    std::string nested = head;
    for (int i = 0; i < 5000; i++)
        nested += "<array>";
    struct {
        std::string xml;
        const char *error;
    } cases[] = {
        {"", "no element found"},
        {"not xml at all", "syntax error"},
        {head + "<dict><key>a</key></dict></plist>", "<key> without a value"},
        {head + "<dict><string>a</string></dict></plist>", "Expected <key> in <dict>, found <string>"},
        {head + "<dict><key>a</key><key>b</key></dict></plist>", "Found <key> where a value was expected"},
        {head + "<array><key>a</key></array></plist>", "<key> outside <dict>"},
        {head + "<integer>12x</integer></plist>", "Malformed <integer> \"12x\""},
        {head + "<integer>9223372036854775808</integer></plist>", "Malformed <integer>"},
        {head + "<real>1.5.5</real></plist>", "Malformed <real>"},
        {head + "<date>2001-02-30T00:00:00Z</date></plist>", "Malformed <date>"},
        {head + "<date>2001-01-01 00:00:00</date></plist>", "Malformed <date>"},
        {head + "<data>AA=A</data></plist>", "Malformed base64"},
        {head + "<data>A</data></plist>", "Malformed base64"},
        {head + "<string><true/></string></plist>", "Encountered <true> inside <string>"},
        {head + "<color>red</color></plist>", "unknown element <color>"},
        {head + "<array>text</array></plist>", "text inside <array>"},
        {head + "<true>yes</true></plist>", "text inside <true>"},
        {head + "<true/><false/></plist>", "second value"},
        {head + "</plist>", "Found no value in <plist>"},
        {head + "<string>unclosed</plist>", "mismatched tag"},
        {head + "<string>&undefined;</string></plist>", "undefined entity"},
        {"<?xml version=\"1.0\"?><!DOCTYPE plist [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;\">]>"
         "<plist><string>&b;</string></plist>",
         "Entity declarations are not allowed"},
        {"<!DOCTYPE plist SYSTEM \"file:///etc/passwd\"><plist><string>&ext;</string></plist>",
         "Undefined entity reference"},
        {nested, "nested too deeply"},
    };
    for (auto &c : cases) {
        std::string error;
        EXPECT_EQ(own(read(c.xml, &error)), nullptr) << c.xml.substr(0, 200);
        EXPECT_NE(error.find(c.error), std::string::npos) << "error was: " << error;
    }
    // NULL data and NULL error pointer are tolerated.
    RtStringRef err = nullptr;
    EXPECT_EQ(RtPropertyListCreateFromXMLData(nullptr, nullptr, 0, &err), nullptr);
    EXPECT_NE(err, nullptr);
    RtRelease(err);
    EXPECT_EQ(RtPropertyListCreateFromXMLData(nullptr, own(dataOf("<plist>")), 0, nullptr), nullptr);
}

TEST_F(PropertyListTests, ReaderIsLenientWhereItIsHarmless) {
    // A document type naming an external DTD (never loaded), a bare root value, hex and '+'
    // integers, spelled-out infinities and base64 split across lines.
    std::string error;
    RtTypeRef v =
        own(read("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<!DOCTYPE plist SYSTEM \"http://127.0.0.1:9/never-fetched.dtd\">\n"
                 "<array><integer> 0x10 </integer><integer>+7</integer><real>-Infinity</real>"
                 "<real>1E3</real><data>AA\n  EC\t/w==</data><date>2001-01-01T00:00:00.25Z</date></array>",
                 &error));
    ASSERT_NE(v, nullptr) << error;
    auto at = [&](RtIndex i) { return formatted(RtArrayGetValueAtIndex(static_cast<RtArrayRef>(v), i)); };
    EXPECT_EQ(at(0), "16");
    EXPECT_EQ(at(1), "7");
    EXPECT_EQ(at(2), "-infinity");
    EXPECT_EQ(at(3), "1000");
    EXPECT_EQ(at(5), "2001-01-01 00:00:00.25 +0000");
    EXPECT_EQ(bytesOf(static_cast<RtDataRef>(RtArrayGetValueAtIndex(static_cast<RtArrayRef>(v), 4))),
              std::string("\0\x01\x02\xff", 4));
}

} // namespace
