// The operations a module imports are C functions: no C++ exception may
// leave them.  One that unwound through the module would skip what its
// walkers put back on the way out (op, subtrees, walk flags), and the
// module has no way to catch it.  Each operation's body runs here instead,
// and a failure of the host itself (out of memory, in practice) becomes an
// answer the module understands.
#pragma once

#include "yfwhost/host.h"

namespace yfwhost {

// The body's result, or `failed` when it throws.
template <typename R, typename F> R c_boundary(R failed, F &&body) noexcept
{
    try {
        return body();
    } catch (...) {
        return failed;
    }
}

// For an operation that answers nothing: a failure is dropped.
template <typename F> void c_boundary(F &&body) noexcept
{
    try {
        body();
    } catch (...) {
    }
}

} // namespace yfwhost
