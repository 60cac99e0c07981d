// RtDictionary: key-value maps that enumerate in insertion order.
// Entries live in a dense array in the order they were added; a removal leaves a hole that
// later compaction closes, so the survivors keep their order. Lookups go through an open
// addressing table (linear probing, backward-shift deletion) of 64-bit slots holding the
// entry's position and 32 bits of its key's hash, so most probes never touch the entry.
// Dictionaries of up to kSmallCapacity entries have no table and scan their entries.
#include "RtRuntime.h"
#include "RtStringInternal.h"
#include "RtValues.h"

#include <cstdlib>
#include <cstring>

namespace {

struct Entry {
    const void *key;
    const void *value;
    uint32_t hash;
};

} // namespace

struct __RtDictionary {
    RtRuntimeBase fBase;
    uint32_t fFlags;
    uint32_t fIndexBits; // the table has 1 << fIndexBits slots; 0: no table
    RtDictionaryKeyCallBacks fKeyCallBacks;
    RtDictionaryValueCallBacks fValueCallBacks;
    Entry *fEntries;   // insertion order, holes marked by kHole
    RtIndex fUsed;     // entries used, holes included
    RtIndex fCapacity; // entries allocated
    RtIndex fCount;    // live entries
    uint64_t *fIndex;  // slot: (hash << 32) | (position + 1); 0 is empty
};

