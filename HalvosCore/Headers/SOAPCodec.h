// SOAPCodec: the pieces of the SOAP reader and writers that the client and the server share.
// SOAPDecoder turns the typed elements of one SOAP Body into runtime values, following href
// references to the Body's id-carrying children. It owns, for that one document, the index of
// those ids (built on the first href), the values already decoded for href targets, and small
// caches of split names; it holds the Body and the handler borrowed. It lives for the reading
// of one document on the thread that reads it; no locks.
#pragma once

#include "HalvoUtils.h"
#include "SOAPHalvoClosure.h"

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
    // NULL. Borrowed.
    RtTreeRef findAnchor(RtStringRef id);

    // The first attribute of node whose local name is equivalent to localName and whose
    // namespace (split in scope; an unprefixed name takes the default namespace) is equivalent
    // to ns, or any namespace when ns is NULL. Borrowed.
    RtStringRef getNodeAttribute(RtTreeRef node, const AutoDict &scope, RtStringRef ns, RtStringRef localName);
    // getNodeAttribute in the 1999 schema-instance namespace, then the 2001 one, then the
    // scope's default namespace.
    RtStringRef getSoapNodeAttribute(RtTreeRef node, const AutoDict &scope, RtStringRef localName);
    // The node has an "arrayType" attribute in the SOAP encoding namespace.
    bool isArray(RtTreeRef node, const AutoDict &scope);

    // While element is being decoded by a caller (a method element), an href back to it is a
    // circular reference.
    void enter(RtTreeRef element) { fActive.push_back(element); }
    void leave() { fActive.pop_back(); }

    RtTreeRef getBody() const { return fBody; }
    SOAPProtocolHandler *getHandler() const { return fHandler; }

private:
    // A name split at its first colon; prefix NULL when there is none (or it is first).
    struct NameParts {
        RtStringRef prefix;
        RtStringRef local;
    };
    // What a type attribute means in the namespace its prefix names.
    struct TypeInfo {
        HVTypeID kind;
        RtStringRef qualified; // the "namespace|local" form, or the text when unqualified
    };
    struct PairHash {
        size_t operator()(const std::pair<const void *, const void *> &p) const {
            return std::hash<const void *>()(p.first) * 31 + std::hash<const void *>()(p.second);
        }
    };

    const NameParts &split(RtStringRef name);
    RtStringRef resolve(const NameParts &parts, const AutoDict &scope);
    const TypeInfo &typeInfo(RtStringRef type, const AutoDict &scope);
    RtTypeRef decodeFallback(RtTreeRef target, RtTreeRef firstChild, RtStringRef text, const TypeInfo &type,
                             const AutoDict &scope, AutoString &error);
    RtTypeRef decodeTyped(RtTreeRef target, RtTreeRef firstChild, const AutoDict &scope, AutoString &error);
    RtTypeRef followReference(RtStringRef href, const AutoDict &scope, AutoString &error);
    void buildAnchorIndex();

    SOAPProtocolHandler *fHandler;
    RtTreeRef fBody;
    int fDepth;
    bool fIndexed;
    std::vector<RtTreeRef> fActive;
    // Hash of the folded id -> Body children carrying it, in document order.
    std::unordered_multimap<RtHashCode, std::pair<RtStringRef, RtTreeRef>> fAnchors;
    std::unordered_map<RtTreeRef, RtTypeRef> fDecodedTargets;
    std::unordered_map<RtStringRef, NameParts> fNames;
    std::unordered_map<std::pair<const void *, const void *>, TypeInfo, PairHash> fTypes;
};
