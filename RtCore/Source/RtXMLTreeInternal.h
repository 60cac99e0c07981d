// RtXMLTreeInternal.h: the storage of XML trees, shared by RtXMLTree (classes, navigation, entry
// points), RtXMLTreeBuilder (expat events to nodes) and RtXMLTreeEncoding (charset decisions).
// A document is one heap object, its root position, which owns an arena. Every other position
// and every node lives in that arena as an interior runtime object whose retain and release act
// on the root, so holding any of them keeps the whole document alive. Strings, dictionaries and
// arrays hung on nodes are ordinary runtime objects the document releases when it dies.
// Built on one thread; a finished tree is immutable and may be read from several threads.
#pragma once

#include "RtRuntime.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace rt::xml {

// A bump allocator: blocks that grow geometrically, freed together with the document.
class Arena {
  public:
    Arena() = default;
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena();

    // n bytes aligned to 8, or NULL when memory runs out.
    void *allocate(size_t n) {
        n = (n + 7) & ~size_t(7);
        if (size_t(fEnd - fNext) < n) return refill(n);
        void *p = fNext;
        fNext += n;
        return p;
    }

    // Where the next allocation goes; rewind(mark) gives back everything allocated since (the
    // blocks taken since are freed), so the same memory serves the next piece.
    struct Mark {
        void *fLast;
        char *fNext;
        char *fEnd;
    };
    Mark mark() const { return Mark{fLast, fNext, fEnd}; }
    void rewind(const Mark &mark);

  private:
    void *refill(size_t n);

    static constexpr size_t kLargePiece = 1024;
    struct alignas(16) Block {
        Block *fPrevious;
    };
    Block *fLast = nullptr;
    char *fNext = nullptr;
    char *fEnd = nullptr;
    size_t fNextSize = 2048;
};

// One position of the tree and its node, in one block: an RtTreeRef points at fTreeHeader, an
// RtXMLNodeRef at fNodeHeader. Nodes that never have children or an info record (text, CDATA,
// entity references, comments) are allocated without the last two fields: they are about a
// third of a typical document's nodes. Read those fields through firstChild and info only.
struct TreeNode {
    RtRuntimeBase fTreeHeader;
    RtRuntimeBase fNodeHeader;
    TreeNode *fParent;
    TreeNode *fNextSibling;
    RtStringRef fString; // owned by the document (or a constant)
    uint32_t fChildCount;
    uint8_t fType;
    // Branch nodes only:
    TreeNode *fFirstChild;
    const void *fInfo; // element: const RtXMLElementInfo *; processing instruction: const RtStringRef *
};

constexpr size_t kLeafNodeSize = offsetof(TreeNode, fFirstChild);

inline bool isLeafType(uint8_t type) {
    return type == kRtXMLNodeTypeText || type == kRtXMLNodeTypeCDATASection ||
           type == kRtXMLNodeTypeEntityReference || type == kRtXMLNodeTypeComment;
}
inline TreeNode *firstChild(const TreeNode *n) {
    return isLeafType(n->fType) ? nullptr : n->fFirstChild;
}
inline const void *info(const TreeNode *n) {
    return isLeafType(n->fType) ? nullptr : n->fInfo;
}

// What the root position owns besides its own node. Nodes have an arena of their own, so that
// a reader that drains children while parsing can rewind it; everything shared between nodes
// (interned bytes, attribute records, instruction data) lives in fArena, and the strings and
// collections shared between nodes in fShared.
struct Document {
    Arena fNodes;
    Arena fArena;
    std::vector<RtTypeRef>
        fOwned; // each the string of one node (or held by one); released when the document dies
    std::vector<RtTypeRef>
        fShared; // interned strings, attribute dictionaries; released when the document dies
    RtIndex fVersion = 0;
};

// The heap object of a document: its root position (the document node) and the document.
struct RootNode {
    TreeNode fNode;
    Document fDocument;
};

inline TreeNode *nodeOfTree(RtTreeRef tree) {
    return reinterpret_cast<TreeNode *>(tree);
}
inline TreeNode *nodeOfXMLNode(RtXMLNodeRef node) {
    return reinterpret_cast<TreeNode *>(reinterpret_cast<char *>(const_cast<struct __RtXMLNode *>(node)) -
                                        offsetof(TreeNode, fNodeHeader));
}
inline RtTreeRef treeOfNode(TreeNode *n) {
    return reinterpret_cast<RtTreeRef>(&n->fTreeHeader);
}
inline RtXMLNodeRef xmlNodeOfNode(TreeNode *n) {
    return reinterpret_cast<RtXMLNodeRef>(&n->fNodeHeader);
}

RtTypeID treeTypeID();
RtTypeID xmlNodeTypeID();

// A new, empty document (reference count 1) whose root node has the type "document".
RootNode *createRoot(RtIndex version);

// Shared info records of elements without attributes (immortal empty dictionary and array). Like
// every element info record, the one for isEmpty false is followed by its empty twin.
const RtXMLElementInfo *noAttributesInfo(bool isEmpty);

// expat's error numbers for the failures found before expat runs.
constexpr int kStatusOutOfMemory = 1;      // XML_ERROR_NO_MEMORY
constexpr int kStatusUnknownEncoding = 18; // XML_ERROR_UNKNOWN_ENCODING

// The error of a failed parse, turned into the error dictionary by the entry point.
struct ParseError {
    int fStatus = 0;
    std::string fDescription;
    long fLine = 0;
    long fLocation = 0;
};

// How expat is to read a document: the bytes it parses and the encoding it is told.
struct InputPlan {
    InputPlan() = default;
    InputPlan(const InputPlan &) = delete;
    InputPlan &operator=(const InputPlan &) = delete;
    ~InputPlan();

    const uint8_t *fBytes = nullptr;
    size_t fLength = 0;
    const char *fExpatEncoding = nullptr; // NULL: expat reads the declaration or byte-order mark
    std::string fEncodingStorage;
    uint8_t *fTranscoded = nullptr; // malloc'd UTF-8 text when ICU converted the document
};

// Decides the charset (override, when not kRtStringEncodingInvalidId, else the byte-order mark
// or the declaration) and transcodes through ICU what expat cannot read. False with error set
// when the bytes are not valid in the charset or the override is unknown.
bool planInput(const uint8_t *bytes, size_t length, RtStringEncoding override, InputPlan &plan,
               ParseError &error);

// Parses plan's bytes into root's document. False with error set on any failure. With drain,
// the children of the element it accepts are handed over and removed as they complete (see
// RtXMLTreeCreateFromDataDraining).
bool buildTree(RootNode *root, const InputPlan &plan, RtOptionFlags options, ParseError &error,
               const RtXMLTreeDrainContext *drain = nullptr, const RtXMLTreeStreamContext *stream = nullptr);

// The entry points' common body: the tree of xmlData, or NULL with *errorDict (when given) set.
RtTreeRef createTree(RtDataRef xmlData, RtStringEncoding encoding, RtOptionFlags options, RtIndex version,
                     RtDictionaryRef *errorDict, const RtXMLTreeDrainContext *drain = nullptr,
                     const RtXMLTreeStreamContext *stream = nullptr);

} // namespace rt::xml
