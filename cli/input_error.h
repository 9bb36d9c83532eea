// A document that the tool cannot translate.
#pragma once

#include <stdexcept>
#include <string>

namespace octunnel {

// A document that cannot be translated, with the line it is about (0 when
// it is about the document as a whole).
struct InputError : std::runtime_error {
    InputError(int line, const std::string &what) : std::runtime_error(what), line(line) {}
    int line;
};

} // namespace octunnel
