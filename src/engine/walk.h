// What the walkers of both directions share: the walk protocol (see
// octunnel/yfw_walk.h) and the opening every walker of a container, a list
// or an augment entry begins with.
#pragma once

#include "engine/module.h"
#include "octunnel/yfw_walk.h"

namespace yfw {

// True in a GET (kind 10), the one kind in which `state` data is walked.
inline bool is_get(yfw_map_ctx ctx)
{
    return request(ctx)->kind == YFW_MAP_REQ_GET;
}

} // namespace yfw

// The opening of a walker: its frame (Start; the invalid-argument exit),
// then its node's children into `ch` (a yfw::children), or, for a node with
// a count and no array, ERR "Failed to get subtrees!", End and a return of
// YFW_ERR_NO_SUBTREES.  Nothing has been changed at either exit.
#define YFW_OPEN_WALKER_OR_RETURN(ctx, fn, in, out, ch)                                            \
    do {                                                                                           \
        YFW_FRAME_START_OR_RETURN(ctx, fn, in, out);                                               \
        if (!yfw::fetch_children(in, ch)) {                                                        \
            YFW_ERR(ctx, fn, "Failed to get subtrees!");                                           \
            YFW_TRC(ctx, fn, "End");                                                               \
            return YFW_ERR_NO_SUBTREES;                                                            \
        }                                                                                          \
    } while (0)
