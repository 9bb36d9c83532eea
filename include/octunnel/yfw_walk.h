/*
 * The walk protocol: what every walker of a request tree does to the nodes
 * and the state it shares with the walkers it calls, whichever side of the
 * framework it stands on.  The module's walk engine follows it, and so does
 * a walker of the framework that hands a node to the module in the middle
 * of a walk (the reference host's /interfaces root): both have to agree on
 * it exactly, or the module would see a node half put aside.
 *
 * - A node's request children are `subtrees` and `subtree_count` only while
 *   YFW_PRESENT_SUBTREES is set; without it the node counts as childless.
 * - For a schema walk, schema_walk is 1; only the walker that set it clears
 *   it.  A walker that puts a node's children aside for the length of a
 *   schema walk parks them on the instance stack first, so that the
 *   framework still finds them (a key, for instance), and takes them back
 *   exactly as they were.
 * - A deletion (op DELETE) is walked by its schema as a removal (op REMOVE),
 *   and the client's delete is put back on the node afterwards.
 * - op is always written together with YFW_PRESENT_OP.
 *
 * C++ only, and header-only: the module and the framework each compile it
 * into themselves and share no code through it.  Nothing here allocates.
 */
#ifndef OCTUNNEL_YFW_WALK_H
#define OCTUNNEL_YFW_WALK_H

#include "octunnel/yfw_framework.h"

namespace yfw {

/* Writes `op` with its presence bit. */
inline void set_op(vidl_yfw_datatree *n, uint32_t op)
{
    n->op = op;
    n->present |= YFW_PRESENT_OP;
}

/* True when `n` carries `op` (its presence bit set). */
inline bool has_op(const vidl_yfw_datatree *n, uint32_t op)
{
    return (n->present & YFW_PRESENT_OP) != 0 && n->op == op;
}

/* The request's children of a node. */
struct children {
    vidl_yfw_datatree *array = nullptr;
    uint32_t count = 0;
};

/* The children of `in` into `c`: none without YFW_PRESENT_SUBTREES, whatever
 * the two fields hold.  False for a broken node, a count without an array;
 * `c` then holds the count and a null array. */
inline bool fetch_children(const vidl_yfw_datatree *in, children &c)
{
    if ((in->present & YFW_PRESENT_SUBTREES) == 0)
        return true;
    c.array = in->subtrees;
    c.count = in->subtree_count;
    return c.array != nullptr || c.count == 0;
}

/* A node's three fields of its children, as they were before a detachment. */
struct detached {
    vidl_yfw_datatree *subtrees;
    uint32_t subtree_count;
    bool present;
};

/* Puts the children of `n` aside: `subtrees` null, `subtree_count` 0,
 * YFW_PRESENT_SUBTREES clear.  Returns what reattach() puts back. */
inline detached detach(vidl_yfw_datatree *n)
{
    detached d{n->subtrees, n->subtree_count, (n->present & YFW_PRESENT_SUBTREES) != 0};
    n->subtrees = nullptr;
    n->subtree_count = 0;
    n->present &= ~YFW_PRESENT_SUBTREES;
    return d;
}

/* Puts back exactly what detach() took from `n`. */
inline void reattach(vidl_yfw_datatree *n, const detached &d)
{
    n->subtrees = d.subtrees;
    n->subtree_count = d.subtree_count;
    if (d.present)
        n->present |= YFW_PRESENT_SUBTREES;
}

/* schema_walk is 1 for the life of the guard; only a guard that found it
 * clear clears it again. */
class schema_walk_guard {
public:
    explicit schema_walk_guard(yfw_map_state *st) : st_(st), owned_(st->schema_walk != 1)
    {
        st_->schema_walk = 1;
    }
    ~schema_walk_guard()
    {
        if (owned_)
            st_->schema_walk = 0;
    }
    schema_walk_guard(const schema_walk_guard &) = delete;
    schema_walk_guard &operator=(const schema_walk_guard &) = delete;

private:
    yfw_map_state *st_;
    bool owned_;
};

/* The children of `n` parked for the life of the guard: pushed on the
 * instance stack (with no handler), then detached; on the way out put back,
 * then popped. */
class parked_children {
public:
    parked_children(yfw_map_ctx ctx, vidl_yfw_datatree *n) : ctx_(ctx), n_(n)
    {
        yfw_map_util_itree_stack_push(ctx, n->subtrees, n->subtree_count, nullptr);
        kept_ = detach(n);
    }
    ~parked_children()
    {
        reattach(n_, kept_);
        yfw_map_util_itree_stack_pop(ctx_);
    }
    parked_children(const parked_children &) = delete;
    parked_children &operator=(const parked_children &) = delete;

private:
    yfw_map_ctx ctx_;
    vidl_yfw_datatree *n_;
    detached kept_;
};

/* A deleted node as its schema walk sees it: a node with op DELETE reads
 * REMOVE until restore() or the end of the guard, which put DELETE back.
 * Any other node, or one for which `applies` is false, is left alone. */
class removal_view {
public:
    explicit removal_view(vidl_yfw_datatree *n, bool applies = true)
        : n_(n), was_delete_(applies && has_op(n, YFW_OP_DELETE))
    {
        if (was_delete_)
            set_op(n_, YFW_OP_REMOVE);
    }
    ~removal_view() { restore(); }
    removal_view(const removal_view &) = delete;
    removal_view &operator=(const removal_view &) = delete;

    /* Puts the delete back now, where the schema walk goes on beyond what
     * the removal is for. */
    void restore()
    {
        if (was_delete_)
            set_op(n_, YFW_OP_DELETE);
        was_delete_ = false;
    }

private:
    vidl_yfw_datatree *n_;
    bool was_delete_;
};

} /* namespace yfw */

#endif
