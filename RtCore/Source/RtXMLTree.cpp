// RtXMLTree: the tree and node classes, navigation, and the entry points that turn bytes into a
// tree or an error dictionary. Storage and the roles of the other units: RtXMLTreeInternal.h.
#include "RtXMLTreeInternal.h"

#include <cstdlib>
#include <new>

const RtStringRef kRtXMLTreeErrorDescription = __RtStringMakeConstantString("kRtXMLTreeErrorDescription");
const RtStringRef kRtXMLTreeErrorLineNumber = __RtStringMakeConstantString("kRtXMLTreeErrorLineNumber");
const RtStringRef kRtXMLTreeErrorLocation = __RtStringMakeConstantString("kRtXMLTreeErrorLocation");
const RtStringRef kRtXMLTreeErrorStatusCode = __RtStringMakeConstantString("kRtXMLTreeErrorStatusCode");

namespace rt::xml {

Arena::~Arena() {
    while (fLast) {
        Block *previous = fLast->fPrevious;
        std::free(fLast);
        fLast = previous;
    }
}

void *Arena::refill(size_t n) {
    if (n > kLargePiece) {
        // A large piece (a very long name) gets a block of its own, linked behind the current
        // one so that bump allocation goes on where it was.
        auto *block = static_cast<Block *>(std::malloc(sizeof(Block) + n));
        if (!block) return nullptr;
        if (fLast) {
            block->fPrevious = fLast->fPrevious;
            fLast->fPrevious = block;
        } else {
            block->fPrevious = nullptr;
            fLast = block;
        }
        return block + 1;
    }
    // Blocks double up to 64 KiB, so a small reply costs one block and a large one few.
    size_t size = fNextSize;
    if (fNextSize < (size_t(64) << 10)) fNextSize *= 2;
    auto *block = static_cast<Block *>(std::malloc(size));
    if (!block) return nullptr;
    block->fPrevious = fLast;
    fLast = block;
    char *start = reinterpret_cast<char *>(block + 1);
    fNext = start + n;
    fEnd = reinterpret_cast<char *>(block) + size;
    return start;
}

void Arena::rewind(const Mark &mark) {
    // Blocks taken since the mark (and large pieces linked behind them) are the newest in the
    // chain; the marked block itself is reused from the marked position.
    while (fLast && fLast != mark.fLast) {
        Block *previous = fLast->fPrevious;
        std::free(fLast);
        fLast = previous;
    }
    fNext = mark.fNext;
    fEnd = mark.fEnd;
}

static void _finalizeTree(RtTypeRef obj) {
    // Only a root ever reaches a count of zero: interior positions forward to it.
    auto *root = reinterpret_cast<RootNode *>(const_cast<void *>(obj));
    for (RtTypeRef owned : root->fDocument.fOwned)
        RtRelease(owned);
    for (RtTypeRef shared : root->fDocument.fShared)
        RtRelease(shared);
    root->fDocument.~Document();
}

static RtStringRef _copyTreeDescription(RtTypeRef obj) {
    TreeNode *n = nodeOfTree(static_cast<RtTreeRef>(const_cast<void *>(obj)));
    return RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                    RTSTR("<RtTree %p>{children = %u, node = %@}"), obj,
                                    unsigned(n->fChildCount), xmlNodeOfNode(n));
}

static RtStringRef _copyNodeDescription(RtTypeRef obj) {
    TreeNode *n = nodeOfXMLNode(static_cast<RtXMLNodeRef>(obj));
    return RtStringCreateWithFormat(kRtAllocatorDefault, nullptr,
                                    RTSTR("<RtXMLNode %p>{type = %d, string = %@}"), obj, int(n->fType),
                                    n->fString);
}

static const RtRuntimeClass sTreeClass = {
    0, "RtTree", nullptr, nullptr, _finalizeTree, nullptr, nullptr, nullptr, _copyTreeDescription,
};
static const RtRuntimeClass sXMLNodeClass = {
    0, "RtXMLNode", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, _copyNodeDescription,
};

// Every navigation call checks its argument's class: the registered identifier is read inline.
static std::atomic<RtTypeID> sTreeTypeID{kRtNotATypeID};
static std::atomic<RtTypeID> sXMLNodeTypeID{kRtNotATypeID};

