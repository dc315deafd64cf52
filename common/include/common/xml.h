/// XML reader (XML 1.0, Namespaces in XML 1.0), and text that is written into XML. A text becomes a tree of elements
/// with namespaces. CDATA, character references and the five named entities are resolved. Line ends are normalized
/// (section 2.11). Comments and processing instructions are skipped. A DOCTYPE is refused, so nothing is expanded. A
/// text must be UTF-8, with or without a byte order mark. Reading takes time linear in the text. A tree is read-only:
/// any thread may use it.
///
/// Bounds (a text above one is refused):
///     text        64 MiB
///     nesting     128 levels
///     attributes  256 on an element
///     namespaces  256 in force at once
/// A tree takes at most 24 times the bytes of its text and a block of up to 1 MiB.
#pragma once

#include "core/api.h"

/// The document, an element, or the namespace declaration that roxml_get_ns() returns.
struct node;

/// Reads a NUL-terminated text. Two faults of messages of WS-Discovery are taken: blanks before the XML declaration,
/// and prefixes that were nowhere declared; what carries one is in no namespace.
/// @return the document, whose only child is the root element; null when it is not well-formed or memory is out.
/// Release with roxml_close().
INET_API node* roxml_load_buf(const char* text) noexcept;

/// As roxml_load_buf(), for a text of `size` bytes whose prefixes are all declared. A refused text puts
/// "line:column: reason" or "out of memory" into `error`, cut to `error_size`. `error` may be null.
INET_API node* roxml_load(const char* text, unsigned size, char* error, unsigned error_size) noexcept;

/// Releases the whole tree that a node belongs to; null is ignored.
INET_API void roxml_close(node* n) noexcept;

/// First child element with that local name (the prefix is ignored). With a null name it is the nth child, from 0;
/// every n takes the same time. Null when absent.
INET_API node* roxml_get_chld(node* n, const char* name, int nth) noexcept;

/// Child elements; 0 for null.
INET_API int roxml_get_chld_nb(node* n) noexcept;

/// Local name of an element, or prefix of a namespace declaration ("" for the default namespace). It is copied into
/// `buf`, cut to `size` bytes at a whole character, always terminated. With a null `buf` the result is the tree's own
/// text, valid until roxml_close().
/// @return the text; null for null, for the document, and for a `buf` without room for the terminator.
INET_API const char* roxml_get_name(node* n, char* buf, int size) noexcept;

/// Text inside an element, or URI of a namespace declaration. The text is the element's own CDATA and character data,
/// joined. Blanks are kept.
/// @param len receives the length of what is returned, 0 for null; may be null. @return as roxml_get_name(); null when
/// there is no text.
INET_API const char* roxml_get_content(node* n, char* buf, int size, int* len) noexcept;

/// The namespace declaration in force for an element's own name, or null when the name is in no namespace.
INET_API node* roxml_get_ns(node* n) noexcept;

/// The node whose text roxml_get_content() gives, which is the element itself; null for null. The URI of its namespace
/// is copied into `buf`, unless `buf` is null, as roxml_get_content() does. Without a namespace `buf` becomes empty.
INET_API node* roxml_get_content_ns(node* n, char* buf, int size) noexcept;

/// Value of the first attribute with that local name, or null. Namespace declarations are no attributes.
INET_API const char* roxml_get_attr(node* n, const char* name) noexcept;

/// Next sibling element, or null.
INET_API node* roxml_get_next_sibling(node* n) noexcept;

/// A text as it can stand between tags and between quotation marks, so that a reader reads the same. References stand
/// for & < > " ' and for tab, LF and CR. U+FFFD stands for a byte that is not UTF-8, and for a character that XML does
/// not have.
/// @return a new text for core_mfree(), at most six times as long; null for null and when memory is out
INET_API char* xml_encode(const char* text, const char* file, int line) noexcept;
