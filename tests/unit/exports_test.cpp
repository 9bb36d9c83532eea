// The module's export surface: every name it is known by is exported with
// its binding (weak for generated functions, strong for roots, augment
// entries, duck hooks and everything written by hand), every name its
// tables generate or declare is exported, and nothing else is.
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

// name -> binding, as the generator wrote them for every model: weak,
// strong, override (declared hand-written) or hand-written (a function a
// generated handler delegates to).
std::map<std::string, std::string> table_names()
{
    std::map<std::string, std::string> names;
    for (const auto &file : std::filesystem::directory_iterator(OCTUNNEL_GEN_DIR)) {
        if (file.path().extension() != ".names")
            continue;
        std::ifstream in(file.path());
        std::string name, binding;
        while (in >> name >> binding)
            names[name] = binding;
    }
    return names;
}

// Hand-written functions that no table names.
const std::set<std::string> outside_tables = {"yfw_map_reg_ociftunnel_oper",
                                              "config_or_state_allowed", "get_ntwk_family",
                                              "oc_tunnel_plat_to_vlm_inv_name_conv_prefixlength"};

const std::set<std::string> roots = {
    "ymap_vo_octunnel_valmoratunnelipmaoper_lvla_tunnelipma",
    "ymap_vo_octunnel_valmoraifmgrcfg_lvla_interfaceconfigurations",
    "ymap_vo_octunnel_valmoraifmgrcfg_lvla_globalinterfaceconfiguration",
    "ymap_vo_octunnel_valmoraipv4iooper_lvla_ipv4network",
    "ymap_vo_octunnel_valmoraipv6maoper_lvla_ipv6network",
    "ymap_ov_octunnel_openconfiginterfaces_lvla_interfaces"};

// The rule of bindings, apart from the generator: what is written by hand,
// the roots, augment entries and duck hooks are strong.
char binding_of(const std::string &name, const std::map<std::string, std::string> &tables)
{
    auto it = tables.find(name);
    const bool by_hand = outside_tables.contains(name) ||
                         (it != tables.end() && it->second != "weak" && it->second != "strong");
    const bool strong = by_hand || roots.contains(name) ||
                        name.find("_augment_") != std::string::npos ||
                        name.ends_with("_duck_map_container") || name.ends_with("_duck_map_list") ||
                        name.ends_with("_duck_map_leaf");
    return strong ? 'T' : 'W';
}

TEST(Exports, EveryKnownNameIsExportedWithItsBinding)
{
    auto symbols = dynamic_symbols();
    auto tables = table_names();
    std::ifstream known(OCTUNNEL_KNOWN_NAMES);
    ASSERT_TRUE(known) << OCTUNNEL_KNOWN_NAMES;
    std::size_t count = 0;
    for (std::string line; std::getline(known, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        ++count;
        EXPECT_EQ(symbols[line], binding_of(line, tables)) << line;
    }
    EXPECT_GT(count, 300u);
}

// The tables generate more names than are known by name alone (the copies
// of a tree, the visits of unmapped native containers): each is exported
// with the binding the generator gave it, and nothing else is.
TEST(Exports, ExactlyTheGeneratedAndHandWrittenNamesAreExported)
{
    auto symbols = dynamic_symbols();
    auto tables = table_names();
    EXPECT_GT(tables.size(), 1500u);
    std::size_t overrides = 0;
    for (const auto &[name, binding] : tables) {
        const char want = binding == "weak" ? 'W' : 'T';
        EXPECT_EQ(symbols[name], want) << name;
        EXPECT_EQ(want, binding_of(name, tables))
            << name << ": the generator's binding breaks the rule";
        overrides += binding == "override";
        symbols.erase(name);
    }
    EXPECT_EQ(overrides, 3u);
    for (const std::string &name : outside_tables) {
        EXPECT_EQ(symbols[name], 'T') << name;
        symbols.erase(name);
    }
    EXPECT_THAT(symbols, IsEmpty()) << "exported but not one of the module's names";
}

} // namespace
