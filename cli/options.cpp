#include "cli/options.h"

#include <charconv>
#include <stdexcept>

namespace octunnel {

uint32_t parse_number(const std::string &text, const std::string &what)
{
    const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char *first = text.data() + (hex ? 2 : 0);
    const char *last = text.data() + text.size();
    uint32_t v = 0;
    // from_chars takes no sign, no blank and no prefix: only the digits.
    auto [end, error] = std::from_chars(first, last, v, hex ? 16 : 10);
    if (first == last || end != last ||
        (error != std::errc() && error != std::errc::result_out_of_range))
        throw std::invalid_argument(what + ": '" + text + "' is not a decimal or 0x number");
    if (error == std::errc::result_out_of_range)
        throw std::invalid_argument(what + ": '" + text + "' does not fit in 32 bits");
    return v;
}

void Options::add_common(CLI::App &cmd, const std::string &default_kind)
{
    kind_text = default_kind;
    cmd.add_option("--kind", kind_text,
                   "Request kind: get (10), get-config (0), edit (1), or a number")
        ->type_name("KIND")
        ->default_str(default_kind);
    cmd.add_option("--format", format_text,
                   "Syntax of the input and of the answer: xml (NETCONF XML) or json (RFC 7951)")
        ->type_name("xml|json")
        ->default_str("xml");
    cmd.add_option("--read-view", read_view_text, "The request's read view (decimal or 0x)")
        ->type_name("N")
        ->default_str("0");
    cmd.add_option("--marks", marks_text,
                   "Request marks, as a=V,b=V,...,i=V (decimal or 0x); unnamed ones are 0")
        ->type_name("a=V,...");
    cmd.add_option("--emissions", emissions,
                   "Write every path the module added, one JSON object a line, to FILE")
        ->type_name("FILE");
    cmd.add_option("--log", log, "Write the module's levelled log (TRC and ERR) to FILE")
        ->type_name("FILE");
    cmd.add_option("--ring", ring, "Turn the ring trace on and write its lines to FILE at exit")
        ->type_name("FILE");
    cmd.add_option("--module", module,
                   "The mapping module to load (default: $OCTUNNEL_MODULE, else liboctunnel.so "
                   "beside this program)")
        ->type_name("PATH");
    cmd.add_option("input", input, "The document to translate; - or nothing reads stdin")
        ->type_name("FILE");
}

void Options::finish()
{
    if (kind_text == "get")
        kind = 10;
    else if (kind_text == "get-config")
        kind = 0;
    else if (kind_text == "edit")
        kind = 1;
    else if (kind_text.empty() ||
             kind_text.find_first_not_of("0123456789abcdefxABCDEFX") != std::string::npos)
        throw std::invalid_argument("--kind: '" + kind_text +
                                    "' is not get, get-config, edit or a number");
    else
        kind = parse_number(kind_text, "--kind");
    if (format_text != "xml" && format_text != "json")
        throw std::invalid_argument("--format: '" + format_text + "' is not xml or json");
    json = format_text == "json";
    read_view = parse_number(read_view_text, "--read-view");
    router_type = parse_number(router_type_text, "--router-type");

    std::string rest = marks_text;
    while (!rest.empty()) {
        std::size_t comma = rest.find(',');
        std::string item = rest.substr(0, comma);
        rest = comma == std::string::npos ? "" : rest.substr(comma + 1);
        if (item.size() < 3 || item[1] != '=' || item[0] < 'a' || item[0] > 'i')
            throw std::invalid_argument("--marks: '" + item + "' is not one of a=V .. i=V");
        marks[item[0] - 'a'] = parse_number(item.substr(2), "--marks " + item.substr(0, 1));
    }
}

void Options::apply_marks(yfw_map_request &r) const
{
    r.read_view = read_view;
    r.req_marks_a = marks[0];
    r.req_marks_b = marks[1];
    r.req_marks_c = marks[2];
    r.req_marks_d = marks[3];
    r.req_marks_e = marks[4];
    r.req_marks_f = marks[5];
    r.req_marks_g = marks[6];
    r.req_marks_h = marks[7];
    r.req_marks_i = marks[8];
}

} // namespace octunnel
