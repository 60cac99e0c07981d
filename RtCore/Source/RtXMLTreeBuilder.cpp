// RtXMLTreeBuilder: turns the expat events of one document into the nodes of its tree.
// Owns the expat parser's handlers and the building state for the length of one parse; every
// node, string, dictionary and array it makes goes to the document. One thread. Building is
// iterative (the open elements are a stack of pointers), so no input can exhaust the C stack
// here; expat's own recursion through nested entities is bounded by the entity limit.
#include "RtStringInternal.h"
#include "RtXMLTreeInternal.h"

#include <expat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <unistd.h>

namespace rt::xml {
namespace {

// Bytes handed to expat per call: its input buffer stays small and warm in the cache.
constexpr size_t kFeedChunk = size_t(64) << 10;
// Attribute values up to this length are interned like names (SOAP repeats xsi:type values).
constexpr size_t kInternValueLength = 64;
// Texts up to this length are interned too, in a table of their own: XML-RPC repeats struct
// member names and booleans in every record, and a shared string saves a string object (most
// of a short text's memory) for every repeat.
constexpr size_t kInternTextLength = 16;

uint64_t makeSeed() {
    uint64_t seed = 0;
    if (getentropy(&seed, sizeof seed) != 0) {
        // No entropy source: the address layout and the clock still differ between processes.
        seed = uint64_t(reinterpret_cast<uintptr_t>(&seed)) ^
               uint64_t(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    return seed;
}

uint64_t processSeed() {
    static const uint64_t sSeed = makeSeed();
    return sSeed;
}

// A salt for expat's own hash tables, different for every parser and unknown outside the
// process. Without one, expat draws a salt from the kernel for every parser: a system call per
// document, a noticeable part of reading a small reply.
unsigned long nextHashSalt() {
    static std::atomic<uint64_t> sCount{0};
    uint64_t x = processSeed() + sCount.fetch_add(0x9E3779B97F4A7C15ull, std::memory_order_relaxed);
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    x ^= x >> 31;
    return x ? static_cast<unsigned long>(x) : 1UL; // 0 would mean "none" to expat
}

// A seeded hash of short byte strings: a peer that picks names cannot aim collisions at a
// seed it does not know, and the probe cap below bounds the damage if it tries anyway.
uint32_t hashBytes(const char *p, size_t n) {
    uint64_t h = processSeed() ^ (uint64_t(n) * 0x9E3779B97F4A7C15ull);
    for (; n >= 8; p += 8, n -= 8) {
        uint64_t w;
        std::memcpy(&w, p, 8);
        h = (h ^ w) * 0xBF58476D1CE4E5B9ull;
        h ^= h >> 29;
    }
    uint64_t w = 0;
    std::memcpy(&w, p, n);
    h = (h ^ w) * 0x94D049BB133111EBull;
    h ^= h >> 31;
    return uint32_t(h);
}

// One string per distinct name (and short attribute value) in a document: an XML-RPC reply of
// a hundred thousand elements uses a dozen names. Strings belong to the document.
class NameTable {
  public:
    explicit NameTable(Document &document) : fDocument(document) {}
    NameTable(const NameTable &) = delete;
    NameTable &operator=(const NameTable &) = delete;
    ~NameTable() { delete[] fSlots; }

    // The document's string of the UTF-8 bytes p[0..n); NULL when memory runs out.
    RtStringRef intern(const char *p, size_t n);

  private:
    struct Slot {
        const char *fBytes;
        RtStringRef fString;
        uint32_t fHash;
        uint32_t fLength;
    };
    static constexpr size_t kMaxLength = 256;
    static constexpr size_t kMaxSlots = 8192;
    static constexpr size_t kMaxProbe = 16;

    RtStringRef createOwned(const char *p, size_t n);
    bool grow();

    Document &fDocument;
    Slot *fSlots = nullptr;
    size_t fMask = 0;
    size_t fCount = 0;
};

RtStringRef createString(const char *p, size_t n) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(p);
    if (bytesAreASCII(bytes, n)) return createString8(bytes, RtIndex(n));
    return RtStringCreateWithBytes(kRtAllocatorDefault, bytes, RtIndex(n), kRtStringEncodingUTF8, false);
}

RtStringRef NameTable::createOwned(const char *p, size_t n) {
    RtStringRef s = createString(p, n);
    if (s) fDocument.fShared.push_back(s);
    return s;
}

bool NameTable::grow() {
    // Small first (a size the allocator keeps per thread): a small document has a handful of
    // names and short texts; a large one doubles the table a few times.
    size_t capacity = fSlots ? (fMask + 1) * 2 : 16;
    if (capacity > kMaxSlots) return false;
    auto *slots = new (std::nothrow) Slot[capacity](); // not calloc: glibc serves it past the thread cache
    if (!slots) return false;
    size_t mask = capacity - 1;
    for (size_t i = 0; fSlots && i <= fMask; i++) {
        if (!fSlots[i].fString) continue;
        size_t j = fSlots[i].fHash & mask;
        while (slots[j].fString)
            j = (j + 1) & mask;
        slots[j] = fSlots[i];
    }
    delete[] fSlots;
    fSlots = slots;
    fMask = mask;
    return true;
}

RtStringRef NameTable::intern(const char *p, size_t n) {
    if (n > kMaxLength) return createOwned(p, n);
    if ((fCount + 1) * 2 > fMask + 1) grow(); // at the cap the table just stops taking names
    if (!fSlots) return createOwned(p, n);
    uint32_t h = hashBytes(p, n);
    size_t i = h & fMask;
    for (size_t probe = 0; probe < kMaxProbe; probe++, i = (i + 1) & fMask) {
        Slot &slot = fSlots[i];
        if (!slot.fString) {
            if ((fCount + 1) * 4 > (fMask + 1) * 3) break;
            auto *copy = static_cast<char *>(fDocument.fArena.allocate(n ? n : 1));
            RtStringRef s = copy ? createOwned(p, n) : nullptr;
            if (!s) return nullptr;
            std::memcpy(copy, p, n);
            slot = Slot{copy, s, h, uint32_t(n)};
            fCount++;
            return s;
        }
        if (slot.fHash == h && slot.fLength == n && std::memcmp(slot.fBytes, p, n) == 0) return slot.fString;
    }
    return createOwned(p, n);
}

// Elements with the same attributes share one info record: a SOAP reply repeats
// xsi:type="xsd:int" and its few siblings on every member. Keys and values are the document's
// interned strings, so a set is known by their addresses. Each record is allocated as a pair,
// the record and its twin for an element written empty (<x/>), so that marking an element empty
// moves its pointer to the twin instead of writing to a record others share.
class AttributeSets {
  public:
    AttributeSets() = default;
    AttributeSets(const AttributeSets &) = delete;
    AttributeSets &operator=(const AttributeSets &) = delete;
    ~AttributeSets() { delete[] fSlots; }

    // The pair for the interned keys and values (count of each), or NULL.
    RtXMLElementInfo *find(const void *const *keys, const void *const *values, size_t count,
                           uint32_t hash) const {
        if (!fSlots) return nullptr;
        for (size_t i = hash & fMask, probe = 0; probe < kMaxProbe; probe++, i = (i + 1) & fMask) {
            const Slot &slot = fSlots[i];
            if (!slot.fInfo) return nullptr;
            if (slot.fHash == hash && matches(slot.fInfo, keys, values, count)) return slot.fInfo;
        }
        return nullptr;
    }
    // False when the set is not kept for sharing (at the cap, or after too many probes).
    bool insert(RtXMLElementInfo *pair, uint32_t hash) {
        if ((fCount + 1) * 2 > fMask + 1 && !grow()) return false; // at the cap, sets are just not shared
        for (size_t i = hash & fMask, probe = 0; probe < kMaxProbe; probe++, i = (i + 1) & fMask) {
            if (!fSlots[i].fInfo) {
                fSlots[i] = Slot{pair, hash};
                fCount++;
                return true;
            }
        }
        return false;
    }
    static uint32_t hashOf(const void *const *keys, const void *const *values, size_t count) {
        uint64_t h = count * 0x9E3779B97F4A7C15ull;
        for (size_t i = 0; i < count; i++) {
            h = (h ^ reinterpret_cast<uintptr_t>(keys[i])) * 0xBF58476D1CE4E5B9ull;
            h = (h ^ reinterpret_cast<uintptr_t>(values[i])) * 0x94D049BB133111EBull;
            h ^= h >> 31;
        }
        return uint32_t(h);
    }

  private:
    struct Slot {
        RtXMLElementInfo *fInfo;
        uint32_t fHash;
    };
    static constexpr size_t kMaxSlots = 4096;
    static constexpr size_t kMaxProbe = 16;

    static bool matches(const RtXMLElementInfo *info, const void *const *keys, const void *const *values,
                        size_t count) {
        if (RtArrayGetCount(info->attributeOrder) != RtIndex(count)) return false;
        for (size_t i = 0; i < count; i++) {
            if (RtArrayGetValueAtIndex(info->attributeOrder, RtIndex(i)) != keys[i] ||
                RtDictionaryGetValue(info->attributes, keys[i]) != values[i])
                return false;
        }
        return true;
    }
    bool grow() {
        size_t capacity = fSlots ? (fMask + 1) * 2 : 64;
        if (capacity > kMaxSlots) return false;
        auto *slots =
            new (std::nothrow) Slot[capacity](); // not calloc: glibc serves it past the thread cache
        if (!slots) return false;
        size_t mask = capacity - 1;
        for (size_t i = 0; fSlots && i <= fMask; i++) {
            if (!fSlots[i].fInfo) continue;
            size_t j = fSlots[i].fHash & mask;
            while (slots[j].fInfo)
                j = (j + 1) & mask;
            slots[j] = fSlots[i];
        }
        delete[] fSlots;
        fSlots = slots;
        fMask = mask;
        return true;
    }

    Slot *fSlots = nullptr;
    size_t fMask = 0;
    size_t fCount = 0;
};

bool isXMLWhitespace(const char *p, size_t n) {
    for (size_t i = 0; i < n; i++) {
        char c = p[i];
        if (c != ' ' && c != '\n' && c != '\t' && c != '\r') return false;
    }
    return true;
}

// True when raw (count bytes of the input, in an 8-bit or 16-bit encoding) spells "&name;".
bool rawIsReference(const char *raw, int count, const char *name, size_t nameLength) {
    size_t units = nameLength + 2;
    size_t width = size_t(count) == units ? 1 : size_t(count) == units * 2 ? 2 : 0;
    if (!width) return false;
    for (size_t i = 0; i < units; i++) {
        char expected = i == 0 ? '&' : i == units - 1 ? ';' : name[i - 1];
        const char *unit = raw + i * width;
        bool match = width == 1
                         ? unit[0] == expected
                         : (unit[0] == expected && unit[1] == 0) || (unit[0] == 0 && unit[1] == expected);
        if (!match) return false;
    }
    return true;
}

class TreeBuilder {
  public:
    TreeBuilder(RootNode *root, XML_Parser parser, RtOptionFlags options, const RtXMLTreeDrainContext *drain,
                const RtXMLTreeStreamContext *stream);
    TreeBuilder(const TreeBuilder &) = delete;
    TreeBuilder &operator=(const TreeBuilder &) = delete;

    bool run(const uint8_t *bytes, size_t length, ParseError &error);

    // expat's handlers; each catches what the standard library may throw (memory) so that
    // nothing unwinds through expat.
    static void XMLCALL _startElement(void *data, const XML_Char *name, const XML_Char **atts);
    static void XMLCALL _endElement(void *data, const XML_Char *name);
    static void XMLCALL _characterData(void *data, const XML_Char *s, int len);
    static void XMLCALL _comment(void *data, const XML_Char *text);
    static void XMLCALL _processingInstruction(void *data, const XML_Char *target, const XML_Char *text);
    static void XMLCALL _startCDATA(void *data);
    static void XMLCALL _endCDATA(void *data);
    static void XMLCALL _startDoctype(void *data, const XML_Char *name, const XML_Char *sysid,
                                      const XML_Char *pubid, int hasInternalSubset);
    static void XMLCALL _entityDeclaration(void *data, const XML_Char *name, int isParameterEntity,
                                           const XML_Char *value, int valueLength, const XML_Char *base,
                                           const XML_Char *systemId, const XML_Char *publicId,
                                           const XML_Char *notationName);
    static int XMLCALL _externalEntityReference(XML_Parser parser, const XML_Char *context,
                                                const XML_Char *base, const XML_Char *systemId,
                                                const XML_Char *publicId);

  private:
    void startElement(const char *name, const char **atts);
    void endElement();
    void characterData(const char *s, int len);
    void comment(const char *text);
    void processingInstruction(const char *target, const char *text);
    void startCDATA();
    void endCDATA();
    void startDoctype(const char *name);
    void entityDeclaration();

    bool predefinedReference(char c);
    bool setAttributes(TreeNode *element, const char **atts);
    TreeNode *appendNode(uint8_t type, RtStringRef string);
    void beforeChild();
    void drainLastChild();
    void streamBeforeChild();
    void offerLastChild();
    RtStringRef createOwned(const char *p, size_t n);
    void flushText(bool beforeReference = false, bool atEnd = false) {
        if (!fText.empty()) flushPendingText(beforeReference, atEnd);
    }
    void flushPendingText(bool beforeReference, bool atEnd);
    void fail(int status, const std::string &description);
    void outOfMemory() { fail(XML_ERROR_NO_MEMORY, "out of memory"); }

    XML_Parser fParser;
    RootNode *fRoot;
    Document &fDocument;
    RtOptionFlags fOptions;
    const ClassEntry *fTreeClass;
    const ClassEntry *fNodeClass;
    const RtXMLElementInfo *fPlainInfo;
    NameTable fNames;
    NameTable fTexts;
    AttributeSets fAttributeSets;

    TreeNode *fCurrent;                 // the open element, or the document node
    std::vector<TreeNode *> fLastChild; // last child of each open node, the document first
    std::string fText;                  // character data not yet made into a node
    bool fTextHasReference = false;     // fText holds a character reference (content whitespace only)
    bool fInCDATA = false;
    int fEntityDeclarations = 0;
    std::vector<const void *> fKeys; // scratch for attributes
    std::vector<const void *> fValues;

    bool fFailed = false;
    ParseError fError;

    // Draining (see RtXMLTreeCreateFromDataDraining): the element whose children go to the
    // consumer, and where the nodes and owned objects of its current child begin.
    const RtXMLTreeDrainContext *fDrain;
    TreeNode *fDrained = nullptr;
    bool fDrainOver = false;
    Arena::Mark fChildMark{};
    size_t fChildOwned = 0;

    // Streaming (see RtXMLTreeCreateFromDataStreaming): the accepted elements still open, each
    // with its last child already offered, its last child kept, and where the nodes and owned
    // objects of its current child begin.
    struct StreamFrame {
        TreeNode *fElement;
        TreeNode *fOffered;
        TreeNode *fKept;
        Arena::Mark fMark;
        size_t fOwned;
    };
    const RtXMLTreeStreamContext *fStream;
    std::vector<StreamFrame> fFrames;
};

TreeBuilder::TreeBuilder(RootNode *root, XML_Parser parser, RtOptionFlags options,
                         const RtXMLTreeDrainContext *drain, const RtXMLTreeStreamContext *stream)
    : fParser(parser), fRoot(root), fDocument(root->fDocument), fOptions(options),
      fTreeClass(classEntry(treeTypeID())), fNodeClass(classEntry(xmlNodeTypeID())),
      fPlainInfo(noAttributesInfo(false)), fNames(root->fDocument), fTexts(root->fDocument),
      fCurrent(&root->fNode),
      fDrain(drain && drain->consume && drain->shouldDrain && drain->depth > 0 ? drain : nullptr),
      fStream(!fDrain && stream && stream->accept && stream->consume ? stream : nullptr) {
    fLastChild.reserve(64);
    fLastChild.push_back(nullptr);
    fText.reserve(256);
    // One block for the interned strings of a small document instead of growing from one.
    fDocument.fShared.reserve(16);

    XML_SetUserData(parser, this);
    // Parameter entities (and with them any external DTD subset) are never read.
    XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
    XML_SetElementHandler(parser, _startElement, _endElement);
    XML_SetCharacterDataHandler(parser, _characterData);
    XML_SetCommentHandler(parser, _comment);
    XML_SetProcessingInstructionHandler(parser, _processingInstruction);
    XML_SetCdataSectionHandler(parser, _startCDATA, _endCDATA);
    XML_SetStartDoctypeDeclHandler(parser, _startDoctype);
    XML_SetEntityDeclHandler(parser, _entityDeclaration);
    XML_SetExternalEntityRefHandler(parser, _externalEntityReference);
}

bool TreeBuilder::run(const uint8_t *bytes, size_t length, ParseError &error) {
    const char *p = bytes ? reinterpret_cast<const char *>(bytes) : "";
    size_t offset = 0;
    bool parsed = true;
    do {
        size_t chunk = std::min(length - offset, kFeedChunk);
        bool final = offset + chunk == length;
        if (XML_Parse(fParser, p + offset, int(chunk), final) != XML_STATUS_OK) {
            parsed = false;
            break;
        }
        offset += chunk;
    } while (offset < length);

    if (fFailed) {
        error = fError;
        return false;
    }
    if (!parsed) {
        XML_Error code = XML_GetErrorCode(fParser);
        const XML_LChar *text = XML_ErrorString(code);
        error.fStatus = int(code);
        error.fDescription = text ? text : "unknown error";
        error.fLine = long(XML_GetCurrentLineNumber(fParser));
        error.fLocation = std::max(0L, long(XML_GetCurrentByteIndex(fParser))); // -1 before any byte
        return false;
    }
    return true;
}

void TreeBuilder::fail(int status, const std::string &description) {
    if (fFailed) return;
    fFailed = true;
    fError.fStatus = status;
    fError.fDescription = description;
    fError.fLine = long(XML_GetCurrentLineNumber(fParser));
    fError.fLocation = long(XML_GetCurrentByteIndex(fParser));
    XML_StopParser(fParser, XML_FALSE);
}

TreeNode *TreeBuilder::appendNode(uint8_t type, RtStringRef string) {
    bool leaf = isLeafType(type);
    auto *n = static_cast<TreeNode *>(fDocument.fNodes.allocate(leaf ? kLeafNodeSize : sizeof(TreeNode)));
    if (!n) {
        outOfMemory();
        return nullptr;
    }
    initInteriorObject(&n->fTreeHeader, fTreeClass, fRoot);
    initInteriorObject(&n->fNodeHeader, fNodeClass, fRoot);
    n->fParent = fCurrent;
    n->fNextSibling = nullptr;
    n->fString = string;
    n->fChildCount = 0;
    n->fType = type;
    if (!leaf) {
        n->fFirstChild = nullptr;
        n->fInfo = nullptr;
    }
    // The open node is an element or the document, never a leaf.
    TreeNode *&last = fLastChild.back();
    if (last)
        last->fNextSibling = n;
    else
        fCurrent->fFirstChild = n;
    last = n;
    fCurrent->fChildCount++;
    return n;
}

// Called before anything of a new child of the open node is made. Under draining, the open
// node's previous child is complete by now: it goes to the consumer, and the new child starts
// where it began.
void TreeBuilder::beforeChild() {
    if (fStream) {
        streamBeforeChild();
        return;
    }
    if (!fDrain || fDrainOver) return;
    if (!fDrained) {
        bool firstChildAtDepth = !fLastChild.back() && fLastChild.size() == size_t(fDrain->depth) + 1 &&
                                 fCurrent->fType == kRtXMLNodeTypeElement;
        if (!firstChildAtDepth) return;
        if (!fDrain->shouldDrain(treeOfNode(fCurrent), fDrain->info)) return;
        fDrained = fCurrent;
    }
    if (fCurrent != fDrained) return;
    if (fLastChild.back()) drainLastChild();
    fChildMark = fDocument.fNodes.mark();
    fChildOwned = fDocument.fOwned.size();
}

// Under streaming, an element is asked before its first child; the previous child of an accepted
// element is complete by now and is offered before the new one starts.
void TreeBuilder::streamBeforeChild() {
    if (fCurrent->fType != kRtXMLNodeTypeElement) return;
    if (fFrames.empty() || fFrames.back().fElement != fCurrent) {
        if (fLastChild.back() || !fStream->accept(treeOfNode(fCurrent), fStream->info)) return;
        fFrames.push_back(StreamFrame{fCurrent, nullptr, nullptr, {}, 0});
    } else {
        offerLastChild();
    }
    StreamFrame &frame = fFrames.back();
    frame.fMark = fDocument.fNodes.mark();
    frame.fOwned = fDocument.fOwned.size();
}

void TreeBuilder::offerLastChild() {
    StreamFrame &frame = fFrames.back();
    TreeNode *child = fLastChild.back();
    if (!child || child == frame.fOffered) return;
    if (!fStream->consume(treeOfNode(child), fStream->info)) {
        frame.fKept = child;
        frame.fOffered = child;
        return;
    }
    // The child is the last thing built since the mark: unlink it and give its memory back.
    if (frame.fKept)
        frame.fKept->fNextSibling = nullptr;
    else
        frame.fElement->fFirstChild = nullptr;
    frame.fElement->fChildCount--;
    fLastChild.back() = frame.fKept;
    frame.fOffered = frame.fKept;
    fDocument.fNodes.rewind(frame.fMark);
    for (size_t i = frame.fOwned; i < fDocument.fOwned.size(); i++)
        RtRelease(fDocument.fOwned[i]);
    fDocument.fOwned.resize(frame.fOwned);
}

void TreeBuilder::drainLastChild() {
    TreeNode *child = fLastChild.back();
    fDrain->consume(treeOfNode(child), fDrain->info);
    fDrained->fFirstChild = nullptr;
    fDrained->fChildCount = 0;
    fLastChild.back() = nullptr;
    fDocument.fNodes.rewind(fChildMark);
    // What the child's nodes owned alone; anything the consumer kept, it retained.
    for (size_t i = fChildOwned; i < fDocument.fOwned.size(); i++)
        RtRelease(fDocument.fOwned[i]);
    fDocument.fOwned.resize(fChildOwned);
}

RtStringRef TreeBuilder::createOwned(const char *p, size_t n) {
    RtStringRef s = createString(p, n);
    if (!s) {
        outOfMemory();
        return nullptr;
    }
    fDocument.fOwned.push_back(s);
    return s;
}

void TreeBuilder::flushPendingText(bool beforeReference, bool atEnd) {
    if (fInCDATA) return; // a CDATA section collects its text until it ends
    // Whitespace between markup is dropped under the option; whitespace next to an entity
    // reference is part of the text ("&lt; &gt;" keeps its space).
    bool skip = (fOptions & kRtXMLParserSkipWhitespace) && !beforeReference &&
                !(fLastChild.back() && fLastChild.back()->fType == kRtXMLNodeTypeEntityReference) &&
                isXMLWhitespace(fText.data(), fText.size());
    // An element's whole content is data, not indentation, when it has no line break or was
    // written as character references.
    if (skip && atEnd && (fOptions & kRtXMLParserKeepContentWhitespace) && !fLastChild.back())
        skip = !fTextHasReference && fText.find_first_of("\r\n") != std::string::npos;
    fTextHasReference = false;
    if (!skip) {
        beforeChild();
        RtStringRef s = fText.size() <= kInternTextLength ? fTexts.intern(fText.data(), fText.size())
                                                          : createOwned(fText.data(), fText.size());
        if (s)
            appendNode(kRtXMLNodeTypeText, s);
        else
            outOfMemory();
    }
    fText.clear();
}

bool TreeBuilder::setAttributes(TreeNode *element, const char **atts) {
    size_t count = 0;
    if (fOptions & kRtXMLParserAddImpliedAttributes) {
        while (atts[count])
            count += 2;
    } else {
        count = size_t(XML_GetSpecifiedAttributeCount(fParser));
    }
    if (count == 0) {
        element->fInfo = fPlainInfo;
        return true;
    }
    fKeys.clear();
    fValues.clear();
    bool allInterned = true; // then the set can be shared (long values are fresh strings)
    for (size_t i = 0; i < count; i += 2) {
        size_t valueLength = std::strlen(atts[i + 1]);
        RtStringRef key = fNames.intern(atts[i], std::strlen(atts[i]));
        RtStringRef value = valueLength <= kInternValueLength ? fNames.intern(atts[i + 1], valueLength)
                                                              : createOwned(atts[i + 1], valueLength);
        if (!key || !value) {
            outOfMemory();
            return false;
        }
        allInterned = allInterned && valueLength <= kInternValueLength;
        fKeys.push_back(key);
        fValues.push_back(value);
    }
    size_t n = fKeys.size();
    uint32_t hash = allInterned ? AttributeSets::hashOf(fKeys.data(), fValues.data(), n) : 0;
    if (allInterned) {
        if (RtXMLElementInfo *shared = fAttributeSets.find(fKeys.data(), fValues.data(), n, hash)) {
            element->fInfo = shared;
            return true;
        }
    }
    RtDictionaryRef dict =
        RtDictionaryCreate(kRtAllocatorDefault, fKeys.data(), fValues.data(), RtIndex(n),
                           &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    RtArrayRef order = RtArrayCreate(kRtAllocatorDefault, fKeys.data(), RtIndex(n), &kRtTypeArrayCallBacks);
    auto *pair = static_cast<RtXMLElementInfo *>(fDocument.fArena.allocate(2 * sizeof(RtXMLElementInfo)));
    if (!dict || !order || !pair) {
        if (dict) RtRelease(dict);
        if (order) RtRelease(order);
        outOfMemory();
        return false;
    }
    pair[0] = RtXMLElementInfo{dict, order, false, {}};
    pair[1] = RtXMLElementInfo{dict, order, true, {}};
    // A record others may share belongs to the document; any other (one the full table did not
    // take too) to its element, so that a reader streaming the document frees it with the element.
    bool shared = allInterned && fAttributeSets.insert(pair, hash);
    std::vector<RtTypeRef> &owner = shared ? fDocument.fShared : fDocument.fOwned;
    owner.push_back(dict);
    owner.push_back(order);
    element->fInfo = pair;
    return true;
}

void TreeBuilder::startElement(const char *name, const char **atts) {
    flushText();
    if (fLastChild.size() > kRtXMLTreeMaxDepth) {
        fail(kRtXMLTreeStatusNestingTooDeep,
             "elements nested deeper than " + std::to_string(kRtXMLTreeMaxDepth) + " levels");
        return;
    }
    beforeChild();
    RtStringRef s = fNames.intern(name, std::strlen(name));
    if (!s) {
        outOfMemory();
        return;
    }
    TreeNode *n = appendNode(kRtXMLNodeTypeElement, s);
    if (!n) return;
    if (atts[0]) {
        if (!setAttributes(n, atts)) return;
    } else {
        n->fInfo = fPlainInfo;
    }
    fCurrent = n;
    fLastChild.push_back(nullptr);
}

void TreeBuilder::endElement() {
    flushText(false, true);
    TreeNode *n = fCurrent;
    if (n == fDrained) {
        if (fLastChild.back()) drainLastChild();
        fDrained = nullptr;
        fDrainOver = true;
    }
    if (fStream && !fFrames.empty() && fFrames.back().fElement == n) {
        offerLastChild();
        fFrames.pop_back();
    }
    // The end of an element written <x/> is an event of no bytes of its own.
    // Every info record is the first of a pair whose second is the same record for an empty
    // element (the shared records of elements without attributes too).
    if (XML_GetCurrentByteCount(fParser) == 0) n->fInfo = static_cast<const RtXMLElementInfo *>(n->fInfo) + 1;
    fCurrent = n->fParent;
    fLastChild.pop_back();
}

// A predefined entity reference reaches us as one character in a call of its own; its raw
// bytes tell it from the same character written as is, as a character reference, or coming
// out of a declared entity (whose raw bytes are the reference to that entity).
bool TreeBuilder::predefinedReference(char c) {
    struct Entry {
        char fCharacter;
        const char *fName;
        RtStringRef fString;
    };
    static const Entry sEntries[] = {
        {'&', "amp", RTSTR("amp")},   {'<', "lt", RTSTR("lt")},      {'>', "gt", RTSTR("gt")},
        {'"', "quot", RTSTR("quot")}, {'\'', "apos", RTSTR("apos")},
    };
    for (const Entry &entry : sEntries) {
        if (entry.fCharacter != c) continue;
        int count = XML_GetCurrentByteCount(fParser);
        int offset = 0, size = 0;
        const char *context = count > 0 ? XML_GetInputContext(fParser, &offset, &size) : nullptr;
        if (!context || offset < 0 || count > size - offset) return false;
        if (!rawIsReference(context + offset, count, entry.fName, std::strlen(entry.fName))) return false;
        flushText(true);
        beforeChild();
        appendNode(kRtXMLNodeTypeEntityReference, entry.fString);
        return true;
    }
    return false;
}

void TreeBuilder::characterData(const char *s, int len) {
    if (len == 1 && !fInCDATA && predefinedReference(s[0])) return;
    // A character reference reaches us as one character whose raw bytes are longer ("&#10;").
    if (len == 1 && (fOptions & kRtXMLParserKeepContentWhitespace) && XML_GetCurrentByteCount(fParser) > 2)
        fTextHasReference = true;
    fText.append(s, size_t(len));
}

void TreeBuilder::comment(const char *text) {
    flushText();
    beforeChild();
    if (RtStringRef s = createOwned(text, std::strlen(text))) appendNode(kRtXMLNodeTypeComment, s);
}

void TreeBuilder::processingInstruction(const char *target, const char *text) {
    flushText();
    beforeChild();
    RtStringRef name = fNames.intern(target, std::strlen(target));
    RtStringRef data = name ? createOwned(text, std::strlen(text)) : nullptr;
    auto *slot = static_cast<RtStringRef *>(fDocument.fArena.allocate(sizeof(RtStringRef)));
    if (!name || !data || !slot) {
        outOfMemory();
        return;
    }
    *slot = data;
    if (TreeNode *n = appendNode(kRtXMLNodeTypeProcessingInstruction, name)) n->fInfo = slot;
}

void TreeBuilder::startCDATA() {
    flushText();
    fInCDATA = true;
}

void TreeBuilder::endCDATA() {
    fInCDATA = false;
    beforeChild();
    if (RtStringRef s = createOwned(fText.data(), fText.size())) appendNode(kRtXMLNodeTypeCDATASection, s);
    fText.clear();
}

void TreeBuilder::startDoctype(const char *name) {
    if (fOptions & kRtXMLParserSkipMetaData) return;
    RtStringRef s = fNames.intern(name, std::strlen(name));
    if (!s) {
        outOfMemory();
        return;
    }
    appendNode(kRtXMLNodeTypeDocumentType, s);
}

void TreeBuilder::entityDeclaration() {
    // expat expands nested entities recursively; bounding the declarations bounds the depth.
    if (++fEntityDeclarations > kRtXMLTreeMaxEntityDeclarations)
        fail(kRtXMLTreeStatusTooManyEntities,
             "more than " + std::to_string(kRtXMLTreeMaxEntityDeclarations) + " entity declarations");
}

#define HANDLER_BODY(call)                                                                                   \
    auto *b = static_cast<TreeBuilder *>(data);                                                              \
    if (b->fFailed) return;                                                                                  \
    try {                                                                                                    \
        call;                                                                                                \
    } catch (...) {                                                                                          \
        b->outOfMemory();                                                                                    \
    }

void XMLCALL TreeBuilder::_startElement(void *data, const XML_Char *name, const XML_Char **atts) {
    HANDLER_BODY(b->startElement(name, atts))
}
void XMLCALL TreeBuilder::_endElement(void *data, const XML_Char *) {
    HANDLER_BODY(b->endElement())
}
void XMLCALL TreeBuilder::_characterData(void *data, const XML_Char *s, int len) {
    HANDLER_BODY(b->characterData(s, len))
}
void XMLCALL TreeBuilder::_comment(void *data, const XML_Char *text) {
    HANDLER_BODY(b->comment(text))
}
void XMLCALL TreeBuilder::_processingInstruction(void *data, const XML_Char *target, const XML_Char *text) {
    HANDLER_BODY(b->processingInstruction(target, text))
}
void XMLCALL TreeBuilder::_startCDATA(void *data) {
    HANDLER_BODY(b->startCDATA())
}
void XMLCALL TreeBuilder::_endCDATA(void *data) {
    HANDLER_BODY(b->endCDATA())
}
void XMLCALL TreeBuilder::_startDoctype(void *data, const XML_Char *name, const XML_Char *, const XML_Char *,
                                        int) {
    HANDLER_BODY(b->startDoctype(name))
}
void XMLCALL TreeBuilder::_entityDeclaration(void *data, const XML_Char *, int, const XML_Char *, int,
                                             const XML_Char *, const XML_Char *, const XML_Char *,
                                             const XML_Char *) {
    HANDLER_BODY(b->entityDeclaration())
}

#undef HANDLER_BODY

int XMLCALL TreeBuilder::_externalEntityReference(XML_Parser parser, const XML_Char *, const XML_Char *,
                                                  const XML_Char *, const XML_Char *) {
    // Nothing is ever loaded: the reference fails the parse instead of silently vanishing.
    auto *b = static_cast<TreeBuilder *>(XML_GetUserData(parser));
    b->fail(XML_ERROR_EXTERNAL_ENTITY_HANDLING,
            "reference to an external entity (external entities are never read)");
    return XML_STATUS_ERROR;
}

} // namespace

namespace {

// Documents up to this size leave their parser to the thread's next document: making and
// freeing an expat parser costs more than reading a short reply, and what a reset parser keeps
// of a small document is small.
constexpr size_t kKeptParserLimit = size_t(64) << 10;

struct KeptParser {
    XML_Parser fParser = nullptr;
    ~KeptParser() {
        if (fParser) XML_ParserFree(fParser);
    }
};
thread_local KeptParser gKeptParser;

// A parser for a new document in encoding: the thread's kept one, reset, else a new one. Taken
// out of the slot while in use, so a parse inside a handler gets a parser of its own.
XML_Parser takeParser(const char *encoding) {
    XML_Parser parser = gKeptParser.fParser;
    gKeptParser.fParser = nullptr;
    if (parser && XML_ParserReset(parser, encoding)) return parser;
    if (parser) XML_ParserFree(parser);
    return XML_ParserCreate(encoding);
}

void giveBackParser(XML_Parser parser, size_t documentLength) {
    if (documentLength <= kKeptParserLimit && !gKeptParser.fParser)
        gKeptParser.fParser = parser;
    else
        XML_ParserFree(parser);
}

} // namespace

bool buildTree(RootNode *root, const InputPlan &plan, RtOptionFlags options, ParseError &error,
               const RtXMLTreeDrainContext *drain, const RtXMLTreeStreamContext *stream) {
    XML_Parser parser = takeParser(plan.fExpatEncoding);
    if (!parser) {
        error.fStatus = XML_ERROR_NO_MEMORY;
        error.fDescription = "out of memory";
        return false;
    }
    XML_SetHashSalt(parser, nextHashSalt());
    bool built;
    {
        TreeBuilder builder(root, parser, options, drain, stream);
        built = builder.run(plan.fBytes, plan.fLength, error);
    }
    giveBackParser(parser, plan.fLength);
    return built;
}

} // namespace rt::xml
