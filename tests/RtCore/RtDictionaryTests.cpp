// Dictionaries: insertion order (across removals, replacements and growth), ownership through
// callback records, copies, equality and descriptions.
#include "RtValueTestSupport.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

using namespace rttest;

namespace {

class DictionaryTests : public LeakChecked {};

RtMutableDictionaryRef newDict() {
    return RtDictionaryCreateMutable(nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                                     &kRtTypeDictionaryValueCallBacks);
}

// Edits and lookups by the texts of keys and values.
void set(RtMutableDictionaryRef d, const std::string &k, const std::string &v) {
    RtStringRef ks = str(k), vs = str(v);
    RtDictionarySetValue(d, ks, vs);
    RtRelease(ks);
    RtRelease(vs);
}
void remove(RtMutableDictionaryRef d, const std::string &k) {
    RtStringRef ks = str(k);
    RtDictionaryRemoveValue(d, ks);
    RtRelease(ks);
}
std::string get(RtDictionaryRef d, const std::string &k) {
    RtStringRef ks = str(k);
    const void *v = RtDictionaryGetValue(d, ks);
    RtRelease(ks);
    return v ? text(static_cast<RtStringRef>(v)) : "<absent>";
}

// "k1=v1 k2=v2 ..." in enumeration order.
std::string order(RtDictionaryRef d) {
    std::vector<const void *> keys(size_t(RtDictionaryGetCount(d))), values(keys.size());
    RtDictionaryGetKeysAndValues(d, keys.data(), values.data());
    std::string out;
    for (size_t i = 0; i < keys.size(); i++)
        out += (i ? " " : "") + text(static_cast<RtStringRef>(keys[i])) + "=" +
               text(static_cast<RtStringRef>(values[i]));
    return out;
}

TEST_F(DictionaryTests, OrderAndLookupsMatchAReferenceUnderRandomEdits) {
    // Replacing keeps a key's place; removing and adding again moves it to the end. Enough keys
    // for the hashed index, and enough removals to force compaction many times.
    RtMutableDictionaryRef d = own(newDict());
    std::vector<std::pair<std::string, std::string>> reference; // insertion order
    std::mt19937 rng(7);
    for (int step = 0; step < 20000; step++) {
        std::string k = "key" + std::to_string(rng() % 300), v = std::to_string(step);
        auto it = std::find_if(reference.begin(), reference.end(), [&](auto &kv) { return kv.first == k; });
        bool removing = rng() % 3 == 0;
        removing ? remove(d, k) : set(d, k, v);
        if (it != reference.end() && removing)
            reference.erase(it);
        else if (it != reference.end())
            it->second = v;
        else if (!removing)
            reference.emplace_back(k, v);
    }
    std::string expected;
    for (auto &kv : reference)
        expected += (expected.empty() ? "" : " ") + kv.first + "=" + kv.second;
    EXPECT_EQ(RtDictionaryGetCount(d), RtIndex(reference.size()));
    EXPECT_EQ(order(d), expected);
    for (int i = 0; i < 300; i++) {
        std::string k = "key" + std::to_string(i);
        auto it = std::find_if(reference.begin(), reference.end(), [&](auto &kv) { return kv.first == k; });
        EXPECT_EQ(get(d, k), it == reference.end() ? "<absent>" : it->second) << k;
    }

    RtStringRef present = own(str(reference[0].first)), absent = own(str("absent"));
    RtDictionaryAddValue(d, present, absent);     // the key is present: Add keeps the old value
    RtDictionaryReplaceValue(d, absent, present); // the key is absent: Replace adds nothing
    EXPECT_EQ(order(d), expected);
    RtDictionaryRemoveAllValues(d);
    EXPECT_EQ(RtDictionaryGetCount(d), 0);
}

// Custom callbacks record what the dictionary owns.
std::map<const void *, int> gHeld;
const void *_hold(RtAllocatorRef, const void *v) {
    gHeld[v]++;
    return v;
}
void _drop(RtAllocatorRef, const void *v) {
    gHeld[v]--;
}

TEST_F(DictionaryTests, CallbacksDecideOwnership) {
    // NULL callbacks: pointer keys, identity, nothing retained.
    static const char k1[] = "same", k2[] = "same";
    RtMutableDictionaryRef raw = own(RtDictionaryCreateMutable(nullptr, 0, nullptr, nullptr));
    RtDictionarySetValue(raw, k1, k2);
    EXPECT_EQ(RtDictionaryGetValue(raw, k1), k2);
    EXPECT_FALSE(RtDictionaryContainsKey(raw, k2));

    RtDictionaryKeyCallBacks keys = {0, _hold, _drop, nullptr, nullptr, nullptr};
    RtDictionaryValueCallBacks values = {0, _hold, _drop, nullptr, nullptr};
    gHeld.clear();
    RtMutableDictionaryRef d = RtDictionaryCreateMutable(nullptr, 0, &keys, &values);
    int slots[40];
    for (int &s : slots)
        RtDictionarySetValue(d, &s, &slots[0]);
    RtDictionaryReplaceValue(d, &slots[3], &slots[1]);
    RtDictionaryRemoveValue(d, &slots[5]);
    RtMutableDictionaryRef copy = RtDictionaryCreateMutableCopy(nullptr, 0, d);
    EXPECT_EQ(RtDictionaryGetValue(copy, &slots[3]), &slots[1]);
    RtRelease(d);
    RtRelease(copy);
    for (auto &kv : gHeld)
        EXPECT_EQ(kv.second, 0);

    // Copy-string keys: a mutable key is frozen, so changing it later moves nothing.
    RtMutableDictionaryRef byName = own(RtDictionaryCreateMutable(
        nullptr, 0, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks));
    RtMutableStringRef name = own(RtStringCreateMutable(nullptr, 0));
    RtStringAppendCString(name, "host", kRtStringEncodingUTF8);
    RtDictionarySetValue(byName, name, kRtBooleanTrue);
    RtStringAppendCString(name, "name", kRtStringEncodingUTF8);
    EXPECT_EQ(RtDictionaryGetValue(byName, RTSTR("host")), kRtBooleanTrue);
    EXPECT_EQ(RtDictionaryGetValue(byName, name), nullptr);
}

TEST_F(DictionaryTests, CopiesEqualityAndDescription) {
    const void *k[] = {own(str("one")), own(str("two"))};
    RtNumberRef n = own(num(kRtNumberIntType, 1));
    RtMutableArrayRef list = own(RtArrayCreateMutable(nullptr, 0, &kRtTypeArrayCallBacks));
    RtArrayAppendValue(list, n);
    const void *values[] = {n, list};
    RtDictionaryRef fixed = own(RtDictionaryCreate(nullptr, k, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                                   &kRtTypeDictionaryValueCallBacks));
    EXPECT_EQ(description(fixed), "{\n    \"one\" = 1;\n    \"two\" = (\n        1\n    );\n}");
    RtDictionarySetValue(const_cast<RtMutableDictionaryRef>(fixed), k[0], k[1]); // refused: immutable
    EXPECT_EQ(RtDictionaryGetValue(fixed, k[0]), n);
    EXPECT_EQ(own(RtDictionaryCreateCopy(nullptr, fixed)), fixed); // immutable copy of immutable: shared
    RtMutableDictionaryRef m = own(RtDictionaryCreateMutableCopy(nullptr, 0, fixed));
    EXPECT_TRUE(RtEqual(m, fixed));
    RtDictionarySetValue(m, k[0], own(num(kRtNumberDoubleType, 1.0))); // equal by value: still equal
    EXPECT_TRUE(RtEqual(m, fixed));
    RtDictionaryRemoveValue(m, k[1]);
    EXPECT_FALSE(RtEqual(m, fixed));
    EXPECT_TRUE(RtDictionaryContainsValue(m, n));
    EXPECT_NE(static_cast<const void *>(own(RtDictionaryCreateCopy(nullptr, m))), m);
}

} // namespace