RtTypeID treeTypeID() {
    RtTypeID id = sTreeTypeID.load(std::memory_order_acquire);
    return id != kRtNotATypeID ? id : registerOnce(sTreeTypeID, &sTreeClass);
}

RtTypeID xmlNodeTypeID() {
    RtTypeID id = sXMLNodeTypeID.load(std::memory_order_acquire);
    return id != kRtNotATypeID ? id : registerOnce(sXMLNodeTypeID, &sXMLNodeClass);
}

RootNode *createRoot(RtIndex version) {
    RtTypeRef obj = RtRuntimeCreateInstance(kRtAllocatorDefault, treeTypeID(),
                                            RtIndex(sizeof(RootNode) - sizeof(RtRuntimeBase)));
    if (!obj) return nullptr;
    auto *root = reinterpret_cast<RootNode *>(const_cast<void *>(obj));
    new (&root->fDocument) Document();
    root->fDocument.fVersion = version;
    initInteriorObject(&root->fNode.fNodeHeader, classEntry(xmlNodeTypeID()), obj);
    root->fNode.fType = kRtXMLNodeTypeDocument;
    return root;
}

const RtXMLElementInfo *noAttributesInfo(bool isEmpty) {
    // A pair, as the builder expects of every info record: [1] is [0] for an empty element.
    struct Shared {
        RtXMLElementInfo fInfos[2];
    };
    static const Shared sShared = [] {
        Shared s{};
        RtDictionaryRef dict =
            RtDictionaryCreate(kRtAllocatorDefault, nullptr, nullptr, 0, &kRtTypeDictionaryKeyCallBacks,
                               &kRtTypeDictionaryValueCallBacks);
        RtArrayRef array = RtArrayCreate(kRtAllocatorDefault, nullptr, 0, &kRtTypeArrayCallBacks);
        RtRuntimeSetImmortal(dict); // shared by every element without attributes, for the process
        RtRuntimeSetImmortal(array);
        s.fInfos[0] = RtXMLElementInfo{dict, array, false, {}};
        s.fInfos[1] = RtXMLElementInfo{dict, array, true, {}};
        return s;
    }();
    return &sShared.fInfos[isEmpty ? 1 : 0];
}

} // namespace rt::xml

using namespace rt::xml;

static TreeNode *treeArg(RtTreeRef tree) {
    return rt::isA(tree, treeTypeID()) ? nodeOfTree(tree) : nullptr;
}

static TreeNode *nodeArg(RtXMLNodeRef node) {
    return rt::isA(node, xmlNodeTypeID()) ? nodeOfXMLNode(node) : nullptr;
}

static void setNumber(RtMutableDictionaryRef dict, RtStringRef key, long value) {
    RtNumberRef number = RtNumberCreate(kRtAllocatorDefault, kRtNumberLongType, &value);
    RtDictionarySetValue(dict, key, number);
    RtRelease(number);
}

