// The shared road runner and result readers of the end-to-end call tests.
#include "TransportHarness.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <vector>

namespace hvit {

const char *const kHelloReply = "<?xml version=\"1.0\"?>\n<methodResponse><params><param><value><string>hello"
                                "</string></value></param></params></methodResponse>\n";

std::string roadName(const testing::TestParamInfo<Road> &info) {
    return info.param == Road::eSync ? "Sync" : "Async";
}

Owned newURL(const std::string &text) {
    return Owned::adopt(RtURLCreateWithString(kRtAllocatorDefault, S(text.c_str()).str(), nullptr));
}

std::string text(RtTypeRef value) {
    if (!value || RtGetTypeID(value) != RtStringGetTypeID()) return "";
    RtStringRef string = static_cast<RtStringRef>(value);
    RtIndex length = RtStringGetLength(string);
    std::string bytes(static_cast<size_t>(RtStringGetMaximumSizeForEncoding(length, kRtStringEncodingUTF8)),
                      '\0');
    RtIndex used = 0;
    RtStringGetBytes(string, RtRange{0, length}, kRtStringEncodingUTF8, 0, false,
                     reinterpret_cast<uint8_t *>(&bytes[0]), static_cast<RtIndex>(bytes.size()), &used);
    bytes.resize(static_cast<size_t>(used));
    return bytes;
}

int64_t integer(RtTypeRef value) {
    int64_t number = INT64_MIN;
    if (value && RtGetTypeID(value) == RtNumberGetTypeID())
        RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt64Type, &number);
    return number;
}

RtTypeRef Outcome::value(RtStringRef key) const {
    return dictionary() ? RtDictionaryGetValue(dictionary(), key) : nullptr;
}

static RtTypeRef streamEntry(const Outcome &outcome, RtStringRef key) {
    RtTypeRef extra = outcome.value(kHVFaultExtra);
    if (!extra || RtGetTypeID(extra) != RtDictionaryGetTypeID()) return nullptr;
    return RtDictionaryGetValue(static_cast<RtDictionaryRef>(extra), key);
}

std::string Outcome::streamMessage() const {
    return text(streamEntry(*this, kHVStreamErrorMessage));
}
int64_t Outcome::streamDomain() const {
    return integer(streamEntry(*this, kHVStreamErrorDomain));
}
int64_t Outcome::streamError() const {
    return integer(streamEntry(*this, kHVStreamErrorError));
}
std::string Outcome::streamDetail() const {
    return text(streamEntry(*this, kHVStreamErrorDetail));
}

Invocation::Invocation(const std::string &url, const char *method, RtStringRef protocol)
    : fRef(nullptr),
      fParameters(RtDictionaryCreateMutable(kRtAllocatorDefault, 0, &kRtCopyStringDictionaryKeyCallBacks,
                                            &kRtTypeDictionaryValueCallBacks)),
      fOrder(RtArrayCreateMutable(kRtAllocatorDefault, 0, &kRtTypeArrayCallBacks)) {
    fRef = HVMethodInvocationCreate(as<RtURLRef>(newURL(url)), S(method).str(), protocol);
    HVMethodInvocationSetParameters(fRef, fParameters, fOrder);
}

Invocation::~Invocation() {
    if (fRef) RtRelease(fRef);
    RtRelease(fParameters);
    RtRelease(fOrder);
}

Invocation &Invocation::param(const char *name, RtTypeRef value) {
    Owned key = S(name);
    RtDictionarySetValue(fParameters, key.get(), value);
    RtArrayAppendValue(fOrder, key.get());
    HVMethodInvocationSetParameters(fRef, fParameters, fOrder);
    return *this;
}

Invocation &Invocation::property(RtStringRef key, RtTypeRef value) {
    HVMethodInvocationSetProperty(fRef, key, value);
    return *this;
}

Outcome Invocation::run(Road road, double lingerSeconds) const {
    return runCall(fRef, road, lingerSeconds);
}

RtStringRef asyncTestMode() {
    return RTSTR("HVTransportTestMode");
}

namespace {

struct Delivery {
    int callbacks = 0;
    RtDictionaryRef first = nullptr;
};

void _countingCallback(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    Delivery *delivery = static_cast<Delivery *>(info);
    delivery->callbacks++;
    // The callback owns the dictionary: keep the first, drop any later one (counted above).
    if (!delivery->first)
        delivery->first = result;
    else if (result)
        RtRelease(result);
}

// Runs mode for seconds, or until nothing in it could deliver any more.
void linger(RtStringRef mode, double seconds) {
    RtAbsoluteTime end = RtAbsoluteTimeGetCurrent() + seconds;
    while (RtAbsoluteTimeGetCurrent() < end)
        if (RtRunLoopRunInMode(mode, end - RtAbsoluteTimeGetCurrent(), false) == kRtRunLoopRunFinished) break;
}

} // namespace

