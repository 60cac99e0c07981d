// gsoap_peer.h: the gSOAP peer's generated code behind a plain C interface, so that the
// benchmark (C++) never includes the generated headers (C, without C++ linkage).
// One GSoapPeer is one gSOAP context; everything it reads or writes lives in the context's
// managed memory until the next call or gsoapPeerFree. Single thread.
#pragma once

#include <stddef.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct GSoapPeer GSoapPeer;

/* One record as the peer hands it in and out (name is UTF-8, blob the decoded bytes). */
typedef struct GSoapRecord {
    int id;
    const char *name;
    double score;
    int active;
    time_t when;
    const unsigned char *blob;
    int blobSize;
} GSoapRecord;

GSoapPeer *gsoapPeerCreate(void);
void gsoapPeerFree(GSoapPeer *peer);

/* Reads a getRecords reply (plain or with href/id multi-references) into the generated
 * structures. Returns the number of records read, or -1 when the reply did not parse; when
 * first is not NULL and a record was read, *first receives record 0. The records stay valid
 * until the next call. */
int gsoapPeerReadReply(GSoapPeer *peer, const char *document, size_t length, GSoapRecord *first);

/* Writes a putRecords request envelope for `count` records. Returns the document's length and
 * points *document at it (valid until the next call), or -1 on failure. */
long gsoapPeerWriteRequest(GSoapPeer *peer, const GSoapRecord *records, int count, const char **document);

#ifdef __cplusplus
}
#endif
