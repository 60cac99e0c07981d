// SOAPCodec: the pieces of the SOAP reader and writers that the client and the server share.
// SOAPDecoder turns the typed elements of one SOAP Body into runtime values, following href
// references to the Body's id-carrying children. It owns, for that one document, the index of
// those ids (built on the first href), the values already decoded for href targets, and small
// caches of split names; it holds the Body and the handler borrowed. It lives for the reading
// of one document on the thread that reads it; no locks.
#pragma once

#include "HalvoUtils.h"
#include "SOAPHalvoClosure.h"

#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

// The namespace declaration lines of an envelope start tag (level 2), in the flavour's order,
// the last one closing the tag. False, and nothing written, for a protocol that is neither SOAP
// constant (compared by identity).
bool writeEnvelopeNamespaces(XMLBuffer *buffer, RtStringRef protocolKind);

// The scope of a document's root: its declarations, and methodNamespace (or "" when NULL) as
// the default when the document declares none, so that unprefixed elements count as the
// method's.
void makeRootScope(RtTreeRef document, RtStringRef methodNamespace, AutoDict &scope);

// The stream error that reader failures carry: domain -1, error -65795.
extern const RtStreamError kSOAPParseStreamError;

class SOAPDecoder {
  public:
    SOAPDecoder(SOAPProtocolHandler *handler, RtTreeRef body);
    SOAPDecoder(const SOAPDecoder &) = delete;
    SOAPDecoder &operator=(const SOAPDecoder &) = delete;
    ~SOAPDecoder();

    // The value of element (new, caller releases) or NULL. scope is the scope of element's
    // parent; element's own declarations are added here. The first failure sets error (when it
    // is still empty) and every decoder above stops.
    RtTypeRef parseSOAPType(RtTreeRef element, const AutoDict &scope, AutoString &error);
    // The children of element, in document order, as a new mutable array; on failure the
    // values decoded so far.
    RtTypeRef parseSOAPArray(RtTreeRef element, const AutoDict &scope, AutoString &error);
    // The children of element under their element names as a new mutable dictionary; a repeated
    // name gathers its values into an array.
    RtTypeRef parseSOAPDictionary(RtTreeRef element, const AutoDict &scope, AutoString &error);

    // The first child of the Body whose "id" attribute (any namespace) is equivalent to id, or
    // NULL (also when that child was decoded while the document was read). Borrowed.
    RtTreeRef findAnchor(RtStringRef id);

    // Reading while the document is parsed (SOAPReplyStream). The decoder then gets the Body's
    // children one by one as each completes (streamBodyChild), in document order, and builds
    // its anchor index from them instead of from the finished Body. Children of the elements
    // named by streamChildrenOf are offered to streamChild. Each returns true when it decoded
    // the child (or found it can never be read) and the tree may drop it; the decoding that
    // follows on the finished tree then takes the stored values in its place. A stored value is
    // used only where the tree would decode to the same value: where it would not (a scope that
    // names a prefix differently, nesting past the limit), the decoder gives up (bailedOut) and
    // the caller reads the document again as a whole tree.
    void beginStreaming();
    void streamChildrenOf(RtTreeRef element, const AutoDict &scope);
    bool streamChild(RtTreeRef element, RtTreeRef child);
    bool streamBodyChild(RtTreeRef child, const AutoDict &bodyScope, bool dispatched);
    bool bailedOut() const { return fBailedOut; }

    // While element is being decoded by a caller (a method element), an href back to it is a
    // circular reference.
    void enter(RtTreeRef element) { fActive.push_back(element); }
    void leave() { fActive.pop_back(); }

    RtTreeRef getBody() const { return fBody; }
    SOAPProtocolHandler *getHandler() const { return fHandler; }

  private:
    // The local names the decoder looks for, and namespace declarations, as bits.
    enum : unsigned {
        eTypeRole = 1,
        eHrefRole = 2,
        eArrayTypeRole = 4,
        eIdRole = 8,
        eDeclarationRole = 16,
        eNilRole = 32 // "nil" (2001) or "null" (1999), read in exact mode only
    };
    // The namespaces attributes are looked for in, as bits (equivalence, not identity).
    enum : unsigned { eXSI1999 = 1, eXSI2001 = 2, eEncoding = 4 };

