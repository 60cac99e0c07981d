// The tools' own logic that runs without a process: hvcall's JSON conversions, and the README's
// example, which must be examples/sync_call.c word for word (that program is built and run).
#include "JSONValues.h"
#include "ToolStrings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

std::string readFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// ---- JSON conversions --------------------------------------------------------------------------

TEST(JSONValues, IntegersAreSizedAndEveryKindRoundTrips) {
    long live = RtRuntimeGetLiveObjectCount();
    std::string error;
    struct {
        const char *json;
        RtNumberType type;
        const char *written;
    } numbers[] = {{"2147483647", kRtNumberSInt32Type, "2147483647"},
                   {"-2147483648", kRtNumberSInt32Type, "-2147483648"},
                   {"2147483648", kRtNumberSInt64Type, "2147483648"},
                   {"-2147483649", kRtNumberSInt64Type, "-2147483649"},
                   {"9223372036854775807", kRtNumberSInt64Type, "9223372036854775807"},
                   {"2.0", kRtNumberFloat64Type, "2.0"},
                   {"1e3", kRtNumberFloat64Type, "1000.0"}};
    for (const auto &number : numbers) {
        RtTypeRef value = hvtools::createValueFromJSON(number.json, error);
        ASSERT_EQ(RtGetTypeID(value), RtNumberGetTypeID()) << number.json;
        EXPECT_EQ(RtNumberGetType(static_cast<RtNumberRef>(value)), number.type) << number.json;
        EXPECT_EQ(hvtools::jsonFromValue(value), number.written);
        RtRelease(value);
    }

    // Key order is kept; the tags make dates and data and come back the same way.
    const std::string every = R"({"z":"caf\u00e9 <&>","a":[1,2.5,true,false,null],)"
                              R"("when":{"$date":"2001-12-31T23:59:07Z"},"bytes":{"$base64":"TWFuAP8="},)"
                              R"("nested":{"$date":"not a tag: two members","x":{}}})";
    RtTypeRef value = hvtools::createValueFromJSON(every, error);
    ASSERT_NE(value, nullptr) << error;
    auto dictionary = static_cast<RtDictionaryRef>(value);
    EXPECT_EQ(RtGetTypeID(RtDictionaryGetValue(dictionary, RTSTR("when"))), RtDateGetTypeID());
    EXPECT_EQ(RtGetTypeID(RtDictionaryGetValue(dictionary, RTSTR("bytes"))), RtDataGetTypeID());
    EXPECT_EQ(RtDataGetLength(static_cast<RtDataRef>(RtDictionaryGetValue(dictionary, RTSTR("bytes")))), 5);
    EXPECT_EQ(hvtools::jsonFromValue(value),
              R"({"z":"café <&>","a":[1,2.5,true,false,null],)"
              R"("when":{"$date":"2001-12-31T23:59:07Z"},"bytes":{"$base64":"TWFuAP8="},)"
              R"("nested":{"$date":"not a tag: two members","x":{}}})");
    RtRelease(value);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live);
}

TEST(JSONValues, RefusesWhatItCannotCarry) {
    long live = RtRuntimeGetLiveObjectCount();
    const char *bad[] = {"hello",
                         "{\"a\":",
                         R"({"$date":"soon"})",
                         R"({"$base64":"@@@@"})",
                         R"({"$base64":"T"})",
                         "18446744073709551615",
                         R"([1, {"k": {"$date": "yesterday"}}])"};
    for (const char *text : bad) {
        std::string error;
        EXPECT_EQ(hvtools::createValueFromJSON(text, error), nullptr) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_EQ(error.find('\n'), std::string::npos) << text;
    }
    std::string deep(hvtools::kJSONMaxDepth + 1, '['), error;
    deep += std::string(hvtools::kJSONMaxDepth + 1, ']');
    EXPECT_EQ(hvtools::createValueFromJSON(deep, error), nullptr);
    EXPECT_EQ(RtRuntimeGetLiveObjectCount(), live); // nothing built half way is left behind

    EXPECT_EQ(hvtools::base64Decode("TWE"), std::optional<std::string>("Ma"));
    EXPECT_EQ(hvtools::base64Decode("TW\nFu"), std::optional<std::string>("Man"));
    EXPECT_EQ(hvtools::base64Decode("TQ==TQ=="), std::nullopt);
}

// ---- the README ---------------------------------------------------------------------------------

TEST(Readme, ShowsSyncCallVerbatim) {
    std::string source(HV_SOURCE_DIR);
    std::string readme = readFile(source + "/README.md");
    // The C++ form comes first, the C form after it; each is the example file as it stands.
    const std::pair<std::string, std::string> blocks[] = {{"```cpp\n", "/examples/sync_call.cpp"},
                                                          {"```c\n", "/examples/sync_call.c"}};
    size_t previous = 0;
    for (const auto &[fence, file] : blocks) {
        size_t start = readme.find(fence);
        ASSERT_NE(start, std::string::npos) << fence;
        EXPECT_GE(start, previous) << file << " comes out of order";
        previous = start;
        start += fence.size();
        std::string block = readme.substr(start, readme.find("```", start) - start);
        EXPECT_EQ(block, readFile(source + file));
    }
}

} // namespace
