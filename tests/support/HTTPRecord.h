// HTTPRecord: header lists and recorded requests, as the test servers hand them to tests.
// Plain values; no threads, no descriptors.
#ifndef HV_TESTS_SUPPORT_HTTPRECORD_H
#define HV_TESTS_SUPPORT_HTTPRECORD_H

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace hvtest {

// Header fields in the order they were sent; a name may repeat.
using HTTPHeaders = std::vector<std::pair<std::string, std::string>>;

// ASCII case-insensitive equality, as HTTP compares field names.
bool equalsIgnoringCase(std::string_view a, std::string_view b);
// The value of the first field named name (any case), or nullptr.
const std::string *findHeader(const HTTPHeaders &headers, std::string_view name);

// One request as a server received it.
struct RecordedRequest {
    std::string method;  // "POST"
    std::string path;    // the request target as sent, query included ("/RPC2?x=1"; absolute for a proxy)
    std::string version; // "HTTP/1.1"
    HTTPHeaders headers; // in arrival order, names as sent
    std::string body;    // decoded from chunked transfer encoding where the client used it

    // The first value of the field name (any case), or "" when absent.
    std::string header(std::string_view name) const;
    bool hasHeader(std::string_view name) const { return findHeader(headers, name) != nullptr; }
    // How many fields are named name (any case).
    size_t headerCount(std::string_view name) const;
    // path without its query.
    std::string pathWithoutQuery() const { return path.substr(0, path.find('?')); }
};

} // namespace hvtest

#endif
