// Not formatted: soapcpp2 reads the "//gsoap" directives below, which must stay unspaced.
// clang-format off
// The record service as gSOAP's soapcpp2 reads it: rpc/encoded SOAP 1.1, namespace "urn:records".
// getRecords answers an array of records (read by the benchmark from the shared generator's
// reply); putRecords sends one (written by the benchmark). The array holds pointers so that
// the reader can resolve href/id multi-references.

//gsoap ns service name: records
//gsoap ns service namespace: urn:records
//gsoap ns service style: rpc
//gsoap ns service encoding: encoded
//gsoap ns schema namespace: urn:records

typedef char *xsd__string;
typedef int xsd__int;
typedef double xsd__double;
enum xsd__boolean { false_, true_ };
typedef time_t xsd__dateTime;
struct xsd__base64Binary {
    unsigned char *__ptr;
    int __size;
};

struct ns__Record {
    xsd__int id;
    xsd__string name;
    xsd__double score;
    enum xsd__boolean active;
    xsd__dateTime when;
    struct xsd__base64Binary blob;
};

struct ArrayOfRecord {
    struct ns__Record **__ptr;
    int __size;
};

struct ns__getRecordsResponse {
    struct ArrayOfRecord *return_;
};
int ns__getRecords(void *_, struct ns__getRecordsResponse *out);
int ns__putRecords(struct ArrayOfRecord *records, xsd__int *count);
