#include "agent/tree.h"

#include "agent/filter.h"
#include "octunnel/yfw_namespaces.h"
#include "translate/xml_io.h"
#include "translate/yang_names.h"

#include <algorithm>
#include <cstring>

namespace octunnel::serve {

const ModelSchema &models()
{
    static const ModelSchema schema;
    return schema;
}

std::string_view canonical_ns(std::string_view ns)
{
    constexpr std::string_view yang = ".yang";
    if (ns.size() > yang.size() && ns.ends_with(yang))
        ns.remove_suffix(yang.size());
    return ns;
}

// ---------------------------------------------------------------- nodes

NodeKind Node::kind() const
{
    return models().kind(place_);
}

namespace {

// A parent with more children than this finds them through an index.
constexpr std::size_t index_from = 8;
// Stands for a key that an entry lacks: no value of XML holds it.
constexpr char missing_key = '\x01';

} // namespace

std::string Node::identity() const
{
    std::string id(tag_);
    id.push_back('\0');
    id.append(ns_);
    switch (kind()) {
    case NodeKind::list:
        for (std::string_view key : models().keys(place_)) {
            id.push_back('\0');
            const Node *k = child(key);
            if (k != nullptr && k->has_value_)
                id.append(k->value_);
            else
                id.push_back(missing_key);
        }
        break;
    case NodeKind::leaf_list:
        id.push_back('\0');
        id.append(value_);
        break;
    default:
        break;
    }
    return id;
}

Node *Node::find(std::string_view identity) const
{
    if (!index_ && kids_.size() > index_from) {
        auto &self = const_cast<Node &>(*this);
        self.index_ = std::make_unique<std::unordered_map<std::string, Node *>>();
        self.index_->reserve(live_);
        for (const auto &k : kids_)
            if (k)
                self.index_->emplace(k->identity(), k.get());
    }
    if (index_) {
        auto it = index_->find(std::string(identity));
        return it != index_->end() ? it->second : nullptr;
    }
    for (const auto &k : kids_)
        if (k && k->identity() == identity)
            return k.get();
    return nullptr;
}

Node *Node::child(std::string_view tag) const
{
    for (const auto &k : kids_)
        if (k && tag == k->tag_)
            return k.get();
    return nullptr;
}

void Node::index_add(Node &kid)
{
    if (index_)
        index_->emplace(kid.identity(), &kid);
}

void Node::index_remove(Node &kid)
{
    if (!index_)
        return;
    auto it = index_->find(kid.identity());
    if (it != index_->end() && it->second == &kid)
        index_->erase(it);
}

Node &Node::add(std::string_view tag, std::string_view ns)
{
    return put(tree_->make(*this, tag, ns), kids_.size());
}

Node &Node::put(std::unique_ptr<Node> node, std::size_t slot)
{
    Node &n = *node;
    n.parent_ = this;
    if (slot >= kids_.size()) {
        n.slot_ = kids_.size();
        kids_.push_back(std::move(node));
    } else {
        n.slot_ = slot;
        kids_[slot] = std::move(node);
    }
    ++live_;
    index_add(n);
    return n;
}

std::unique_ptr<Node> Node::take(std::size_t slot)
{
    std::unique_ptr<Node> n = std::move(kids_[slot]);
    if (n) {
        index_remove(*n);
        --live_;
        n->parent_ = nullptr;
    }
    if (slot + 1 == kids_.size())
        kids_.pop_back();
    return n;
}

void Node::compact()
{
    if (live_ == kids_.size())
        return;
    std::size_t to = 0;
    for (auto &k : kids_) {
        if (!k)
            continue;
        k->slot_ = to;
        kids_[to++] = std::move(k);
    }
    kids_.resize(to);
}

// ---------------------------------------------------------------- trees

Tree::Tree() : root_(new Node(*this, intern(""), intern(""), models().root())) {}

Tree::~Tree()
{
    // Deep trees are taken apart level by level, not by nested destructors.
    std::vector<std::unique_ptr<Node>> doomed;
    doomed.push_back(std::move(root_));
    while (!doomed.empty()) {
        std::unique_ptr<Node> n = std::move(doomed.back());
        doomed.pop_back();
        for (auto &k : n->kids_)
            if (k)
                doomed.push_back(std::move(k));
    }
}

const char *Tree::intern(std::string_view s)
{
    return names_.emplace(s).first->c_str();
}

std::unique_ptr<Node> Tree::make(const Node &parent, std::string_view tag, std::string_view ns)
{
    JsonSchema::Node place = models().child(parent.place_, {}, tag);
    return std::unique_ptr<Node>(new Node(*this, intern(tag), intern(canonical_ns(ns)), place));
}

std::unique_ptr<Node> Tree::copy(const Node &parent, const Node &from)
{
    std::unique_ptr<Node> top = make(parent, from.tag_, from.ns_);
    if (from.has_value_)
        top->set_value(from.value_);
    top->line_ = from.line_;
    struct Step {
        const Node *from;
        Node *to;
        std::size_t next;
    };
    std::vector<Step> stack{{&from, top.get(), 0}};
    while (!stack.empty()) {
        Step &s = stack.back();
        if (s.next == s.from->kids_.size()) {
            stack.pop_back();
            continue;
        }
        const Node *k = s.from->kids_[s.next++].get();
        if (k == nullptr)
            continue;
        Node &c = s.to->add(k->tag_, k->ns_);
        if (k->has_value_)
            c.set_value(k->value_);
        c.line_ = k->line_;
        stack.push_back({k, &c, 0});
    }
    return top;
}

// ---------------------------------------------------------------- conversions

void adopt(Tree &into, const Document &doc)
{
    struct Step {
        const vidl_yfw_datatree *from;
        Node *to;
        std::size_t next;
    };
    std::vector<Step> stack;
    auto take = [&](Node &parent, const vidl_yfw_datatree &n) {
        Node &c = parent.add(n.tag != nullptr ? n.tag : "", n.ns != nullptr ? n.ns : "");
        if ((n.present & YFW_PRESENT_VALUE) != 0 && n.value != nullptr)
            c.set_value(n.value);
        if ((n.present & YFW_PRESENT_OP) != 0)
            c.set_op(static_cast<int>(n.op));
        c.set_line(n.fw_line);
        stack.push_back({&n, &c, 0});
    };
    for (const vidl_yfw_datatree *root : doc.roots) {
        take(into.root(), *root);
        while (!stack.empty()) {
            Step &s = stack.back();
            if (s.next == yfwhost::tree_child_count(s.from)) {
                stack.pop_back();
                continue;
            }
            take(*s.to, s.from->subtrees[s.next++]);
        }
    }
}

void adopt(Tree &into, const yfwhost::Answer &answer)
{
    using yfwhost::Answer;
    struct Step {
        Answer::Id next; // the next child to take
        Node *to;
    };
    std::vector<Step> stack{{answer.first_child(Answer::root), &into.root()}};
    while (!stack.empty()) {
        Step &s = stack.back();
        if (s.next == Answer::none) {
            stack.pop_back();
            continue;
        }
        Answer::Id id = s.next;
        s.next = answer.next_sibling(id);
        Node &c = s.to->add(answer.tag(id), answer.ns(id));
        if (answer.value(id) != nullptr)
            c.set_value(answer.value(id));
        if (answer.has_op(id))
            c.set_op(static_cast<int>(answer.op(id)));
        stack.push_back({answer.first_child(id), &c});
    }
}

Document read_xml(std::string_view text, std::size_t limit)
{
    Input input(text, limit);
    return read_document(input);
}

// ---------------------------------------------------------------- writing

void write(const Node &holder, Sink &sink, Prune prune, const Selection *selection)
{
    // A node goes out with all it holds when the selection marked it so (2),
    // or when there is no selection; one marked on the way to what was
    // selected (1) goes out with its marked children alone.
    static const std::vector<const Node *> none;
    struct Step {
        const Node *node;
        std::size_t next;
        const std::vector<const Node *> *marked; // null: all it holds
    };
    auto marked_under = [&](const Node &n) {
        auto it = selection->marked.find(&n);
        return it == selection->marked.end() ? &none : &it->second;
    };
    std::vector<Step> stack{{&holder, 0, selection ? marked_under(holder) : nullptr}};
    while (!stack.empty()) {
        Step &s = stack.back();
        const std::size_t count = s.marked ? s.marked->size() : s.node->slots().size();
        if (s.next == count) {
            if (stack.size() > 1)
                sink.close(*s.node);
            stack.pop_back();
            continue;
        }
        const Node *k = s.marked ? (*s.marked)[s.next++] : s.node->slots()[s.next++].get();
        if (k == nullptr)
            continue;
        const std::vector<const Node *> *below = nullptr;
        if (s.marked && k->mark != 2)
            below = marked_under(*k);
        if (prune == Prune::state && models().state(k->place()))
            continue;
        sink.open(*k);
        stack.push_back({k, 0, below});
    }
}

void HostSink::open(const Node &n)
{
    vidl_yfw_datatree &node = builder_.open(n.tag(), n.ns(), n.line());
    if (n.has_value())
        builder_.set_value(node, n.value());
}

Document HostSink::finish()
{
    Document doc{builder_.finish(), {}};
    vidl_yfw_datatree *holder = doc.tree.get();
    for (std::size_t i = 0; i < yfwhost::tree_child_count(holder); ++i)
        doc.roots.push_back(&holder->subtrees[i]);
    return doc;
}

void append_leaf(std::string &out, std::string_view tag, std::string_view value)
{
    out += '<';
    out += tag;
    out += '>';
    escape_xml(out, value);
    out += "</";
    out += tag;
    out += '>';
}

void escape_xml(std::string &out, std::string_view s, bool attribute)
{
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += attribute ? ">" : "&gt;";
            break;
        case '"':
            out += attribute ? "&quot;" : "\"";
            break;
        default:
            // A carriage return, and in an attribute any control
            // character, would not be read back as it stands.
            if (c < 32 && (attribute || (c != '\t' && c != '\n'))) {
                char code[8];
                std::snprintf(code, sizeof code, "&#%u;", c);
                out += code;
            } else {
                out.push_back(ch);
            }
        }
    }
}

