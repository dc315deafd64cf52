/// XML reader: a namespace-aware tree of elements read in one go. CDATA, character references and the five named
/// entities are resolved; a DOCTYPE is refused, so nothing is ever expanded. Nesting above 128 levels and texts above
/// 64 MiB are refused; time and memory grow with the text. A tree is read-only: any thread.
#pragma once

#include "core/api.h"

/// An element, or the namespace declaration that roxml_get_ns() returns.
struct node;

/// Reads a NUL-terminated text. @return the document, whose only child is the root element; null when it is not
/// well-formed. Release with roxml_close().
INET_API node* roxml_load_buf(const char* text) noexcept;

/// As above for a text of `size` bytes, with the reason in `error` ("line:column: reason") when it is refused.
INET_API node* roxml_load(const char* text, unsigned size, char* error, unsigned error_size) noexcept;

/// Releases the whole tree that a node belongs to; null is ignored.
INET_API void roxml_close(node* n) noexcept;

/// First child element with that local name (the prefix is ignored); with a null name the nth child, from 0. Null when
/// absent.
INET_API node* roxml_get_chld(node* n, const char* name, int nth) noexcept;

/// Child elements; 0 for null.
INET_API int roxml_get_chld_nb(node* n) noexcept;

/// Local name of an element, into `buf` (cut, always terminated) or, with a null `buf`, as the tree's own text.
/// @return the text; null for null and for the document.
INET_API const char* roxml_get_name(node* n, char* buf, int size) noexcept;

/// Text inside an element, its own CDATA and character data joined, entities resolved; for a namespace declaration its
/// URI. @param len receives the length; may be null. @return as roxml_get_name(); null when there is no text.
INET_API const char* roxml_get_content(node* n, char* buf, int size, int* len) noexcept;

/// The namespace declaration in force for an element's own name, or null.
INET_API node* roxml_get_ns(node* n) noexcept;

/// The declaration as roxml_get_ns() finds it, its URI copied into `buf` when that is given.
INET_API node* roxml_get_content_ns(node* n, char* buf, int size) noexcept;

/// Value of an attribute by local name, or null.
INET_API const char* roxml_get_attr(node* n, const char* name) noexcept;

/// Next sibling element, or null.
INET_API node* roxml_get_next_sibling(node* n) noexcept;