namespace {

using Dict = __RtDictionary;

enum : uint32_t { eDictMutable = 1 };

constexpr RtIndex kSmallCapacity = 8;
constexpr RtIndex kMaxCount = RtIndex(1) << 30;
// Marks a removed entry; no key can have this address.
const char kHoleMark = 0;
const void *const kHole = &kHoleMark;

bool isDict(RtTypeRef obj);
bool isMutableDict(RtTypeRef obj) {
    return isDict(obj) && (static_cast<const Dict *>(obj)->fFlags & eDictMutable);
}

uint32_t fold(RtHashCode h) {
    return static_cast<uint32_t>(h ^ (static_cast<uint64_t>(h) >> 32));
}

// The three helpers of the lookup path are forced inline: left to itself GCC keeps them as
// calls, which costs small dictionaries about a third of their lookup time.
// String keys, by far the most common, are hashed and compared here without the runtime's
// indirect calls: an immutable string caches its hash in the object (the same value RtHash
// returns), and two 8-bit strings compare with one memcmp.
RtTypeID stringID() {
    static const RtTypeID sID = rt::stringTypeID();
    return sID;
}

inline __attribute__((always_inline)) uint32_t hashKey(const Dict *d, const void *key) {
    auto fn = d->fKeyCallBacks.hash;
    if (fn == rt::typeHash) {
        if (rt::isA(key, stringID())) {
            uint32_t h = __atomic_load_n(&static_cast<rt::Str *>(key)->fHash, __ATOMIC_RELAXED);
            if (h) return h;
        }
        return fold(RtHash(key));
    }
    if (fn) return fold(fn(key));
    auto p = reinterpret_cast<uintptr_t>(key);
    return fold(p ^ (p >> 4));
}

inline __attribute__((always_inline)) bool keysEqual(const Dict *d, const void *a, const void *b) {
    if (a == b) return true;
    auto fn = d->fKeyCallBacks.equal;
    if (fn == rt::typeEqual) {
        RtTypeID sid = stringID();
        if (rt::isA(a, sid) && rt::isA(b, sid)) {
            auto *x = static_cast<rt::Str *>(a), *y = static_cast<rt::Str *>(b);
            if (!rt::isWide(x) && !rt::isWide(y))
                return x->fLength == y->fLength &&
                       std::memcmp(rt::chars8(x), rt::chars8(y), size_t(x->fLength)) == 0;
        }
        return RtEqual(a, b);
    }
    return fn && fn(a, b);
}

// The preferred slot of a hash (Fibonacci hashing spreads hashes with poor low bits).
uint64_t homeSlot(uint32_t hash, uint32_t bits) {
    return (hash * 2654435769u) >> (32 - bits);
}

inline __attribute__((always_inline)) RtIndex findEntry(const Dict *d, const void *key, uint32_t hash) {
    if (!d->fIndex) {
        for (RtIndex i = 0; i < d->fUsed; i++) {
            const Entry &e = d->fEntries[i];
            if (e.hash == hash && e.key != kHole && keysEqual(d, e.key, key)) return i;
        }
        return kRtNotFound;
    }
    uint64_t mask = (uint64_t(1) << d->fIndexBits) - 1;
    for (uint64_t s = homeSlot(hash, d->fIndexBits);; s = (s + 1) & mask) {
        uint64_t slot = d->fIndex[s];
        if (!slot) return kRtNotFound;
        if (uint32_t(slot >> 32) == hash) {
            RtIndex pos = RtIndex(slot & 0xFFFFFFFFu) - 1;
            if (keysEqual(d, d->fEntries[pos].key, key)) return pos;
        }
    }
}

void indexInsert(Dict *d, uint32_t hash, RtIndex pos) {
    uint64_t mask = (uint64_t(1) << d->fIndexBits) - 1;
    uint64_t s = homeSlot(hash, d->fIndexBits);
    while (d->fIndex[s])
        s = (s + 1) & mask;
    d->fIndex[s] = (uint64_t(hash) << 32) | uint64_t(pos + 1);
}

// Removes the slot of entry pos, shifting later members of its probe run back.
void indexRemove(Dict *d, uint32_t hash, RtIndex pos) {
    uint64_t mask = (uint64_t(1) << d->fIndexBits) - 1;
    uint64_t want = (uint64_t(hash) << 32) | uint64_t(pos + 1);
    uint64_t s = homeSlot(hash, d->fIndexBits);
    while (d->fIndex[s] != want)
        s = (s + 1) & mask;
    for (uint64_t next = (s + 1) & mask;; next = (next + 1) & mask) {
        uint64_t slot = d->fIndex[next];
        if (!slot) break;
        uint64_t home = homeSlot(uint32_t(slot >> 32), d->fIndexBits);
        // Move slot into the gap unless its home lies cyclically in (s, next].
        if (((next - home) & mask) >= ((next - s) & mask)) {
            d->fIndex[s] = slot;
            s = next;
        }
    }
    d->fIndex[s] = 0;
}

// Rebuilds the table for the current entry capacity (at most half full); false on no memory.
bool rebuildIndex(Dict *d) {
    std::free(d->fIndex);
    d->fIndex = nullptr;
    d->fIndexBits = 0;
    if (d->fCapacity <= kSmallCapacity) return true;
    uint32_t bits = 4;
    while ((RtIndex(1) << bits) < 2 * d->fCapacity)
        bits++;
    d->fIndex = static_cast<uint64_t *>(std::calloc(size_t(1) << bits, sizeof(uint64_t)));
    if (!d->fIndex) return false;
    d->fIndexBits = bits;
    for (RtIndex i = 0; i < d->fUsed; i++)
        if (d->fEntries[i].key != kHole) indexInsert(d, d->fEntries[i].hash, i);
    return true;
}

// Closes the holes left by removals, keeping the order of the survivors.
void compact(Dict *d) {
    RtIndex out = 0;
    for (RtIndex i = 0; i < d->fUsed; i++)
        if (d->fEntries[i].key != kHole) d->fEntries[out++] = d->fEntries[i];
    d->fUsed = out;
}

// Makes room for one more entry at the end; false on no memory.
bool reserveOne(Dict *d) {
    if (d->fUsed < d->fCapacity) return true;
    if (d->fUsed - d->fCount >= d->fCapacity / 4 && d->fUsed > d->fCount) {
        compact(d);
        return rebuildIndex(d);
    }
    if (d->fCapacity >= kMaxCount) return false;
    RtIndex cap = d->fCapacity < 4 ? 4 : d->fCapacity * 2;
    auto *p = static_cast<Entry *>(std::realloc(d->fEntries, size_t(cap) * sizeof(Entry)));
    if (!p) return false;
    d->fEntries = p;
    d->fCapacity = cap;
    return rebuildIndex(d);
}

bool reserve(Dict *d, RtIndex capacity) {
    if (capacity <= d->fCapacity) return true;
    if (capacity > kMaxCount) return false;
    auto *p = static_cast<Entry *>(std::realloc(d->fEntries, size_t(capacity) * sizeof(Entry)));
    if (!p) return false;
    d->fEntries = p;
    d->fCapacity = capacity;
    return rebuildIndex(d);
}

const void *retainKey(const Dict *d, const void *k) {
    return d->fKeyCallBacks.retain ? d->fKeyCallBacks.retain(kRtAllocatorDefault, k) : k;
}
const void *retainValue(const Dict *d, const void *v) {
    return d->fValueCallBacks.retain ? d->fValueCallBacks.retain(kRtAllocatorDefault, v) : v;
}
void releaseKey(const Dict *d, const void *k) {
    if (d->fKeyCallBacks.release) d->fKeyCallBacks.release(kRtAllocatorDefault, k);
}
void releaseValue(const Dict *d, const void *v) {
    if (d->fValueCallBacks.release) d->fValueCallBacks.release(kRtAllocatorDefault, v);
}

void appendEntry(Dict *d, const void *key, const void *value, uint32_t hash) {
    if (!reserveOne(d)) return;
    RtIndex pos = d->fUsed++;
    d->fEntries[pos] = Entry{retainKey(d, key), retainValue(d, value), hash};
    d->fCount++;
    if (d->fIndex) indexInsert(d, hash, pos);
}

void setValue(Dict *d, const void *key, const void *value, bool add, bool replace) {
    uint32_t hash = hashKey(d, key);
    RtIndex pos = findEntry(d, key, hash);
    if (pos == kRtNotFound) {
        if (add) appendEntry(d, key, value, hash);
        return;
    }
    if (!replace) return;
    // Retain first: the new value may be kept alive only by the entry it replaces.
    const void *old = d->fEntries[pos].value;
    d->fEntries[pos].value = retainValue(d, value);
    releaseValue(d, old);
}

void removeAll(Dict *d) {
    Entry *entries = d->fEntries;
    RtIndex used = d->fUsed;
    d->fEntries = nullptr;
    d->fUsed = d->fCapacity = d->fCount = 0;
    std::free(d->fIndex);
    d->fIndex = nullptr;
    d->fIndexBits = 0;
    // Released after the dictionary is empty, in case a release callback looks at it.
    for (RtIndex i = 0; i < used; i++) {
        if (entries[i].key == kHole) continue;
        releaseKey(d, entries[i].key);
        releaseValue(d, entries[i].value);
    }
    std::free(entries);
}

void _dictFinalize(RtTypeRef obj) {
    removeAll(static_cast<Dict *>(const_cast<void *>(obj)));
}

bool _dictEqual(RtTypeRef x, RtTypeRef y) {
    auto *a = static_cast<const Dict *>(x);
    auto *b = static_cast<const Dict *>(y);
    if (a->fCount != b->fCount) return false;
    for (RtIndex i = 0; i < a->fUsed; i++) {
        const Entry &e = a->fEntries[i];
        if (e.key == kHole) continue;
        RtIndex pos = findEntry(b, e.key, hashKey(b, e.key));
        if (pos == kRtNotFound) return false;
        const void *other = b->fEntries[pos].value;
        if (other != e.value && !(a->fValueCallBacks.equal && a->fValueCallBacks.equal(e.value, other)))
            return false;
    }
    return true;
}

RtHashCode _dictHash(RtTypeRef obj) {
    return static_cast<RtHashCode>(static_cast<const Dict *>(obj)->fCount);
}

const RtRuntimeClass sDictClass = {0,         "RtDictionary", nullptr,
                                   nullptr,   _dictFinalize,  _dictEqual,
                                   _dictHash, nullptr,        rt::copyCollectionDescription};
std::atomic<RtTypeID> sDictTypeID{kRtNotATypeID};

bool isDict(RtTypeRef obj) {
    return rt::isA(obj, rt::typeIDOf(sDictTypeID, &sDictClass));
}

// kRtCopyStringDictionaryKeyCallBacks: a mutable string key is frozen into an immutable copy so
// that changing the caller's string cannot move it within the table.
const void *_copyStringKeyRetain(RtAllocatorRef alloc, const void *key) {
    if (RtGetTypeID(key) == RtStringGetTypeID())
        return RtStringCreateCopy(alloc, static_cast<RtStringRef>(key));
    return RtRetain(key);
}

// The entry of key, or NULL; the one lookup behind every exported getter.
inline const Entry *lookup(RtDictionaryRef dict, const void *key) {
    if (!isDict(dict) || dict->fCount == 0) return nullptr;
    RtIndex pos = findEntry(dict, key, hashKey(dict, key));
    return pos == kRtNotFound ? nullptr : &dict->fEntries[pos];
}

Dict *newDict(RtAllocatorRef alloc, RtIndex capacity, const RtDictionaryKeyCallBacks *keyCallBacks,
              const RtDictionaryValueCallBacks *valueCallBacks) {
    if (capacity < 0) return nullptr;
    auto *d = static_cast<Dict *>(const_cast<void *>(
        RtRuntimeCreateInstance(alloc, RtDictionaryGetTypeID(), sizeof(Dict) - sizeof(RtRuntimeBase))));
    if (!d) return nullptr;
    if (keyCallBacks) d->fKeyCallBacks = *keyCallBacks;
    if (valueCallBacks) d->fValueCallBacks = *valueCallBacks;
    d->fFlags = eDictMutable;
    if (capacity > 0 && !reserve(d, capacity)) {
        RtRelease(d);
        return nullptr;
    }
    return d;
}

Dict *copyDict(RtAllocatorRef alloc, RtIndex capacity, RtDictionaryRef src) {
    Dict *d = newDict(alloc, capacity > src->fCount ? capacity : src->fCount, &src->fKeyCallBacks,
                      &src->fValueCallBacks);
    if (!d) return nullptr;
    // Same callbacks, so the stored hashes stay valid and no key is hashed again.
    for (RtIndex i = 0; i < src->fUsed; i++) {
        const Entry &e = src->fEntries[i];
        if (e.key != kHole) appendEntry(d, e.key, e.value, e.hash);
    }
    return d;
}

} // namespace

