// XMLRPCHalvoClosure: the XML-RPC client invocation and the XML-RPC protocol handler.
// The invocation keeps the method name and builds a temporary handler, parented to itself, to
// write each request and read each reply. The handler writes methodCall, methodResponse and
// fault documents and reads them back; it serves the server side directly.
// Used by one thread at a time; no locks.
#pragma once

#include "HalvoClosure.h"

class XMLBuffer;
struct ReplyArrayDrain;

class XMLRPCHalvoMethodInvocation : public HalvoMethodInvocation {
  public:
    // Retains methodName (NULL stays NULL).
    XMLRPCHalvoMethodInvocation(RtURLRef url, RtStringRef methodName);
    // From an agreement dictionary; the method name comes from "MethodName".
    explicit XMLRPCHalvoMethodInvocation(RtDictionaryRef agreement);
    ~XMLRPCHalvoMethodInvocation() override;

    RtDictionaryRef copyAgreement() override;
    RtDataRef constructMessage(AutoString &contentType) override;
    void parseReply(HalvoResult *result, RtTreeRef tree) override;
    bool readReply(HalvoResult *result, RtDataRef data, bool forceXML, RtStringEncoding charset,
                   RtStringRef *errorString) override;
    HVRunLoopSource *createRunLoopSource() override;

  protected:
    RtStringRef fMethodName;
};

class XMLRPCProtocolHandler : public HVProtocolHandler {
  public:
    XMLRPCProtocolHandler() = default;
    ~XMLRPCProtocolHandler() override = default;

    RtDataRef createRequest(RtStringRef methodName, RtDictionaryRef parameters, RtArrayRef order,
                            RtDictionaryRef extras) override;
    RtDictionaryRef parsePostData(RtDataRef data, RtStringEncoding encoding,
                                  AutoString *errorString) override;
    RtDictionaryRef parseReplyData(RtStringRef methodName, RtDataRef data, RtStringEncoding encoding,
                                   AutoString *errorString) override;
    RtDataRef createReply(RtDictionaryRef context, RtTypeRef returnValue) override;
    RtDataRef createFault(RtDictionaryRef context, RtDictionaryRef faultDict) override;

    // Fills result from a methodResponse document's tree; with drain, from the tree parseXML
    // built with drain's context and the array items read while it parsed.
    void parseReply(HalvoResult *result, RtTreeRef tree, ReplyArrayDrain *drain = nullptr);
    // Reads a methodResponse document into result, the reply's array item by item while the
    // document is parsed. False, with *errorString set as parseXML sets it, when it does not parse.
    bool readReply(HalvoResult *result, RtDataRef data, bool forceXML, RtStringEncoding charset,
                   RtStringRef *errorString);
    // Writes one value element for value at indentation level.
    void serialize(XMLBuffer *buffer, int level, const void *value);

  private:
    bool serializeExact(XMLBuffer *buffer, int level, const void *value, HVTypeID kind);
    void writeExactMemberName(XMLBuffer *buffer, int level, RtTypeRef name);
};