Outcome runCall(HVMethodInvocationRef invocation, Road road, double lingerSeconds) {
    if (road == Road::eAsync) return runConcurrently({invocation}, lingerSeconds)[0];
    Delivery delivery;
    delivery.first = HVMethodInvocationInvoke(invocation);
    delivery.callbacks = delivery.first ? 1 : 0;
    // Invoke ran the call in this private mode; whatever the transport left there runs now.
    HVClientContext context = {0, &delivery, nullptr, nullptr, nullptr};
    HVMethodInvocationSetCallBack(invocation, _countingCallback, &context);
    linger(RTSTR("HVSYNC"), lingerSeconds);
    HVMethodInvocationSetCallBack(invocation, nullptr, nullptr);
    Outcome outcome;
    outcome.callbacks = delivery.callbacks;
    outcome.result = Owned::adopt(delivery.first);
    return outcome;
}

std::vector<Outcome> runConcurrently(const std::vector<HVMethodInvocationRef> &invocations,
                                     double lingerSeconds) {
    std::vector<Delivery> deliveries(invocations.size());
    RtRunLoopRef loop = RtRunLoopGetCurrent();
    for (size_t i = 0; i < invocations.size(); i++) {
        HVClientContext client = {0, &deliveries[i], nullptr, nullptr, nullptr};
        HVMethodInvocationSetCallBack(invocations[i], _countingCallback, &client);
        HVMethodInvocationScheduleWithRunLoop(invocations[i], loop, asyncTestMode());
    }
    auto pending = [&] {
        return std::any_of(deliveries.begin(), deliveries.end(),
                           [](const Delivery &d) { return d.callbacks == 0; });
    };
    RtAbsoluteTime guard = RtAbsoluteTimeGetCurrent() + 60;
    while (pending() && RtAbsoluteTimeGetCurrent() < guard)
        RtRunLoopRunInMode(asyncTestMode(), 1.0, true);
    linger(asyncTestMode(), lingerSeconds);
    std::vector<Outcome> outcomes(invocations.size());
    for (size_t i = 0; i < invocations.size(); i++) {
        HVMethodInvocationUnscheduleFromRunLoop(invocations[i], loop, asyncTestMode());
        HVMethodInvocationSetCallBack(invocations[i], nullptr, nullptr);
        outcomes[i].callbacks = deliveries[i].callbacks;
        outcomes[i].result = Owned::adopt(deliveries[i].first);
    }
    return outcomes;
}

void expectDebugEntries(const Outcome &outcome, bool withResponse) {
    RtTypeRef outHeaders = outcome.value(kHVDebugOutgoingHeaders);
    ASSERT_TRUE(outHeaders && RtGetTypeID(outHeaders) == RtDictionaryGetTypeID());
    EXPECT_FALSE(
        text(RtDictionaryGetValue(static_cast<RtDictionaryRef>(outHeaders), RTSTR("User-Agent"))).empty());
    // Bodies are shown with line feeds only.
    std::string outBody = text(outcome.value(kHVDebugOutgoingBody));
    EXPECT_NE(outBody.find("<?xml"), std::string::npos) << outBody;
    EXPECT_EQ(outBody.find('\r'), std::string::npos);
    EXPECT_TRUE(outcome.value(kHVDebugIncomingBody) &&
                RtGetTypeID(outcome.value(kHVDebugIncomingBody)) == RtStringGetTypeID());
    RtTypeRef inHeaders = outcome.value(kHVDebugIncomingHeaders);
    if (withResponse) {
        EXPECT_TRUE(inHeaders && RtGetTypeID(inHeaders) == RtDictionaryGetTypeID());
        EXPECT_TRUE(outcome.value(kHVHTTPResponseMessage) != nullptr);
    } else {
        EXPECT_EQ(inHeaders, nullptr);
    }
}

void expectStreamFault(const Outcome &outcome, const std::string &message, int64_t domain, int64_t error) {
    EXPECT_TRUE(outcome.isFault());
    EXPECT_EQ(outcome.faultString(), "/RtStreamFault");
    EXPECT_EQ(outcome.faultCode(), -65794);
    if (message[0] == '~')
        EXPECT_THAT(outcome.streamMessage(), testing::ContainsRegex(message.substr(1)));
    else
        EXPECT_EQ(outcome.streamMessage(), message);
    EXPECT_EQ(outcome.streamDomain(), domain);
    EXPECT_EQ(outcome.streamError(), error);
}

} // namespace hvit
