// The platform calls: router type, resolver and address text.
#include "octunnel/yfw_framework.h"
#include "yfwhost/host.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <iterator>

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

// Answers of the numeric fast path: a few slots of the calling thread,
// taken in turn, so a caller may hold several at once before freeing them.
namespace {
struct NumericAnswer {
    struct addrinfo info;
    struct sockaddr_in6 address; // room for either family
};
thread_local NumericAnswer numeric_answers[8];
thread_local unsigned next_answer = 0;

bool is_numeric_answer(const struct addrinfo *res)
{
    auto *first = reinterpret_cast<const char *>(&numeric_answers[0]);
    auto *p = reinterpret_cast<const char *>(res);
    return p >= first && p < first + sizeof numeric_answers;
}

// A numeric address of the family asked for, as the system's resolver
// gives it for AI_NUMERICHOST, without its allocations: an address that
// inet_pton reads is one the resolver takes, and a dotted IPv4 address is
// none of IPv6's.  What inet_pton does not read (scope ids, the short IPv4
// forms) goes to the system's resolver.  Returns 1 when that is needed.
int numeric(const char *node, const struct addrinfo &hints, struct addrinfo **res)
{
    unsigned char bytes[16];
    const int family = hints.ai_family;
    if (node == nullptr || (family != AF_INET && family != AF_INET6))
        return 1;
    if (inet_pton(family, node, bytes) != 1)
        return family == AF_INET6 && inet_pton(AF_INET, node, bytes) == 1 ? EAI_ADDRFAMILY : 1;
    NumericAnswer &a = numeric_answers[next_answer++ % std::size(numeric_answers)];
    a = NumericAnswer{};
    a.info.ai_family = family;
    a.info.ai_socktype = hints.ai_socktype;
    a.info.ai_protocol = hints.ai_protocol;
    a.info.ai_addr = reinterpret_cast<struct sockaddr *>(&a.address);
    if (family == AF_INET6) {
        a.address.sin6_family = AF_INET6;
        std::memcpy(&a.address.sin6_addr, bytes, 16);
        a.info.ai_addrlen = sizeof(struct sockaddr_in6);
    } else {
        auto *v4 = reinterpret_cast<struct sockaddr_in *>(&a.address);
        v4->sin_family = AF_INET;
        std::memcpy(&v4->sin_addr, bytes, 4);
        a.info.ai_addrlen = sizeof(struct sockaddr_in);
    }
    *res = &a.info;
    return 0;
}
} // namespace

extern "C" {

int platform_get_router_type(void)
{
    return router_type;
}

int getaddrinfo_vlm(const char *node, const char *service, const struct addrinfo *hints,
                    struct addrinfo **res)
{
    struct addrinfo h = hints != nullptr ? *hints : addrinfo{};
    if (!resolve_names) {
        h.ai_flags |= AI_NUMERICHOST;
        if (service == nullptr && res != nullptr) {
            if (int rc = numeric(node, h, res); rc != 1)
                return rc;
        }
    }
    return getaddrinfo(node, service, &h, res);
}

void freeaddrinfo_vlm(struct addrinfo *res)
{
    if (res != nullptr && !is_numeric_answer(res))
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
