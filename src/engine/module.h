// Linkage and frame helpers shared by every source of the mapping module.
#pragma once

#include "octunnel/yfw_framework.h"
#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_trace.h"

// The C library's assertion handler (assert.h declares it only without NDEBUG).
extern "C" [[noreturn]] void __assert_fail(const char *assertion, const char *file,
                                           unsigned int line, const char *function) noexcept;

// Names the framework reaches are exported with C linkage; everything else in
// the module is hidden (the module is built with -fvisibility=hidden).
#define YFW_EXPORT extern "C" __attribute__((visibility("default")))
// Generated functions are weak so that a hand-written definition of the same
// name replaces them for every caller, the generated tables included.
#define YFW_WEAK __attribute__((weak))
// The definition of a name that a model's table declares hand-written
// (`override` in its .ymap row): the generator writes none of its own, and
// declares it protected, as this is, so that a missing definition stops the
// module's link.
#define YFW_OVERRIDE extern "C" __attribute__((visibility("protected")))

// Assertions stay on in every build: a null context is a fault of the caller
// that must stop the process, whatever NDEBUG says.
#define YFW_ASSERT_SIG(expr, signature)                                                            \
    ((expr) ? (void)0 : __assert_fail(#expr, __FILE_NAME__, __LINE__, signature))
#define YFW_ASSERT_CTX() YFW_ASSERT_SIG(((void *)0) != ctx, __PRETTY_FUNCTION__)

namespace yfw {

// The request of `ctx` (never null, nor its map_state and request).
inline yfw_map_request *request(yfw_map_ctx ctx)
{
    return ctx->map_state->request;
}

// True in a read (kind 0 or 10); every other kind writes.
inline bool is_read(yfw_map_ctx ctx)
{
    uint32_t kind = request(ctx)->kind;
    return kind == YFW_MAP_REQ_GET_CONFIG || kind == YFW_MAP_REQ_GET;
}

// The two strings a failure leaves for the framework (error_tag, the node it
// names; error_text, what the client reads) are heap copies that the state
// owns.  Each is replaced the same way: the old copy is released first, so a
// second failure in one request leaves only the newest.  Without map_state
// nothing is recorded.  A null `text` records a null string.
inline void replace_state_string(yfw_map_ctx ctx, char *yfw_map_state::*field, const char *text)
{
    if (ctx->map_state == nullptr)
        return;
    char *&held = ctx->map_state->*field;
    if (held != nullptr) {
        vlos_named_free(held);
        held = nullptr;
    }
    held = yfw_strdup(text, "YFW MAP");
}

inline void set_error_tag(yfw_map_ctx ctx, const char *name)
{
    replace_state_string(ctx, &yfw_map_state::error_tag, name);
}

inline void set_error_text(yfw_map_ctx ctx, const char *text)
{
    replace_state_string(ctx, &yfw_map_state::error_text, text);
}

// A generated handler around one hand-written conversion: the frame of a
// mapping function, and the conversion's result.  `fn` and `to` are never
// null; a null `in` or `out` ends in the invalid-argument exit and `to` is
// not called.  Neither changes `in` itself; `to` may add to `out`.
verrno delegate(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in,
                vidl_yfw_datatree *out, map_function to);
// A function that does nothing but its frame and answers YFW_OK (or the
// invalid-argument exit for a null `in` or `out`).
verrno pass(const char *fn, yfw_map_ctx ctx, const vidl_yfw_datatree *in, vidl_yfw_datatree *out);
// A hook that checks nothing and only traces its End; `ctx` never null.
verrno end_only(const char *fn, yfw_map_ctx ctx);

} // namespace yfw

// The opening of every mapping function: Start, then, for a null `in` or
// `out`, the invalid-argument exit, which returns from the function.
#define YFW_FRAME_START_OR_RETURN(ctx, fn, in, out)                                                \
    do {                                                                                           \
        YFW_TRC(ctx, fn, "Start");                                                                 \
        if ((in) == nullptr || (out) == nullptr)                                                   \
            YFW_RETURN_INVALID_ARGS(ctx, fn);                                                      \
    } while (0)

// Returns from the function for a null `in` or `out`: an ERR, the error
// path and YFW_ERR_INVALID_ARG, no End.
#define YFW_RETURN_INVALID_ARGS(ctx, fn)                                                           \
    do {                                                                                           \
        YFW_ERR(ctx, fn, "Invalid arguments passed!");                                             \
        yfw_oc_error_path(ctx);                                                                    \
        return YFW_ERR_INVALID_ARG;                                                                \
    } while (0)
