// HalvoUtils: the XML and encoding utilities every protocol reader and writer stands on.
// - diagnostics: the two debug switches read once from the environment, tagged and untagged
//   printers to standard error (HalvoUtilsLog.cpp);
// - writing: XMLBuffer, indentation, IANA charset names, the five-entity tables, entity
//   encoding and decoding (HalvoUtilsXMLBuffer.cpp);
// - reading: content-type and charset checks, finding and parsing an XML document, tree
//   helpers and dumps (HalvoUtilsXML.cpp);
// - ISO 8601 dates (HalvoUtilsDate.cpp) and base64 (HalvoUtilsBase64.cpp);
// - value kinds, qualified type names and number helpers (HalvoUtilsTypes.cpp);
// - namespace scopes and table-driven element dispatch (XMLVisitor.cpp).
// Owns only process-wide constant tables (entity tables, type table, type-name dictionary,
// indentation strings), built on first use and never freed. No locks: every other function
// works on its caller's values, so concurrent documents are independent; the debug switches
// are written once by the first invocation or handler created.
#pragma once

#include <HalvosCore/HalvosCore.h>

#include "CPlusAutoTypes.h"

#include <cstdarg>
#include <cstdint>

// ---- Well-known namespaces ------------------------------------------------------------------
// Both SOAP flavours name the same SOAP 1.1 envelope and encoding namespaces; only the XML
// Schema generation differs. RTSTR uniques them, so each is one object process-wide.
#define HV_SOAP_1999_SCHEMA_NAMESPACE RTSTR("http://www.w3.org/1999/XMLSchema")
#define HV_SOAP_1999_SCHEMA_INSTANCE_NAMESPACE RTSTR("http://www.w3.org/1999/XMLSchema-instance")
#define HV_SOAP_1999_ENVELOPE_NAMESPACE RTSTR("http://schemas.xmlsoap.org/soap/envelope/")
#define HV_SOAP_1999_ENCODING_NAMESPACE RTSTR("http://schemas.xmlsoap.org/soap/encoding/")
#define HV_SOAP_2001_SCHEMA_NAMESPACE RTSTR("http://www.w3.org/2001/XMLSchema")
#define HV_SOAP_2001_SCHEMA_INSTANCE_NAMESPACE RTSTR("http://www.w3.org/2001/XMLSchema-instance")
#define HV_SOAP_2001_ENVELOPE_NAMESPACE RTSTR("http://schemas.xmlsoap.org/soap/envelope/")
#define HV_SOAP_2001_ENCODING_NAMESPACE RTSTR("http://schemas.xmlsoap.org/soap/encoding/")

// ---- Diagnostics ----------------------------------------------------------------------------

// 1 when the environment variable "HVDebug" (resp. "HVDebugVerbose") existed at the first
// hvInitStatics call; 0 before that call. Presence is enough: an empty value turns it on.
extern int gHVDebug;
extern int gHVDebugVerbose;

// Reads both switches from the environment the first time it is called; later calls do nothing.
// Called when the first invocation or protocol handler is created.
void hvInitStatics();

// Writes "HV (pid): <text>\n" to standard error when gHVDebug is on; returns 0 always.
// format is a printf format with "%@" for runtime values; characters the default 8-bit encoding
// cannot hold print as ".". Verbose messages test gHVDebugVerbose before calling.
int _hvLogf(const char *format, ...);

// Formats and writes to standard error whatever the switches say: no tag, no line feed added.
void hvPrintf(RtStringRef format, ...);

// Writes label and dict as property-list XML between two rules to standard error.
void hvDumpDict(const char *label, RtDictionaryRef dict);

// A new string (caller releases) from a literal 8-bit format with "%@" and its arguments.
RtStringRef hvCreateString(const char *format, va_list args);

// ---- Writing XML ----------------------------------------------------------------------------

// One document being written, line by line. The constructor writes the XML declaration; every
// addTo appends one line: indentation for its level, the formatted text, "\r\n". copyData
// renders the text once, at the end. Belongs to the one thread writing the document.
class XMLBuffer {
  public:
    // encoding must have an IANA name; one without is replaced by UTF-8 before the declaration.
    explicit XMLBuffer(RtStringEncoding encoding);
    XMLBuffer(const XMLBuffer &) = delete;
    XMLBuffer &operator=(const XMLBuffer &) = delete;
    ~XMLBuffer();

