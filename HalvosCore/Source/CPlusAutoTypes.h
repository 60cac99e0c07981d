// CPlusAutoTypes: scope-bound owners of runtime values, iterators and small value helpers.
// Each wrapper owns the references listed beside its constructors and releases them when it
// goes out of scope. The ownership asymmetries (AutoArray takes over an array it is given,
// AutoDict retains one) are relied upon throughout the library: keep them.
// No locks; the shared empty collections and interned numbers are made once and never freed.
#pragma once

#include <HalvosCore/HalvosCore.h>

#include <cstdarg>
#include <cstdint>

// The base of the value wrappers: isEmpty tells whether anything usable is held, getRef gives
// the held value (borrowed).
class AutoCountable {
  public:
    AutoCountable() = default;
    AutoCountable(const AutoCountable &) = delete;
    AutoCountable &operator=(const AutoCountable &) = delete;
    virtual ~AutoCountable() = default;
    virtual bool isEmpty() const = 0;
    virtual RtTypeRef getRef() const = 0;
};

class AutoString : public AutoCountable {
  public:
    AutoString() : fString(nullptr) {}
    // Retains str (NULL allowed).
    explicit AutoString(RtStringRef str);
    AutoString(const AutoString &other);
    // Creates the string from a printf format with "%@"; format must be a literal (it is
    // interned as a constant, so its parse is cached).
    explicit AutoString(const char *format, ...);
    ~AutoString() override;

    RtStringRef getString() const { return fString; }
    RtStringRef getRetainedString() const;
    // The address of the held string, for functions that store a created string: the
    // wrapper then owns it. Anything held before is not released by such a store.
    RtStringRef *getStringPtr() { return &fString; }
    void setString(RtStringRef str);
    // Appends formatted text ("%@%@" of the old text and the new tail).
    void append(const char *format, ...);
    bool isNull() const { return fString == nullptr; }
    bool isEmpty() const override { return fString == nullptr; }
    RtTypeRef getRef() const override { return fString; }

  private:
    RtStringRef fString;
};

class AutoScalar : public AutoCountable {
  public:
    // Takes over number without retaining it.
    explicit AutoScalar(RtNumberRef number) : fRef(number) {}
    explicit AutoScalar(int value);
    // The runtime's signed 32-bit kind; the value is truncated to 32 bits.
    explicit AutoScalar(long value);
    explicit AutoScalar(double value);
    explicit AutoScalar(float value);
    ~AutoScalar() override;

    RtNumberRef getImmutableRef() const { return fRef; }
    bool isEmpty() const override { return false; }
    RtTypeRef getRef() const override { return fRef; }
    // 0 when the number does not convert exactly (toInt of 2.5 is 0).
    int32_t toInt() const;
    float toFloat() const;
    double toDouble() const;

  private:
    RtNumberRef fRef;
};

class AutoURL : public AutoCountable {
  public:
    explicit AutoURL(RtStringRef str);
    explicit AutoURL(const AutoString &str);
    explicit AutoURL(const char *format, ...);
    ~AutoURL() override;

    RtURLRef getURL() const { return fURL; }
    bool isEmpty() const override { return fURL == nullptr; }
    RtTypeRef getRef() const override { return fURL; }

  private:
    RtURLRef fURL;
};

class AutoArray : public AutoCountable {
  public:
    // A new empty mutable array.
    AutoArray();
    // Both take over the array without retaining it.
    explicit AutoArray(RtMutableArrayRef array) : fMutableArray(array), fImmutableArray(nullptr) {}
    explicit AutoArray(RtArrayRef array) : fMutableArray(nullptr), fImmutableArray(array) {}
    ~AutoArray() override;

    // The mutable array, made on demand from the immutable one (which is then dropped).
    RtMutableArrayRef getMutableArray();
    // The mutable array, else the immutable one, else the shared empty array. Borrowed.
    RtArrayRef getImmutableArray() const;
    RtIndex getCount() const;
    void appendValue(RtTypeRef value); // non-NULL values only
    void appendValue(const AutoCountable &value);
    void appendNonEmpty(const AutoCountable &value);
    RtTypeRef getValueAtIndex(RtIndex idx) const;
    RtTypeRef copyValueAtIndex(RtIndex idx) const;
    bool isEmpty() const override;
    RtTypeRef getRef() const override { return getImmutableArray(); }
    static RtArrayRef getEmptyArray();

