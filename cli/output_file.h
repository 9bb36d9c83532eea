// The files the tool writes beside its answer (--emissions, --log, --ring):
// whole, or not at all.
#pragma once

#include "translate/document.h"

#include <cstdio>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace octunnel {

// A file being written.  What is written goes to a staging file first, and
// takes the file's place only at publish(), so that a run that fails leaves
// nothing behind and a reader never sees half of it.
//
// Where the path leads decides how it takes its place: a symbolic link is
// followed to where it points; a regular file (or none yet) is replaced whole
// by a rename, keeping the mode of the one it replaces; anything else that
// exists there (a device such as /dev/null or /dev/stdout, a FIFO) is written
// in place, as it cannot be replaced without taking it away from whoever else
// uses it.  Every failure throws std::runtime_error naming the path.
class OutputFile {
public:
    explicit OutputFile(const std::string &path);
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    Output &out() { return *out_; }
    // Everything written is on disk in the staging file.
    void prepare();
    // The staging file takes the file's place.
    void publish();

private:
    std::string path_;      // as asked for, for messages
    std::string target_;    // where it leads once links are followed
    std::string temp_;      // the staging file beside it, when it is replaced
    bool in_place_ = false; // a device or FIFO: copied into at publish()
    mode_t mode_ = 0;
    std::FILE *file_ = nullptr;
    std::optional<Output> out_;
};

// Refuses, with std::invalid_argument naming them, output paths that lead to
// the same file as another or as the input ("-" being the standard input):
// one would overwrite the other.  `outputs` are (option, path) pairs; empty
// paths are not asked for.
void check_output_paths(const std::string &input,
                        const std::vector<std::pair<std::string, std::string>> &outputs);

} // namespace octunnel