    void addTo(int level, RtStringRef format, ...);
    // The argument-list form. It takes the va_list by reference so that a call such as
    // addTo(1, RTSTR("%d"), 0) can never be taken for this overload.
    void addTo(int level, RtStringRef format, va_list &args);
    // format must be a plain ASCII literal (its parse is cached process-wide).
    void addTo(int level, const char *format, ...);

    // The whole text in the buffer's encoding, new data (caller releases); NULL when some
    // character cannot be represented in that encoding.
    RtDataRef copyData() const;
    // The text so far (borrowed; valid until the next addTo or the buffer's end).
    RtStringRef getString() const;
    RtStringEncoding getEncoding() const { return fEncoding; }

  private:
    void appendLine(int level, RtStringRef format, va_list &args);
    bool reserveBytes(size_t extra);

    // A UTF-8 buffer (every request, and most replies) keeps the document as UTF-8 bytes in a
    // malloc'd block, each line formatted straight into it; copyData hands the block itself to
    // the data it returns (a later line continues on a copy). A buffer of any other encoding
    // keeps the text in fBuffer and encodes it at the end.
    // What appendLine knows of a format: its ASCII text when it holds no conversion, or the text
    // around its single plain "%@" or "%d" (fConversion '@' or 'd'); anything else is formatted.
    struct FormatEntry {
        RtStringRef fFormat;
        const char *fLiteral; // the text; NULL: the format goes through the formatter
        size_t fLength;       // with a conversion: the length of the text before it
        char fConversion;     // 0, '@' or 'd'
    };
    FormatEntry classifyFormat(RtStringRef format);

    bool fBytesMode;
    char *fBytes = nullptr;
    size_t fLength = 0;
    size_t fCapacity = 0;
    bool fUnrepresentable = false;         // a line held text UTF-8 cannot carry, or memory ran out
    mutable RtDataRef fRendered = nullptr; // the data that owns fBytes since copyData
    RtMutableStringRef fBuffer = nullptr;
    mutable RtStringRef fText = nullptr; // getString's string of the bytes, made on demand
    RtStringEncoding fEncoding;
};

// The IANA charset name of encoding (borrowed constant). When there is none, stores UTF-8 in
// *fallback (when fallback is not NULL) and returns "UTF-8".
RtStringRef getIANAString(RtStringEncoding encoding, RtStringEncoding *fallback);

// Two spaces per level for levels 1 to 14, none at level 0, thirty spaces for every other
// level (15 and up, and every negative level). A borrowed constant; nothing is allocated.
RtStringRef getIndentString(int level);

// The five-entity tables: bare name ("amp") -> character, and full reference ("&amp;") ->
// character. Constant dictionaries made on first use.
RtDictionaryRef getEntityToCharacterStringDict();
RtDictionaryRef getTrueEntityToCharactersStringDict();

// The character of a bare entity name, or "<<Unknown Escape>>" (logged when verbose) for an
// unknown or NULL name. Borrowed.
RtStringRef decodeEntityReference(RtStringRef name);
// The same for a full reference with ampersand and semicolon ("&lt;").
RtStringRef decodeUnparsedEntityReference(RtStringRef reference);

// Replaces every occurrence of find in str, in place, ignoring case.
void findReplaceAll(RtMutableStringRef str, RtStringRef find, RtStringRef replacement);

// A new mutable copy of text (caller releases) with &, <, >, ' and " written as the five
// entity references. Existing references are escaped again ("&lt;" becomes "&amp;lt;").
RtMutableStringRef entityEncodeString(RtStringRef text);

// ---- Reading XML ----------------------------------------------------------------------------

// From the "Content-Type" header: possiblyContainsXML when it starts with "text/" (or is
// absent), knownXML when it holds "/xml" or "+xml" in any case.
void checkForXMLContent(RtHTTPMessageRef message, bool *knownXML, bool *possiblyContainsXML);

