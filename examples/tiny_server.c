/* tiny_server: the server side of the library behind the smallest possible HTTP loop.
 *
 *   tiny_server [PORT [COUNT]]    (PORT 0, the default, picks a free port; COUNT requests,
 *                                  then exit; without COUNT it serves until killed)
 *
 * Listens on 127.0.0.1, prints the port on the first line, and answers each XML-RPC POST
 * (whatever the path) with a protocol handler: the request document becomes a request
 * dictionary, the method runs, the reply or fault document goes back. One method exists:
 * tiny.hello(name) returns "Hello, <name>!". It is a teaching loop: one request per connection,
 * one connection at a time, no time-outs; see hvserve for a real server. */
#define _POSIX_C_SOURCE 200809L
#include <HalvosCore/HalvosCore.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

enum { kMaxRequest = 1 << 20 };

/* Reads one request; returns its body (NULL when it is malformed or too large). */
static RtDataRef readRequestBody(int connection) {
    static char buffer[kMaxRequest + 1];
    size_t used = 0;
    char *body = NULL;
    long length = -1;
    for (;;) {
        if (body && length >= 0 && (size_t)(body - buffer) + (size_t)length <= used) break;
        if (used == kMaxRequest) return NULL;
        ssize_t got = read(connection, buffer + used, kMaxRequest - used);
        if (got <= 0) return NULL;
        used += (size_t)got;
        buffer[used] = '\0';
        if (!body && (body = strstr(buffer, "\r\n\r\n")) != NULL) {
            body += 4;
            for (char *line = strstr(buffer, "\r\n"); line && line < body; line = strstr(line + 2, "\r\n"))
                if (strncasecmp(line + 2, "Content-Length:", 15) == 0) length = strtol(line + 17, NULL, 10);
            if (length < 0 || length > kMaxRequest) return NULL;
        }
    }
    return RtDataCreate(NULL, (const uint8_t *)body, length);
}

/* Sends the document, or a 400 without one. */
static void writeResponse(int connection, RtDataRef document) {
    char head[160];
    long length = document ? (long)RtDataGetLength(document) : 0;
    int headLength = snprintf(head, sizeof head,
                              "HTTP/1.1 %s\r\nContent-Type: text/xml\r\nContent-Length: %ld\r\n"
                              "Connection: close\r\n\r\n",
                              document ? "200 OK" : "400 Bad Request", length);
    if (write(connection, head, (size_t)headLength) < 0 || length == 0) return;
    if (write(connection, RtDataGetBytePtr(document), (size_t)length) < 0) perror("tiny_server: write");
}

/* The reply document for one request body. */
static RtDataRef answer(HVProtocolHandlerRef handler, RtDataRef body) {
    RtDictionaryRef request = HVProtocolHandlerCopyRequestDictionary(handler, body);
    RtStringRef method = request ? RtDictionaryGetValue(request, RTSTR("/HVMethodName")) : NULL;
    RtDictionaryRef params = request ? RtDictionaryGetValue(request, RTSTR("/HVMethodParameters")) : NULL;
    RtArrayRef order = request ? RtDictionaryGetValue(request, RTSTR("/HVMethodParameterOrder")) : NULL;
    RtTypeRef name = order && RtArrayGetCount(order) == 1
                         ? RtDictionaryGetValue(params, RtArrayGetValueAtIndex(order, 0))
                         : NULL;
    RtDataRef document = NULL;
    if (method && RtEqual(method, RTSTR("tiny.hello")) && RtGetTypeID(name) == RtStringGetTypeID()) {
        RtStringRef greeting = RtStringCreateWithFormat(NULL, NULL, RTSTR("Hello, %@!"), name);
        document = HVProtocolHandlerCopyReplyDocument(handler, request, greeting);
        RtRelease(greeting);
    } else {
        int32_t code = request ? -32601 : -32700;
        RtNumberRef number = RtNumberCreate(NULL, kRtNumberSInt32Type, &code);
        const void *keys[] = {kHVFaultCode, kHVFaultString};
        const void *values[] = {number,
                                request ? RTSTR("tiny.hello takes one string") : RTSTR("not XML-RPC")};
        RtDictionaryRef fault = RtDictionaryCreate(NULL, keys, values, 2, &kRtTypeDictionaryKeyCallBacks,
                                                   &kRtTypeDictionaryValueCallBacks);
        document = HVProtocolHandlerCopyFaultDocument(handler, request, fault);
        RtRelease(fault);
        RtRelease(number);
    }
    RtRelease(request);
    return document;
}

int main(int argc, char **argv) {
    int port = argc > 1 ? atoi(argv[1]) : 0;
    long count = argc > 2 ? atol(argv[2]) : -1;
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in address = {0};
    address.sin_family = AF_INET;
    address.sin_port = htons((uint16_t)port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) != 0 ||
        listen(listener, 8) != 0 || getsockname(listener, (struct sockaddr *)&address, &size) != 0) {
        perror("tiny_server");
        return 1;
    }
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);

    HVProtocolHandlerRef handler = HVProtocolHandlerCreate(NULL, kHVXMLRPCProtocol);
    for (long served = 0; count < 0 || served < count; served++) {
        int connection = accept(listener, NULL, NULL);
        if (connection < 0) continue;
        RtDataRef body = readRequestBody(connection);
        RtDataRef document = body ? answer(handler, body) : NULL;
        writeResponse(connection, document);
        RtRelease(document);
        RtRelease(body);
        close(connection);
    }
    RtRelease(handler);
    close(listener);
    return 0;
}
