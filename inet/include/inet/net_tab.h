/// Registry tables: what the host program tells the library of its tracks, servers and streams. A table is a list of
/// rows, a row is a key and named values. The library only reads them: the host fills them after net_init(), and the
/// last net_free() empties them. Their size is the host's own matter, since nothing from the network is put there.
///
/// Any thread.
#pragma once

#include "core/api.h"
#include "core/value.h"

#include <cstdint>

/// The tables, and the values that the library reads. Numbers are decimal texts.
///     table          key       values
///     tab_tracks     token     of a track that DASH serves (inet/net_dash.h): "id", "key1" to "key4", "width",
///                              "height", "profile" (the profile_idc of its SPS; 0 for not known)
///     tab_sources    source    of the server that holds its archive (inet/net_graph.h): "host", "port", "id"
///     tab_streams    id        of a stream's coding (inet/net_graph.h): "width", "height", "fps", "keyint",
///                              "proportion", "quality"
enum tab_t : uint32_t { tab_tracks = 1, tab_sources = 2, tab_streams = 3 };
inline constexpr uint32_t tab_count = 3;

/// A row. It never changes: tab_put() makes another one. Valid until the call that gives it back.
struct tab_row_t {
    const char* key;
    value_t* const* values;
};

/// net_init() and net_free() call these.
INET_API void tab_init() noexcept;
INET_API void tab_free() noexcept;

/// Puts a row, in the place of the one with that key. Key and values are copied.
/// @return 1; 0 for an unknown table, a null key, or when memory is out: the table is then as before
INET_API int tab_put(uint32_t table, const char* key, value_t* const* values, const char* file, int line) noexcept;

/// Removes a row. @return 1, or 0 when there is none
INET_API int tab_remove(uint32_t table, const char* key) noexcept;

/// The row with exactly that key, or null. Give it back with tab_close().
INET_API const tab_row_t* tab_find(uint32_t table, const char* key) noexcept;
/// Gives the row back and nulls it; null is ignored.
INET_API void tab_close(const tab_row_t*& row) noexcept;

/// All rows in the order in which their keys came, ended by null. @return null when there are none or memory is out.
/// Give them back with tab_close_all().
INET_API const tab_row_t** tab_select(uint32_t table, const char* file, int line) noexcept;
/// Gives the rows back, frees the list and nulls it; null is ignored.
INET_API void tab_close_all(const tab_row_t**& rows) noexcept;
