// The ISO 8601 date reader of dateTime.iso8601 and xsd:dateTime values, straight from bytes and
// through a string; every date read is written back into buffers of every small size.
#include "FuzzSupport.h"

#include "HalvoUtils.h"

#include <cstring>
#include <initializer_list>
#include <memory>

using namespace hvfuzz;

namespace {

void writeEverySize(RtDateRef date) {
    for (RtIndex len = 1; len <= 32; len++) {
        for (bool noDashes : {false, true}) {
            // Exactly len bytes on the heap, so writing one more is caught.
            std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(len)]);
            std::memset(buffer.get(), '?', static_cast<size_t>(len));
            hvRtDateToISO8601String(buffer.get(), len, date, noDashes);
            require(std::memchr(buffer.get(), '\0', static_cast<size_t>(len)) != nullptr,
                    "the text is terminated");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    Held date(hvCreateDateFromISO8601(reinterpret_cast<const char *>(bytes), static_cast<RtIndex>(size)));
    if (date) writeEverySize(date.as<RtDateRef>());

    Held text(RtStringCreateWithBytes(kRtAllocatorDefault, bytes, static_cast<RtIndex>(size),
                                      kRtStringEncodingISOLatin1, false));
    Held decoded(isoDecodeDate(text.as<RtStringRef>()));
    if (decoded) {
        Held written(isoEncodeDate(decoded.as<RtDateRef>(), size % 2 == 0));
        require(!!written, "a date read can be written");
    }
    return 0;
}
