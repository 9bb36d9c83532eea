// Options shared by the subcommands of octunnel.
#pragma once

#include "octunnel/yfw_types.h"

#include <CLI/CLI.hpp>
#include <string>

namespace octunnel {

struct Options {
    std::string kind_text;
    std::string read_view_text = "0";
    std::string marks_text;
    std::string emissions, log, ring, module;
    std::string input = "-";
    std::string router_type_text = "0";
    std::string format_text = "xml";
    std::string yang_dir;
    bool resolve_names = false;
    bool validate = false; // to-native: check the request against the OpenConfig models first

    uint32_t kind = 0;
    uint32_t read_view = 0;
    uint32_t marks[9] = {}; // req_marks_a .. req_marks_i
    uint32_t router_type = 0;
    bool json = false; // --format json: RFC 7951 in and out

    void add_common(CLI::App &cmd, const std::string &default_kind);
    // Parses the texts; throws std::invalid_argument naming the option.
    void finish();
    void apply_marks(yfw_map_request &r) const;
};

// Decimal or 0x-hexadecimal, 32 bits.
uint32_t parse_number(const std::string &text, const std::string &what);

} // namespace octunnel
