#include "xml_io.h"

#include "octunnel/yfw_namespaces.h"
#include "yang_names.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <pugixml.hpp>
#include <sstream>

namespace octunnel {
namespace {

class Reader {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    int line_of(std::ptrdiff_t offset) const
    {
        if (offset < 0)
            return 0;
        auto end = text_.begin() + std::min<std::ptrdiff_t>(offset, std::ssize(text_));
        return 1 + static_cast<int>(std::count(text_.begin(), end, '\n'));
    }
    int line_of(const pugi::xml_node &n) const { return line_of(n.offset_debug()); }

    // The namespace bound to `prefix` ("" for the default) where `n` stands.
    std::string namespace_of(const pugi::xml_node &n, std::string_view prefix) const
    {
        std::string attr = prefix.empty() ? "xmlns" : "xmlns:" + std::string(prefix);
        for (pugi::xml_node p = n; p && p.type() == pugi::node_element; p = p.parent())
            if (pugi::xml_attribute a = p.attribute(attr.c_str()))
                return a.value();
        if (prefix.empty())
            return "";
        throw InputError(line_of(n),
                         "namespace prefix '" + std::string(prefix) + "' is not declared");
    }

    static std::pair<std::string_view, std::string_view> split(const char *qname)
    {
        std::string_view q(qname);
        std::size_t colon = q.find(':');
        if (colon == std::string_view::npos)
            return {"", q};
        return {q.substr(0, colon), q.substr(colon + 1)};
    }

    std::string ns_of_element(const pugi::xml_node &n) const
    {
        return namespace_of(n, split(n.name()).first);
    }

    void fill(vidl_yfw_datatree *node, const pugi::xml_node &e) const
    {
        node->fw_line = static_cast<uint32_t>(line_of(e));
        read_operation(node, e);
        std::string text;
        bool has_text = false, has_elements = false;
        for (pugi::xml_node c : e.children()) {
            if (c.type() == pugi::node_element) {
                has_elements = true;
            } else if (c.type() == pugi::node_pcdata || c.type() == pugi::node_cdata) {
                has_text = true;
                text += c.value();
            }
        }
        bool blank = std::all_of(text.begin(), text.end(),
                                 [](unsigned char ch) { return std::isspace(ch) != 0; });
        if (has_elements && !blank)
            throw InputError(line_of(e),
                             "<" + std::string(e.name()) + "> holds both text and elements");
        if (!has_elements) {
            if (has_text)
                yfwhost::tree_set_value(node, text);
            return;
        }
        for (pugi::xml_node c = e.first_child(); c; c = c.next_sibling()) {
            if (c.type() != pugi::node_element)
                continue;
            // `child` stays valid while it is filled: only its own array grows.
            vidl_yfw_datatree *child =
                yfwhost::tree_add_child(node, split(c.name()).second, ns_of_element(c));
            fill(child, c);
        }
    }

    void read_operation(vidl_yfw_datatree *node, const pugi::xml_node &e) const
    {
        for (pugi::xml_attribute a : e.attributes()) {
            auto [prefix, local] = split(a.name());
            if (prefix.empty() || prefix == "xmlns" || local != "operation" ||
                namespace_of(e, prefix) != NS_NETCONF_BASE)
                continue;
            std::optional<uint32_t> op = operation_of(a.value());
            if (!op)
                throw InputError(line_of(e), unknown_operation(a.value()));
            yfwhost::tree_set_op(node, *op);
        }
    }

private:
    std::string_view text_;
};

bool is_wrapper(const Reader &r, const pugi::xml_node &e)
{
    auto local = Reader::split(e.name()).second;
    return (local == "data" || local == "config" || local == "filter") &&
           r.ns_of_element(e) == NS_NETCONF_BASE;
}

void write_node(pugi::xml_node parent, const vidl_yfw_datatree &n, const char *parent_ns)
{
    pugi::xml_node e = parent.append_child(n.tag != nullptr ? n.tag : "");
    if (n.ns != nullptr && (parent_ns == nullptr || std::string_view(n.ns) != parent_ns))
        e.append_attribute("xmlns") = n.ns;
    if ((n.present & YFW_PRESENT_OP) != 0) {
        std::string op = n.op < operation_names.size() ? std::string(operation_names[n.op])
                                                       : std::to_string(n.op);
        e.append_attribute("nc:operation") = op.c_str();
    }
    if ((n.present & YFW_PRESENT_VALUE) != 0 && n.value != nullptr)
        e.text() = n.value;
    for (std::size_t i = 0; i < yfwhost::tree_child_count(&n); ++i)
        write_node(e, n.subtrees[i], n.ns);
}

bool has_operation(const vidl_yfw_datatree &n)
{
    if ((n.present & YFW_PRESENT_OP) != 0)
        return true;
    for (std::size_t i = 0; i < yfwhost::tree_child_count(&n); ++i)
        if (has_operation(n.subtrees[i]))
            return true;
    return false;
}

} // namespace

std::vector<yfwhost::Tree> read_document(std::string_view text)
{
    Reader reader(text);
    pugi::xml_document doc;
    pugi::xml_parse_result parsed = doc.load_buffer(
        text.data(), text.size(), pugi::parse_default | pugi::parse_fragment, pugi::encoding_utf8);
    if (!parsed)
        throw InputError(reader.line_of(parsed.offset),
                         std::string("malformed XML: ") + parsed.description());

    std::vector<pugi::xml_node> tops;
    for (pugi::xml_node n : doc.children()) {
        if (n.type() == pugi::node_element)
            tops.push_back(n);
        else if (n.type() == pugi::node_pcdata &&
                 std::string_view(n.value()).find_first_not_of(" \t\r\n") != std::string::npos)
            throw InputError(reader.line_of(n), "text outside any element");
    }
    if (tops.empty())
        throw InputError(0, "the document holds no element");
    if (tops.size() == 1 && is_wrapper(reader, tops[0])) {
        pugi::xml_node wrapper = tops[0];
        tops.clear();
        for (pugi::xml_node n = wrapper.first_child(); n; n = n.next_sibling())
            if (n.type() == pugi::node_element)
                tops.push_back(n);
    }

    std::vector<yfwhost::Tree> roots;
    for (const pugi::xml_node &e : tops) {
        if (is_wrapper(reader, e))
            throw InputError(reader.line_of(e),
                             std::string("<") + e.name() + "> may only wrap the whole document");
        yfwhost::Tree root(
            yfwhost::tree_new(Reader::split(e.name()).second, reader.ns_of_element(e)));
        reader.fill(root.get(), e);
        roots.push_back(std::move(root));
    }
    return roots;
}

std::string write_document(const vidl_yfw_datatree *root)
{
    pugi::xml_document doc;
    pugi::xml_node data = doc.append_child(root->tag);
    data.append_attribute("xmlns") = NS_NETCONF_BASE;
    if (std::string_view(root->tag) == "filter")
        data.append_attribute("type") = "subtree";
    // Each top-level element declares the prefix of the operations below it,
    // so that it stands on its own outside the <data> envelope.
    for (std::size_t i = 0; i < yfwhost::tree_child_count(root); ++i) {
        write_node(data, root->subtrees[i], NS_NETCONF_BASE);
        if (has_operation(root->subtrees[i]))
            data.last_child().append_attribute("xmlns:nc") = NS_NETCONF_BASE;
    }
    std::ostringstream os;
    doc.save(os, "  ", pugi::format_indent | pugi::format_no_declaration, pugi::encoding_utf8);
    return os.str();
}

} // namespace octunnel
