// Capabilities: the OpenConfig models served, each with the version its
// module states (openconfig-extensions' openconfig-version), the encodings
// offered and the gNMI version.
#include "gnmi/service.h"

#include <string_view>

#include <libyang/libyang.h>
#include <libyang/plugins_exts.h>

namespace octunnel::gnmi_front {
namespace {

// The argument of the module's oc-ext:openconfig-version statement, its
// prefix resolved through the module's imports; none: the module states
// no version.
std::string openconfig_version(const lys_module *m)
{
    const lysp_module *p = m->parsed;
    if (p == nullptr)
        return {};
    LY_ARRAY_COUNT_TYPE i;
    LY_ARRAY_FOR(p->exts, i)
    {
        const lysp_ext_instance &ext = p->exts[i];
        const std::string_view name = ext.name != nullptr ? ext.name : "";
        const auto colon = name.find(':');
        if (colon == std::string_view::npos || name.substr(colon + 1) != "openconfig-version" ||
            ext.argument == nullptr)
            continue;
        const std::string_view prefix = name.substr(0, colon);
        LY_ARRAY_COUNT_TYPE j;
        LY_ARRAY_FOR(p->imports, j)
        {
            if (prefix == p->imports[j].prefix &&
                std::string_view(p->imports[j].name) == "openconfig-extensions")
                return ext.argument;
        }
    }
    return {};
}

} // namespace

grpc::Status GnmiService::capabilities(gnmi::CapabilityResponse &response)
{
    uint32_t index = 0;
    while (const lys_module *m = ly_ctx_get_module_iter(models_->context(), &index)) {
        if (!m->implemented || std::string_view(m->name).substr(0, 11) != "openconfig-")
            continue;
        gnmi::ModelData *model = response.add_supported_models();
        model->set_name(m->name);
        model->set_organization(m->org != nullptr ? m->org : "");
        model->set_version(openconfig_version(m));
    }
    response.add_supported_encodings(gnmi::JSON);
    response.add_supported_encodings(gnmi::JSON_IETF);
    response.set_gnmi_version("0.10.0");
    return grpc::Status::OK;
}

} // namespace octunnel::gnmi_front
