// RtXMLTreeDrain: the entry point of a tree built while a consumer takes the children of one
// element as they complete (RtXMLTree.h). The building itself is RtXMLTreeBuilder's; one thread.
#include "RtXMLTreeInternal.h"

RtTreeRef RtXMLTreeCreateFromDataDraining(RtAllocatorRef, RtDataRef xmlData, RtOptionFlags parseOptions,
                                          RtIndex versionOfNodes, const RtXMLTreeDrainContext *drain,
                                          RtDictionaryRef *errorDict) {
    return rt::xml::createTree(xmlData, kRtStringEncodingInvalidId, parseOptions, versionOfNodes, errorDict,
                               drain);
}

RtTreeRef RtXMLTreeCreateFromDataStreaming(RtAllocatorRef, RtDataRef xmlData, RtOptionFlags parseOptions,
                                           RtIndex versionOfNodes, const RtXMLTreeStreamContext *stream,
                                           RtDictionaryRef *errorDict) {
    return rt::xml::createTree(xmlData, kRtStringEncodingInvalidId, parseOptions, versionOfNodes, errorDict,
                               nullptr, stream);
}
