/** @file
 * @ingroup RtCore
 * @brief XML documents read into a tree of nodes.
 *
 * A tree is a position (RtTreeRef) holding one node (RtXMLNodeRef); the document node is at
 * the root. Trees are built from expat events. No external entity, external DTD or file is
 * ever read. Documents nested deeper than kRtXMLTreeMaxDepth elements fail with an error. */
#ifndef RTCORE_RTXMLTREE_H
#define RTCORE_RTXMLTREE_H

#include <RtCore/RtBase.h>
#include <RtCore/RtString.h>

RT_EXTERN_C_BEGIN

/** @addtogroup RtCore
 * @{ */

/** A position in a parsed document, holding one node; the document node is at the root. */
typedef struct __RtTree *RtTreeRef;
/** One node of a parsed document: its kind, text and element information. */
typedef const struct __RtXMLNode *RtXMLNodeRef;
/** An immutable URL (declared again from RtURL.h). */
typedef const struct __RtURL *RtURLRef;

/** The kind of a node. The reader makes documents, elements, processing instructions, comments,
 * text, CDATA sections, entity references and document types; the other kinds are never made. */
typedef enum {
    kRtXMLNodeTypeDocument = 1,                 ///< The document (the root of every tree).
    kRtXMLNodeTypeElement = 2,                  ///< An element; info is an RtXMLElementInfo.
    kRtXMLNodeTypeAttribute = 3,                ///< Not made (attributes are in RtXMLElementInfo).
    kRtXMLNodeTypeProcessingInstruction = 4,    ///< A processing instruction (string: the target).
    kRtXMLNodeTypeComment = 5,                  ///< A comment (string: its text).
    kRtXMLNodeTypeText = 6,                     ///< Character data (string: the text).
    kRtXMLNodeTypeCDATASection = 7,             ///< A CDATA section (string: its text).
    kRtXMLNodeTypeDocumentFragment = 8,         ///< Not made.
    kRtXMLNodeTypeEntity = 9,                   ///< Not made.
    kRtXMLNodeTypeEntityReference = 10,         ///< A predefined entity reference (string: "amp"...).
    kRtXMLNodeTypeDocumentType = 11,            ///< The document type (string: the root element name).
    kRtXMLNodeTypeWhitespace = 12,              ///< Not made (white space is text).
    kRtXMLNodeTypeNotation = 13,                ///< Not made.
    kRtXMLNodeTypeElementTypeDeclaration = 14,  ///< Not made.
    kRtXMLNodeTypeAttributeListDeclaration = 15 ///< Not made.
} RtXMLNodeTypeCode;

/** The info record of an element node (RtXMLNodeGetInfoPtr()); borrowed from the node. */
typedef struct {
    RtDictionaryRef attributes; ///< Attribute name -> value string.
    RtArrayRef attributeOrder;  ///< Attribute names in document order.
    bool isEmpty;               ///< True only for an element written `<x/>`.
    char _reserved[3];          ///< Unused.
} RtXMLElementInfo;

/** Parser options (bits of RtOptionFlags). */
enum {
    kRtXMLParserNoOptions = 0,                ///< None.
    kRtXMLParserValidateDocument = 1,         ///< Accepted and ignored: no validation.
    kRtXMLParserSkipMetaData = 2,             ///< Leave out the document-type node.
    kRtXMLParserReplacePhysicalEntities = 4,  ///< Accepted and ignored.
    kRtXMLParserSkipWhitespace = 8,           ///< Whitespace-only text is dropped.
    kRtXMLParserResolveExternalEntities = 16, ///< Accepted and ignored: never resolved.
    kRtXMLParserAddImpliedAttributes = 32,    ///< Add attributes defaulted by the internal DTD subset.
    kRtXMLParserAllOptions = 0x00FFFFFF,      ///< Every option.
    /** With kRtXMLParserSkipWhitespace: whitespace-only text that is the whole content of an
     *  element is kept when it holds no line break or comes from a character reference
     *  ("<s> </s>", "<s>&#10;</s>"); indentation between tags is dropped as before. Outside
     *  kRtXMLParserAllOptions, so only a caller that names it gets it. */
    kRtXMLParserKeepContentWhitespace = 0x01000000
};

