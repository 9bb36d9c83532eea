// The walk in process: the module loaded into the reference host as the
// framework loads it, traces off, timed by Google Benchmark.
//
//   SingleLeafEdit   one tunnel's config/src, walked from /interfaces again
//                    and again into one request: the steady cost of a walk
//   OneInterface     an interface's whole edit (endpoints, ttl, key, both
//                    addresses), the same way
//   Edit/N           N interfaces into a fresh request; per interface
//   NativeConfig/N   N interfaces of native configuration to OpenConfig
#include "../unit/router.h"

#include <benchmark/benchmark.h>

namespace {

using namespace testing_support;

const yfwhost::Module &module()
{
    static yfwhost::Module m(OCTUNNEL_MODULE_PATH);
    return m;
}

void walk_again(benchmark::State &state, const yfwhost::Tree &tree)
{
    map_function root = module().registration().oc_to_native_root;
    yfwhost::Request req(1, "config");
    req.add_input(tree.get());
    for (auto _ : state) {
        if (root(req.ctx(), tree.get(), req.out()) != YFW_OK)
            state.SkipWithError("the walk failed");
    }
}

void SingleLeafEdit(benchmark::State &state)
{
    yfwhost::Tree tree(yfwhost::tree_new("interfaces", NS_OC_INTERFACES));
    vidl_yfw_datatree *itf = container(tree.get(), "interface");
    leaf(itf, "name", "tunnel-ip12");
    leaf(container(container(itf, "tunnel", NS_OC_IF_TUNNEL), "config"), "src", "192.0.2.1");
    walk_again(state, tree);
}
BENCHMARK(SingleLeafEdit);

void OneInterface(benchmark::State &state)
{
    walk_again(state, oc_edit(1));
}
BENCHMARK(OneInterface);

void walk_fresh(benchmark::State &state, const yfwhost::Tree &tree, map_function root,
                uint32_t kind)
{
    for (auto _ : state) {
        yfwhost::Request req(kind);
        req.add_input(tree.get());
        if (root(req.ctx(), tree.get(), req.out()) != YFW_OK)
            state.SkipWithError("the walk failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Edit(benchmark::State &state)
{
    walk_fresh(state, oc_edit(static_cast<int>(state.range(0))),
               module().registration().oc_to_native_root, 1);
}
BENCHMARK(Edit)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void NativeConfig(benchmark::State &state)
{
    walk_fresh(state, native_config(static_cast<int>(state.range(0))),
               module().function("ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations"),
               YFW_MAP_REQ_GET_CONFIG);
}
BENCHMARK(NativeConfig)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
