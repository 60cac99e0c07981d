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
    RtDictionaryRef attributes;  /* attribute name -> value string */
    RtArrayRef attributeOrder;   /* attribute names in document order */
    bool isEmpty;                /* true only for an element written <x/> */
    char _reserved[3];
} RtXMLElementInfo;

/* Parser options. */
enum {
    kRtXMLParserNoOptions = 0,
    kRtXMLParserValidateDocument = 1,
    kRtXMLParserSkipMetaData = 2,
    kRtXMLParserReplacePhysicalEntities = 4,
    kRtXMLParserSkipWhitespace = 8, /* whitespace-only text is dropped */
    kRtXMLParserResolveExternalEntities = 16, /* accepted and ignored: never resolved */
    kRtXMLParserAddImpliedAttributes = 32,
    kRtXMLParserAllOptions = 0x00FFFFFF
};

/* Element nesting beyond this depth makes the parse fail. */
#define kRtXMLTreeMaxDepth 512

/* Keys of the error dictionary. */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorDescription; /* string */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLineNumber;  /* number */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLocation;    /* number: byte offset */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorStatusCode;  /* number */

/* Builds the tree of an XML document. The document's declared encoding decides (UTF-8 when
 * none; UTF-16 with a byte-order mark). NULL on error; errorDict (may be NULL) then receives a
 * new dictionary the caller releases. sourceURL and versionOfNodes are informational. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataWithError(RtAllocatorRef alloc, RtDataRef xmlData, RtURLRef sourceURL,
                                                     RtOptionFlags parseOptions, RtIndex versionOfNodes,
                                                     RtDictionaryRef *errorDict);
/* As above, but encoding (when not kRtStringEncodingInvalidId) overrides the declaration. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataWithEncoding(RtAllocatorRef alloc, RtDataRef xmlData,
                                                        RtStringEncoding encoding, RtOptionFlags parseOptions,
                                                        RtDictionaryRef *errorDict);
RT_EXPORT RtTreeRef RtXMLTreeCreateFromData(RtAllocatorRef alloc, RtDataRef xmlData, RtURLRef sourceURL,
                                            RtOptionFlags parseOptions, RtIndex versionOfNodes);

/* Navigation. Trees are runtime objects; children are owned by their parent and the results
 * here are borrowed. Retaining a subtree keeps the whole document alive. */
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
