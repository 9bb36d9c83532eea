// The platform calls: router type, resolver and address text.
#include "octunnel/yfw_framework.h"
#include "yfwhost/host.h"

#include <arpa/inet.h>
#include <atomic>

namespace {
std::atomic<int> router_type{0};
std::atomic<bool> resolve_names{false};
} // namespace

namespace yfwhost {
void set_router_type(int type)
{
    router_type = type;
}
void set_resolve_names(bool on)
{
    resolve_names = on;
}
} // namespace yfwhost

extern "C" {

int platform_get_router_type(void)
{
    return router_type;
}

int getaddrinfo_vlm(const char *node, const char *service, const struct addrinfo *hints,
                    struct addrinfo **res)
{
    struct addrinfo h = hints != nullptr ? *hints : addrinfo{};
    if (!resolve_names)
        h.ai_flags |= AI_NUMERICHOST;
    return getaddrinfo(node, service, &h, res);
}

void freeaddrinfo_vlm(struct addrinfo *res)
{
    freeaddrinfo(res);
}

// Text in storage of the calling thread, good until its next call.
const char *vlm_inet_ntoa(uint32_t address)
{
    static thread_local char text[INET_ADDRSTRLEN];
    struct in_addr a;
    a.s_addr = address;
    return inet_ntop(AF_INET, &a, text, sizeof text);
}

} // extern "C"
