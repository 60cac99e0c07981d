// Value kinds: the runtime-type table, qualified type names and two number helpers.
#include "HalvoUtils.h"

#include <climits>
#include <cstdlib>

// ---- The type table -------------------------------------------------------------------------

const PerType *getTypeTable() {
    // Row order matters: row 0 (numbers) is special-cased by both lookups.
    //                          runtime type   runtime type getter    kind
    static PerType sTable[8] = {{kRtNotATypeID, RtNumberGetTypeID, eHVUnknownType},
                                {kRtNotATypeID, RtNullGetTypeID, eHVNullType},
                                {kRtNotATypeID, RtBooleanGetTypeID, eHVBooleanType},
                                {kRtNotATypeID, RtStringGetTypeID, eHVStringType},
                                {kRtNotATypeID, RtDateGetTypeID, eHVDateType},
                                {kRtNotATypeID, RtDataGetTypeID, eHVDataType},
                                {kRtNotATypeID, RtArrayGetTypeID, eHVArrayType},
                                {kRtNotATypeID, RtDictionaryGetTypeID, eHVDictionaryType}};
    static const bool sFilled = [] {
        for (PerType &row : sTable)
            row.rtType = row.rtTypeGet();
        return true;
    }();
    (void)sFilled;
    return sTable;
}

HVTypeID HVGetHVTypeIDFromRtType(RtTypeRef val) {
    if (!val) return eHVUnknownType;
    const PerType *table = getTypeTable();
    RtTypeID type = RtGetTypeID(val);
    if (type == table[0].rtType)
        return RtNumberIsFloatType(static_cast<RtNumberRef>(val)) ? eHVDoubleType : eHVIntegerType;
    for (int row = 1; row < 8; row++)
        if (table[row].rtType == type) return table[row].hvType;
    return eHVUnknownType;
}

RtTypeID HVGetRtTypeIDFromHVTypeID(HVTypeID kind) {
    const PerType *table = getTypeTable();
    if (kind == eHVIntegerType || kind == eHVDoubleType) return table[0].rtType;
    for (int row = 1; row < 8; row++)
        if (table[row].hvType == kind) return table[row].rtType;
    return 0;
}

// ---- Qualified type names -------------------------------------------------------------------

static RtDictionaryRef getQualifiedTypeNames() {
    static const RtDictionaryRef sNames = [] {
        struct Row {
            const char *name;
            int kind;
        };
        static const Row rows[] = {
            {"nil", eHVNullType},
            {"null", eHVNullType},
            {"NULL", eHVNullType},
            {"boolean", eHVBooleanType},
            {"bool", eHVBooleanType},
            {"i4", eHVIntegerType},
            {"int", eHVIntegerType},
            {"long", eHVIntegerType},
            {"short", eHVIntegerType},
            {"string", eHVStringType},
            {"double", eHVDoubleType},
            {"decimal", eHVDoubleType},
            {"float", eHVDoubleType},
            {"timeInstant", eHVDateType},
            {"dateTime", eHVDateType},
            {"base64", eHVDataType},
            {"base64Binary", eHVDataType},
            {"Array", eHVArrayType},
            {"Dictionary", eHVDictionaryType},
        };
        RtMutableDictionaryRef dict = RtDictionaryCreateMutable(
            kRtAllocatorDefault, 0, &kRtTypeDictionaryKeyCallBacks, &kRtTypeDictionaryValueCallBacks);
        for (const Row &row : rows) {
            RtNumberRef kind = RtNumberCreate(kRtAllocatorDefault, kRtNumberIntType, &row.kind);
            // Process-wide like the table itself: never freed, not counted among live objects.
            RtRuntimeSetImmortal(kind);
            RtDictionarySetValue(dict, __RtStringMakeConstantString(row.name), kind);
        }
        RtRuntimeSetImmortal(dict);
        return static_cast<RtDictionaryRef>(dict);
    }();
    return sNames;
}

bool burstFakeQName(RtStringRef name, RtStringRef *localName) {
    RtRange colon = RtStringFind(name, RTSTR(":"), kRtCompareBackwards);
    if (colon.location != kRtNotFound && colon.location > 0) {
        RtIndex start = colon.location + 1;
        *localName = RtStringCreateWithSubstring(kRtAllocatorDefault, name,
                                                 RtRangeMake(start, RtStringGetLength(name) - start));
        return true;
    }
    *localName = static_cast<RtStringRef>(RtRetain(name));
    return false;
}

HVTypeID HVQualifiedtoHVType(RtStringRef namespaceString, RtStringRef typeString) {
    if (!typeString) return eHVUnknownType;
    if (rtstrEquivilent(namespaceString, HV_SOAP_1999_SCHEMA_NAMESPACE) ||
        rtstrEquivilent(namespaceString, HV_SOAP_2001_SCHEMA_NAMESPACE) ||
        rtstrEquivilent(namespaceString, HV_SOAP_2001_ENCODING_NAMESPACE)) {
        RtNumberRef kind =
            static_cast<RtNumberRef>(RtDictionaryGetValue(getQualifiedTypeNames(), typeString));
        int value = eHVUnknownType;
        if (kind) RtNumberGetValue(kind, kRtNumberIntType, &value);
        return static_cast<HVTypeID>(value);
    }
    RtStringRef localName = nullptr;
    HVTypeID result = eHVUnknownType;
    if (burstFakeQName(typeString, &localName)) {
        // The prefix is ignored: "xs:int" is an integer whatever xs is bound to. The fourth
        // try repeats the third (both name the one SOAP encoding namespace); kept as it was.
        const RtStringRef namespaces[] = {HV_SOAP_1999_SCHEMA_NAMESPACE, HV_SOAP_2001_SCHEMA_NAMESPACE,
                                          HV_SOAP_1999_ENCODING_NAMESPACE, HV_SOAP_2001_ENCODING_NAMESPACE};
        for (RtStringRef ns : namespaces) {
            result = HVQualifiedtoHVType(ns, localName);
            if (result != eHVUnknownType) break;
        }
    }
    safeRtRelease(localName);
    return result;
}

// ---- Numbers --------------------------------------------------------------------------------

int getDictNumber(RtDictionaryRef dict, RtStringRef key, int defaultValue) {
    RtTypeRef value = dict ? RtDictionaryGetValue(dict, key) : nullptr;
    if (!value || RtGetTypeID(value) != RtNumberGetTypeID()) return defaultValue;
    int32_t result = 0;
    if (!RtNumberGetValue(static_cast<RtNumberRef>(value), kRtNumberSInt32Type, &result)) return defaultValue;
    return result;
}

RtNumberRef makeIntValueFromString(RtStringRef text) {
    // At most 128 characters are looked at; characters outside ASCII read as spaces.
    char buffer[129];
    RtIndex used = 0;
    if (text) {
        RtIndex length = RtStringGetLength(text);
        RtStringGetBytes(text, RtRangeMake(0, length < 128 ? length : 128), kRtStringEncodingASCII, ' ',
                         false, reinterpret_cast<uint8_t *>(buffer), 128, &used);
    }
    buffer[used] = '\0';
    long long value = strtoll(buffer, nullptr, 0);
    if (value >= INT32_MIN && value <= INT32_MAX) {
        int32_t v32 = static_cast<int32_t>(value);
        return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt32Type, &v32);
    }
    int64_t v64 = value;
    return RtNumberCreate(kRtAllocatorDefault, kRtNumberSInt64Type, &v64);
}
