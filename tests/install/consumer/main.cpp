// Loads the installed mapping module into the installed host, as the
// framework would, and has it answer the operational ttl of one tunnel.
// Prints each leaf of the answer as its path and value.
#include "octunnel/yfw_namespaces.h"
#include "yfwhost/host.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#ifndef MODULE
#define MODULE "liboctunnel.so" // built through pkg-config: the path comes from argv[1]
#endif

int main(int argc, char **argv)
{
    yfwhost::Module module(argc > 1 ? argv[1] : MODULE);
    yfwhost::Tree data(yfwhost::tree_new("tunnel-ip-ma", NS_VALMORA_TUNNEL_IP_MA_OPER));
    auto *ns = NS_VALMORA_TUNNEL_IP_MA_OPER;
    auto *id = yfwhost::tree_add_child(
        yfwhost::tree_add_child(yfwhost::tree_add_child(data.get(), "database", ns), "tunnel-ids",
                                ns),
        "tunnel-id", ns);
    yfwhost::tree_set_value(yfwhost::tree_add_child(id, "tid", ns), "12");
    yfwhost::tree_set_value(
        yfwhost::tree_add_child(yfwhost::tree_add_child(id, "idb-array", ns), "ttl", ns), "64");

    yfwhost::Request req(YFW_MAP_REQ_GET);
    req.add_input(data.get());
    verrno rc = module.registration().native_to_oc_root(req.ctx(), data.get(), req.out());
    if (rc != YFW_OK) {
        std::fprintf(stderr, "the module answered %#x\n", static_cast<unsigned>(rc));
        return 1;
    }
    // Every leaf of the answer as its path and value.
    const yfwhost::Answer &a = req.answer();
    std::vector<std::pair<yfwhost::Answer::Id, std::string>> todo{{yfwhost::Answer::root, ""}};
    while (!todo.empty()) {
        auto [n, path] = todo.back();
        todo.pop_back();
        if (a.value(n) != nullptr)
            std::printf("%s %s\n", path.c_str(), a.value(n));
        std::vector<yfwhost::Answer::Id> kids;
        for (auto c = a.first_child(n); c != yfwhost::Answer::none; c = a.next_sibling(c))
            kids.push_back(c);
        for (auto c = kids.rbegin(); c != kids.rend(); ++c)
            todo.emplace_back(*c, path + "/" + a.tag(*c));
    }
    return 0;
}
