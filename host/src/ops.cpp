// The framework operations the module imports, as exported C functions.
// Each one finds its Request through the context.
#include "c_boundary.h"
#include "octunnel/yfw_framework.h"
#include "yfwhost/host.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

using yfwhost::c_boundary;
using yfwhost::Request;
using yfwhost::YFW_ERR_HOST_FAILURE;
using yfwhost::YFW_ERR_LEAFREF_MISMATCH;

namespace {

Request &req(yfw_map_ctx ctx)
{
    return *static_cast<Request *>(ctx->fw_private);
}

std::atomic<int> strcpy_budget{-1};

} // namespace

namespace yfwhost {
void fail_strcpy_after(int n)
{
    strcpy_budget = n;
}
} // namespace yfwhost

extern "C" {

int yfw_map_do_these_match(const char *a, const char *b)
{
    return yfwhost::ns_match(a, b) ? 1 : 0;
}

int yfw_map_is_request_delete(const struct vidl_yfw_datatree *node)
{
    return yfwhost::rules::is_request_delete(node) ? 1 : 0;
}

int yfw_map_is_request_add(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node)
{
    return c_boundary(0, [&] { return req(ctx).is_request_add(node) ? 1 : 0; });
}

void yfw_map_add_to_node_hierarchy(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                   int level_kind)
{
    c_boundary([&] { req(ctx).hierarchy_add(node, level_kind); });
}

void yfw_map_remove_from_node_hierarchy(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node)
{
    c_boundary([&] { req(ctx).hierarchy_remove(node); });
}

verrno yfw_map_update_current_list_node(yfw_map_ctx ctx, const char *list_path)
{
    return c_boundary(YFW_ERR_HOST_FAILURE,
                      [&] { return req(ctx).update_current_list_node(list_path); });
}

verrno yfw_map_get_node_info(yfw_map_ctx ctx, const char *list_path, const char *key,
                             const char **value)
{
    return c_boundary(YFW_ERR_HOST_FAILURE,
                      [&] { return req(ctx).get_node_info(list_path, key, value); });
}

// The list's key leaf and its copy under `child` (config/<key>) must agree
// where both carry a value.
verrno yfw_map_check_oc_leafref(yfw_map_ctx ctx, const char *list_path, const char *child,
                                const char *key, const struct vidl_yfw_datatree *list_node)
{
    return c_boundary(YFW_ERR_HOST_FAILURE, [&]() -> verrno {
        if (req(ctx).recording())
            req(ctx).record(std::string("leafref ") + (list_path != nullptr ? list_path : ""));
        if (child == nullptr || key == nullptr || list_node == nullptr)
            return YFW_ERR_INVALID_ARG;
        const vidl_yfw_datatree *leaf = yfwhost::tree_child(list_node, key);
        const vidl_yfw_datatree *holder = yfwhost::tree_child(list_node, child);
        const vidl_yfw_datatree *ref =
            holder != nullptr ? yfwhost::tree_child(holder, key) : nullptr;
        return yfwhost::rules::key_agrees(leaf, ref) ? YFW_OK : YFW_ERR_LEAFREF_MISMATCH;
    });
}

verrno yfw_map_datatree_add_path_flagged(yfw_map_ctx ctx, struct vidl_yfw_datatree *tree,
                                         const char *path, const char *ns, const char *value,
                                         const struct vidl_yfw_datatree *op_node,
                                         struct vidl_yfw_datatree **out_node, uint32_t list_entry,
                                         uint32_t path_flag)
{
    return c_boundary(YFW_ERR_HOST_FAILURE, [&] {
        return req(ctx).add_path(tree, path, ns, value, op_node, out_node, list_entry, path_flag);
    });
}

void yfw_add_to_output_list_ctx(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                struct vidl_yfw_datatree *)
{
    c_boundary([&] { req(ctx).output_list_add(node); });
}

void yfw_remove_from_output_list_ctx(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                     struct vidl_yfw_datatree *)
{
    c_boundary([&] { req(ctx).output_list_remove(node); });
}

uint16_t yfw_map_util_itree_stack_size(yfw_map_ctx ctx)
{
    return static_cast<uint16_t>(req(ctx).itree().size());
}

void yfw_map_util_itree_stack_peak(yfw_map_ctx ctx, itree_record **record)
{
    auto &stack = req(ctx).itree();
    *record = stack.empty() ? nullptr : &stack.back();
}

void yfw_map_util_itree_stack_push(yfw_map_ctx ctx, struct vidl_yfw_datatree *nodes, unsigned count,
                                   itree_handler handler)
{
    c_boundary([&] {
        req(ctx).itree().push_back({nodes, count, handler});
        if (req(ctx).recording())
            req(ctx).record("itree+ " + std::to_string(count));
    });
}

void yfw_map_util_itree_stack_pop(yfw_map_ctx ctx)
{
    auto &stack = req(ctx).itree();
    if (!stack.empty())
        stack.pop_back();
    c_boundary([&] {
        if (req(ctx).recording())
            req(ctx).record("itree-");
    });
}

void yfw_oc_error_path(yfw_map_ctx ctx)
{
    c_boundary([&] { req(ctx).record_error_path(); });
}

char *yfw_strdup(const char *text, const char *)
{
    return text != nullptr ? strdup(text) : nullptr;
}

void vlos_named_free(void *p)
{
    std::free(p);
}

int yfw_strcpy_s(const char *, char *dst, size_t dst_size, const char *src)
{
    if (dst == nullptr || src == nullptr || dst_size == 0)
        return -1;
    if (strcpy_budget.load() >= 0 && strcpy_budget.fetch_sub(1) == 0)
        return -1;
    size_t n = std::strlen(src);
    if (n >= dst_size) {
        dst[0] = '\0';
        return -1;
    }
    std::memcpy(dst, src, n + 1);
    return 0;
}

} // extern "C"
