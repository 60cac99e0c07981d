// Reading documents: content checks, locating and parsing XML, tree helpers and dumps.
#include "HalvoUtils.h"

#include <strings.h>

#include <cstring>
#include <vector>

bool rtstrEquivilent(RtStringRef a, RtStringRef b) {
    if (a == b) return true;
    if (!a || !b) return false;
    // The readers match every element name this way. Two ASCII strings are equal ignoring case
    // only at the same length, and then ASCII case folding decides, without the general compare.
    const char *pa = RtStringGetCStringPtr(a, kRtStringEncodingASCII);
    const char *pb = pa ? RtStringGetCStringPtr(b, kRtStringEncodingASCII) : nullptr;
    if (pb) {
        RtIndex n = RtStringGetLength(a);
        return n == RtStringGetLength(b) && strncasecmp(pa, pb, static_cast<size_t>(n)) == 0;
    }
    return RtStringCompare(a, b, kRtCompareCaseInsensitive) == kRtCompareEqualTo;
}

// ---- HTTP headers ---------------------------------------------------------------------------

void checkForXMLContent(RtHTTPMessageRef message, bool *knownXML, bool *possiblyContainsXML) {
    *knownXML = false;
    *possiblyContainsXML = false;
    RtStringRef type = message ? RtHTTPMessageCopyHeaderFieldValue(message, RTSTR("Content-Type")) : nullptr;
    if (!type) {
        // No type at all: it may still be XML.
        *possiblyContainsXML = true;
        return;
    }
    // The prefix test is case-sensitive, the "/xml" test is not; both deliberately so.
    *possiblyContainsXML = RtStringHasPrefix(type, RTSTR("text/"));
    // Types with the "+xml" suffix (application/soap+xml) are XML as well as the "/xml" ones.
    *knownXML = RtStringFind(type, RTSTR("/xml"), kRtCompareCaseInsensitive).location != kRtNotFound ||
                RtStringFind(type, RTSTR("+xml"), kRtCompareCaseInsensitive).location != kRtNotFound;
    RtRelease(type);
}

static bool isQuote(RtUniChar c) {
    return c == '"' || c == '\'';
}

RtStringEncoding getResponseCharset(RtHTTPMessageRef message) {
    RtStringEncoding result = kRtStringEncodingUTF8;
    RtStringRef type = message ? RtHTTPMessageCopyHeaderFieldValue(message, RTSTR("Content-Type")) : nullptr;
    if (!type) return result;
    RtRange found = RtStringFind(type, RTSTR("charset="), kRtCompareCaseInsensitive);
    if (found.location != kRtNotFound) {
        RtIndex length = RtStringGetLength(type);
        RtIndex start = found.location + found.length;
        RtIndex end = start;
        while (end < length && RtStringGetCharacterAtIndex(type, end) != ';')
            end++;
        // Quotes are stripped from both ends; white space is not.
        while (start < end && isQuote(RtStringGetCharacterAtIndex(type, start)))
            start++;
        while (start < end && isQuote(RtStringGetCharacterAtIndex(type, end - 1)))
            end--;
        if (start < end) {
            RtStringRef name =
                RtStringCreateWithSubstring(kRtAllocatorDefault, type, RtRangeMake(start, end - start));
            result = RtStringConvertIANACharSetNameToEncoding(name);
            RtRelease(name);
            // An unknown name means ASCII, not UTF-8: deliberate.
            if (result == kRtStringEncodingInvalidId) result = kRtStringEncodingASCII;
        }
    }
    RtRelease(type);
    return result;
}

// ---- Finding and parsing --------------------------------------------------------------------

RtIndex findXMLStart(RtDataRef data) {
    if (!data) return -1;
    const uint8_t *bytes = RtDataGetBytePtr(data);
    RtIndex length = RtDataGetLength(data);
    if (!bytes || length < 5) return -1;
    // The whole "<?xml" must lie inside the data: the scan stops five bytes before the end.
    const uint8_t *p = bytes;
    const uint8_t *last = bytes + length - 5;
    while (p <= last) {
        p = static_cast<const uint8_t *>(memchr(p, '<', static_cast<size_t>(last - p) + 1));
        if (!p) break;
        if (p[1] == '?' && (p[2] | 0x20) == 'x' && (p[3] | 0x20) == 'm' && (p[4] | 0x20) == 'l')
            return p - bytes;
        p++;
    }
    return -1;
}

