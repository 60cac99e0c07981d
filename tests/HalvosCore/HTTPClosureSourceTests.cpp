// The HTTP transport's state machine driven directly: events in an order no server produces,
// and a serializer that gives no body.
#include "HTTPClosureSource.h"
#include "HalvoClosure.h"
#include "HalvoResult.h"

#include <gtest/gtest.h>

namespace {

// An invocation whose serializer fails; its source is the HTTP transport.
class NoBodyInvocation : public HalvoMethodInvocation {
  public:
    NoBodyInvocation() { setServiceEndpoint(AutoURL("http://127.0.0.1:9/RPC2").getURL()); }
    RtDictionaryRef copyAgreement() override { return nullptr; }
    RtDataRef constructMessage(AutoString &) override { return nullptr; }
    void parseReply(HalvoResult *, RtTreeRef) override {}
    HVRunLoopSource *createRunLoopSource() override { return new HTTPClosureSource(this, getServiceURL()); }
};

struct Deliveries {
    int count = 0;
    RtDictionaryRef last = nullptr;
    ~Deliveries() { safeRtRelease(last); }
};

void _keep(HVMethodInvocationRef, void *info, RtDictionaryRef result) {
    Deliveries *deliveries = static_cast<Deliveries *>(info);
    deliveries->count++;
    safeRtRelease(deliveries->last);
    deliveries->last = result;
}

RtTypeRef streamMessage(RtDictionaryRef result) {
    RtTypeRef extra = RtDictionaryGetValue(result, kHVFaultExtra);
    return extra ? RtDictionaryGetValue(static_cast<RtDictionaryRef>(extra), kHVStreamErrorMessage) : nullptr;
}

class HTTPClosureSourceTest : public testing::Test {
  protected:
    void SetUp() override {
        HVClientContext context = {0, &fDeliveries, nullptr, nullptr, nullptr};
        fInvocation.setCallback(_keep, &context);
        fSource = static_cast<HTTPClosureSource *>(fInvocation.getSource());
        // Signals need a runtime source in some loop; this mode is never run.
        fSource->addToRunLoop(RtRunLoopGetCurrent(), RTSTR("HTTPClosureSourceTest"));
    }
    void TearDown() override {
        fSource->removeFromRunLoop(RtRunLoopGetCurrent(), RTSTR("HTTPClosureSourceTest"));
    }

    NoBodyInvocation fInvocation;
    HTTPClosureSource *fSource = nullptr;
    Deliveries fDeliveries;
};

} // namespace

// The stream events move the state unconditionally; the timer moves only states 0 to 2 and
// leaves an ended stream alone; nothing is delivered by any of this.
TEST_F(HTTPClosureSourceTest, EventsAndTimerMoveTheState) {
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eUninit);
    fSource->timedOut();
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eTimedOut);
    fSource->timedOut(); // already timed out
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eTimedOut);
    fSource->readStreamCallback(kRtStreamEventHasBytesAvailable); // bytes after the time-out
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eReadIntoBuffer);
    fSource->readStreamCallback(kRtStreamEventOpenCompleted);
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eReadIntoBuffer);
    fSource->readStreamCallback(kRtStreamEventEndEncountered);
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eStreamEndEncountered);
    fSource->timedOut(); // the timer after the end changes nothing
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eStreamEndEncountered);
    EXPECT_EQ(fDeliveries.count, 0);
}

// An event outside the client's mask ends the call; later events and performs are ignored.
TEST_F(HTTPClosureSourceTest, UnlikelyEventFinishesOnceAndLaterEventsAreIgnored) {
    fSource->readStreamCallback(kRtStreamEventCanAcceptBytes);
    ASSERT_EQ(fDeliveries.count, 1);
    EXPECT_TRUE(HVMethodResultIsFault(fDeliveries.last));
    EXPECT_TRUE(RtEqual(streamMessage(fDeliveries.last), RTSTR("Unlikely state for a read stream")));
    EXPECT_EQ(fSource->getResult(), nullptr);

    fSource->readStreamCallback(kRtStreamEventEndEncountered);
    fSource->readStreamCallback(kRtStreamEventErrorOccurred);
    fSource->perform();
    EXPECT_EQ(fDeliveries.count, 1);
}

// A serializer that gives no body ends the call at its first perform.
TEST_F(HTTPClosureSourceTest, SerializerWithoutBody) {
    fSource->perform();
    ASSERT_EQ(fDeliveries.count, 1);
    EXPECT_TRUE(RtEqual(streamMessage(fDeliveries.last), RTSTR("Can't serialize request")));
    EXPECT_EQ(fSource->getState(), HTTPClosureSource::eUninit);

    // Added to a loop again, the finished source starts a fresh call (and fails the same way).
    fSource->removeFromRunLoop(RtRunLoopGetCurrent(), RTSTR("HTTPClosureSourceTest"));
    fSource->addToRunLoop(RtRunLoopGetCurrent(), RTSTR("HTTPClosureSourceTest"));
    ASSERT_NE(fSource->getResult(), nullptr);
    fSource->perform();
    EXPECT_EQ(fDeliveries.count, 2);
}