// The encoding named by the "charset=" parameter of "Content-Type"; UTF-8 when there is no
// header, no parameter or an empty one; ASCII when the name is unknown.
RtStringEncoding getResponseCharset(RtHTTPMessageRef message);

// The offset of the first "<?xml" (letters in any case) in data, or -1. Never reads past data.
RtIndex findXMLStart(RtDataRef data);

// Builds the XML tree of xmlData, ignoring whatever precedes its declaration. Without a
// declaration the parse fails with "No valid XML data in response", unless forceXML, in which
// case a declaration naming charset is put in front. On failure returns NULL and *errorString
// receives a new message (caller releases): "<description> (line L, pos P, status S)".
// With drain, the tree is built by RtXMLTreeCreateFromDataDraining with that context; with stream,
// by RtXMLTreeCreateFromDataStreaming. extraOptions are parser options beyond
// kRtXMLParserAllOptions (kRtXMLParserKeepContentWhitespace).
RtTreeRef parseXML(RtDataRef xmlData, bool forceXML, RtStringEncoding charset, RtStringRef *errorString,
                   const RtXMLTreeDrainContext *drain = nullptr,
                   const RtXMLTreeStreamContext *stream = nullptr, RtOptionFlags extraOptions = 0);

// The node of a tree position (borrowed), NULL for a NULL tree.
RtXMLNodeRef treeGetNode(RtTreeRef tree);
// The node's string (an element's qualified name), borrowed; "" when there is no node.
RtStringRef getElementName(RtTreeRef tree);
// The element information of an element node; NULL for any other node.
const RtXMLElementInfo *treeGetElementInfo(RtTreeRef tree);

// The text from tree and its following siblings: text and CDATA as they are, the five entity
// references decoded, up to the first node of another kind. New string, or NULL when the
// first node gives nothing.
RtStringRef copyXMLStringFromTree(RtTreeRef tree);

// The first descendant element of tree, in document order, whose name, or the part of its name
// after the first colon, equals name ignoring case; NULL when there is none. Borrowed.
RtTreeRef findNamedElement(RtTreeRef tree, RtStringRef name);

// The text after the first colon of name as a new string (the local part, despite the name),
// or NULL when there is no colon.
RtStringRef copyQualifiedName(RtStringRef name);

// The diagnostic name of a node's type ("kRtXMLNodeTypeElement", ...). Borrowed constant.
RtStringRef getNodeType(RtXMLNodeRef node);

// Prints the children of tree, their attributes and descendants through hvPrintf.
void dumpXMLTree(RtTreeRef tree, int level);

// Readable text of a document body for logs: carriage returns become line feeds; decoded in
// encoding, else ISO Latin 1, else as 7-bit ASCII. New string (caller releases).
RtStringRef prettyPrintXML(RtDataRef data, RtStringEncoding encoding);

// Two strings are equivalent when they are the same object (two NULLs included) or both are
// non-NULL and equal ignoring case. All name matching in the readers uses this.
bool rtstrEquivilent(RtStringRef a, RtStringRef b);

// ---- Dates and base64 -----------------------------------------------------------------------

// val as "YYYYMMDDTHH:MM:SSZ" (noDashes, the XML-RPC form) or "YYYY-MM-DDTHH:MM:SSZ" in GMT.
// New string (caller releases).
RtStringRef isoEncodeDate(RtDateRef val, bool noDashes);
// The date read from the ASCII rendering of text (other characters as "x"), NULL for NULL.
RtDateRef isoDecodeDate(RtStringRef text);

// data as base64 lines of 76 - 4 * indent characters (indent capped at 8), each preceded by
// indent / 2 tabs; lines end with "\n", the last one does not. New string (caller releases).
RtStringRef encodeBinaryData(RtDataRef data, int indent);
// data as one line of base64, without breaks or tabs (readers that refuse white space inside
// the text take it). New string (caller releases).
RtStringRef encodeBinaryDataUnwrapped(RtDataRef data);
// The bytes of base64 text: stops at the first "<", skips white space and unknown bytes, drops
// an incomplete final group. New data, or NULL when text is not plain ASCII.
RtDataRef decodeBinaryData(RtStringRef text);

