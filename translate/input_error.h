// A document that the tool cannot translate.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace octunnel {

// A document that cannot be translated, with the line it is about (0 when
// it is about the document as a whole).
struct InputError : std::runtime_error {
    InputError(int line, const std::string &what) : std::runtime_error(what), line(line) {}
    int line;
};

// A name between two marks, as messages name things: <name> for an XML
// element, 'name' for a JSON member.  Built by appending: GCC 12 at -O3
// takes "<" + std::string for an overlapping copy (-Wrestrict).
inline std::string enclosed(char open, std::string_view name, char close)
{
    std::string s(1, open);
    s.append(name);
    s.push_back(close);
    return s;
}
inline std::string element_name(std::string_view name)
{
    return enclosed('<', name, '>');
}
inline std::string quoted(std::string_view name)
{
    return enclosed('\'', name, '\'');
}

// `text` as one line of a message: what would break the line or not show
// (control characters, DEL) written as escapes, \n, \r, \t or \xNN.
// Messages quote names and values of the input, which may hold anything.
std::string one_line(std::string_view text);

} // namespace octunnel
