/// The two macros of the house: what is exported, and where a call stands.
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

/// File and line of the caller: the last two arguments of every call that allocates on the caller's behalf.
#define CORE_HERE __FILE__, __LINE__