// ---- Value kinds and type names ---------------------------------------------------------------

// One row of the type table: a runtime kind and the value kind it stands for.
struct PerType {
    RtTypeID rtType; // filled on first use
    RtTypeID (*rtTypeGet)();
    HVTypeID hvType;
};

// The eight rows (number, null, boolean, string, date, data, array, dictionary), filled.
const PerType *getTypeTable();

// The kind named by typeString in namespaceString (an XML Schema or the SOAP encoding
// namespace); for any other namespace a prefixed name ("xsd:int") is looked up by its local
// part whatever the prefix. eHVUnknownType when nothing matches; names are case-sensitive.
HVTypeID HVQualifiedtoHVType(RtStringRef namespaceString, RtStringRef typeString);

// Splits name at its last colon: *localName = the text after it (new string) and true; when
// there is no colon, or only one in front, *localName = name retained and false.
bool burstFakeQName(RtStringRef name, RtStringRef *localName);

// The number under key as a signed 32-bit integer; defaultValue when absent, not a number, or
// not exactly representable.
int getDictNumber(RtDictionaryRef dict, RtStringRef key, int defaultValue);

// The integer at the start of text (C rules, base 0: "0x1F", "010", leading space and sign;
// saturating) as a new number: a 32-bit kind when it fits, else a 64-bit kind. 0 without digits.
RtNumberRef makeIntValueFromString(RtStringRef text);

// ---- Namespaces and element dispatch (XMLVisitor.cpp) ----------------------------------------
// A namespace scope is an AutoDict of prefix -> namespace URI, with the default namespace under
// "__defaultNamespace". A child's scope is a copy of its parent's that copies the dictionary
// only when the child declares something, so declarations never leak upwards or sideways.
// A qualified name in text form is "namespace|local".

// A handler for one matching child element: its tree position, its node, its scope and the
// row's refcon. Returns NULL on success or an error message, handed back unchanged.
typedef RtStringRef (*XMLVisitProc)(RtTreeRef tree, RtXMLNodeRef node, const AutoDict &scope, void *refcon);

// One row of a dispatch table. elemNamespace NULL matches any namespace, none included.
struct XMLElementInterrogator {
    RtStringRef elemNamespace;
    RtStringRef elemName;
    XMLVisitProc callback;
    void *refcon;
};

// Adds the xmlns and xmlns:prefix declarations of element tree to scope.
void xmlGetElementNamespaces(RtTreeRef tree, AutoDict &scope);

// Splits a possibly prefixed name in scope. *namespaceOut: the prefix's namespace, or for an
// unprefixed name (a leading colon counts as none) the default namespace; NULL when undeclared.
// *localNameOut: the text after the first colon, or name itself. Both retained for the caller.
void xmlNamespaceQualify(const AutoDict &scope, RtStringRef name, RtStringRef *namespaceOut,
                         RtStringRef *localNameOut);

// Replaces text's prefixed name by "namespace|local" when its namespace is known in scope;
// leaves it unchanged otherwise.
void fullyQualify(AutoString &text, const AutoDict &scope);

// Splits "namespace|local" at the first bar; without a bar in a position after the first,
// the namespace is "" and the local name is text. Both outputs retained for the caller.
void xmlBurstFullyQualifiedName(RtStringRef text, RtStringRef *namespaceOut, RtStringRef *localNameOut);

// Visits the element children of tree in document order; for each, calls the handler of the
// first row matching its namespace and local name (rtstrEquivilent) with the child's own scope.
// Unmatched children are appended to extensions when it is not NULL. Stops at, and returns,
// the first non-NULL handler result; NULL when every handler succeeded.
RtStringRef xmlInterrogateElements(RtTreeRef tree, const AutoDict &parentNamespace,
                                   const XMLElementInterrogator *ei, int32_t eiCount,
                                   RtMutableArrayRef extensions);

// obj retained when not NULL.
inline RtTypeRef nullRetain(RtTypeRef obj) {
    return safeRtRetain(obj);
}
