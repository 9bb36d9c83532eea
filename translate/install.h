// Where the installed parts are found: the mapping module, the OpenConfig
// models and the agent's program, relative to the running program so that
// an installed tree may be moved, and beside it in a build tree.
#pragma once

#include <string>

namespace octunnel {

// The module: `given` (a command line's --module), else $OCTUNNEL_MODULE,
// else the one installed with the program.
std::string module_path(const std::string &given);
// The OpenConfig YANG models: `given` (--yang-dir), else
// $OCTUNNEL_YANG_DIR, else the models installed with the program.
std::string yang_dir(const std::string &given);
// The agent's program, which `octunnel serve` runs: beside the tool in a
// build tree, beside the module in an install.
std::string serve_program();

} // namespace octunnel
