// ExpatFloor.h: the floor every XML reader is measured against, expat with empty handlers (no
// tree, no values), fed 64 KiB at a time as the tree reader feeds it: given the whole document at
// once, expat would first copy it into a buffer of its own. Header-only, no RtCore.
#pragma once

#include <expat.h>

#include <algorithm>
#include <cstddef>
#include <string>

namespace hvbench {
namespace expatfloor {

inline void XMLCALL _start(void *, const XML_Char *, const XML_Char **) {}
inline void XMLCALL _end(void *, const XML_Char *) {}
inline void XMLCALL _text(void *, const XML_Char *, int) {}
inline void XMLCALL _comment(void *, const XML_Char *) {}
inline void XMLCALL _pi(void *, const XML_Char *, const XML_Char *) {}
inline void XMLCALL _cdata(void *) {}

} // namespace expatfloor

// Whether expat accepts the document. Not inlined, so that callgrind can count it alone
// (--toggle-collect=*parseWithEmptyHandlers*).
__attribute__((noinline)) inline bool parseWithEmptyHandlers(const char *bytes, size_t size) {
    using namespace expatfloor;
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
    XML_SetElementHandler(parser, _start, _end);
    XML_SetCharacterDataHandler(parser, _text);
    XML_SetCommentHandler(parser, _comment);
    XML_SetProcessingInstructionHandler(parser, _pi);
    XML_SetCdataSectionHandler(parser, _cdata, _cdata);
    const size_t slice = size_t(64) << 10;
    bool ok = true;
    for (size_t offset = 0; ok && offset < size; offset += slice) {
        size_t length = std::min(slice, size - offset);
        ok = XML_Parse(parser, bytes + offset, int(length), offset + length == size) == XML_STATUS_OK;
    }
    XML_ParserFree(parser);
    return ok;
}

inline bool parseWithEmptyHandlers(const std::string &document) {
    return parseWithEmptyHandlers(document.data(), document.size());
}

} // namespace hvbench
