// Namespace scopes, qualified names and table-driven dispatch of child elements.
#include "HalvoUtils.h"

// The position of the first occurrence of c in str, or kRtNotFound.
static RtIndex findFirst(RtStringRef str, RtStringRef c) {
    return RtStringFind(str, c, 0).location;
}

static RtStringRef copyTail(RtStringRef str, RtIndex from) {
    return RtStringCreateWithSubstring(kRtAllocatorDefault, str,
                                       RtRangeMake(from, RtStringGetLength(str) - from));
}

// Sets key in scope unless it already holds the same text: a scope shared with the parent is
// copied only when a declaration really changes it (documents often repeat their declarations
// on every element).
static void declare(AutoDict &scope, RtStringRef key, RtTypeRef value) {
    RtTypeRef current = scope.getValue(key);
    if (!current || !RtEqual(current, value)) scope.addValue(key, value);
}

void xmlGetElementNamespaces(RtTreeRef tree, AutoDict &scope) {
    const RtXMLElementInfo *info = treeGetElementInfo(tree);
    if (!info || !info->attributes || !info->attributeOrder) return;
    RtIndex count = RtArrayGetCount(info->attributeOrder);
    for (RtIndex i = 0; i < count; i++) {
        RtStringRef name = static_cast<RtStringRef>(RtArrayGetValueAtIndex(info->attributeOrder, i));
        if (!name) continue;
        RtTypeRef value = RtDictionaryGetValue(info->attributes, name);
        if (!value) continue;
        RtIndex length = RtStringGetLength(name);
        if (length == 5 && rtstrEquivilent(name, RTSTR("xmlns"))) {
            declare(scope, RTSTR("__defaultNamespace"), value);
        } else if (length > 6 && RtStringCompareWithOptions(name, RTSTR("xmlns:"), RtRangeMake(0, 6),
                                                            kRtCompareCaseInsensitive) == kRtCompareEqualTo) {
            // The prefix test ignores case on purpose: "XMLNS:a" declares a.
            RtStringRef prefix = copyTail(name, 6);
            declare(scope, prefix, value);
            RtRelease(prefix);
        }
    }
}

void xmlNamespaceQualify(const AutoDict &scope, RtStringRef name, RtStringRef *namespaceOut,
                         RtStringRef *localNameOut) {
    RtIndex colon = findFirst(name, RTSTR(":"));
    if (colon != kRtNotFound && colon > 0) {
        RtStringRef prefix = RtStringCreateWithSubstring(kRtAllocatorDefault, name, RtRangeMake(0, colon));
        *namespaceOut = static_cast<RtStringRef>(nullRetain(scope.getValue(prefix)));
        RtRelease(prefix);
        *localNameOut = copyTail(name, colon + 1);
        return;
    }
    // No prefix, or a colon in front, which counts as none: the default namespace applies.
    *namespaceOut = static_cast<RtStringRef>(nullRetain(scope.getValue(RTSTR("__defaultNamespace"))));
    *localNameOut = static_cast<RtStringRef>(RtRetain(name));
}

void fullyQualify(AutoString &text, const AutoDict &scope) {
    if (text.isNull()) return;
    RtStringRef ns = nullptr;
    RtStringRef local = nullptr;
    xmlNamespaceQualify(scope, text.getString(), &ns, &local);
    // An undeclared prefix leaves the text exactly as it was, prefix and all.
    if (ns && local) {
        RtStringRef qualified =
            RtStringCreateWithFormat(kRtAllocatorDefault, nullptr, RTSTR("%@|%@"), ns, local);
        text.setString(qualified);
        RtRelease(qualified);
    }
    safeRtRelease(ns);
    safeRtRelease(local);
}

void xmlBurstFullyQualifiedName(RtStringRef text, RtStringRef *namespaceOut, RtStringRef *localNameOut) {
    RtIndex bar = findFirst(text, RTSTR("|"));
    if (bar != kRtNotFound && bar > 0) {
        *namespaceOut = RtStringCreateWithSubstring(kRtAllocatorDefault, text, RtRangeMake(0, bar));
        *localNameOut = copyTail(text, bar + 1);
        return;
    }
    *namespaceOut = RTSTR("");
    *localNameOut = static_cast<RtStringRef>(RtRetain(text));
}

RtStringRef xmlInterrogateElements(RtTreeRef tree, const AutoDict &parentNamespace,
                                   const XMLElementInterrogator *ei, int32_t eiCount,
                                   RtMutableArrayRef extensions) {
    RtStringRef result = nullptr;
    for (RtTreeRef child = tree ? RtTreeGetFirstChild(tree) : nullptr; child && !result;
         child = RtTreeGetNextSibling(child)) {
        RtXMLNodeRef node = RtXMLTreeGetNode(child);
        // Text, white space, comments and processing instructions are neither dispatched nor
        // collected.
        if (!node || RtXMLNodeGetTypeCode(node) != kRtXMLNodeTypeElement) continue;

        // The child's own declarations apply to its own name. The copy shares the parent's
        // dictionary until the child declares something.
        AutoDict scope(parentNamespace);
        xmlGetElementNamespaces(child, scope);
        RtStringRef elementName = RtXMLNodeGetString(node);
        if (!elementName) continue;
        RtStringRef ns = nullptr;
        RtStringRef local = nullptr;
        xmlNamespaceQualify(scope, elementName, &ns, &local);

        bool matched = false;
        for (int32_t row = 0; row < eiCount; row++) {
            const XMLElementInterrogator &r = ei[row];
            // A row without a namespace takes any element; one with a namespace never matches
            // an element that has none.
            if ((!r.elemNamespace || rtstrEquivilent(r.elemNamespace, ns)) &&
                rtstrEquivilent(r.elemName, local)) {
                matched = true;
                // Only the first matching row is called, whatever its handler returns.
                result = r.callback ? r.callback(child, node, scope, r.refcon) : nullptr;
                break;
            }
        }
        if (!matched && extensions) RtArrayAppendValue(extensions, child);
        safeRtRelease(ns);
        safeRtRelease(local);
    }
    return result;
}
