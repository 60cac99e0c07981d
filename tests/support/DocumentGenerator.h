// DocumentGenerator.h: deterministic documents for tests and benchmarks (header-only).
// The same arguments give the same bytes on every machine and run, so a benchmark and a test
// can share their inputs and a failure can be reproduced from its arguments alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace hvtest {

// A small, fast pseudo-random sequence (xorshift64*), fixed by its seed.
class DocumentRandom {
  public:
    explicit DocumentRandom(uint64_t seed) : fState(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t next() {
        fState ^= fState >> 12;
        fState ^= fState << 25;
        fState ^= fState >> 27;
        return fState * 0x2545F4914F6CDD1Dull;
    }
    uint32_t below(uint32_t n) { return uint32_t(next() % n); }

  private:
    uint64_t fState;
};

// What record i of an XML-RPC reply holds, so that tests can check what a reader found.
struct XMLRPCRecord {
    int32_t id;
    std::string name; // the text as a reader must deliver it (entities decoded, UTF-8)
    double score;
    bool active;
    std::string when;   // dateTime.iso8601 text
    std::string base64; // base64 text of 48 bytes
};

inline XMLRPCRecord xmlrpcRecord(size_t i, uint64_t seed = 1) {
    static const char *const kWords[] = {"alpha",
                                         "Caf\xC3\xA9",
                                         "M\xC3\xBCller",
                                         "na\xC3\xAFve",
                                         "tom & jerry",
                                         "a<b",
                                         "\xE6\x97\xA5\xE6\x9C\xAC",
                                         "\xD0\x9C\xD0\xB8\xD1\x80",
                                         "plain",
                                         "\"quoted\" 'single'"};
    static const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    DocumentRandom r(seed ^ (uint64_t(i) * 0x100000001B3ull));
    XMLRPCRecord rec;
    rec.id = int32_t(r.below(2000000000u)) - 1000000000;
    rec.name = std::string(kWords[r.below(10)]) + " " + kWords[r.below(10)] + " #" + std::to_string(i);
    rec.score = double(int64_t(r.below(2000000u)) - 1000000) / 64.0; // exact in binary and in %.17g
    rec.active = r.below(2) == 1;
    char when[32];
    std::snprintf(when, sizeof when, "%04u%02u%02uT%02u:%02u:%02u", 1990 + r.below(40), 1 + r.below(12),
                  1 + r.below(28), r.below(24), r.below(60), r.below(60));
    rec.when = when;
    for (int k = 0; k < 64; k++)
        rec.base64 += kBase64[r.below(64)];
    return rec;
}

// text with the characters XML requires escaped written as the predefined entities.
inline void appendEscaped(std::string &out, const std::string &text) {
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&apos;";
            break;
        default:
            out += c;
        }
    }
}

// The value of an XML-RPC reply or call: an array of `records` structs (one element per line).
inline void appendXMLRPCRecordArray(std::string &out, size_t records, uint64_t seed) {
    out += "<value><array><data>\n";
    char number[40];
    for (size_t i = 0; i < records; i++) {
        XMLRPCRecord rec = xmlrpcRecord(i, seed);
        out += "<value><struct>\n<member>\n<name>id</name>\n<value><int>";
        out += std::to_string(rec.id);
        out += "</int></value>\n</member>\n<member>\n<name>name</name>\n<value><string>";
        appendEscaped(out, rec.name);
        out += "</string></value>\n</member>\n<member>\n<name>score</name>\n<value><double>";
        std::snprintf(number, sizeof number, "%.17g", rec.score);
        out += number;
        out += "</double></value>\n</member>\n<member>\n<name>active</name>\n<value><boolean>";
        out += rec.active ? "1" : "0";
        out += "</boolean></value>\n</member>\n<member>\n<name>when</name>\n<value><dateTime.iso8601>";
        out += rec.when;
        out += "</dateTime.iso8601></value>\n</member>\n<member>\n<name>blob</name>\n<value><base64>";
        out += rec.base64;
        out += "</base64></value>\n</member>\n</struct></value>\n";
    }
    out += "</data></array></value>\n";
}