/** Element nesting beyond this depth makes the parse fail (the document element is depth 1). */
#define kRtXMLTreeMaxDepth 512
/** A document type declaration may declare at most this many entities (general and parameter
 * together); one more makes the parse fail. Bounds how deeply entity expansions can nest. */
#define kRtXMLTreeMaxEntityDeclarations 128

/** Error-dictionary key: a readable English description (string). */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorDescription;
/** Error-dictionary key: the line of the error, 1-based (number). */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLineNumber;
/** Error-dictionary key, number: byte offset of the error from the start of the data (of the UTF-8 text when
 * the document was transcoded from a charset expat does not read itself) */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorLocation;
/** Error-dictionary key: the status code (number): expat's error numbers (1 out of memory,
 * 2 syntax error, 3 no element found, 4 not well-formed, 7 mismatched tag, 18 unknown encoding,
 * 21 external entity reference, ...) or one of the kRtXMLTreeStatus... codes. */
RT_EXPORT extern const RtStringRef kRtXMLTreeErrorStatusCode;

/** Status codes of the reader's own failures (beside expat's error numbers). */
enum {
    kRtXMLTreeStatusNestingTooDeep = 1001,        ///< More than kRtXMLTreeMaxDepth levels.
    kRtXMLTreeStatusTooManyEntities = 1002,       ///< More than kRtXMLTreeMaxEntityDeclarations.
    kRtXMLTreeStatusInvalidBytesForCharset = 1003 ///< Bytes not valid in the document's charset.
};

/** Builds the tree of an XML document. The document's declared encoding decides (UTF-8 when
 * none; UTF-16 and UTF-32 with a byte-order mark); UTF-8, UTF-16, ISO-8859-1 and US-ASCII are
 * read by expat itself, any other charset ICU knows is transcoded to UTF-8 first.
 * Returns the document's tree, which the caller releases.
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
/** As RtXMLTreeCreateFromDataWithError(), but encoding (when not kRtStringEncodingInvalidId) overrides the
 * declaration. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataWithEncoding(RtAllocatorRef alloc, RtDataRef xmlData,
                                                        RtStringEncoding encoding, RtOptionFlags parseOptions,
                                                        RtDictionaryRef *errorDict);
/** As RtXMLTreeCreateFromDataWithError() without the error dictionary. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromData(RtAllocatorRef alloc, RtDataRef xmlData, RtURLRef sourceURL,
                                            RtOptionFlags parseOptions, RtIndex versionOfNodes);

/** Reading a large document without holding all of it (RtXMLTreeCreateFromDataDraining()). While the document
 * is parsed, each element at depth `depth` (the document node is 0, its root element 1) is offered to
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
    RtIndex depth;                                      ///< The depth of the element to drain.
    bool (*shouldDrain)(RtTreeRef element, void *info); ///< True to drain this element's children.
    void (*consume)(RtTreeRef child, void *info);       ///< Receives each complete child.
    void *info;                                         ///< Passed to both callbacks.
} RtXMLTreeDrainContext;
/** Builds the tree of @p xmlData as RtXMLTreeCreateFromDataWithError() does, passing the children
 * of one element to @p drain as they complete (see RtXMLTreeDrainContext). NULL @p drain builds
 * the whole tree. Caller releases the result. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataDraining(RtAllocatorRef alloc, RtDataRef xmlData,
                                                    RtOptionFlags parseOptions, RtIndex versionOfNodes,
                                                    const RtXMLTreeDrainContext *drain,
                                                    RtDictionaryRef *errorDict);

/** Reading a document while it is parsed, keeping only what a reader still needs. Every element
 * is offered to accept just before its first child is added (its ancestors and everything before
 * it in the document are in place and may be read). Each child of an accepted element is offered
 * to consume once it is complete (when the next child begins or the element ends), in document
 * order; when consume returns true the child is taken out of the tree and its nodes' memory
 * serves what follows, when it returns false the child stays. Accepted elements may nest (an
 * element inside a child of another accepted element may be accepted too). During consume the
 * child is a complete subtree linked to its ancestors; a child taken out must not be kept or
 * retained past the call (strings read from it may be retained), a child left in stays valid
 * with the document. The tree returned lacks the children taken out (an element counts only the
 * children it kept); everything else is as RtXMLTreeCreateFromDataWithError builds it, and a
 * document that fails to parse returns NULL the same way, whatever consume has seen. Neither
 * callback may call back into the reader. */
