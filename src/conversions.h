// Hand-written functions of the module: the conversions that the generated
// handlers call by name, and the predicate that guards configuration reads.
#pragma once

#include "octunnel/yfw_types.h"

extern "C" {

// True unless the request is a view-2 read with one of the configuration or
// state marks set.
bool config_or_state_allowed(const yfw_map_request *request);

// Native tunnel configuration and state back to OpenConfig.
verrno to_high_config_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                          struct vidl_yfw_datatree *out);
verrno to_high_config_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                          struct vidl_yfw_datatree *out);
verrno to_high_state_src(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                         struct vidl_yfw_datatree *out);
verrno to_high_state_dst(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                         struct vidl_yfw_datatree *out);
verrno to_high_config_preLen(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                             struct vidl_yfw_datatree *out);

// OpenConfig tunnel leaves to native paths.
uint32_t get_ntwk_family(const char *value);
const char *oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength(const struct vidl_yfw_datatree *in);

} // extern "C"
