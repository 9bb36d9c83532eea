// Hand-written functions of the module: the conversions that the generated
// handlers call by name, and the predicate that guards configuration reads.
#pragma once

#include "octunnel/yfw_types.h"

extern "C" {

// True unless the request is a view-2 read with one of the configuration or
// state marks set.  `request` is never null and only read.
bool config_or_state_allowed(const yfw_map_request *request);

// Native tunnel configuration and state back to OpenConfig.  Mapping
// functions: `ctx` never null (asserted), a null `in` or `out` is the
// invalid-argument exit; `in` is only read, its value may be null; each
// returns the result of its last add to `out` (to_high_config_preLen adds
// nothing and returns 0).
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
//
// The family of an address text (AF_INET6, AF_INET, or 0xFFFFFFFF for
// neither), as the platform's resolver reads it; `value` may be null.
uint32_t get_ntwk_family(const char *value);
// The dotted netmask of `in`'s prefix length (never null, only read), or
// null when it has no value.  The text lives in the platform's storage
// until its next call.
const char *oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength(const struct vidl_yfw_datatree *in);

} // extern "C"
