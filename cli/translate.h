// One translation of a document through the mapping module, as octunnel
// runs it: read, walk, and write the answer and what the module did.
#pragma once

#include "cli/options.h"
#include "octunnel/yfw_types.h"

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

} // namespace octunnel
