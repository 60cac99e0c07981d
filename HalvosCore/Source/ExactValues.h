// ExactValues: what the value properties kHVExactValues and kHVValueExtensions ask of the
// writers and readers of both dialects, in one place.
// - ValueRules: the two switches, read once per document from a handler (and its parent).
// - ValueWriteCheck: the path of the value being written ("params[0].name[2]") and the first
//   refusal, which makes the document's writer return NULL instead of a document.
// - Text checks and encodings: characters XML 1.0 or UTF-8 cannot carry, XML names, entity
//   encoding that survives a parser's line-end and whitespace handling.
// - Exact number, boolean, date and base64 readers: the whole text or nothing, never a
//   clamped or partly read value.
// Stateless apart from ValueWriteCheck, which belongs to the one handler writing a document.
#pragma once

#include "HalvoUtils.h"

#include <string>
#include <vector>

class HVSerializerBase;

// The fault code of a call whose request exact mode refused (nothing was sent), and of a reply
// exact mode turned into a fault because its value could not travel: the codes the common
// XML-RPC fault-code convention gives to invalid parameters and to internal errors.
constexpr int32_t kRefusedRequestFaultCode = -32602;
constexpr int32_t kRefusedReplyFaultCode = -32603;

// The switches a document is written and read with; each is on only when its property is the
// boolean true.
struct ValueRules {
    bool exact = false;
    bool extensions = false;
    // Set to true by a reader that met an extension element (i8, nil), when not NULL.
    bool *sawExtension = nullptr;
};

// The request-dictionary key a server-side reader sets (to true) when the request held an
// extension element: a client that sends them can read them, so a reply may use them.
inline RtStringRef requestUsedExtensionsKey() {
    return RTSTR("/HVValueExtensionsUsed");
}

// The rules of object's properties (a parent's value wins, as getProperty has it).
ValueRules readValueRules(HVSerializerBase *object);

// The extra parse options of a document read under rules: in exact mode an element's whole
// content of white space is kept (a string of spaces is a value, not indentation).
RtOptionFlags xmlReadOptions(const ValueRules &rules);

// The path of the value a writer is at and the first refusal of a document. A writer goes on
// after a refusal (what it writes is discarded); only the first one is kept.
class ValueWriteCheck {
  public:
    // Starts a document under rules at the path root ("params", "result", "fault").
    void begin(const ValueRules &rules, const char *root);
    void enterIndex(long index);
    void enterMember(RtTypeRef name);
    void leave();
    // Records "<path>: <reason>" unless a refusal is already recorded.
    void refuse(const std::string &reason);
    bool refused() const { return !fRefusal.isNull(); }
    // The refusal (borrowed), or NULL.
    RtStringRef getRefusal() const { return fRefusal.getString(); }

    ValueRules fRules;

  private:
    std::string fPath;
    std::vector<size_t> fMarks;
    AutoString fRefusal;
};

// text as UTF-8 ("?" for what UTF-8 cannot hold).
std::string utf8Text(RtStringRef text);
// At most max characters of text, quoted, with "..." when cut.
std::string quotedText(RtStringRef text, size_t max = 40);

// Why text cannot travel in an XML 1.0 document ("holds U+0001 at index 3, which XML 1.0 cannot
// carry", a lone surrogate UTF-8 cannot encode), or "" when every character can.
std::string unsendableCharacter(RtStringRef text);
// A new copy of text with what unsendableCharacter finds replaced by U+FFFD.
RtStringRef copySendableText(RtStringRef text);
// True when name is an XML name without a colon (an element name needing no prefix).
bool isXMLName(RtStringRef name);

// text entity-encoded so that a parser reads it back identical: the five entities, a carriage
// return as "&#13;" (a bare one reads as a line feed), and, in text of white space alone or in
// an attribute value, tabs and line feeds as references too. New string (caller releases).
RtMutableStringRef exactEncodeString(RtStringRef text, bool attribute = false);

// The shortest text that reads back as the identical double (finite values).
std::string shortestDouble(double value);

// The whole of text, XML white space around it allowed, as a decimal integer in [min, max]
// (optional sign, digits only).
bool readExactInteger(RtStringRef text, int64_t min, int64_t max, int64_t *out);
// The whole of text as a finite double, decimal form with optional exponent; xsdSpecials adds
// NaN and the infinities ("NaN", "INF", "-INF", and "inf", "-Infinity" in any case). False for
// anything else, including text that overflows.
bool readExactDouble(RtStringRef text, bool xsdSpecials, double *out);
// "1", "0", "true" or "false" (white space around allowed).
bool readExactBoolean(RtStringRef text, bool *out);
// An ISO 8601 date and time, with or without dashes and colons, an optional fraction of a
// second and an optional zone (Z, +HH:MM, -HHMM, +HH; none means GMT). New date, or NULL.
RtDateRef createExactDate(RtStringRef text);
// The bytes of base64 text that holds only the alphabet, white space and final padding, in
// whole groups of four. New data, or NULL.
RtDataRef createExactData(RtStringRef text);
