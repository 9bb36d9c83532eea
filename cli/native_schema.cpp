#include "json_schema.h"

#include <algorithm>
#include <iterator>

namespace octunnel {
namespace {

struct Row {
    std::string_view path; // schema path without module names
    NodeKind kind;
};
// Sorted by path.
constexpr Row rows[] = {
#include "native_schema.inc"
};

// "/Valmora-ifmgr-cfg:interface-configurations/x" to "/interface-configurations/x"
std::string without_modules(const std::string &path)
{
    std::string plain;
    std::size_t start = 0;
    while (start < path.size()) {
        std::size_t end = path.find('/', start + 1);
        std::string_view step(path.data() + start + 1,
                              (end == std::string::npos ? path.size() : end) - start - 1);
        if (std::size_t colon = step.find(':'); colon != std::string_view::npos)
            step.remove_prefix(colon + 1);
        plain.append("/").append(step);
        start = end == std::string::npos ? path.size() : end;
    }
    return plain;
}

} // namespace

NodeKind NativeSchema::kind(const std::string &path) const
{
    std::string plain = without_modules(path);
    auto it = std::lower_bound(std::begin(rows), std::end(rows), plain,
                               [](const Row &r, const std::string &p) { return r.path < p; });
    return it != std::end(rows) && it->path == plain ? it->kind : NodeKind::unknown;
}

} // namespace octunnel
