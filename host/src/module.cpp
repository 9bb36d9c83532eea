// Loading the mapping module the way the framework does.
#include "yfwhost/host.h"

#include <dlfcn.h>
#include <stdexcept>

namespace yfwhost {
namespace {
const Module *loaded = nullptr;
}

const Module *Module::current()
{
    return loaded;
}

Module::Module(const std::string &path)
{
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr)
        throw std::runtime_error("cannot load the mapping module " + path + ": " + dlerror());
    using reg_function = void (*)(yfw_map_reg_mod_t *);
    auto reg = reinterpret_cast<reg_function>(symbol("yfw_map_reg_ociftunnel_oper"));
    if (reg == nullptr) {
        dlclose(handle_);
        throw std::runtime_error(path + " has no yfw_map_reg_ociftunnel_oper");
    }
    reg(&reg_);
    loaded = this;
}

Module::~Module()
{
    if (loaded == this)
        loaded = nullptr;
    dlclose(handle_);
}

void *Module::symbol(const char *name) const
{
    return dlsym(handle_, name);
}

} // namespace yfwhost
