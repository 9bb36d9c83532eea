/*
 * Operations of the framework and the platform that the mapping module
 * calls.  The module imports them: they are resolved when the framework
 * loads it, and the module never links their provider in.
 */
#ifndef OCTUNNEL_YFW_FRAMEWORK_H
#define OCTUNNEL_YFW_FRAMEWORK_H

#include "octunnel/yfw_types.h"

#include <netdb.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Tree and request tests */
int yfw_map_do_these_match(const char *a, const char *b);
int yfw_map_is_request_delete(const struct vidl_yfw_datatree *node);
int yfw_map_is_request_add(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node);

/* Node hierarchy */
void yfw_map_add_to_node_hierarchy(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                   int level_kind);
void yfw_map_remove_from_node_hierarchy(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node);
verrno yfw_map_update_current_list_node(yfw_map_ctx ctx, const char *list_path);
verrno yfw_map_get_node_info(yfw_map_ctx ctx, const char *list_path, const char *key,
                             const char **value);
verrno yfw_map_check_oc_leafref(yfw_map_ctx ctx, const char *list_path, const char *child,
                                const char *key, const struct vidl_yfw_datatree *list_node);

/* Output trees */
verrno yfw_map_datatree_add_path_flagged(yfw_map_ctx ctx, struct vidl_yfw_datatree *tree,
                                         const char *path, const char *ns, const char *value,
                                         const struct vidl_yfw_datatree *op_node,
                                         struct vidl_yfw_datatree **out_node, uint32_t list_entry,
                                         uint32_t path_flag);
void yfw_add_to_output_list_ctx(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                struct vidl_yfw_datatree *out);
void yfw_remove_from_output_list_ctx(yfw_map_ctx ctx, const struct vidl_yfw_datatree *node,
                                     struct vidl_yfw_datatree *out);

/* Instance-tree stack */
uint16_t yfw_map_util_itree_stack_size(yfw_map_ctx ctx);
void yfw_map_util_itree_stack_peak(yfw_map_ctx ctx, itree_record **record);
void yfw_map_util_itree_stack_push(yfw_map_ctx ctx, struct vidl_yfw_datatree *nodes, unsigned count,
                                   itree_handler handler);
void yfw_map_util_itree_stack_pop(yfw_map_ctx ctx);

/* Errors and memory */
void yfw_oc_error_path(yfw_map_ctx ctx);
char *yfw_strdup(const char *text, const char *label);
void vlos_named_free(void *p);
int yfw_strcpy_s(const char *caller, char *dst, size_t dst_size, const char *src);

/* Trace */
int yfw_debug_should_log(void *dbg, int level);
void _vlos_dt_log_filter_adv(void *handle, int a, int b, int c, int d, int e, int *cell,
                             const char *format, ...) __attribute__((format(printf, 8, 9)));
uint32_t ret_nc_yfw_trace_index_incr(void);
void _lstrace(void *handle, unsigned long long flags, const char *line);

/* Platform */
int platform_get_router_type(void);
int getaddrinfo_vlm(const char *node, const char *service, const struct addrinfo *hints,
                    struct addrinfo **res);
void freeaddrinfo_vlm(struct addrinfo *res);
const char *vlm_inet_ntoa(uint32_t address);

/* Root of the mapping module that owns /interfaces; its address is what the
 * registration stores for the OpenConfig-to-native direction. */
verrno ymap_ov_ocif_openconfiginterfaces_lvla_interfaces(yfw_map_ctx ctx,
                                                         const struct vidl_yfw_datatree *in,
                                                         struct vidl_yfw_datatree *out);

#ifdef __cplusplus
}
#endif

#endif
