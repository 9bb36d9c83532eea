// Helpers shared by the unit tests: compact native trees, and the events a
// request records, with trace lines reduced to what they say.
#pragma once

#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace testing_support {

// A tree written as nested initializer lists:
//   N("tunnel-ip-ma", NS, {N("database", {N("ttl", "64")})})
// A child without a namespace takes its parent's.
struct N {
    std::string tag;
    std::string ns;
    std::optional<std::string> value;
    std::vector<N> children;
    std::optional<uint32_t> op;

    N(std::string t, std::string n, std::vector<N> c) : tag(t), ns(n), children(c) {}
    N(std::string t, std::vector<N> c) : tag(t), children(c) {}
    // A null value (as `{}` picks) is a node without value.
    N(std::string t, std::string n, const char *v) : tag(t), ns(n)
    {
        if (v != nullptr)
            value = v;
    }
    N(std::string t, const char *v) : tag(t)
    {
        if (v != nullptr)
            value = v;
    }
    explicit N(std::string t) : tag(t) {}
    N &with_op(uint32_t o)
    {
        op = o;
        return *this;
    }
};

// Containers one in another down to `children`: nest("a/b", NS, {...}) is
// N("a", NS, {N("b", {...})}).
inline N nest(std::string_view path, std::string ns, std::vector<N> children)
{
    const std::size_t last = path.rfind('/');
    if (last == std::string_view::npos)
        return N(std::string(path), ns, children);
    return nest(path.substr(0, last), ns, {N(std::string(path.substr(last + 1)), children)});
}

inline void fill(vidl_yfw_datatree *node, const N &shape)
{
    if (shape.value)
        yfwhost::tree_set_value(node, *shape.value);
    if (shape.op)
        yfwhost::tree_set_op(node, *shape.op);
    for (const N &c : shape.children)
        fill(yfwhost::tree_add_child(node, c.tag, c.ns.empty() ? node->ns : c.ns), c);
}

inline yfwhost::Tree build(const N &shape)
{
    yfwhost::Tree root(yfwhost::tree_new(shape.tag, shape.ns));
    fill(root.get(), shape);
    return root;
}

// "#12: TRC: fn:34 ctx=0x..,Start" -> "TRC fn Start"; other events as they are.
inline std::string plain(const std::string &event)
{
    static const std::regex ring(R"(^ring #\d+: (TRC|ERR): ([^:]+):\d+ ctx=0x[0-9a-f]+,(.*)$)");
    std::smatch m;
    if (std::regex_match(event, m, ring))
        return m[1].str() + " " + m[2].str() + " " + m[3].str();
    return event;
}

inline std::vector<std::string> plain(const std::vector<std::string> &events)
{
    std::vector<std::string> out;
    for (const std::string &e : events)
        out.push_back(plain(e));
    return out;
}

// Events whose text starts with one of `prefixes` ("" takes all), trace
// lines reduced and what matches `strip` taken out.
inline std::vector<std::string> only(const std::vector<std::string> &events,
                                     const std::vector<std::string> &prefixes,
                                     const char *strip = "$^")
{
    const std::regex pattern(strip);
    std::vector<std::string> out;
    for (const std::string &e : plain(events)) {
        std::string s = std::regex_replace(e, pattern, "");
        for (const std::string &p : prefixes)
            if (s.rfind(p, 0) == 0) {
                out.push_back(s);
                break;
            }
    }
    return out;
}

// The host's request behind a context.
inline yfwhost::Request &host(yfw_map_ctx ctx)
{
    return *static_cast<yfwhost::Request *>(ctx->fw_private);
}

// "a; b; c" -> {"a", "b", "c"}; "" -> {}.  Tables of cases write lists of
// events so.
inline std::vector<std::string> split(std::string_view list)
{
    std::vector<std::string> out;
    while (!list.empty()) {
        std::size_t end = list.find("; ");
        out.emplace_back(list.substr(0, end));
        list.remove_prefix(end == std::string_view::npos ? list.size() : end + 2);
    }
    return out;
}

// A request with every event and emission recorded, the ring trace included.
struct Recorded {
    yfwhost::Request req;
    std::vector<std::string> events;
    explicit Recorded(uint32_t kind) : req(kind)
    {
        req.events = &events;
        req.keep_emissions();
        req.enable_ring();
    }
    yfw_map_ctx ctx() { return req.ctx(); }
    vidl_yfw_datatree *out() { return req.out(); }
};

} // namespace testing_support
