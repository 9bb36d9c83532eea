// The root of the mapping module that owns /interfaces.  That module is not
// part of this host yet: the registration stores this address, and nothing
// reaches it while the host translates only native data to OpenConfig.
#include "octunnel/yfw_framework.h"

extern "C" verrno
ymap_ov_ocif_openconfiginterfaces_lvla_interfaces(yfw_map_ctx, const struct vidl_yfw_datatree *,
                                                  struct vidl_yfw_datatree *)
{
    return YFW_ERR_NOT_SUPPORTED;
}