// An XML-RPC methodResponse (UTF-8, laid out one element per line as common servers write it)
// whose single parameter is an array of `records` structs, each with an int, a string holding
// entities and non-ASCII text, a double, a boolean, a dateTime.iso8601 and a base64 member.
inline std::string xmlrpcReply(size_t records, uint64_t seed = 1) {
    std::string out;
    out.reserve(records * 600 + 200);
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<methodResponse>\n<params>\n<param>\n";
    appendXMLRPCRecordArray(out, records, seed);
    out += "</param>\n</params>\n</methodResponse>\n";
    return out;
}

// The methodCall twin of xmlrpcReply: `method` with the same array as its single parameter.
inline std::string xmlrpcCall(size_t records, const std::string &method, uint64_t seed = 1) {
    std::string out;
    out.reserve(records * 600 + 200);
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<methodCall>\n<methodName>" + method +
           "</methodName>\n<params>\n<param>\n";
    appendXMLRPCRecordArray(out, records, seed);
    out += "</param>\n</params>\n</methodCall>\n";
    return out;
}

// An XML-RPC reply of about `bytes` bytes (at least one record).
inline std::string xmlrpcReplyOfSize(size_t bytes, uint64_t seed = 1) {
    size_t perRecord = xmlrpcReply(16, seed).size() / 16;
    return xmlrpcReply(bytes / perRecord > 0 ? bytes / perRecord : 1, seed);
}

// The same records as a SOAP 1.1 rpc/encoded reply to "getRecords" in the namespace "urn:records"
// (2001 schema types, laid out one element per line): a return array of `records` items of type
// ns:Record with the members id (xsd:int), name (xsd:string), score (xsd:double), active
// (xsd:boolean), when (xsd:dateTime, "1990-01-31T12:30:00Z") and blob (xsd:base64Binary).
// With `multiRef`, each item is an empty <item href="#rN"/> and the records follow the response
// element as Body-level <multiRef id="rN"> elements, as rpc/encoded servers write shared values.
inline std::string soapReply(size_t records, bool multiRef = false, uint64_t seed = 1) {
    std::string out;
    out.reserve(records * (multiRef ? 640 : 600) + 800);
    out += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\""
           " xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\""
           " xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
           " xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:ns=\"urn:records\""
           " SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n"
           "<SOAP-ENV:Body>\n<ns:getRecordsResponse>\n"
           "<return xsi:type=\"SOAP-ENC:Array\" SOAP-ENC:arrayType=\"ns:Record[";
    out += std::to_string(records);
    out += "]\">\n";
    char number[40];
    auto appendMembers = [&](size_t i) {
        XMLRPCRecord rec = xmlrpcRecord(i, seed);
        out += "<id xsi:type=\"xsd:int\">";
        out += std::to_string(rec.id);
        out += "</id>\n<name xsi:type=\"xsd:string\">";
        appendEscaped(out, rec.name);
        out += "</name>\n<score xsi:type=\"xsd:double\">";
        std::snprintf(number, sizeof number, "%.17g", rec.score);
        out += number;
        out += "</score>\n<active xsi:type=\"xsd:boolean\">";
        out += rec.active ? "true" : "false";
        out += "</active>\n<when xsi:type=\"xsd:dateTime\">";
        // "19900131T12:30:00" becomes "1990-01-31T12:30:00Z"
        out += rec.when.substr(0, 4) + "-" + rec.when.substr(4, 2) + "-" + rec.when.substr(6) + "Z";
        out += "</when>\n<blob xsi:type=\"xsd:base64Binary\">";
        out += rec.base64;
        out += "</blob>\n";
    };
    for (size_t i = 0; i < records; i++) {
        if (multiRef) {
            out += "<item href=\"#r" + std::to_string(i) + "\"/>\n";
        } else {
            out += "<item xsi:type=\"ns:Record\">\n";
            appendMembers(i);
            out += "</item>\n";
        }
    }
    out += "</return>\n</ns:getRecordsResponse>\n";
    for (size_t i = 0; multiRef && i < records; i++) {
        out += "<multiRef id=\"r" + std::to_string(i) + "\" SOAP-ENC:root=\"0\" xsi:type=\"ns:Record\">\n";
        appendMembers(i);
        out += "</multiRef>\n";
    }
    out += "</SOAP-ENV:Body>\n</SOAP-ENV:Envelope>\n";
    return out;
}

} // namespace hvtest
