// The host's work for each path the module adds stays the same as a request
// grows: ten times the interfaces cost ten times the work, not a hundred.
// Work is what the host looks at to place a path and find its operation
// (Request::lookups), not time, so the test holds on any machine.
#include "router.h"

#include <gtest/gtest.h>

namespace {

using namespace testing_support;

const yfwhost::Module &module()
{
    static yfwhost::Module m(OCTUNNEL_MODULE_PATH);
    return m;
}

struct Work {
    std::size_t adds = 0;
    std::size_t lookups = 0;
    double per_add() const { return static_cast<double>(lookups) / static_cast<double>(adds); }
};

Work walk(map_function root, const yfwhost::Tree &tree, uint32_t kind)
{
    yfwhost::Request req(kind);
    Work w;
    req.on_emission = [&w](const yfwhost::Emission &) { ++w.adds; };
    req.add_input(tree.get());
    EXPECT_EQ(root(req.ctx(), tree.get(), req.out()), YFW_OK);
    w.lookups = req.lookups();
    return w;
}

void expect_flat(const Work &small, const Work &large)
{
    ASSERT_GT(small.adds, 0u);
    EXPECT_EQ(large.adds, 10 * small.adds);
    EXPECT_LE(large.per_add(), 1.2 * small.per_add())
        << small.per_add() << " lookups per added path for the small request, " << large.per_add()
        << " for the large one";
}

TEST(Scale, AnEditCostsTheSamePerPathAtAnySize)
{
    map_function root = module().registration().oc_to_native_root;
    expect_flat(walk(root, oc_edit(300), 1), walk(root, oc_edit(3000), 1));
}

TEST(Scale, AReadOfNativeConfigurationCostsTheSamePerPathAtAnySize)
{
    auto root = module().function("ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations");
    ASSERT_NE(root, nullptr);
    expect_flat(walk(root, native_config(300), YFW_MAP_REQ_GET_CONFIG),
                walk(root, native_config(3000), YFW_MAP_REQ_GET_CONFIG));
}

} // namespace
