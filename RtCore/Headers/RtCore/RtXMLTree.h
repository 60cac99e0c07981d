/* RtXMLTree.h: XML documents read into a tree of nodes.
 *
 * A tree is a position (RtTreeRef) holding one node (RtXMLNodeRef); the document node is at
 * the root. Trees are built from expat events. No external entity, external DTD or file is
 * ever read. Documents nested deeper than kRtXMLTreeMaxDepth elements fail with an error. */
#ifndef RTCORE_RTXMLTREE_H
#define RTCORE_RTXMLTREE_H

#include <RtCore/RtBase.h>
#include <RtCore/RtString.h>

RT_EXTERN_C_BEGIN

typedef struct __RtTree *RtTreeRef;
typedef const struct __RtXMLNode *RtXMLNodeRef;
typedef const struct __RtURL *RtURLRef;

typedef enum {
    kRtXMLNodeTypeDocument = 1,
    kRtXMLNodeTypeElement = 2,
    kRtXMLNodeTypeAttribute = 3,
    kRtXMLNodeTypeProcessingInstruction = 4,
    kRtXMLNodeTypeComment = 5,
    kRtXMLNodeTypeText = 6,
    kRtXMLNodeTypeCDATASection = 7,
    kRtXMLNodeTypeDocumentFragment = 8,
    kRtXMLNodeTypeEntity = 9,
    kRtXMLNodeTypeEntityReference = 10,
    kRtXMLNodeTypeDocumentType = 11,
    kRtXMLNodeTypeWhitespace = 12,
    kRtXMLNodeTypeNotation = 13,
    kRtXMLNodeTypeElementTypeDeclaration = 14,
    kRtXMLNodeTypeAttributeListDeclaration = 15
} RtXMLNodeTypeCode;

/* The info record of an element node. */
typedef struct {
    RtDictionaryRef attributes; /* attribute name -> value string */
    RtArrayRef attributeOrder;  /* attribute names in document order */
    bool isEmpty;               /* true only for an element written <x/> */
    char _reserved[3];
} RtXMLElementInfo;

/* Parser options. */
enum {
    kRtXMLParserNoOptions = 0,
    kRtXMLParserValidateDocument = 1,
    kRtXMLParserSkipMetaData = 2,
    kRtXMLParserReplacePhysicalEntities = 4,
    kRtXMLParserSkipWhitespace = 8,           /* whitespace-only text is dropped */
    kRtXMLParserResolveExternalEntities = 16, /* accepted and ignored: never resolved */
    kRtXMLParserAddImpliedAttributes = 32,
    kRtXMLParserAllOptions = 0x00FFFFFF
};

/* Element nesting beyond this depth makes the parse fail (the document element is depth 1). */
#define kRtXMLTreeMaxDepth 512
/* A document type declaration may declare at most this many entities (general and parameter
 * together); one more makes the parse fail. Bounds how deeply entity expansions can nest. */
#define kRtXMLTreeMaxEntityDeclarations 128

/* Keys of the error dictionary. */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorDescription; /* string, readable English */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLineNumber;  /* number, 1-based */
/* number: byte offset of the error from the start of the data (of the UTF-8 text when the
 * document was transcoded from a charset expat does not read itself) */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLocation;
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorStatusCode; /* number, see below */

/* Status codes: expat's error numbers (1 out of memory, 2 syntax error, 3 no element found,
 * 4 not well-formed, 7 mismatched tag, 18 unknown encoding, 21 external entity reference, ...)
 * and these failures of the reader's own: */
enum {
    kRtXMLTreeStatusNestingTooDeep = 1001,        /* more than kRtXMLTreeMaxDepth levels */
    kRtXMLTreeStatusTooManyEntities = 1002,       /* more than kRtXMLTreeMaxEntityDeclarations */
    kRtXMLTreeStatusInvalidBytesForCharset = 1003 /* bytes not valid in the document's charset */
};