const RtDictionaryKeyCallBacks kRtTypeDictionaryKeyCallBacks = {
    0, rt::typeRetain, rt::typeRelease, rt::typeCopyDescription, rt::typeEqual, rt::typeHash};
const RtDictionaryKeyCallBacks kRtCopyStringDictionaryKeyCallBacks = {
    0, _copyStringKeyRetain, rt::typeRelease, rt::typeCopyDescription, rt::typeEqual, rt::typeHash};
const RtDictionaryValueCallBacks kRtTypeDictionaryValueCallBacks = {0, rt::typeRetain, rt::typeRelease,
                                                                    rt::typeCopyDescription, rt::typeEqual};

namespace rt {

void appendDictionaryDescription(RtMutableStringRef out, RtDictionaryRef dict, int indent) {
    if (dict->fCount == 0) return appendASCII(out, "{}");
    if (indent >= kMaxDescriptionDepth) return appendASCII(out, "{...}");
    appendASCII(out, "{\n");
    for (RtIndex i = 0; i < dict->fUsed; i++) {
        const Entry &e = dict->fEntries[i];
        if (e.key == kHole) continue;
        appendIndent(out, indent + 1);
        appendValueDescription(out, e.key, dict->fKeyCallBacks.copyDescription, indent + 1);
        appendASCII(out, " = ");
        appendValueDescription(out, e.value, dict->fValueCallBacks.copyDescription, indent + 1);
        appendASCII(out, ";\n");
    }
    appendIndent(out, indent);
    appendASCII(out, "}");
}

} // namespace rt

