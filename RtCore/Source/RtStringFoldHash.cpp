// RtStringFoldHash: a string hash that agrees with case-insensitive comparison, so that readers
// can index names they must match without regard to case. Folds as RtStringSearch does: ASCII
// through arithmetic, everything else through ICU's simple case fold, surrogate pairs whole.
// Stateless: safe on any thread.
#include "RtStringInternal.h"

#include <unicode/uchar.h>

RtHashCode RtStringHashCaseInsensitive(RtStringRef str) {
    if (!rt::isString(str)) return 0;
    // FNV-1a over the folded code points, then a final mix so that short names spread well.
    uint64_t h = 0xCBF29CE484222325ull;
    RtIndex n = str->fLength;
    for (RtIndex i = 0; i < n; i++) {
        uint32_t c = rt::unitAt(str, i);
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < n) {
            uint32_t d = rt::unitAt(str, i + 1);
            if (d >= 0xDC00 && d <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
                i++;
            }
        }
        if (c < 0x80)
            c = (c >= 'A' && c <= 'Z') ? c + 32 : c;
        else
            c = uint32_t(u_foldCase(UChar32(c), U_FOLD_CASE_DEFAULT));
        h = (h ^ c) * 0x100000001B3ull;
    }
    h ^= h >> 29;
    h *= 0xBF58476D1CE4E5B9ull;
    h ^= h >> 32;
    return RtHashCode(h);
}
