// BenchValues.h: the benchmark documents' records as runtime values, the form the library's
// writers start from and its readers deliver (header-only, for the programs that link RtCore).
// What these functions create belongs to the caller. One thread.
#pragma once

#include "BenchSupport.h"

#include <RtCore/RtCore.h>

namespace hvbench {

// Seconds between the Unix epoch and the runtime's reference date (2001-01-01 00:00:00 GMT).
constexpr double kUnixToReferenceSeconds = 978307200.0;

// Record i as a dictionary with the members id, name, score, active, when and blob, in that order.
inline RtDictionaryRef createRecordValue(size_t i) {
    hvtest::XMLRPCRecord record = hvtest::xmlrpcRecord(i);
    std::vector<unsigned char> blob = recordBlob(record);
    RtNumberRef id = RtNumberCreate(nullptr, kRtNumberSInt32Type, &record.id);
    RtStringRef name = RtStringCreateWithCString(nullptr, record.name.c_str(), kRtStringEncodingUTF8);
    RtNumberRef score = RtNumberCreate(nullptr, kRtNumberDoubleType, &record.score);
    RtDateRef when = RtDateCreate(nullptr, double(recordTime(record)) - kUnixToReferenceSeconds);
    RtDataRef data = RtDataCreate(nullptr, blob.data(), RtIndex(blob.size()));
    const void *keys[] = {RTSTR("id"),     RTSTR("name"), RTSTR("score"),
                          RTSTR("active"), RTSTR("when"), RTSTR("blob")};
    const void *values[] = {id, name, score, record.active ? kRtBooleanTrue : kRtBooleanFalse, when, data};
    RtDictionaryRef dictionary = RtDictionaryCreate(
        nullptr, keys, values, 6, &kRtCopyStringDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    for (RtTypeRef owned :
         {RtTypeRef(id), RtTypeRef(name), RtTypeRef(score), RtTypeRef(when), RtTypeRef(data)})
        RtRelease(owned);
    return dictionary;
}

// The kRecordCount records as an array of dictionaries.
inline RtArrayRef createRecordArray() {
    RtMutableArrayRef records = RtArrayCreateMutable(nullptr, RtIndex(kRecordCount), &kRtTypeArrayCallBacks);
    for (size_t i = 0; i < kRecordCount; i++) {
        RtDictionaryRef record = createRecordValue(i);
        RtArrayAppendValue(records, record);
        RtRelease(record);
    }
    return records;
}

// Bytes as a data object that does not copy them (the bytes must outlive it).
inline RtDataRef createDataNoCopy(const std::string &bytes) {
    return RtDataCreateWithBytesNoCopy(nullptr, reinterpret_cast<const uint8_t *>(bytes.data()),
                                       RtIndex(bytes.size()), kRtAllocatorNull);
}

} // namespace hvbench
