#include "translate/install.h"

#include <cstdlib>
#include <initializer_list>
#include <unistd.h>

namespace octunnel {
namespace {

// The directory of the running program, with its trailing '/'.
std::string program_dir()
{
    char exe[4096];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string dir = n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : std::string("./");
    return dir.substr(0, dir.find_last_of('/') + 1);
}

// The first of `candidates`, relative to the program, that exists; else the
// last, so that the error that follows names where an install puts it.
std::string beside_program(std::initializer_list<const char *> candidates)
{
    const std::string dir = program_dir();
    std::string path;
    for (const char *c : candidates) {
        path = dir + c;
        if (access(path.c_str(), F_OK) == 0)
            break;
    }
    return path;
}

} // namespace

// The build tree has the module beside the tool; an install has it in a
// directory of its own, found relative to the tool so that the installed
// tree may be moved.
std::string module_path(const std::string &given)
{
    if (!given.empty())
        return given;
    if (const char *env = std::getenv("OCTUNNEL_MODULE"); env != nullptr && *env != '\0')
        return env;
    return beside_program({"liboctunnel.so", OCTUNNEL_MODULE_FROM_BIN});
}

// The build tree links share/octunnel/yang beside the tool to the vendored
// models; an install puts them in its data directory.
std::string yang_dir(const std::string &given)
{
    if (!given.empty())
        return given;
    if (const char *env = std::getenv("OCTUNNEL_YANG_DIR"); env != nullptr && *env != '\0')
        return env;
    return beside_program({"share/octunnel/yang", OCTUNNEL_YANG_FROM_BIN});
}

std::string serve_program()
{
    return beside_program({"octunnel-serve", OCTUNNEL_SERVE_FROM_BIN});
}

} // namespace octunnel
