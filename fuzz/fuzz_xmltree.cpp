// The XML tree reader under every reader of the library, with no options and with all of them,
// and draining the root element's children as the XML-RPC reply reader drains its array.
// The walk touches every node and checks what the tree promises about counts and attributes.
#include "FuzzSupport.h"

#include <vector>

using namespace hvfuzz;

namespace {

void walk(RtTreeRef root) {
    std::vector<RtTreeRef> pending{root}; // iterative: the tree may be 512 levels deep
    while (!pending.empty()) {
        RtTreeRef tree = pending.back();
        pending.pop_back();
        RtXMLNodeRef node = RtXMLTreeGetNode(tree);
        require(node != nullptr, "every position holds a node");
        RtXMLNodeTypeCode type = RtXMLNodeGetTypeCode(node);
        RtStringRef text = RtXMLNodeGetString(node);
        require(type == kRtXMLNodeTypeDocument || text != nullptr,
                "every node but the document has a string");
        if (type == kRtXMLNodeTypeElement) {
            auto info = static_cast<const RtXMLElementInfo *>(RtXMLNodeGetInfoPtr(node));
            require(info != nullptr, "an element has its info record");
            RtIndex count = info->attributeOrder ? RtArrayGetCount(info->attributeOrder) : 0;
            require(count == (info->attributes ? RtDictionaryGetCount(info->attributes) : 0),
                    "attribute order and attributes agree");
            for (RtIndex i = 0; i < count; i++)
                require(
                    RtDictionaryGetValue(info->attributes, RtArrayGetValueAtIndex(info->attributeOrder, i)),
                    "every ordered attribute has a value");
        }
        RtIndex children = 0;
        for (RtTreeRef child = RtTreeGetFirstChild(tree); child; child = RtTreeGetNextSibling(child)) {
            require(RtTreeGetParent(child) == tree, "a child knows its parent");
            pending.push_back(child);
            children++;
        }
        require(children == RtTreeGetChildCount(tree), "the stored child count is right");
    }
}

bool _drainRoot(RtTreeRef, void *) {
    return true;
}

void _walkDrained(RtTreeRef child, void *info) {
    walk(child);
    ++*static_cast<RtIndex *>(info);
}

// The children the root element has in tree (0 without one).
RtIndex rootChildren(RtTreeRef tree) {
    for (RtTreeRef t = RtTreeGetFirstChild(tree); t; t = RtTreeGetNextSibling(t))
        if (RtXMLNodeGetTypeCode(RtXMLTreeGetNode(t)) == kRtXMLNodeTypeElement) return RtTreeGetChildCount(t);
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    Held data(copyData(bytes, size));
    const RtOptionFlags options[] = {kRtXMLParserNoOptions, kRtXMLParserAllOptions};
    for (RtOptionFlags option : options) {
        RtDictionaryRef error = nullptr;
        Held tree(RtXMLTreeCreateFromDataWithError(kRtAllocatorDefault, data.as<RtDataRef>(), nullptr, option,
                                                   1, &error));
        Held heldError(error);
        require(!tree == !!error, "an error dictionary exactly when reading failed");
        if (tree)
            walk(tree.as<RtTreeRef>());
        else
            require(RtDictionaryGetValue(error, kRtXMLTreeErrorDescription) != nullptr,
                    "an error has a description");

        // Drained, every child of the root element is handed over whole, once, and the rest is
        // the same tree without them.
        RtIndex drained = 0;
        RtXMLTreeDrainContext context = {1, _drainRoot, _walkDrained, &drained};
        Held drainedTree(RtXMLTreeCreateFromDataDraining(kRtAllocatorDefault, data.as<RtDataRef>(), option, 1,
                                                         &context, nullptr));
        require(!drainedTree == !tree, "draining reads exactly what reading whole reads");
        if (tree) {
            walk(drainedTree.as<RtTreeRef>());
            require(rootChildren(drainedTree.as<RtTreeRef>()) == 0, "drained children leave the tree");
            require(drained == rootChildren(tree.as<RtTreeRef>()), "every child is handed over");
        }
    }
    return 0;
}
