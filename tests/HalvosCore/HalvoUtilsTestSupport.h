// Small helpers shared by the utilities tests: owned references, text conversion, parsing
// a document from a literal, and a fixture that fails a test which leaks runtime objects.
#pragma once

#include "HalvoUtils.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace hvutils_test {

// Owns one reference and releases it at the end of the scope.
template <class T> class Owned {
  public:
    Owned(T ref = nullptr) : fRef(ref) {}
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    ~Owned() {
        if (fRef) RtRelease(fRef);
    }
    operator T() const { return fRef; }
    T get() const { return fRef; }
    T *out() { return &fRef; }

  private:
    T fRef;
};

inline RtStringRef newString(const std::string &utf8) {
    return RtStringCreateWithBytes(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(utf8.data()),
                                   static_cast<RtIndex>(utf8.size()), kRtStringEncodingUTF8, false);
}

inline RtDataRef newData(const std::string &bytes) {
    return RtDataCreate(kRtAllocatorDefault, reinterpret_cast<const uint8_t *>(bytes.data()),
                        static_cast<RtIndex>(bytes.size()));
}

inline std::string bytesOf(RtDataRef data) {
    return data ? std::string(reinterpret_cast<const char *>(RtDataGetBytePtr(data)),
                              size_t(RtDataGetLength(data)))
                : "<null>";
}

// The UTF-8 text of str; "<null>" for NULL so that comparisons print something readable.
inline std::string text(RtTypeRef str) {
    Owned<RtDataRef> bytes(str ? RtStringCreateExternalRepresentation(kRtAllocatorDefault,
                                                                      static_cast<RtStringRef>(str),
                                                                      kRtStringEncodingUTF8, 0)
                               : nullptr);
    return str && !bytes.get() ? "<unconvertible>" : bytesOf(bytes);
}

// The tree of a document given as text; the error, if any, fails the calling test.
inline RtTreeRef parseText(const std::string &doc) {
    Owned<RtDataRef> data(newData(doc));
    Owned<RtStringRef> error;
    RtTreeRef tree = parseXML(data, false, kRtStringEncodingUTF8, error.out());
    EXPECT_NE(tree, nullptr) << text(error.get());
    return tree;
}

// The first element child of tree (the root element of a document tree).
inline RtTreeRef firstElement(RtTreeRef tree) {
    for (RtTreeRef t = RtTreeGetFirstChild(tree); t; t = RtTreeGetNextSibling(t))
        if (RtXMLNodeGetTypeCode(RtXMLTreeGetNode(t)) == kRtXMLNodeTypeElement) return t;
    return nullptr;
}

// Every test starts and ends with the same number of live runtime objects. The process-wide
// tables are built first so that their creation does not count.
class UtilsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        getEntityToCharacterStringDict();
        getTrueEntityToCharactersStringDict();
        getTypeTable();
        HVQualifiedtoHVType(HV_SOAP_2001_SCHEMA_NAMESPACE, RTSTR("int"));
        AutoDict::getEmptyDictionary();
        AutoArray::getEmptyArray();
        fLiveBefore = RtRuntimeGetLiveObjectCount();
    }
    void TearDown() override {
        EXPECT_EQ(RtRuntimeGetLiveObjectCount(), fLiveBefore) << "runtime objects leaked";
    }

  private:
    long fLiveBefore = 0;
};

} // namespace hvutils_test
