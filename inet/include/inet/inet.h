/// Start and stop of the library, by reference count. Every other call needs a started library.
#pragma once

#include "core/api.h"

/// Starts the library. When it runs already, one more net_free() is needed to stop it. The library is up when the call
/// returns: while another thread's last net_free() is stopping it, the call waits and starts it again. Any thread.
/// @return the version text, at most 31 characters; never null. It belongs to the library and is valid until the
/// process ends.
INET_API const char* net_init() noexcept;

/// Undoes one net_init(). The last one stops the library, and names every socket still open on the error log and the
/// console: "not closed socket: %d". Without a net_init() to undo it does nothing. Any thread.
INET_API void net_free() noexcept;

/// Runs a self-test by its exact name, between a net_init() and a net_free() of its own. "auto" is the only one; null
/// runs it, too. An unknown name runs nothing.
INET_API void dll_test(const char* name) noexcept;