static int32_t errorDictInt(RtDictionaryRef dict, RtStringRef key) {
    RtNumberRef number = static_cast<RtNumberRef>(RtDictionaryGetValue(dict, key));
    int32_t value = -1;
    if (!number || RtGetTypeID(number) != RtNumberGetTypeID()) return -1;
    RtNumberGetValue(number, kRtNumberSInt32Type, &value);
    return value;
}

RtTreeRef parseXML(RtDataRef xmlData, bool forceXML, RtStringEncoding charset, RtStringRef *errorString,
                   const RtXMLTreeDrainContext *drain, const RtXMLTreeStreamContext *stream,
                   RtOptionFlags extraOptions) {
    *errorString = nullptr;
    RtIndex offset = findXMLStart(xmlData);
    RtDataRef madeData = nullptr;

    if (offset < 0 && forceXML && xmlData) {
        RtStringRef header = RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                                      RTSTR("<?xml version=\"1.0\" encoding=\"%@\"?>\r\n"),
                                                      getIANAString(charset, &charset));
        RtDataRef headerBytes = RtStringCreateExternalRepresentation(kRtAllocatorDefault, header, charset, 0);
        RtRelease(header);
        if (headerBytes) {
            RtMutableDataRef joined = RtDataCreateMutableCopy(kRtAllocatorDefault, 0, headerBytes);
            RtDataAppendBytes(joined, RtDataGetBytePtr(xmlData), RtDataGetLength(xmlData));
            RtRelease(headerBytes);
            madeData = joined;
            offset = 0;
        }
    }
    if (offset < 0) {
        *errorString = RtStringCreateCopy(kRtAllocatorDefault, RTSTR("No valid XML data in response"));
        return nullptr;
    }
    if (!madeData) {
        const uint8_t *start = RtDataGetBytePtr(xmlData) + offset;
        RtIndex length = RtDataGetLength(xmlData) - offset;
        if (memcmp(start + 2, "xml", 3) != 0) {
            // The declaration was found in any letter case, but the parser accepts it only in
            // lower case: parse a copy with the three letters lowered.
            RtMutableDataRef copy = RtDataCreateMutable(kRtAllocatorDefault, 0);
            RtDataAppendBytes(copy, start, length);
            memcpy(RtDataGetMutableBytePtr(copy) + 2, "xml", 3);
            madeData = copy;
        } else if (offset > 0) {
            // Whatever came before the declaration is skipped through a view, without copying.
            madeData = RtDataCreateWithBytesNoCopy(kRtAllocatorDefault, start, length, kRtAllocatorNull);
        }
    }

    RtDictionaryRef errorDict = nullptr;
    RtDataRef source = madeData ? madeData : xmlData;
    RtOptionFlags options = kRtXMLParserAllOptions | extraOptions;
    RtTreeRef tree =
        drain ? RtXMLTreeCreateFromDataDraining(kRtAllocatorDefault, source, options, 1, drain, &errorDict)
        : stream
            ? RtXMLTreeCreateFromDataStreaming(kRtAllocatorDefault, source, options, 1, stream, &errorDict)
            : RtXMLTreeCreateFromDataWithError(kRtAllocatorDefault, source, nullptr, options, 1, &errorDict);
    if (!tree) {
        // Printed whatever the debug switches say, and without a line feed: kept as it always was.
        hvPrintf(RTSTR("XML Parse error occurred: %@"), errorDict);
        if (errorDict) {
            RtStringRef description =
                static_cast<RtStringRef>(RtDictionaryGetValue(errorDict, kRtXMLTreeErrorDescription));
            if (!description || RtGetTypeID(description) != RtStringGetTypeID())
                description = RTSTR("Unknown parse error");
            *errorString = RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                                    RTSTR("%@ (line %d, pos %d, status %d)"), description,
                                                    errorDictInt(errorDict, kRtXMLTreeErrorLineNumber),
                                                    errorDictInt(errorDict, kRtXMLTreeErrorLocation),
                                                    errorDictInt(errorDict, kRtXMLTreeErrorStatusCode));
        } else {
            *errorString =
                RtStringCreateCopy(kRtAllocatorDefault, RTSTR("Can't even create parser for errors"));
        }
    }
    safeRtRelease(errorDict);
    safeRtRelease(madeData);
    return tree;
}

// ---- Tree helpers ---------------------------------------------------------------------------

RtXMLNodeRef treeGetNode(RtTreeRef tree) {
    return tree ? RtXMLTreeGetNode(tree) : nullptr;
}

RtStringRef getElementName(RtTreeRef tree) {
    RtXMLNodeRef node = treeGetNode(tree);
    return node ? RtXMLNodeGetString(node) : RTSTR("");
}