RtTypeID RtDictionaryGetTypeID(void) {
    return rt::typeIDOf(sDictTypeID, &sDictClass);
}

RtDictionaryRef RtDictionaryCreate(RtAllocatorRef alloc, const void **keys, const void **values,
                                   RtIndex numValues, const RtDictionaryKeyCallBacks *keyCallBacks,
                                   const RtDictionaryValueCallBacks *valueCallBacks) {
    if (numValues < 0 || (numValues > 0 && (!keys || !values))) return nullptr;
    Dict *d = newDict(alloc, numValues, keyCallBacks, valueCallBacks);
    if (!d) return nullptr;
    for (RtIndex i = 0; i < numValues; i++)
        setValue(d, keys[i], values[i], true, true);
    d->fFlags &= ~uint32_t(eDictMutable);
    return d;
}

RtDictionaryRef RtDictionaryCreateCopy(RtAllocatorRef alloc, RtDictionaryRef dict) {
    if (!isDict(dict)) return nullptr;
    if (!(dict->fFlags & eDictMutable)) return static_cast<RtDictionaryRef>(RtRetain(dict));
    Dict *d = copyDict(alloc, 0, dict);
    if (d) d->fFlags &= ~uint32_t(eDictMutable);
    return d;
}

RtMutableDictionaryRef RtDictionaryCreateMutable(RtAllocatorRef alloc, RtIndex capacity,
                                                 const RtDictionaryKeyCallBacks *keyCallBacks,
                                                 const RtDictionaryValueCallBacks *valueCallBacks) {
    return newDict(alloc, capacity, keyCallBacks, valueCallBacks);
}