  private:
    RtMutableArrayRef fMutableArray;
    RtArrayRef fImmutableArray;
};

class AutoDict : public AutoCountable {
  public:
    // Nothing is created until a dictionary is needed.
    AutoDict() : fImmutableDict(nullptr), fMutableDict(nullptr) {}
    // Takes over dict without retaining it.
    explicit AutoDict(RtMutableDictionaryRef dict) : fImmutableDict(nullptr), fMutableDict(dict) {}
    // Retains dict.
    explicit AutoDict(RtDictionaryRef dict);
    // Shares (retains) the other's current dictionary; the first change copies it.
    AutoDict(const AutoDict &other);
    ~AutoDict() override;

    RtMutableDictionaryRef getMutableDict();
    // The mutable dictionary, else the immutable one, else the shared empty one. Borrowed.
    RtDictionaryRef getImmutableDict() const;
    RtTypeRef getValue(RtStringRef key) const;
    RtTypeRef getValue(const AutoString &key) const { return getValue(key.getString()); }
    RtIndex getCount() const;
    RtDictionaryRef copyDict() const;
    void addValue(RtStringRef key, RtTypeRef value); // non-NULL values only
    void addNonEmpty(const AutoString &key, const AutoCountable &value);
    bool isEmpty() const override;
    RtTypeRef getRef() const override { return getImmutableDict(); }
    static RtDictionaryRef getEmptyDictionary();

  private:
    RtDictionaryRef fImmutableDict;
    RtMutableDictionaryRef fMutableDict;
};

class ArrayIterator {
  public:
    explicit ArrayIterator(const AutoArray &array);
    explicit ArrayIterator(RtArrayRef array);
    ArrayIterator(const ArrayIterator &) = delete;
    ArrayIterator &operator=(const ArrayIterator &) = delete;
    ~ArrayIterator();

    bool hasMoreElements() const { return fIndex < fCount; }
    // The value at the index (borrowed), then advances.
    RtTypeRef nextElement();

  private:
    int32_t fIndex;
    int32_t fCount;
    RtArrayRef fArray;
};

class DictIterator {
  public:
    explicit DictIterator(const AutoDict &dict);
    explicit DictIterator(RtDictionaryRef dict);
    DictIterator(const DictIterator &) = delete;
    DictIterator &operator=(const DictIterator &) = delete;
    ~DictIterator();

    bool hasMoreElements() const { return fIndex < fCount; }
    // The next key (borrowed), or NULL at the end.
    RtTypeRef nextElement();
    RtTypeRef getValue(RtTypeRef key) const;

  private:
    void setup(RtDictionaryRef dict);
    int32_t fIndex;
    int32_t fCount;
    RtDictionaryRef fDict;
    const void **fKeys;
};

// A new mutable dictionary (string keys copied, values retained) and a new mutable array
// (values retained).
RtMutableDictionaryRef newMutableDict();
RtMutableArrayRef newMutableArray();
// base (may be NULL) plus key, value, ... pairs up to the first NULL argument. New dictionary.
RtDictionaryRef rtTypeCreateDictionary(RtDictionaryRef base, ...);
// base (may be NULL) plus values up to the first NULL argument. New array.
RtArrayRef rtTypeCreateArray(RtArrayRef base, ...);
// The keys in enumeration order, new (a retained shared empty array for an empty dictionary).
RtArrayRef copyDictionaryKeys(RtDictionaryRef dict);
// A shared number for -3 through 11 (no bounds check).
RtNumberRef internedInt(int i);
// The value, or 0 when it does not convert exactly.
int32_t getIntValue(RtNumberRef number);
double getDoubleValue(RtNumberRef number);

inline RtTypeRef safeRtRetain(RtTypeRef value) {
    return value ? RtRetain(value) : nullptr;
}
inline void safeRtRelease(RtTypeRef value) {
    if (value) RtRelease(value);
}

// A new string from a literal 8-bit format and its arguments.
RtStringRef rtCreateString(const char *format, va_list arguments);
