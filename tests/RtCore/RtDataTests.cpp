// Data: immutable copies, no-copy views, mutable buffers and their editing operations.
#include "RtValueTestSupport.h"

#include <cstdlib>
#include <cstring>
#include <string>

using namespace rttest;

namespace {

class DataTests : public LeakChecked {};

const uint8_t *u8(const char *s) {
    return reinterpret_cast<const uint8_t *>(s);
}

TEST_F(DataTests, ImmutableAndNoCopy) {
    char buf[] = "abcdef";
    RtDataRef copy = own(RtDataCreate(nullptr, u8(buf), 6));
    RtDataRef view = own(RtDataCreateWithBytesNoCopy(nullptr, u8(buf), 6, kRtAllocatorNull));
    EXPECT_EQ(RtDataGetBytePtr(view), u8(buf)); // a view, not a copy
    EXPECT_TRUE(RtEqual(copy, view));
    EXPECT_EQ(RtHash(copy), RtHash(view));
    buf[0] = 'X';
    EXPECT_EQ(bytesOf(copy), "abcdef");
    EXPECT_EQ(bytesOf(view), "Xbcdef");
    EXPECT_EQ(RtDataGetMutableBytePtr(const_cast<RtMutableDataRef>(copy)), nullptr);
    RtDataAppendBytes(const_cast<RtMutableDataRef>(copy), u8("z"), 1); // refused: immutable
    EXPECT_EQ(RtDataGetLength(copy), 6);
    // Copies of an owning immutable data share it; copies of a view do not.
    EXPECT_EQ(own(RtDataCreateCopy(nullptr, copy)), copy);
    EXPECT_NE(RtDataGetBytePtr(own(RtDataCreateCopy(nullptr, view))), u8(buf));
    // A malloc'd buffer handed over is freed with the data (ASan would report a leak).
    auto *owned = static_cast<uint8_t *>(std::malloc(3));
    std::memcpy(owned, "xyz", 3);
    EXPECT_EQ(takeData(RtDataCreateWithBytesNoCopy(nullptr, owned, 3, kRtAllocatorDefault)), "xyz");
    uint8_t part[3] = {};
    RtDataGetBytes(copy, RtRangeMake(2, 3), part);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(part), 3), "cde");
    RtDataGetBytes(copy, RtRangeMake(5, 3), part); // out of range: untouched
    EXPECT_EQ(part[0], 'c');
    EXPECT_NE(description(copy).find("length = 6, bytes = 0x616263646566"), std::string::npos);
    EXPECT_EQ(RtDataGetLength(own(RtDataCreate(nullptr, nullptr, 0))), 0);
    EXPECT_EQ(RtDataCreate(nullptr, nullptr, 4), nullptr);
}

TEST_F(DataTests, MutableEditing) {
    RtMutableDataRef m = own(RtDataCreateMutable(nullptr, 0));
    std::string expected;
    // Growth is amortised: many small appends keep earlier bytes intact.
    for (int i = 0; i < 10000; i++) {
        char c = char('a' + i % 26);
        RtDataAppendBytes(m, u8(&c), 1);
        expected.push_back(c);
    }
    EXPECT_EQ(bytesOf(m), expected);
    RtDataReplaceBytes(m, RtRangeMake(1, 9998), u8("--"), 2);
    RtDataDeleteBytes(m, RtRangeMake(0, 1));
    EXPECT_EQ(bytesOf(m), "--" + expected.substr(9999));
    RtDataSetLength(m, 5);
    RtDataIncreaseLength(m, 1);
    EXPECT_EQ(bytesOf(m), std::string("--") + expected[9999] + std::string(3, '\0'));
    // Appending a data's own bytes to itself, whatever the buffer does meanwhile.
    RtDataAppendBytes(m, RtDataGetBytePtr(m), RtDataGetLength(m));
    EXPECT_EQ(RtDataGetLength(m), 12);
    EXPECT_EQ(std::memcmp(RtDataGetBytePtr(m), RtDataGetBytePtr(m) + 6, 6), 0);
    RtDataReplaceBytes(m, RtRangeMake(10, 5), u8("x"), 1); // range past the end: ignored
    EXPECT_EQ(RtDataGetLength(m), 12);
    RtDataGetMutableBytePtr(own(RtDataCreateMutableCopy(nullptr, 0, m)))[0] = 'Q';
    EXPECT_EQ(RtDataGetBytePtr(m)[0], '-');
}

} // namespace
