// One translation of a document through the mapping module, as octunnel
// runs it: read, walk, and write the answer and what the module did.
#pragma once

#include "octunnel/yfw_types.h"
#include "options.h"

#include <cstdio>
#include <future>
#include <map>
#include <memory>
#include <ostream>
#include <span>
#include <string>

namespace yfwhost {
class Module;
class Request;
} // namespace yfwhost

namespace octunnel {

class Input;
class OpenConfigSchema;

// The exit codes octunnel promises, and what each leaves behind.
enum Exit : int {
    exit_translated = 0, // the answer written whole to the answer stream
    exit_refused = 1,    // the module refused: its error on `err`, no answer
    exit_unusable = 2,   // usage, input or installation error: one line on `err`, no answer
};

enum class Direction { to_oc, to_native };

// Loads the module on first use and keeps it, with the OpenConfig models of
// JSON answers, for the translations that follow: a process may run many.
class Translator {
public:
    Translator();
    ~Translator();
    Translator(const Translator &) = delete;
    Translator &operator=(const Translator &) = delete;

    // Translates the document of `input` as `o` says (its texts parsed by
    // Options::finish already).  The answer goes to `answer` only once the
    // translation succeeded; notes and errors go to `err`, an error as one
    // line naming the input and its place.  The files of --emissions, --log
    // and --ring are written whole, or not at all.  Never throws.
    int run(const Options &o, Direction d, Input &input, std::FILE *answer, std::ostream &err);

    // The module of `o`: --module, else $OCTUNNEL_MODULE, else the one
    // installed with the program, found relative to it.
    static std::string module_path(const Options &o);
    // The module at `path`, loaded on first use.  Throws std::runtime_error
    // when it does not load.
    const yfwhost::Module &module(const std::string &path);

private:
    int translate(const Options &o, Direction d, Input &input, std::FILE *answer,
                  std::ostream &err);
    // The models of a JSON answer, loading on another thread from the first
    // call until the first get().
    std::shared_future<std::shared_ptr<OpenConfigSchema>> &models(const std::string &dir);

    std::unique_ptr<yfwhost::Module> module_;
    std::string module_path_;
    std::map<std::string, std::shared_future<std::shared_ptr<OpenConfigSchema>>> models_;
};

// The walks of one request apart from reading and writing, for callers that
// hold their trees themselves (the agent of `octunnel serve`).  The request
// must have been given the trees the roots belong to (Request::add_input).
//
// Native data to the OpenConfig answer: each root goes to the walker of its
// native root.  Throws InputError for a root that no walker takes.
verrno walk_to_oc(const yfwhost::Module &mod, yfwhost::Request &req,
                  std::span<vidl_yfw_datatree *const> roots);
// Whether walk_to_oc takes `root`.
bool native_root_known(const vidl_yfw_datatree &root);
// An OpenConfig request on /interfaces to the native request tree.  Throws
// InputError for a root other than the OpenConfig <interfaces>.
verrno walk_to_native(const yfwhost::Module &mod, yfwhost::Request &req,
                      std::span<vidl_yfw_datatree *const> roots);
void check_oc_root(const vidl_yfw_datatree &root);

// Where the OpenConfig YANG models of a JSON answer are read from: --yang-dir,
// else $OCTUNNEL_YANG_DIR, else the models installed with the tool, found
// relative to it.
std::string yang_dir(const Options &o);

// The agent's program, which `octunnel serve` runs: beside the tool in a
// build tree, beside the module in an install.
std::string serve_program();

} // namespace octunnel
