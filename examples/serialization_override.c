/* serialization_override: sending a kind of value the protocols do not know.
 *
 *   serialization_override [URL]
 *
 * URLs are no XML-RPC or SOAP type; left alone, the writers put a comment and the URL's
 * description in the document. A serialization override registered for the URL type writes
 * them as strings instead. The program prints the request documents a protocol handler writes
 * with the override (no network needed); given the URL of an hvserve, it also sends a URL to
 * examples.echo with an override on the invocation and prints what comes back. */
#include <HalvosCore/HalvosCore.h>

#include <stdio.h>
#include <string.h>

/* Prints a string or data value as UTF-8 text, then a line feed. */
static void printText(RtTypeRef value) {
    if (RtGetTypeID(value) == RtDataGetTypeID()) {
        printf("%.*s\n", (int)RtDataGetLength(value), (const char *)RtDataGetBytePtr(value));
        return;
    }
    RtStringRef text = RtStringCreateWithFormat(NULL, NULL, RTSTR("%@"), value);
    RtDataRef bytes = RtStringCreateExternalRepresentation(NULL, text, kRtStringEncodingUTF8, '?');
    printf("%.*s\n", (int)RtDataGetLength(bytes), (const char *)RtDataGetBytePtr(bytes));
    RtRelease(bytes);
    RtRelease(text);
}

/* The URL's text with the XML specials escaped, since an override's text goes out verbatim. */
static RtStringRef createEscapedText(RtURLRef url) {
    RtMutableStringRef text = RtStringCreateMutableCopy(NULL, 0, RtURLGetString(url));
    RtStringFindAndReplace(text, RTSTR("&"), RTSTR("&amp;"), RtRangeMake(0, RtStringGetLength(text)), 0);
    RtStringFindAndReplace(text, RTSTR("<"), RTSTR("&lt;"), RtRangeMake(0, RtStringGetLength(text)), 0);
    RtStringFindAndReplace(text, RTSTR(">"), RTSTR("&gt;"), RtRangeMake(0, RtStringGetLength(text)), 0);
    return text;
}

/* XML-RPC: the override supplies everything inside <value>. */
static RtStringRef writeURLForXMLRPC(HVMethodInvocationRef invocation, RtTypeRef value, void *info) {
    (void)invocation, (void)info;
    RtStringRef escaped = createEscapedText(value);
    RtStringRef text = RtStringCreateWithFormat(NULL, NULL, RTSTR("<string>%@</string>"), escaped);
    RtRelease(escaped);
    return text;
}

/* SOAP: the override supplies the whole element; every "%@" in it becomes the element's name. */
static RtStringRef writeURLForSOAP(HVMethodInvocationRef invocation, RtTypeRef value, void *info) {
    (void)invocation, (void)info;
    RtStringRef escaped = createEscapedText(value);
    RtStringRef text =
        RtStringCreateWithFormat(NULL, NULL, RTSTR("<%%@ xsi:type=\"xsd:string\">%@</%%@>"), escaped);
    RtRelease(escaped);
    return text;
}

int main(int argc, char **argv) {
    RtStringRef homeText =
        RtStringCreateWithCString(NULL, "http://example.com/a?b=1&c=2", kRtStringEncodingUTF8);
    RtURLRef home = RtURLCreateWithString(NULL, homeText, NULL);
    const void *names[] = {RTSTR("link")};
    const void *values[] = {home};
    RtDictionaryRef params = RtDictionaryCreate(NULL, names, values, 1, &kRtTypeDictionaryKeyCallBacks,
                                                &kRtTypeDictionaryValueCallBacks);
    RtArrayRef order = RtArrayCreate(NULL, names, 1, &kRtTypeArrayCallBacks);

    /* 1. The request documents, written by protocol handlers that carry the override. */
    const RtStringRef protocols[] = {kHVXMLRPCProtocol, kHVSOAP2001Protocol};
    for (int i = 0; i < 2; i++) {
        HVProtocolHandlerRef handler = HVProtocolHandlerCreate(NULL, protocols[i]);
        HVProtocolHandlerSetSerializationOverride(handler, RtURLGetTypeID(),
                                                  i == 0 ? writeURLForXMLRPC : writeURLForSOAP, NULL);
        RtDataRef document =
            HVProtocolHandlerCopyRequestDocument(handler, RTSTR("examples.echo"), params, order, NULL);
        printText(protocols[i]);
        printText(document);
        RtRelease(document);
        RtRelease(handler);
    }

    /* 2. The same through a call, when a server is named. */
    int status = 0;
    if (argc > 1) {
        RtStringRef serverText = RtStringCreateWithCString(NULL, argv[1], kRtStringEncodingUTF8);
        RtURLRef server = RtURLCreateWithString(NULL, serverText, NULL);
        HVMethodInvocationRef call =
            HVMethodInvocationCreate(server, RTSTR("examples.echo"), kHVXMLRPCProtocol);
        HVMethodInvocationAddSerializationOverride(call, RtURLGetTypeID(), writeURLForXMLRPC, NULL);
        HVMethodInvocationSetParameters(call, params, order);
        RtDictionaryRef result = HVMethodInvocationInvoke(call);
        status = HVMethodResultIsFault(result) || !result;
        printf("examples.echo returned: ");
        printText(RtDictionaryGetValue(result, status ? kHVFaultString : kHVMethodInvocationResult));
        RtRelease(result);
        RtRelease(call);
        RtRelease(server);
        RtRelease(serverText);
    }

    RtRelease(order);
    RtRelease(params);
    RtRelease(home);
    RtRelease(homeText);
    return status;
}