const RtXMLElementInfo *treeGetElementInfo(RtTreeRef tree) {
    RtXMLNodeRef node = treeGetNode(tree);
    if (!node || RtXMLNodeGetTypeCode(node) != kRtXMLNodeTypeElement) return nullptr;
    return static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node));
}

RtStringRef copyXMLStringFromTree(RtTreeRef tree) {
    // The first piece is kept as it is; a mutable string is made only when a second one comes.
    RtStringRef first = nullptr;
    RtMutableStringRef joined = nullptr;
    for (RtTreeRef t = tree; t; t = RtTreeGetNextSibling(t)) {
        RtXMLNodeRef node = RtXMLTreeGetNode(t);
        if (!node) break;
        RtXMLNodeTypeCode type = RtXMLNodeGetTypeCode(node);
        RtStringRef piece;
        if (type == kRtXMLNodeTypeText || type == kRtXMLNodeTypeCDATASection) {
            piece = RtXMLNodeGetString(node);
        } else if (type == kRtXMLNodeTypeEntityReference) {
            piece = decodeEntityReference(RtXMLNodeGetString(node));
        } else {
            if (gHVDebugVerbose)
                _hvLogf("strange node in the middle of a string: %d\n", static_cast<int>(type));
            break;
        }
        if (!piece) break;
        if (!first) {
            first = piece;
        } else {
            if (!joined) joined = RtStringCreateMutableCopy(kRtAllocatorDefault, 0, first);
            RtStringAppend(joined, piece);
        }
    }
    if (joined) return joined;
    return first ? RtStringCreateCopy(kRtAllocatorDefault, first) : nullptr;
}

static bool nameMatches(RtStringRef elementName, RtStringRef name) {
    if (!elementName) return false;
    if (rtstrEquivilent(elementName, name)) return true;
    RtRange colon = RtStringFind(elementName, RTSTR(":"), 0);
    if (colon.location == kRtNotFound || !name) return false;
    RtIndex localStart = colon.location + 1;
    RtRange local = RtRangeMake(localStart, RtStringGetLength(elementName) - localStart);
    return RtStringCompareWithOptions(elementName, name, local, kRtCompareCaseInsensitive) ==
           kRtCompareEqualTo;
}

RtTreeRef findNamedElement(RtTreeRef tree, RtStringRef name) {
    if (!tree) return nullptr;
    // Pre-order walk without recursion: down to the first child, else to the next sibling,
    // else up until an ancestor below tree has a next sibling.
    RtTreeRef t = RtTreeGetFirstChild(tree);
    while (t) {
        RtXMLNodeRef node = RtXMLTreeGetNode(t);
        RtXMLNodeTypeCode type = node ? RtXMLNodeGetTypeCode(node) : static_cast<RtXMLNodeTypeCode>(0);
        if (type == kRtXMLNodeTypeElement) {
            if (nameMatches(RtXMLNodeGetString(node), name)) return t;
            RtTreeRef child = RtTreeGetFirstChild(t);
            if (child) {
                t = child;
                continue;
            }
        } else if (gHVDebugVerbose) {
            _hvLogf("findNamedElement: Ignoring type %d\n", static_cast<int>(type));
        }
        while (t && t != tree) {
            RtTreeRef next = RtTreeGetNextSibling(t);
            if (next) {
                t = next;
                break;
            }
            t = RtTreeGetParent(t);
        }
        if (t == tree) return nullptr;
    }
    return nullptr;
}

RtStringRef copyQualifiedName(RtStringRef name) {
    if (!name) return nullptr;
    RtRange colon = RtStringFind(name, RTSTR(":"), 0);
    if (colon.location == kRtNotFound) return nullptr;
    RtIndex start = colon.location + 1;
    return RtStringCreateWithSubstring(kRtAllocatorDefault, name,
                                       RtRangeMake(start, RtStringGetLength(name) - start));
}

