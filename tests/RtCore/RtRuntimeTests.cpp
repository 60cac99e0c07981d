// The object model: class registration, instances, reference counts, immortality and the
// polymorphic operations.
#include "RtValueTestSupport.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

using namespace rttest;

namespace {

struct Counter {
    RtRuntimeBase base;
    int value;
};

std::atomic<int> gFinalized{0};

int &valueOf(RtTypeRef obj) {
    return static_cast<Counter *>(const_cast<void *>(obj))->value;
}

const RtRuntimeClass kCounterClass = {
    0,
    "Counter",
    [](RtTypeRef obj) { valueOf(obj) = 7; }, // init
    nullptr,
    [](RtTypeRef) { gFinalized++; },                                   // finalize
    [](RtTypeRef a, RtTypeRef b) { return valueOf(a) == valueOf(b); }, // equal
    [](RtTypeRef obj) { return RtHashCode(valueOf(obj)); },            // hash
    [](RtTypeRef obj, RtDictionaryRef) {                               // formatting description
        return RtStringCreateWithFormat(nullptr, nullptr, RTSTR("#%d"), valueOf(obj));
    },
    nullptr};
const RtRuntimeClass kBareClass = {0, "Bare", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

RtTypeID counterType() {
    static RtTypeID sID = RtRuntimeRegisterClass(&kCounterClass);
    return sID;
}

RtTypeRef newCounter(int value) {
    RtTypeRef c = RtRuntimeCreateInstance(nullptr, counterType(), sizeof(Counter) - sizeof(RtRuntimeBase));
    if (c) valueOf(c) = value;
    return c;
}

class RtRuntimeTest : public LeakChecked {};

TEST_F(RtRuntimeTest, InstancesLiveUntilTheLastRelease) {
    int finalized = gFinalized;
    RtTypeRef fresh = RtRuntimeCreateInstance(nullptr, counterType(), sizeof(int));
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(valueOf(fresh), 7) << "init runs before the instance is returned";
    EXPECT_EQ(RtGetTypeID(fresh), counterType());
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLive + 1);
    EXPECT_EQ(RtRetain(fresh), fresh);
    EXPECT_EQ(RtGetRetainCount(fresh), 2);
    RtRelease(fresh);
    EXPECT_EQ(gFinalized, finalized);
    RtRelease(fresh);
    EXPECT_EQ(gFinalized, finalized + 1);

    EXPECT_EQ(RtRuntimeCreateInstance(nullptr, 60000, 0), nullptr);
    EXPECT_EQ(RtRuntimeCreateInstance(nullptr, counterType(), -1), nullptr);
    EXPECT_EQ(RtRuntimeGetClassWithTypeID(kRtNotATypeID), nullptr);
    EXPECT_EQ(RtRuntimeRegisterClass(nullptr), kRtNotATypeID);
    RtRetain(nullptr);
    RtRelease(nullptr);
    EXPECT_EQ(RtGetRetainCount(nullptr), 0);
    EXPECT_EQ(RtGetTypeID(nullptr), kRtNotATypeID);

    // Immortal objects are not counted and ignore retain and release.
    RtTypeRef c = newCounter(1);
    RtRuntimeSetImmortal(c);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLive);
    for (int i = 0; i < 5; i++)
        RtRelease(c);
    EXPECT_EQ(gFinalized, finalized + 1);
    EXPECT_GT(RtGetRetainCount(c), 1000000);
    static RtTypeRef sKept = c; // never freed, as immortal objects are; kept reachable for the leak checker
    (void)sKept;
}

TEST_F(RtRuntimeTest, EqualityHashAndDescriptionsDispatchToTheClass) {
    RtTypeRef a = own(newCounter(3)), b = own(newCounter(3)), c = own(newCounter(4));
    EXPECT_TRUE(RtEqual(a, b));
    EXPECT_FALSE(RtEqual(a, c));
    EXPECT_TRUE(RtEqual(nullptr, nullptr));
    EXPECT_FALSE(RtEqual(a, nullptr));
    EXPECT_FALSE(RtEqual(a, RTSTR("3"))) << "objects of different classes are never equal";
    EXPECT_EQ(RtHash(a), RtHash(b));
    EXPECT_EQ(formatted(a), "#3");
    EXPECT_EQ(description(a), "#3") << "without a debug description the formatting one is used";
    EXPECT_EQ(take(RtStringCreateWithFormat(nullptr, nullptr, RTSTR("[%@]"), c)), "[#4]");

    static RtTypeID sBare = RtRuntimeRegisterClass(&kBareClass);
    RtTypeRef bare = own(RtRuntimeCreateInstance(nullptr, sBare, 0));
    EXPECT_EQ(description(bare).rfind("<Bare 0x", 0), 0u) << description(bare);
    RtShow(nullptr);
}

TEST_F(RtRuntimeTest, ReferenceCountsAndRegistrationAreAtomicAcrossThreads) {
    RtTypeRef c = own(newCounter(0));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([c] {
            for (int i = 0; i < 20000; i++) {
                RtRetain(c);
                RtRelease(c);
            }
        });
    std::vector<RtTypeID> ids(4);
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t, &ids] { ids[size_t(t)] = RtRuntimeRegisterClass(&kBareClass); });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(RtGetRetainCount(c), 1);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end()) << "each registration gets its own identifier";
}

} // namespace
