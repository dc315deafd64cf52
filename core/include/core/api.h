/// Macros of all libraries: INET_API exports, INET_PLUGIN exports from a module, INET_PRINTF checks a format, CORE_HERE
/// names the line of a call.
#pragma once

#if defined(_WIN32) && defined(INET_SHARED_BUILD)
#define INET_API __declspec(dllexport)
#elif defined(_WIN32) && defined(INET_SHARED)
#define INET_API __declspec(dllimport)
#elif defined(_WIN32)
#define INET_API
#else
/// Marks a function or class as part of the exported interface; everything else stays inside the shared library.
#define INET_API __attribute__((visibility("default")))
#endif

#if defined(_WIN32)
#define INET_PLUGIN extern "C" __declspec(dllexport)
#else
/// Marks a function that a module of a graph (inet/net_graph.h) exports by its plain name.
#define INET_PLUGIN extern "C" __attribute__((visibility("default")))
#endif

#if defined(__MINGW32__)
#define INET_PRINTF(text, first) [[gnu::format(gnu_printf, text, first)]]
#elif defined(__GNUC__)
/// Lets the compiler check a call's arguments against its format. `text` is the position of the format, `first` that of
/// the first argument to check (0 for a va_list). Positions count from 1.
#define INET_PRINTF(text, first) [[gnu::format(printf, text, first)]]
#else
#define INET_PRINTF(text, first)
#endif

/// File and line of the caller: the last two arguments of every call that allocates on the caller's behalf.
#define CORE_HERE __FILE__, __LINE__