typedef struct {
    bool (*accept)(RtTreeRef element, void *info); /**< whether element's children are offered */
    bool (*consume)(RtTreeRef child, void *info);  /**< true takes the complete child out */
    void *info;                                    /**< handed to both callbacks */
} RtXMLTreeStreamContext;
/** As RtXMLTreeCreateFromDataWithError, offering children to stream as described above; a NULL
 * stream (or one without both callbacks) builds the whole tree. */
RT_EXPORT RtTreeRef RtXMLTreeCreateFromDataStreaming(RtAllocatorRef alloc, RtDataRef xmlData,
                                                     RtOptionFlags parseOptions, RtIndex versionOfNodes,
                                                     const RtXMLTreeStreamContext *stream,
                                                     RtDictionaryRef *errorDict);

/** @name Navigation
 * Trees are runtime objects; children are owned by their parent and the results
 * here are borrowed. Every position and node of one document shares the document's reference
 * count: retaining a subtree or a node keeps the whole document alive (RtGetRetainCount reports
 * the document's count). A finished tree is immutable and may be read from several threads.
 * NULL arguments give NULL (or 0). Child counts are stored; RtTreeGetChildAtIndex walks the
 * siblings (iterate with RtTreeGetFirstChild and RtTreeGetNextSibling).
 * @{ */
/** The runtime type of tree positions. */
RT_EXPORT RtTypeID RtTreeGetTypeID(void);
/** The parent position (borrowed), or NULL at the root. */
RT_EXPORT RtTreeRef RtTreeGetParent(RtTreeRef tree);
/** The first child (borrowed), or NULL when there is none. */
RT_EXPORT RtTreeRef RtTreeGetFirstChild(RtTreeRef tree);
/** The next sibling (borrowed), or NULL after the last child. */
RT_EXPORT RtTreeRef RtTreeGetNextSibling(RtTreeRef tree);
/** The number of children (stored; constant time). */
RT_EXPORT RtIndex RtTreeGetChildCount(RtTreeRef tree);
/** The child at @p idx (borrowed), or NULL when out of range; walks the siblings, so loops should
 * use RtTreeGetFirstChild() and RtTreeGetNextSibling(). */
RT_EXPORT RtTreeRef RtTreeGetChildAtIndex(RtTreeRef tree, RtIndex idx);

/** The runtime type of nodes. */
RT_EXPORT RtTypeID RtXMLNodeGetTypeID(void);
/** The node at a position (borrowed; shares the document's reference count). */
RT_EXPORT RtXMLNodeRef RtXMLTreeGetNode(RtTreeRef tree);
/** The node's kind; 0 for NULL. */
RT_EXPORT RtXMLNodeTypeCode RtXMLNodeGetTypeCode(RtXMLNodeRef node);
/** Element: tag name with prefix; text/CDATA/comment: the text; entity reference: its name
 * ("amp"); processing instruction: the target; document: NULL. Borrowed. */
RT_EXPORT RtStringRef RtXMLNodeGetString(RtXMLNodeRef node);
/** Element: an RtXMLElementInfo* (borrowed); processing instruction: its data as RtStringRef* (may
 * point to NULL); others NULL. */
RT_EXPORT const void *RtXMLNodeGetInfoPtr(RtXMLNodeRef node);
/** The versionOfNodes the tree was built with. */
RT_EXPORT RtIndex RtXMLNodeGetVersion(RtXMLNodeRef node);
/** @} */

/** @} */

RT_EXTERN_C_END

#endif
