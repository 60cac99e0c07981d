// The gSOAP peer: the receive and send halves of the code soapcpp2 generates for the record
// service, on memory instead of a socket (gSOAP's C interface reads from and writes to strings).
#include "gsoap_peer.h"

#include "soapH.h"
#include "records.nsmap"

#include <string.h>

struct GSoapPeer {
    struct soap *soap;
};

GSoapPeer *gsoapPeerCreate(void) {
    GSoapPeer *peer = (GSoapPeer *)malloc(sizeof *peer);
    if (!peer) return NULL;
    // Strings stay UTF-8, as the other peers deliver them.
    peer->soap = soap_new1(SOAP_C_UTFSTRING);
    soap_set_namespaces(peer->soap, namespaces);
    return peer;
}

void gsoapPeerFree(GSoapPeer *peer) {
    if (!peer) return;
    soap_destroy(peer->soap);
    soap_end(peer->soap);
    soap_free(peer->soap);
    free(peer);
}

static void copyRecord(const struct ns__Record *record, GSoapRecord *out) {
    out->id = record->id;
    out->name = record->name;
    out->score = record->score;
    out->active = record->active == true_;
    out->when = record->when;
    out->blob = record->blob.__ptr;
    out->blobSize = record->blob.__size;
}

int gsoapPeerReadReply(GSoapPeer *peer, const char *document, size_t length, GSoapRecord *first) {
    struct soap *soap = peer->soap;
    struct ns__getRecordsResponse reply;
    soap_destroy(soap);
    soap_end(soap); // frees what the previous call read
    (void)length;   // gSOAP reads a terminated string
    soap->is = document;
    soap_default_ns__getRecordsResponse(soap, &reply);
    if (soap_begin_recv(soap) || soap_envelope_begin_in(soap) || soap_recv_header(soap) ||
        soap_body_begin_in(soap))
        return -1;
    if (!soap_get_ns__getRecordsResponse(soap, &reply, "ns:getRecordsResponse", NULL) || soap->error)
        return -1;
    if (soap_body_end_in(soap) || soap_envelope_end_in(soap) || soap_end_recv(soap)) return -1;
    soap->is = NULL;
    if (!reply.return_) return -1;
    if (first && reply.return_->__size > 0 && reply.return_->__ptr[0])
        copyRecord(reply.return_->__ptr[0], first);
    return reply.return_->__size;
}

long gsoapPeerWriteRequest(GSoapPeer *peer, const GSoapRecord *records, int count, const char **document) {
    struct soap *soap = peer->soap;
    soap_destroy(soap);
    soap_end(soap);
    struct ns__Record *values =
        (struct ns__Record *)soap_malloc(soap, sizeof *values * (size_t)(count ? count : 1));
    struct ns__Record **pointers =
        (struct ns__Record **)soap_malloc(soap, sizeof *pointers * (size_t)(count ? count : 1));
    for (int i = 0; i < count; i++) {
        values[i].id = records[i].id;
        values[i].name = (char *)records[i].name;
        values[i].score = records[i].score;
        values[i].active = records[i].active ? true_ : false_;
        values[i].when = records[i].when;
        values[i].blob.__ptr = (unsigned char *)records[i].blob;
        values[i].blob.__size = records[i].blobSize;
        pointers[i] = &values[i];
    }
    struct ArrayOfRecord array = {pointers, count};
    struct ns__putRecords request = {&array};
    const char *output = NULL;
    soap->os = &output;
    soap_serializeheader(soap);
    soap_serialize_ns__putRecords(soap, &request);
    if (soap_begin_send(soap) || soap_envelope_begin_out(soap) || soap_putheader(soap) ||
        soap_body_begin_out(soap) || soap_put_ns__putRecords(soap, &request, "ns:putRecords", "") ||
        soap_body_end_out(soap) || soap_envelope_end_out(soap) || soap_end_send(soap)) {
        soap->os = NULL;
        return -1;
    }
    soap->os = NULL;
    *document = output;
    return output ? (long)strlen(output) : -1;
}