    // A name split at its first colon (prefix NULL when there is none, or when it is first),
    // and the roles its local name plays.
    struct NameParts {
        RtStringRef prefix;
        RtStringRef local;
        unsigned roles;
    };
    // What a type attribute means in the namespace its prefix names.
    struct TypeInfo {
        HVTypeID kind;
        RtStringRef qualified; // the "namespace|local" form, or the text when unqualified
    };
    // Caches are keyed by text, not by object: the tree reader stops sharing equal strings once
    // a document holds many distinct names (ids, say), and equal text must still hit.
    struct TextHash {
        size_t operator()(RtStringRef s) const { return s ? RtHash(s) : 0; }
        size_t operator()(const std::pair<RtStringRef, RtStringRef> &p) const {
            return (*this)(p.first) * 31 + (*this)(p.second);
        }
    };
    struct TextEqual {
        bool operator()(RtStringRef a, RtStringRef b) const { return a == b || (a && b && RtEqual(a, b)); }
        bool operator()(const std::pair<RtStringRef, RtStringRef> &a,
                        const std::pair<RtStringRef, RtStringRef> &b) const {
            return (*this)(a.first, b.first) && (*this)(a.second, b.second);
        }
    };

    // One remembered prefix lookup: the namespace prefix (or "__defaultNamespace") had in scope.
    struct ResolvedPrefix {
        RtStringRef fPrefix;
        RtDictionaryRef fScope; // retained
        RtStringRef fNamespace;
    };
    static constexpr size_t kResolvedSlots = 8;
    // Recent answers by the address of the text asked about, in front of the text-keyed maps.
    // Every address held is of a string that the document or a map keeps alive for the
    // decoder's life, so no address can come back meanwhile holding other text.
    static constexpr size_t kRecentSlots = 16;
    static size_t recentSlot(const void *a, const void *b = nullptr) {
        return ((reinterpret_cast<uintptr_t>(a) ^ (reinterpret_cast<uintptr_t>(b) >> 3)) >> 4) % kRecentSlots;
    }

    const NameParts &split(RtStringRef name);
    // The namespace of a split name in scope (the default namespace when unprefixed).
    RtStringRef resolve(const NameParts &parts, const AutoDict &scope);
    unsigned namespaceKind(RtStringRef ns);
    // The union of the roles of an element's attributes.
    unsigned attributeRoles(const RtXMLElementInfo *info);

    // The first attribute playing role whose namespace is in nsKinds, or any namespace when
    // nsKinds is 0. Borrowed.
    RtStringRef getNodeAttribute(const RtXMLElementInfo *info, const AutoDict &scope, unsigned nsKinds,
                                 unsigned role);
    // The attribute playing role in the 1999 schema-instance namespace, else in the 2001 one,
    // else in the scope's default namespace (any namespace when there is none).
    RtStringRef getSoapNodeAttribute(const RtXMLElementInfo *info, const AutoDict &scope, unsigned role);
    // An "arrayType" attribute in the SOAP encoding namespace.
    bool isArray(const RtXMLElementInfo *info, const AutoDict &scope);

    const TypeInfo &typeInfo(RtStringRef type, const AutoDict &scope);
    RtTypeRef decodeFallback(RtTreeRef target, const RtXMLElementInfo *info, RtTreeRef firstChild,
                             RtStringRef text, const TypeInfo &type, const AutoDict &scope,
                             AutoString &error);
    // Decodes target by its declared or implied type; firstChild (and its node) is the
    // referencing element's first child, which after an href is none.
    RtTypeRef decodeTyped(RtTreeRef target, const RtXMLElementInfo *info, RtTreeRef firstChild,
                          RtXMLNodeRef firstNode, const AutoDict &scope, AutoString &error);
    RtTypeRef followReference(RtStringRef href, const AutoDict &scope, AutoString &error);
    // Exact mode: whether the element carries a schema-instance nil (or 1999 null) of true.
    bool isNil(const RtXMLElementInfo *info, const AutoDict &scope);
    // Exact mode's value of an element without content: null when nil or untyped, else the
    // empty value of its declared type (string, data, array, record); an error for the others.
    RtTypeRef decodeEmpty(RtTreeRef element, const RtXMLElementInfo *info, const AutoDict &scope,
                          AutoString &error);
    // Exact mode's reading of a scalar kind: the whole text or an error naming the element.
    RtTypeRef decodeExactScalar(RtTreeRef target, RtTreeRef firstChild, const TypeInfo &type,
                                AutoString &error);
    void buildAnchorIndex();