static RtDictionaryRef createErrorDictionary(const ParseError &error) {
    RtMutableDictionaryRef dict = RtDictionaryCreateMutable(
        kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
    if (!dict) return nullptr;
    RtStringRef description = RtStringCreateWithBytes(
        kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(error.fDescription.data()),
        RtIndex(error.fDescription.size()), kRtStringEncodingUTF8, false);
    if (description) RtDictionarySetValue(dict, kRtXMLTreeErrorDescription, description);
    RtRelease(description);
    setNumber(dict, kRtXMLTreeErrorLineNumber, error.fLine);
    setNumber(dict, kRtXMLTreeErrorLocation, error.fLocation);
    setNumber(dict, kRtXMLTreeErrorStatusCode, error.fStatus);
    return dict;
}

RtTreeRef rt::xml::createTree(RtDataRef xmlData, RtStringEncoding encoding, RtOptionFlags options,
                              RtIndex version, RtDictionaryRef *errorDict, const RtXMLTreeDrainContext *drain,
                              const RtXMLTreeStreamContext *stream) {
    if (errorDict) *errorDict = nullptr;
    const uint8_t *bytes = nullptr;
    size_t length = 0;
    if (rt::isA(xmlData, RtDataGetTypeID())) {
        bytes = RtDataGetBytePtr(xmlData);
        length = size_t(RtDataGetLength(xmlData));
    }

    ParseError error;
    InputPlan plan;
    RootNode *root = nullptr;
    if (planInput(bytes, length, encoding, plan, error)) {
        root = createRoot(version);
        if (!root) {
            error.fStatus = kStatusOutOfMemory;
            error.fDescription = "out of memory";
        } else if (!buildTree(root, plan, options, error, drain, stream)) {
            RtRelease(root);
            root = nullptr;
        }
    }
    if (!root && errorDict) *errorDict = createErrorDictionary(error);
    return root ? treeOfNode(&root->fNode) : nullptr;
}

RtTreeRef RtXMLTreeCreateFromDataWithError(RtAllocatorRef, RtDataRef xmlData, RtURLRef,
                                           RtOptionFlags parseOptions, RtIndex versionOfNodes,
                                           RtDictionaryRef *errorDict) {
    return createTree(xmlData, kRtStringEncodingInvalidId, parseOptions, versionOfNodes, errorDict);
}

RtTreeRef RtXMLTreeCreateFromDataWithEncoding(RtAllocatorRef, RtDataRef xmlData, RtStringEncoding encoding,
                                              RtOptionFlags parseOptions, RtDictionaryRef *errorDict) {
    return createTree(xmlData, encoding, parseOptions, 1, errorDict);
}

RtTreeRef RtXMLTreeCreateFromData(RtAllocatorRef, RtDataRef xmlData, RtURLRef, RtOptionFlags parseOptions,
                                  RtIndex versionOfNodes) {
    return createTree(xmlData, kRtStringEncodingInvalidId, parseOptions, versionOfNodes, nullptr);
}

RtTypeID RtTreeGetTypeID(void) {
    return treeTypeID();
}

RtTreeRef RtTreeGetParent(RtTreeRef tree) {
    TreeNode *n = treeArg(tree);
    return n && n->fParent ? treeOfNode(n->fParent) : nullptr;
}

RtTreeRef RtTreeGetFirstChild(RtTreeRef tree) {
    TreeNode *n = treeArg(tree);
    TreeNode *child = n ? firstChild(n) : nullptr;
    return child ? treeOfNode(child) : nullptr;
}

RtTreeRef RtTreeGetNextSibling(RtTreeRef tree) {
    TreeNode *n = treeArg(tree);
    return n && n->fNextSibling ? treeOfNode(n->fNextSibling) : nullptr;
}

RtIndex RtTreeGetChildCount(RtTreeRef tree) {
    TreeNode *n = treeArg(tree);
    return n ? RtIndex(n->fChildCount) : 0;
}

RtTreeRef RtTreeGetChildAtIndex(RtTreeRef tree, RtIndex idx) {
    TreeNode *n = treeArg(tree);
    if (!n || idx < 0 || idx >= RtIndex(n->fChildCount)) return nullptr;
    TreeNode *child = firstChild(n);
    while (idx-- > 0)
        child = child->fNextSibling;
    return treeOfNode(child);
}

RtTypeID RtXMLNodeGetTypeID(void) {
    return xmlNodeTypeID();
}

RtXMLNodeRef RtXMLTreeGetNode(RtTreeRef tree) {
    TreeNode *n = treeArg(tree);
    return n ? xmlNodeOfNode(n) : nullptr;
}

RtXMLNodeTypeCode RtXMLNodeGetTypeCode(RtXMLNodeRef node) {
    TreeNode *n = nodeArg(node);
    return n ? RtXMLNodeTypeCode(n->fType) : RtXMLNodeTypeCode(0);
}

RtStringRef RtXMLNodeGetString(RtXMLNodeRef node) {
    TreeNode *n = nodeArg(node);
    return n ? n->fString : nullptr;
}

const void *RtXMLNodeGetInfoPtr(RtXMLNodeRef node) {
    TreeNode *n = nodeArg(node);
    return n ? info(n) : nullptr;
}

RtIndex RtXMLNodeGetVersion(RtXMLNodeRef node) {
    TreeNode *n = nodeArg(node);
    if (!n) return 0;
    auto *root = reinterpret_cast<const RootNode *>(rt::interiorOwner(n->fNodeHeader._rc));
    return root->fDocument.fVersion;
}
