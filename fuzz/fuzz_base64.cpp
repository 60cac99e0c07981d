// The base64 reader of base64 and xsd:base64Binary values. Text comes in as a string the way the
// XML readers hand it over (any byte as ISO Latin 1, and as UTF-8 when the bytes are UTF-8); what
// decodes must survive writing at any indentation and reading again.
#include "FuzzSupport.h"

#include "HalvoUtils.h"

using namespace hvfuzz;

namespace {

void decode(RtStringRef text, size_t size) {
    Held data(decodeBinaryData(text));
    if (!data) return;
    Held encoded(encodeBinaryData(data.as<RtDataRef>(), static_cast<int>(size % 11) - 1));
    require(!!encoded, "decoded bytes can be written");
    Held again(decodeBinaryData(encoded.as<RtStringRef>()));
    require(again && RtEqual(again.get(), data.get()), "written bytes read back the same");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    const RtStringEncoding encodings[] = {kRtStringEncodingISOLatin1, kRtStringEncodingUTF8};
    for (RtStringEncoding encoding : encodings) {
        Held text(
            RtStringCreateWithBytes(kRtAllocatorDefault, bytes, static_cast<RtIndex>(size), encoding, false));
        if (text) decode(text.as<RtStringRef>(), size);
    }
    return 0;
}
