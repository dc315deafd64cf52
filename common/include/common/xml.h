/// XML reader (XML 1.0, Namespaces in XML 1.0): a namespace-aware tree of elements read in one go. CDATA, character
/// references and the five named entities are resolved, line ends made one (section 2.11), comments and processing
/// instructions skipped. A DOCTYPE is refused, so nothing is ever expanded. A text must be UTF-8, with or without a
/// byte order mark. Refused are texts above 64 MiB, nesting above 128 levels, more than 256 attributes on an element
/// and more than 256 namespaces in force at once. Time grows with the text; a tree takes at most 24 times the bytes of
/// its text and a block of up to 1 MiB. A tree is read-only: any thread.
#pragma once

#include "core/api.h"

/// The document, an element, or the namespace declaration that roxml_get_ns() returns.
struct node;

/// Reads a NUL-terminated text. @return the document, whose only child is the root element; null when it is not
/// well-formed or memory is out. Release with roxml_close().
INET_API node* roxml_load_buf(const char* text) noexcept;

/// As above for a text of `size` bytes, with the reason in `error` when it is refused: "line:column: reason", or "out
/// of memory"; cut to `error_size`. `error` may be null.
INET_API node* roxml_load(const char* text, unsigned size, char* error, unsigned error_size) noexcept;

/// Releases the whole tree that a node belongs to; null is ignored.
INET_API void roxml_close(node* n) noexcept;

/// First child element with that local name (the prefix is ignored); with a null name the nth child, from 0, as quick
/// for the last as for the first. Null when absent.
INET_API node* roxml_get_chld(node* n, const char* name, int nth) noexcept;

/// Child elements; 0 for null.
INET_API int roxml_get_chld_nb(node* n) noexcept;

/// Local name of an element, for a namespace declaration its prefix ("" for the default namespace). It goes into `buf`
/// (cut to `size` bytes at a whole character, always terminated) or, with a null `buf`, is the tree's own text.
/// @return the text; null for null, for the document, and for a `buf` without room for the terminator.
INET_API const char* roxml_get_name(node* n, char* buf, int size) noexcept;

/// Text inside an element, its own CDATA and character data joined, blanks kept; for a namespace declaration its URI.
/// @param len receives the length of what is returned, 0 for null; may be null. @return as roxml_get_name(); null when
/// there is no text.
INET_API const char* roxml_get_content(node* n, char* buf, int size, int* len) noexcept;

/// The namespace declaration in force for an element's own name, or null when the name is in no namespace.
INET_API node* roxml_get_ns(node* n) noexcept;

/// The declaration as roxml_get_ns() finds it, its URI copied into `buf` as roxml_get_content() does when that is
/// given. Without a declaration `buf` becomes empty.
INET_API node* roxml_get_content_ns(node* n, char* buf, int size) noexcept;

/// Value of the first attribute with that local name, or null. Namespace declarations are no attributes.
INET_API const char* roxml_get_attr(node* n, const char* name) noexcept;

/// Next sibling element, or null.
INET_API node* roxml_get_next_sibling(node* n) noexcept;
