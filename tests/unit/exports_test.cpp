// The module's export surface: every name it is known by is exported with
// its binding (weak for generated functions, strong for roots, augment
// entries, duck hooks, hand-written functions and their overrides), every
// name its tables generate is exported, and nothing else is.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

using testing::IsEmpty;

namespace {

// name -> 'T' (strong) or 'W' (weak), from the dynamic symbol table.
std::map<std::string, char> dynamic_symbols()
{
    std::map<std::string, char> symbols;
    std::string cmd = std::string("nm -D --defined-only ") + OCTUNNEL_MODULE_PATH;
    FILE *p = popen(cmd.c_str(), "r");
    char line[512];
    while (p != nullptr && std::fgets(line, sizeof line, p) != nullptr) {
        std::istringstream is(line);
        std::string address, type, name;
        if (is >> address >> type >> name)
            symbols[name] = type[0];
    }
    if (p != nullptr)
        pclose(p);
    return symbols;
}

const std::set<std::string> hand_written = {
    "yfw_map_reg_ociftunnel_oper", "config_or_state_allowed", "get_ntwk_family",
    "oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength", "to_low_config_src", "to_low_config_dst",
    "to_low_state_src", "to_low_state_dst", "to_low_config_preLen", "to_high_config_src",
    "to_high_config_dst", "to_high_state_src", "to_high_state_dst", "to_high_config_preLen",
    // hand-written definitions of generated names
    "ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations_interfaceconfiguration_"
    "parse_augments",
    "ymap_ov_octunnel_openconfigiftunnel_leaf_lvla_tunnel_state_ttl",
    "ymap_ov_octunnel_openconfigiftunnel_leaf_lvla_tunnel_state_grekey"};

const std::set<std::string> roots = {
    "ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma",
    "ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations",
    "ymap_vo_octunnel_valmoraifmgrcfg_lvla_globalinterfaceconfiguration",
    "ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network",
    "ymap_vo_octunnel_valmoraipv6maoper_lvla_ipv6network",
    "ymap_ov_octunnel_openconfiginterfaces_lvla_interfaces"};

char binding_of(const std::string &name)
{
    const bool strong = hand_written.contains(name) || roots.contains(name) ||
                        name.find("_augment_") != std::string::npos ||
                        name.ends_with("_duck_map_container") || name.ends_with("_duck_map_list") ||
                        name.ends_with("_duck_map_leaf");
    return strong ? 'T' : 'W';
}

TEST(Exports, EveryKnownNameIsExportedWithItsBinding)
{
    auto symbols = dynamic_symbols();
    std::ifstream known(OCTUNNEL_KNOWN_NAMES);
    ASSERT_TRUE(known) << OCTUNNEL_KNOWN_NAMES;
    std::size_t count = 0;
    for (std::string line; std::getline(known, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        ++count;
        EXPECT_EQ(symbols[line], binding_of(line)) << line;
    }
    EXPECT_GT(count, 300u);
}

// The tables generate more names than are known by name alone (the copies
// of a tree, the visits of unmapped native containers): each is exported
// with the binding the generator gave it, and nothing else is.
TEST(Exports, ExactlyTheGeneratedAndHandWrittenNamesAreExported)
{
    auto symbols = dynamic_symbols();
    for (const std::string &name : hand_written)
        EXPECT_EQ(symbols[name], 'T') << name;
    std::size_t generated = 0;
    for (const auto &file : std::filesystem::directory_iterator(OCTUNNEL_GEN_DIR)) {
        if (file.path().extension() != ".names")
            continue;
        std::ifstream names(file.path());
        std::string name, binding;
        while (names >> name >> binding) {
            ++generated;
            char want = binding == "weak" && !hand_written.contains(name) ? 'W' : 'T';
            EXPECT_EQ(symbols[name], want) << name;
            EXPECT_EQ(want, binding_of(name))
                << name << ": the generator's binding breaks the rule";
            symbols.erase(name);
        }
    }
    EXPECT_GT(generated, 1500u);
    for (const std::string &name : hand_written)
        symbols.erase(name);
    EXPECT_THAT(symbols, IsEmpty()) << "exported but not one of the module's names";
}

} // namespace