RtStringRef getNodeType(RtXMLNodeRef node) {
    switch (node ? RtXMLNodeGetTypeCode(node) : 0) {
    case kRtXMLNodeTypeDocument:
        return RTSTR("kRtXMLNodeTypeDocument");
    case kRtXMLNodeTypeElement:
        return RTSTR("kRtXMLNodeTypeElement");
    case kRtXMLNodeTypeAttribute:
        return RTSTR("kRtXMLNodeTypeAttribute");
    case kRtXMLNodeTypeProcessingInstruction:
        return RTSTR("kRtXMLNodeTypeProcessingInstruction");
    case kRtXMLNodeTypeComment:
        return RTSTR("kRtXMLNodeTypeComment");
    case kRtXMLNodeTypeText:
        return RTSTR("kRtXMLNodeTypeText");
    case kRtXMLNodeTypeCDATASection:
        return RTSTR("kRtXMLNodeTypeCDATASection");
    case kRtXMLNodeTypeDocumentFragment:
        return RTSTR("kRtXMLNodeTypeDocumentFragment");
    case kRtXMLNodeTypeEntity:
        return RTSTR("kRtXMLNodeTypeEntity");
    case kRtXMLNodeTypeEntityReference:
        return RTSTR("kRtXMLNodeTypeEntityReference");
    case kRtXMLNodeTypeDocumentType:
        return RTSTR("kRtXMLNodeTypeDocumentType");
    case kRtXMLNodeTypeWhitespace:
        return RTSTR("kRtXMLNodeTypeWhitespace");
    case kRtXMLNodeTypeNotation:
        return RTSTR("kRtXMLNodeTypeNotation");
    case kRtXMLNodeTypeElementTypeDeclaration:
        return RTSTR("kRtXMLNodeTypeElementTypeDeclaration");
    case kRtXMLNodeTypeAttributeListDeclaration:
        return RTSTR("kRtXMLNodeTypeAttributeListDeclaration");
    default:
        return RTSTR("??unknown node type??");
    }
}

// ---- Dumps ----------------------------------------------------------------------------------

static void dumpAttributes(RtTreeRef tree, int level) {
    const RtXMLElementInfo *info = treeGetElementInfo(tree);
    if (!info || !info->attributes || !info->attributeOrder) return;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    if (count <= 0) return;
    hvPrintf(RTSTR("%@[ -- %d ATTRIBUTES --\n"), getIndentString(level), static_cast<int>(count));
    for (RtIndex i = 0; i < count; i++) {
        RtStringRef key = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (key)
            hvPrintf(RTSTR("%@{ %@: %@ }\n"), getIndentString(level + 1), key,
                     RtDictionaryGetValue(info->attributes, key));
        else
            hvPrintf(RTSTR("%@{ null key at %d }\n"), getIndentString(level + 1), static_cast<int>(i));
    }
    hvPrintf(RTSTR("%@]\n"), getIndentString(level));
}

// Recursion is bounded by the parser's depth limit; dumps run only when debugging.
static void describeChild(RtTreeRef tree, int level) {
    RtXMLNodeRef node = RtXMLTreeGetNode(tree);
    RtStringRef typeName = getNodeType(node);
    if (!rtstrEquivilent(typeName, RTSTR("kRtXMLNodeTypeWhitespace"))) {
        hvPrintf(RTSTR("%@ - 0x%x: type %@, name %@\n"), getIndentString(level),
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(node)), typeName,
                 node ? RtXMLNodeGetString(node) : nullptr);
        dumpAttributes(tree, level + 2);
    }
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child))
        describeChild(child, level + 1);
}

void dumpXMLTree(RtTreeRef tree, int level) {
    if (!tree) return;
    for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child))
        describeChild(child, level + 1);
}

RtStringRef prettyPrintXML(RtDataRef data, RtStringEncoding encoding) {
    // Every HTTP result carries both bodies this way, megabytes for a large call: at most one
    // copy, made only when there are carriage returns to turn into line feeds (found by memchr).
    RtIndex length = data ? RtDataGetLength(data) : 0;
    const uint8_t *source = length > 0 ? RtDataGetBytePtr(data) : nullptr;
    std::vector<uint8_t> bytes;
    auto copySource = [&] {
        if (bytes.empty() && length > 0) {
            bytes.assign(source, source + length);
            source = bytes.data();
        }
    };
    if (length > 0 && memchr(source, '\r', size_t(length))) {
        copySource();
        uint8_t *end = bytes.data() + bytes.size();
        for (uint8_t *cr = bytes.data(); (cr = static_cast<uint8_t *>(memchr(cr, '\r', size_t(end - cr))));)
            *cr++ = '\n';
    }
    RtStringRef text = RtStringCreateWithBytes(kRtAllocatorDefault, source, length, encoding, false);
    if (!text)
        text =
            RtStringCreateWithBytes(kRtAllocatorDefault, source, length, kRtStringEncodingISOLatin1, false);
    if (!text) {
        copySource();
        for (uint8_t &b : bytes)
            b &= 0x7F;
        text =
            RtStringCreateWithBytes(kRtAllocatorDefault, bytes.data(), length, kRtStringEncodingASCII, false);
    }
    return text;
}
