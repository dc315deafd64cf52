// Handles of the runtime, released at the end of the scope.
#pragma once

#include <memory>

namespace test {

template <auto release>
struct releaser {
    void operator()(auto* handle) const { release(handle); }
};

template <class Handle, auto release>
using held = std::unique_ptr<Handle, releaser<release>>;

}  // namespace test