void XmlSink::indent(int depth)
{
    out_.append(2 * static_cast<std::size_t>(depth), ' ');
}

void XmlSink::open(const Node &n)
{
    open(n.tag(), n.ns(), n.op());
}

void XmlSink::open(std::string_view tag, std::string_view ns, int op)
{
    // The parent's start tag is still open: it has children, so it ends
    // its line.
    if (!has_kids_.empty() && !has_kids_.back()) {
        has_kids_.back() = true;
        out_ += ">\n";
    }
    const int depth = depth_ + static_cast<int>(ns_.size());
    indent(depth);
    out_.push_back('<');
    out_ += tag;
    std::string_view outer = ns_.empty() ? std::string_view(outer_) : ns_.back();
    if (outer != ns) {
        out_ += " xmlns=\"";
        escape_xml(out_, ns, true);
        out_.push_back('"');
    }
    if (operations_ && op >= 0 && static_cast<std::size_t>(op) < operation_names.size()) {
        out_ += " xmlns:nc=\"" NS_NETCONF_BASE "\" nc:operation=\"";
        out_ += operation_names[static_cast<std::size_t>(op)];
        out_.push_back('"');
    }
    ns_.push_back(ns);
    has_kids_.push_back(false);
}

void XmlSink::close(const Node &n)
{
    close(n.tag(), n.has_value() ? n.value().c_str() : nullptr, n.value().size());
}

