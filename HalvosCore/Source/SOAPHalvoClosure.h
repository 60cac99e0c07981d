// SOAPHalvoClosure: the SOAP 1.1 client invocation and the SOAP protocol handler.
// Both keep the protocol constant they were made for (kHVSOAP1999Protocol or
// kHVSOAP2001Protocol, compared by identity), which picks the XML Schema flavour. The invocation
// keeps the method name and builds a temporary handler, parented to itself, for each request and
// reply; the handler writes and reads envelopes and serves the server side directly.
// Used by one thread at a time; no locks.
#pragma once

#include "HalvoClosure.h"

class XMLBuffer;
struct SOAPReplyStream;

class SOAPHalvoMethodInvocation : public HalvoMethodInvocation {
  public:
    // From an agreement dictionary; the method name comes from "MethodName".
    SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtDictionaryRef agreement);
    SOAPHalvoMethodInvocation(RtStringRef protocolKind, RtURLRef url, RtStringRef methodName);
    ~SOAPHalvoMethodInvocation() override;

    RtDictionaryRef copyAgreement() override;
    RtDataRef constructMessage(AutoString &contentType) override;
    void parseReply(HalvoResult *result, RtTreeRef tree) override;
    bool readReply(HalvoResult *result, RtDataRef data, bool forceXML, RtStringEncoding charset,
                   RtStringRef *errorString) override;
    HVRunLoopSource *createRunLoopSource() override;

    RtStringRef getMethodName() const { return fMethodName; }
    RtStringRef getProtocolKind() const { return fProtocolKind; }
    RtStringRef getMethodNamespace();

  protected:
    RtStringRef fMethodName;
    RtStringRef fProtocolKind;
};

class SOAPProtocolHandler : public HVProtocolHandler {
  public:
    explicit SOAPProtocolHandler(RtStringRef protocolKind);
    ~SOAPProtocolHandler() override;

    RtDataRef createRequest(RtStringRef methodName, RtDictionaryRef parameters, RtArrayRef order,
                            RtDictionaryRef extras) override;
    RtDictionaryRef parsePostData(RtDataRef data, RtStringEncoding encoding,
                                  AutoString *errorString) override;
    RtDictionaryRef parseReplyData(RtStringRef methodName, RtDataRef data, RtStringEncoding encoding,
                                   AutoString *errorString) override;
    RtDataRef createReply(RtDictionaryRef context, RtTypeRef returnValue) override;
    RtDataRef createFault(RtDictionaryRef context, RtDictionaryRef faultDict) override;

    RtStringRef getProtocolKind() const { return fProtocolKind; }
    // Fills result from the envelope of a reply to methodName. With stream, the tree is the one
    // that stream read (parts of it already decoded); false when that reading cannot stand for
    // the whole tree's and the document must be read again without it.
    bool parseReply(HalvoResult *result, RtStringRef methodName, RtTreeRef tree,
                    SOAPReplyStream *stream = nullptr);
    // Reads the reply document data to methodName into result (parseXML's forceXML, charset and
    // errorString), decoding values while the document is parsed unless a deserialization
    // override or a debug switch needs the whole tree. False when the document does not parse.
    bool readReply(HalvoResult *result, RtStringRef methodName, RtDataRef data, bool forceXML,
                   RtStringEncoding charset, RtStringRef *errorString);
    // The kHVSOAPMethodNamespaceURI property, or a placeholder URI.
    RtStringRef getMethodNamespace();
    // Writes one named value as a SOAP-encoded element at indentation level.
    void serialize(XMLBuffer *buffer, int level, RtStringRef name, RtTypeRef value);
    // "ur-type" for SOAP-1999, else "anyType".
    RtStringRef heterogeneousArrayTypeName();
    // "timeInstant" for SOAP-1999, else "dateTime".
    RtStringRef dateTimeEncoding();

  private:
    // Exact mode's writing of one named value where it differs from the default; false for the
    // kinds written as the default writes them. Refuses what cannot travel.
    bool serializeExact(XMLBuffer *buffer, int level, RtStringRef name, RtTypeRef value);
    // The members of a record, one level under it, in its order.
    void writeRecordMembers(XMLBuffer *buffer, int level, RtDictionaryRef dict);

  public:
  protected:
    RtStringRef fProtocolKind;
};

// A debugging aid: the result dictionary (caller releases) of reading tree as a SOAP reply of
// protocolKind for an invocation without a method name, so that only faults and headers count.
RtDictionaryRef hvDebugSOAPResult(RtStringRef protocolKind, RtTreeRef tree);