/* Builds the tree of an XML document. The document's declared encoding decides (UTF-8 when
 * none; UTF-16 and UTF-32 with a byte-order mark); UTF-8, UTF-16, ISO-8859-1 and US-ASCII are
 * read by expat itself, any other charset ICU knows is transcoded to UTF-8 first.
 * NULL on error; errorDict (may be NULL) then receives a new dictionary the caller releases
 * (and NULL on success). NULL or empty data is an error ("no element found").
 * sourceURL is ignored; versionOfNodes is what RtXMLNodeGetVersion reports.
 *
 * The tree holds: the document node at the root; elements (names with their prefixes as
 * written: namespaces are not processed and xmlns attributes are ordinary attributes); text
 * (adjacent character data and character references merged into one node; whitespace-only
 * text is dropped under kRtXMLParserSkipWhitespace and kept as a text node otherwise); CDATA
 * sections; comments; processing instructions; the five predefined entity references as
 * entity-reference nodes named "amp", "lt", "gt", "quot" and "apos" (inside the replacement
 * text of a declared entity they are text); a document-type node named after the root element
 * unless kRtXMLParserSkipMetaData is set. Attributes defaulted by the internal DTD subset appear
 * only under kRtXMLParserAddImpliedAttributes.
 *
 * Safety: no file, URL, external DTD or external entity is ever read; a reference to an
 * external entity in content fails with status 21. Entity expansion is bounded by expat's
 * amplification limits and kRtXMLTreeMaxEntityDeclarations; nesting by kRtXMLTreeMaxDepth.
 * Building and freeing never recurse, and memory stays proportional to the input. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataWithError(RtAllocatorRef alloc, RtDataRef xmlData,
                                                     RtURLRef sourceURL, RtOptionFlags parseOptions,
                                                     RtIndex versionOfNodes, RtDictionaryRef *errorDict);
/* As above, but encoding (when not kRtStringEncodingInvalidId) overrides the declaration. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataWithEncoding(RtAllocatorRef alloc, RtDataRef xmlData,
                                                        RtStringEncoding encoding, RtOptionFlags parseOptions,
                                                        RtDictionaryRef *errorDict);
RT_EXPORT RtTreeRef RtXMLTreeCreateFromData(RtAllocatorRef alloc, RtDataRef xmlData, RtURLRef sourceURL,
                                            RtOptionFlags parseOptions, RtIndex versionOfNodes);

/* Reading a large document without holding all of it. While the document is parsed, each
 * element at depth `depth` (the document node is 0, its root element 1) is offered to
 * shouldDrain just before its first child is added (its ancestors and everything before it in
 * the document are then in place and may be read). Of the first element accepted, every child
 * is passed to consume once it is complete (when the next child begins or the element ends;
 * whitespace the options drop is no child), in document order, and is then taken out of the
 * tree: its nodes' memory serves the next child. During consume the child is a complete
 * subtree linked to its ancestors; it and its nodes may be read but must not be kept or
 * retained past the call (strings read from it may be retained). The tree returned lacks the
 * drained children (the element reports none); everything else is as RtXMLTreeCreateFromData-
 * WithError builds it, and a document that fails to parse returns NULL the same way, whatever
 * consume has seen. consume must not call back into the reader. Used by readers that turn a
 * long list into values one item at a time. */
typedef struct {
    RtIndex depth;
    bool (*shouldDrain)(RtTreeRef element, void *info);
    void (*consume)(RtTreeRef child, void *info);
    void *info;
} RtXMLTreeDrainContext;
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataDraining(RtAllocatorRef alloc, RtDataRef xmlData,
                                                    RtOptionFlags parseOptions, RtIndex versionOfNodes,
                                                    const RtXMLTreeDrainContext *drain,
                                                    RtDictionaryRef *errorDict);

/* Navigation. Trees are runtime objects; children are owned by their parent and the results
 * here are borrowed. Every position and node of one document shares the document's reference
 * count: retaining a subtree or a node keeps the whole document alive (RtGetRetainCount reports
 * the document's count). A finished tree is immutable and may be read from several threads.
 * NULL arguments give NULL (or 0). Child counts are stored; RtTreeGetChildAtIndex walks the
 * siblings (iterate with RtTreeGetFirstChild and RtTreeGetNextSibling). */
RT_EXPORT RtTypeID RtTreeGetTypeID(void);
RT_EXPORT RtTreeRef RtTreeGetParent(RtTreeRef tree);
RT_EXPORT RtTreeRef RtTreeGetFirstChild(RtTreeRef tree);
RT_EXPORT RtTreeRef RtTreeGetNextSibling(RtTreeRef tree);
RT_EXPORT RtIndex RtTreeGetChildCount(RtTreeRef tree);
RT_EXPORT RtTreeRef RtTreeGetChildAtIndex(RtTreeRef tree, RtIndex idx);

/* Nodes. */
RT_EXPORT RtTypeID RtXMLNodeGetTypeID(void);
RT_EXPORT RtXMLNodeRef RtXMLTreeGetNode(RtTreeRef tree);
RT_EXPORT RtXMLNodeTypeCode RtXMLNodeGetTypeCode(RtXMLNodeRef node);
/* Element: tag name with prefix; text/CDATA/comment: the text; entity reference: its name
 * ("amp"); processing instruction: the target; document: NULL. Borrowed. */
RT_EXPORT RtStringRef RtXMLNodeGetString(RtXMLNodeRef node);
/* Element: an RtXMLElementInfo*; processing instruction: its data as RtStringRef* (may
 * point to NULL); others NULL. */
RT_EXPORT const void *RtXMLNodeGetInfoPtr(RtXMLNodeRef node);
RT_EXPORT RtIndex RtXMLNodeGetVersion(RtXMLNodeRef node);

RT_EXTERN_C_END

#endif