void XmlSink::close(std::string_view tag, const char *value_text, std::size_t value_size)
{
    const bool kids = has_kids_.back();
    has_kids_.pop_back();
    ns_.pop_back();
    if (kids) {
        indent(depth_ + static_cast<int>(ns_.size()));
        out_ += "</";
        out_ += tag;
        out_ += ">\n";
    } else if (value_text != nullptr) {
        const std::string_view value(value_text, value_size);
        for (const auto &[prefix, ns] : value_prefixes_)
            if (value.size() > prefix.size() && value.starts_with(prefix) &&
                value[prefix.size()] == ':') {
                out_ += " xmlns:" + prefix + "=\"";
                escape_xml(out_, ns, true);
                out_.push_back('"');
                break;
            }
        out_.push_back('>');
        escape_xml(out_, value);
        out_ += "</";
        out_ += tag;
        out_ += ">\n";
    } else {
        out_ += "/>\n";
    }
}

void write(const yfwhost::Answer &answer, XmlSink &sink, Prune prune)
{
    using yfwhost::Answer;
    // Each node's place in the models is found below its parent's, as a
    // tree's nodes find theirs, for what a prune leaves out.
    struct Step {
        Answer::Id id;
        Answer::Id next; // the next child to write
        JsonSchema::Node place;
    };
    std::vector<Step> stack{{Answer::root, answer.first_child(Answer::root), models().root()}};
    while (!stack.empty()) {
        Step &s = stack.back();
        if (s.next == Answer::none) {
            if (stack.size() > 1) {
                const char *value = answer.value(s.id);
                sink.close(answer.tag(s.id), value, value != nullptr ? std::strlen(value) : 0);
            }
            stack.pop_back();
            continue;
        }
        const Answer::Id id = s.next;
        s.next = answer.next_sibling(id);
        const JsonSchema::Node place = models().child(s.place, {}, answer.tag(id));
        if (prune == Prune::state && models().state(place))
            continue;
        sink.open(answer.tag(id), canonical_ns(answer.ns(id)),
                  answer.has_op(id) ? static_cast<int>(answer.op(id)) : -1);
        stack.push_back({id, answer.first_child(id), place});
    }
}

} // namespace octunnel::serve
