// The object model: class registration, instances, reference counts, immortality and the
// polymorphic operations.
#include <RtCore/RtCore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Counter {
    RtRuntimeBase base;
    int value;
};

std::atomic<int> gFinalized{0};

void _counterInit(RtTypeRef obj) {
    static_cast<Counter *>(const_cast<void *>(obj))->value = 7;
}
void _counterFinalize(RtTypeRef) {
    gFinalized++;
}
bool _counterEqual(RtTypeRef a, RtTypeRef b) {
    return static_cast<const Counter *>(a)->value == static_cast<const Counter *>(b)->value;
}
RtHashCode _counterHash(RtTypeRef obj) {
    return RtHashCode(static_cast<const Counter *>(obj)->value);
}
RtStringRef _counterFormat(RtTypeRef obj, RtDictionaryRef) {
    return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("#%d"), static_cast<const Counter *>(obj)->value);
}

const RtRuntimeClass kCounterClass = {
    0,      "Counter", _counterInit, nullptr, _counterFinalize, _counterEqual, _counterHash, _counterFormat,
    nullptr};
const RtRuntimeClass kBareClass = {0, "Bare", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

RtTypeID counterType() {
    static RtTypeID sID = RtRuntimeRegisterClass(&kCounterClass);
    return sID;
}

Counter *newCounter(int value) {
    auto *c = static_cast<Counter *>(const_cast<void *>(
        RtRuntimeCreateInstance(nullptr, counterType(), sizeof(Counter) - sizeof(RtRuntimeBase))));
    if (c) c->value = value;
    return c;
}

std::string text(RtStringRef s) {
    char buf[256] = {};
    if (s) RtStringGetCString(s, buf, sizeof buf, kRtStringEncodingUTF8);
    return buf;
}

TEST(RtRuntimeTest, InstancesLiveUntilTheLastRelease) {
    long live = RtRuntimeGetLiveObjectCount();
    int finalized = gFinalized;
    auto *fresh = static_cast<const Counter *>(RtRuntimeCreateInstance(nullptr, counterType(), sizeof(int)));
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->value, 7) << "init runs before the instance is returned";
    EXPECT_EQ(RtGetTypeID(fresh), counterType());
    EXPECT_EQ(RtGetRetainCount(fresh), 1);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live + 1);
    EXPECT_EQ(RtRetain(fresh), fresh);
    EXPECT_EQ(RtGetRetainCount(fresh), 2);
    RtRelease(fresh);
    EXPECT_EQ(gFinalized, finalized);
    RtRelease(fresh);
    EXPECT_EQ(gFinalized, finalized + 1);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);

    EXPECT_EQ(RtRuntimeCreateInstance(nullptr, 60000, 0), nullptr);
    EXPECT_EQ(RtRuntimeCreateInstance(nullptr, counterType(), -1), nullptr);
    EXPECT_EQ(RtRuntimeGetClassWithTypeID(counterType()), &kCounterClass);
    EXPECT_EQ(RtRuntimeGetClassWithTypeID(kRtNotATypeID), nullptr);
    EXPECT_EQ(RtRuntimeRegisterClass(nullptr), kRtNotATypeID);
    RtRetain(nullptr);
    RtRelease(nullptr);
    EXPECT_EQ(RtGetRetainCount(nullptr), 0);
    EXPECT_EQ(RtGetTypeID(nullptr), kRtNotATypeID);
}

TEST(RtRuntimeTest, ImmortalObjectsIgnoreRetainAndRelease) {
    long live = RtRuntimeGetLiveObjectCount();
    int finalized = gFinalized;
    Counter *c = newCounter(1);
    RtRuntimeSetImmortal(c);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live) << "immortal objects are not counted";
    for (int i = 0; i < 5; i++)
        RtRelease(c);
    RtRetain(c);
    EXPECT_EQ(gFinalized, finalized);
    EXPECT_GT(RtGetRetainCount(c), 1000000);
    static Counter *sKept = c; // never freed, as immortal objects are; kept reachable for the leak checker
    (void)sKept;
}

TEST(RtRuntimeTest, EqualityHashAndDescriptionsDispatchToTheClass) {
    Counter *a = newCounter(3), *b = newCounter(3), *c = newCounter(4);
    EXPECT_TRUE(RtEqual(a, b));
    EXPECT_FALSE(RtEqual(a, c));
    EXPECT_TRUE(RtEqual(nullptr, nullptr));
    EXPECT_FALSE(RtEqual(a, nullptr));
    EXPECT_FALSE(RtEqual(a, RTSTR("3"))) << "objects of different classes are never equal";
    EXPECT_EQ(RtHash(a), RtHash(b));

    RtStringRef f = RtCopyFormattingDescription(a);
    EXPECT_EQ(text(f), "#3");
    RtStringRef d = RtCopyDescription(a);
    EXPECT_EQ(text(d), "#3") << "without a debug description the formatting one is used";
    RtStringRef line = RtStringCreateWithFormat(nullptr, nullptr, RTSTR("[%@]"), c);
    EXPECT_EQ(text(line), "[#4]");

    static RtTypeID sBare = RtRuntimeRegisterClass(&kBareClass);
    RtTypeRef bare = RtRuntimeCreateInstance(nullptr, sBare, 0);
    RtStringRef generic = RtCopyDescription(bare);
    EXPECT_EQ(text(generic).rfind("<Bare 0x", 0), 0u) << text(generic);
    EXPECT_FALSE(RtEqual(bare, RtRuntimeCreateInstance(nullptr, kRtNotATypeID, 0)));
    RtShow(a);
    RtShow(nullptr);
    for (RtTypeRef x : {RtTypeRef(a), RtTypeRef(b), RtTypeRef(c), bare, RtTypeRef(f), RtTypeRef(d),
                        RtTypeRef(line), RtTypeRef(generic)})
        RtRelease(x);
}

TEST(RtRuntimeTest, ReferenceCountsAreAtomicAcrossThreads) {
    long live = RtRuntimeGetLiveObjectCount();
    Counter *c = newCounter(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([c] {
            for (int i = 0; i < 20000; i++) {
                RtRetain(c);
                RtRelease(c);
            }
        });
    // Registration from several threads at once hands out distinct identifiers.
    std::vector<RtTypeID> ids(4);
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t, &ids] { ids[size_t(t)] = RtRuntimeRegisterClass(&kBareClass); });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(RtGetRetainCount(c), 1);
    for (size_t i = 0; i < ids.size(); i++)
        for (size_t j = i + 1; j < ids.size(); j++)
            EXPECT_NE(ids[i], ids[j]);
    RtRelease(c);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);
}

} // namespace
