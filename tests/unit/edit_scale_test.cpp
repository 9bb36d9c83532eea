// What an edit costs as the configuration grows, counted rather than timed:
// every allocation of the program goes through the operator new below,
// which counts them (on the thread that edits) and the bytes live at once
// (on every thread).  A lookup that looks through a list, a copy of a tree
// per node, or a form of a whole configuration kept beside the next one,
// shows as allocations or bytes per interface that grow with the number of
// interfaces; a walk of what is kept, in a single-leaf edit, as
// allocations that grow with the configuration.
#include "agent/agent.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>
#include <new>
#include <unistd.h>

namespace {

std::atomic<std::size_t> live{0}, peak{0};
thread_local std::size_t allocations = 0;

void *counted(std::size_t n)
{
    void *p = std::malloc(n != 0 ? n : 1);
    if (p == nullptr)
        throw std::bad_alloc();
    ++allocations;
    const std::size_t now = live += malloc_usable_size(p);
    for (std::size_t was = peak; now > was && !peak.compare_exchange_weak(was, now);)
        ;
    return p;
}

void uncounted(void *p) noexcept
{
    if (p == nullptr)
        return;
    live -= malloc_usable_size(p);
    std::free(p);
}

} // namespace

void *operator new(std::size_t n)
{
    return counted(n);
}
void *operator new[](std::size_t n)
{
    return counted(n);
}
void operator delete(void *p) noexcept
{
    uncounted(p);
}
void operator delete[](void *p) noexcept
{
    uncounted(p);
}
void operator delete(void *p, std::size_t) noexcept
{
    uncounted(p);
}
void operator delete[](void *p, std::size_t) noexcept
{
    uncounted(p);
}

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string OC = "http://openconfig.net/yang/interfaces";
const std::string TUN = "http://openconfig.net/yang/interfaces/tunnel";

// Interfaces [0, n) as tools/gendoc.py writes them: endpoints of both
// families, ttl, GRE key, an IPv4 and an IPv6 address.
std::string whole(int n)
{
    std::string s = "<interfaces xmlns=\"" + OC + "\">";
    for (int i = 0; i < n; ++i) {
        const std::string a = std::to_string(i / 250), b = std::to_string(i % 250 + 1);
        const bool v6 = i % 3 == 2;
        s += "<interface><name>tunnel-ip" + std::to_string(i) + "</name><tunnel xmlns=\"" + TUN +
             "\"><config>";
        s += v6 ? "<src>2001:db8:" + a + ":" + b + "::1</src><dst>2001:db8:" + a + ":" + b +
                      "::2</dst>"
                : "<src>10." + a + "." + b + ".1</src><dst>172.16." + a + "." + b + "</dst>";
        s += "<ttl>" + std::to_string(64 + i % 192) + "</ttl><gre-key>" + std::to_string(1000 + i) +
             "</gre-key></config>";
        const std::string v4 = "10.64." + a + "." + b, v6a = "2001:db8:1" + a + ":" + b + "::1";
        s += "<ipv4><addresses><address><ip>" + v4 + "</ip><config><ip>" + v4 +
             "</ip><prefix-length>24</prefix-length></config></address></addresses></ipv4>";
        s += "<ipv6><addresses><address><ip>" + v6a + "</ip><config><ip>" + v6a +
             "</ip><prefix-length>64</prefix-length></config></address></addresses></ipv6>";
        s += "</tunnel></interface>";
    }
    return s + "</interfaces>";
}

std::string one_leaf(int ttl)
{
    return "<interfaces xmlns=\"" + OC + "\"><interface><name>tunnel-ip1</name><tunnel xmlns=\"" +
           TUN + "\"><config><ttl>" + std::to_string(ttl) +
           "</ttl></config></tunnel></interface></interfaces>";
}

struct Cost {
    double allocations_per_interface = 0; // of the whole edit
    double peak_per_interface = 0;        // bytes live at once above those before it
    double kept_per_interface = 0;        // bytes live after it, above those before it
    std::size_t leaf_allocations = 0;     // of a single-leaf edit after it
};

// A whole configuration of `n` interfaces edited into an empty one, and a
// single leaf edited in it then.
Cost measure(int n, DefaultOperation op)
{
    static const auto models = std::make_shared<const OpenConfigModels>(OCTUNNEL_YANG_DIR);
    const fs::path dir =
        fs::temp_directory_path() /
        ("octunnel-edit-scale-" + std::to_string(getpid()) + "-" + std::to_string(n));
    fs::remove_all(dir);
    Cost c;
    {
        AgentOptions o;
        o.state_dir = dir.string();
        o.module_path = OCTUNNEL_MODULE_PATH;
        o.models = models;
        Agent agent(o, [](const std::string &) {});
        std::string text = whole(n);
        const std::size_t before = live;
        peak = before;
        allocations = 0;
        const Outcome out = agent.edit_config(1, std::move(text), op, false);
        EXPECT_TRUE(out.ok()) << (out.ok() ? "" : out.errors[0].message);
        c.allocations_per_interface = double(allocations) / n;
        c.peak_per_interface = double(peak - before) / n;
        c.kept_per_interface = double(live > before ? live - before : 0) / n;
        allocations = 0;
        EXPECT_TRUE(
            agent.edit_config(1, one_leaf(n % 200 + 1), DefaultOperation::merge, false).ok());
        c.leaf_allocations = allocations;
    }
    fs::remove_all(dir);
    return c;
}

TEST(EditScale, CostPerInterfaceDoesNotGrowWithTheConfiguration)
{
    ly_log_options(LY_LOSTORE_LAST);
    struct Case {
        const char *what;
        DefaultOperation op;
    };
    const Case cases[] = {
        {"merge, each interface named", DefaultOperation::merge},
        {"replace, the whole configuration", DefaultOperation::replace},
    };
    for (const Case &k : cases) {
        SCOPED_TRACE(k.what);
        const Cost small = measure(200, k.op), large = measure(2000, k.op);
        // The same work for each interface, ten times as many of them.
        EXPECT_LT(large.allocations_per_interface, 1.15 * small.allocations_per_interface);
        EXPECT_LT(large.peak_per_interface, 1.25 * small.peak_per_interface);
        // While it works, the edit holds about three times what it keeps
        // (the edit's native request, the commit's text, the answer read
        // back and its text), not every form of the whole configuration at
        // once: four times and more before each was let go once the next
        // was made.
        EXPECT_LT(large.peak_per_interface, 3.5 * large.kept_per_interface);
        // A single leaf costs what it changes, whatever the configuration.
        EXPECT_LT(large.leaf_allocations, small.leaf_allocations + small.leaf_allocations / 5);
    }
}

} // namespace
