// XMLBuffer output byte for byte, indentation, charset names and the five entities.
#include "HalvoUtilsTestSupport.h"

#include <climits>

using namespace hvutils_test;

namespace {

class XMLBufferTest : public UtilsTest {};

TEST_F(XMLBufferTest, DeclarationIndentationAndCharsetFallback) {
    XMLBuffer buffer(kRtStringEncodingUTF8);
    buffer.addTo(1, "<a>%d</a>", 5);
    // A literal 0 after an RtStringRef format must go to the variadic form, not the argument-list one.
    buffer.addTo(0, RTSTR("<i>%d</i>"), 0);
    const std::string expected = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n  <a>5</a>\r\n<i>0</i>\r\n";
    EXPECT_EQ(text(buffer.getString()), expected);
    Owned<RtDataRef> data(buffer.copyData());
    EXPECT_EQ(bytesOf(data), expected);

    EXPECT_EQ(text(getIndentString(0)), "");
    EXPECT_EQ(text(getIndentString(14)), std::string(28, ' '));
    for (int level : {15, 40, -1, INT_MIN, INT_MAX})
        EXPECT_EQ(text(getIndentString(level)), std::string(30, ' ')) << level;

    // An encoding without an IANA name becomes UTF-8. (How Latin 1 and ASCII documents are
    // written shows in the XML-RPC writer's reply encodings.)
    RtStringEncoding enc = 0x7ABCDEu;
    EXPECT_EQ(text(getIANAString(enc, &enc)), "UTF-8");
    EXPECT_EQ(enc, kRtStringEncodingUTF8);
    XMLBuffer fallback(0x7ABCDEu);
    EXPECT_EQ(fallback.getEncoding(), kRtStringEncodingUTF8);
    EXPECT_EQ(text(fallback.getString()), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n");
}

TEST_F(XMLBufferTest, EntitiesEncodeAllFiveOnceAndDecode) {
    std::string longIn, longOut; // several pieces, with a four-byte character at every boundary
    for (int i = 0; i < 3000; i++) {
        longIn += "\xC3\xA9&\xF0\x9F\x98\x80<";
        longOut += "\xC3\xA9&amp;\xF0\x9F\x98\x80&lt;";
    }
    const std::pair<std::string, std::string> cases[] = {
        {longIn, longOut},
        {"a&b<c>'d", "a&amp;b&lt;c&gt;&apos;d"},
        {"say \"hi\"", "say &quot;hi&quot;"},
        {"&lt;", "&amp;lt;"}, // an existing reference is escaped again
        {"plain text", "plain text"},
        {"", ""},
        {"\xC3\xA9<\xE4\xB8\xAD>&", "\xC3\xA9&lt;\xE4\xB8\xAD&gt;&amp;"},
    };
    for (const auto &c : cases) {
        Owned<RtStringRef> in(newString(c.first));
        Owned<RtMutableStringRef> out(entityEncodeString(in));
        EXPECT_EQ(text(out.get()), c.second) << c.first.substr(0, 40);
    }
    // The result is a mutable copy even when nothing needed escaping.
    Owned<RtStringRef> in(newString("abc"));
    Owned<RtMutableStringRef> out(entityEncodeString(in));
    ASSERT_NE(out.get(), nullptr);
    EXPECT_NE(static_cast<RtTypeRef>(out.get()), static_cast<RtTypeRef>(in.get()));
    RtStringAppend(out, RTSTR("!"));
    EXPECT_EQ(text(in.get()), "abc");

    EXPECT_EQ(text(decodeEntityReference(RTSTR("quot"))), "\"");
    EXPECT_EQ(text(decodeEntityReference(RTSTR("nbsp"))), "<<Unknown Escape>>");
    EXPECT_EQ(text(decodeEntityReference(nullptr)), "<<Unknown Escape>>");
}

TEST_F(XMLBufferTest, UTF8DocumentsOfLongAndUnrepresentableLines) {
    // Lines longer than the buffer's spare room, non-ASCII text and surrogate pairs.
    std::string longText;
    for (int i = 0; i < 400; i++)
        longText += "\xE6\x97\xA5\xF0\x9F\x98\x80x";
    Owned<RtStringRef> value(newString(longText));
    {
        XMLBuffer buffer(kRtStringEncodingUTF8);
        for (int i = 0; i < 50; i++)
            buffer.addTo(3, RTSTR("<s>%@</s>"), value.get());
        std::string line = "      <s>" + longText + "</s>\r\n";
        std::string expected = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";
        for (int i = 0; i < 50; i++)
            expected += line;
        Owned<RtDataRef> data(buffer.copyData());
        EXPECT_EQ(bytesOf(data), expected);
        EXPECT_EQ(text(buffer.getString()), expected);

        // Lines after copyData go into the next copy only: the data handed out stays as it was.
        buffer.addTo(1, "<end/>");
        Owned<RtDataRef> more(buffer.copyData());
        EXPECT_EQ(bytesOf(data), expected);
        EXPECT_EQ(bytesOf(more), expected + "  <end/>\r\n");
    }
    {
        // Constant markup is copied as it stands; "%%" and formats made at run time still format.
        XMLBuffer buffer(kRtStringEncodingUTF8);
        buffer.addTo(2, RTSTR("<value>"));
        buffer.addTo(2, RTSTR("100%% <b/>"));
        for (const char *made : {"<made/>", "<n>%d</n>"}) {
            Owned<RtStringRef> format(newString(made));
            buffer.addTo(-1, format.get(), 7);
        }
        Owned<RtDataRef> data(buffer.copyData());
        EXPECT_EQ(bytesOf(data),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n    <value>\r\n    100% <b/>\r\n"
                  "                              <made/>\r\n"
                  "                              <n>7</n>\r\n");
    }
    {
        // A lone %@ or %d is written around its value directly; every kind of value still reads
        // as the formatter would write it.
        Owned<RtStringRef> accented(newString("caf\xC3\xA9"));
        Owned<RtStringRef> plain(newString("id"));
        XMLBuffer buffer(kRtStringEncodingUTF8);
        buffer.addTo(1, RTSTR("<i4>%d</i4>"), INT_MIN);
        buffer.addTo(1, RTSTR("%d"), 0);
        buffer.addTo(1, RTSTR("<name>%@</name>"), plain.get());
        buffer.addTo(1, RTSTR("<name>%@</name>"), accented.get());
        buffer.addTo(1, RTSTR("%@!"), internedInt(1));
        buffer.addTo(1, RTSTR("<s>%@</s>"), static_cast<RtStringRef>(nullptr));
        buffer.addTo(1, RTSTR("<x>%@ %d</x>"), plain.get(), 5);
        Owned<RtDataRef> data(buffer.copyData());
        EXPECT_EQ(bytesOf(data),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n  <i4>-2147483648</i4>\r\n  0\r\n"
                  "  <name>id</name>\r\n  <name>caf\xC3\xA9</name>\r\n  1!\r\n  <s>(null)</s>\r\n"
                  "  <x>id 5</x>\r\n");
    }
    {
        // A lone surrogate cannot be written in UTF-8: no document at all.
        const RtUniChar units[] = {'a', 0xD800};
        Owned<RtStringRef> lone(RtStringCreateWithCharacters(kRtAllocatorDefault, units, 2));
        XMLBuffer buffer(kRtStringEncodingUTF8);
        buffer.addTo(1, RTSTR("<s>%@</s>"), lone.get());
        buffer.addTo(1, "<after/>");
        Owned<RtDataRef> data(buffer.copyData());
        EXPECT_EQ(data.get(), nullptr);
    }
}

} // namespace