RtMutableDictionaryRef RtDictionaryCreateMutableCopy(RtAllocatorRef alloc, RtIndex capacity,
                                                     RtDictionaryRef dict) {
    return isDict(dict) ? copyDict(alloc, capacity, dict) : nullptr;
}

RtIndex RtDictionaryGetCount(RtDictionaryRef dict) {
    return isDict(dict) ? dict->fCount : 0;
}

bool RtDictionaryGetValueIfPresent(RtDictionaryRef dict, const void *key, const void **value) {
    const Entry *e = lookup(dict, key);
    if (e && value) *value = e->value;
    return e != nullptr;
}

const void *RtDictionaryGetValue(RtDictionaryRef dict, const void *key) {
    const Entry *e = lookup(dict, key);
    return e ? e->value : nullptr;
}

bool RtDictionaryContainsKey(RtDictionaryRef dict, const void *key) {
    return lookup(dict, key) != nullptr;
}

bool RtDictionaryContainsValue(RtDictionaryRef dict, const void *value) {
    if (!isDict(dict)) return false;
    auto eq = dict->fValueCallBacks.equal;
    for (RtIndex i = 0; i < dict->fUsed; i++) {
        const Entry &e = dict->fEntries[i];
        if (e.key != kHole && (e.value == value || (eq && eq(e.value, value)))) return true;
    }
    return false;
}

void RtDictionaryGetKeysAndValues(RtDictionaryRef dict, const void **keys, const void **values) {
    if (!isDict(dict)) return;
    RtIndex out = 0;
    for (RtIndex i = 0; i < dict->fUsed; i++) {
        const Entry &e = dict->fEntries[i];
        if (e.key == kHole) continue;
        if (keys) keys[out] = e.key;
        if (values) values[out] = e.value;
        out++;
    }
}

void RtDictionaryApplyFunction(RtDictionaryRef dict, RtDictionaryApplierFunction applier, void *context) {
    if (!isDict(dict) || !applier) return;
    // Re-reads the entries each step so an applier that changes the dictionary cannot crash it.
    for (RtIndex i = 0; i < dict->fUsed; i++) {
        Entry e = dict->fEntries[i];
        if (e.key != kHole) applier(e.key, e.value, context);
    }
}

void RtDictionarySetValue(RtMutableDictionaryRef dict, const void *key, const void *value) {
    if (isMutableDict(dict)) setValue(dict, key, value, true, true);
}

void RtDictionaryAddValue(RtMutableDictionaryRef dict, const void *key, const void *value) {
    if (isMutableDict(dict)) setValue(dict, key, value, true, false);
}

void RtDictionaryReplaceValue(RtMutableDictionaryRef dict, const void *key, const void *value) {
    if (isMutableDict(dict)) setValue(dict, key, value, false, true);
}

void RtDictionaryRemoveValue(RtMutableDictionaryRef dict, const void *key) {
    if (!isMutableDict(dict) || dict->fCount == 0) return;
    uint32_t hash = hashKey(dict, key);
    RtIndex pos = findEntry(dict, key, hash);
    if (pos == kRtNotFound) return;
    Entry e = dict->fEntries[pos];
    if (dict->fIndex) indexRemove(dict, hash, pos);
    dict->fEntries[pos].key = kHole;
    dict->fCount--;
    // Trailing holes are simply dropped; others wait for compaction when the entries fill up.
    while (dict->fUsed > 0 && dict->fEntries[dict->fUsed - 1].key == kHole)
        dict->fUsed--;
    if (dict->fCount == 0) dict->fUsed = 0;
    releaseKey(dict, e.key);
    releaseValue(dict, e.value);
}

void RtDictionaryRemoveAllValues(RtMutableDictionaryRef dict) {
    if (isMutableDict(dict)) removeAll(dict);
}
