// The property-list reader (serialised invocations come back through it). Every document is read
// with each mutability option; whatever is read and can be written again must read back.
#include "FuzzSupport.h"

using namespace hvfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    Held data(copyData(bytes, size));
    const RtOptionFlags options[] = {kRtPropertyListImmutable, kRtPropertyListMutableContainers,
                                     kRtPropertyListMutableContainersAndLeaves};
    for (RtOptionFlags option : options) {
        RtStringRef error = nullptr;
        Held plist(
            RtPropertyListCreateFromXMLData(kRtAllocatorDefault, data.as<RtDataRef>(), option, &error));
        Held heldError(error);
        require(!plist == !!error, "an error string exactly when reading failed");
        if (!plist) continue;
        describe(plist.get());
        Held written(RtPropertyListCreateXMLData(kRtAllocatorDefault, plist.get()));
        if (!written) continue; // a kind or a string the writer refuses, as documented
        Held again(
            RtPropertyListCreateFromXMLData(kRtAllocatorDefault, written.as<RtDataRef>(), option, nullptr));
        require(!!again, "a written property list reads back");
    }
    return 0;
}