    // A value decoded while the document was read: what the tree would decode there, given the
    // same text for the scope keys the decoding looked up and enough nesting room.
    struct Stored {
        RtTreeRef fTree = nullptr;    // a child left in the tree (decoded later, as usual)
        RtStringRef fName = nullptr;  // the element name (retained)
        RtTypeRef fValue = nullptr;   // retained, may be NULL
        RtStringRef fError = nullptr; // the first error its decoding set (retained), or NULL
    };
    // The children of one streamed element, in document order, and how they were decoded.
    struct StreamedChildren {
        explicit StreamedChildren(const AutoDict &scope) : fScope(scope) {}
        AutoDict fScope;
        std::vector<RtStringRef> fKeys; // scope keys looked up (strings the decoder keeps alive)
        std::vector<Stored> fChildren;
        RtIndex fTaken = 0;
        int fHeight = 0; // nesting below the children's own level
        bool fSeenElement = false;
        bool fFailed = false;
    };
    struct Anchor {
        RtStringRef fId; // retained
        RtTreeRef fTree; // NULL for a child decoded while the document was read
        RtTypeRef fValue;
        AutoDict fScope;
        std::vector<RtStringRef> fKeys;
        int fHeight;
    };
    const Anchor *findAnchorEntry(RtStringRef id);
    // Runs decode with the decoder in streaming mode at nesting base: scope look-ups are noted in
    // keys, the deepest nesting in height, and an href makes it stop (blocked, value dropped).
    template <class Decode>
    RtTypeRef decodeEarly(int base, std::vector<RtStringRef> &keys, int &height, bool &blocked,
                          AutoString &error, Decode decode);
    // Every scope look-up the decoding makes must pass through resolve() or noteKey(): a value
    // decoded ahead is reused only where the scope agrees on the keys noted.
    void noteKey(RtStringRef key);
    bool sameScope(const AutoDict &stored, const AutoDict &scope, const std::vector<RtStringRef> &keys) const;
    // The number of children element had in the document.
    RtIndex childCount(RtTreeRef element) const;
    // Calls take(name, value) for each child of element decoded in order, up to the first error.
    template <class Take>
    void decodeChildren(RtTreeRef element, const AutoDict &scope, AutoString &error, Take take);
    void bailOut(AutoString &error);

    SOAPProtocolHandler *fHandler;
    ValueRules fRules;
    RtTreeRef fBody;
    int fDepth;
    bool fIndexed;
    std::vector<RtTreeRef> fActive;
    // Hash of the folded id -> the first Body child carrying it.
    std::unordered_multimap<RtHashCode, Anchor> fAnchors;
    std::unordered_map<RtTreeRef, StreamedChildren> fStreamed;
    bool fEarly = false;
    bool fBlocked = false;
    bool fBailedOut = false;
    int fEarlyDepth = 0;
    std::vector<RtStringRef> fEarlyKeys;
    std::unordered_map<RtTreeRef, RtTypeRef> fDecodedTargets;
    // Keys are retained by the maps' owner (released in the destructor).
    std::unordered_map<RtStringRef, NameParts, TextHash, TextEqual> fNames;
    std::unordered_map<RtStringRef, unsigned, TextHash, TextEqual> fNamespaceKinds;
    ResolvedPrefix fResolved[kResolvedSlots];
    RtStringRef fRecentNames[kRecentSlots];
    const NameParts *fRecentNameParts[kRecentSlots];
    RtStringRef fRecentNamespaces[kRecentSlots];
    unsigned fRecentNamespaceKinds[kRecentSlots];
    std::pair<RtStringRef, RtStringRef> fRecentTypeKeys[kRecentSlots];
    const TypeInfo *fRecentTypes[kRecentSlots];
    std::unordered_map<std::pair<RtStringRef, RtStringRef>, TypeInfo, TextHash, TextEqual> fTypes;
};
