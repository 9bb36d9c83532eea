#include "translate/xml_io.h"

#include "octunnel/yfw_namespaces.h"
#include "translate/json_schema.h"
#include "translate/yang_names.h"

#include <algorithm>
#include <cstring>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>
#include <optional>

namespace octunnel {
namespace {

// ------------------------------------------------------------------ reading
//
// libxml2 reads the text piece by piece and calls back for each element, so
// the tree is built as the text goes by, without a second copy of the
// document.  libxml2 holds the document to XML 1.0: well-formed, UTF-8,
// only the characters XML allows, no entity it does not declare.
//
// A NETCONF document may hold several top-level elements, which XML allows
// only inside one element: the text is read as if inside an element of our
// own, on the line where the document starts, so line numbers stay those of
// the document.

constexpr std::string_view element_of_our_own = "octunnel-document";
constexpr std::string_view fragment_open = "<octunnel-document>";
constexpr std::string_view fragment_close = "</octunnel-document>";

std::string_view chars(const xmlChar *s)
{
    return std::string_view(s != nullptr ? reinterpret_cast<const char *>(s) : "");
}

bool blank(std::string_view s)
{
    return s.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

std::string qualified(const xmlChar *prefix, const xmlChar *local)
{
    std::string name(chars(prefix));
    if (!name.empty())
        name += ':';
    return name.append(chars(local));
}

bool is_envelope(std::string_view local, std::string_view ns)
{
    return (local == "data" || local == "config" || local == "filter") && ns == NS_NETCONF_BASE;
}

class Reader {
public:
    Reader() : builder_("", "")
    {
        xmlSAXHandler sax{};
        sax.initialized = XML_SAX2_MAGIC;
        sax.startElementNs = &Reader::start;
        sax.endElementNs = &Reader::end;
        sax.characters = &Reader::text;
        sax.cdataBlock = &Reader::cdata;
        sax.comment = &Reader::comment;
        sax.processingInstruction = &Reader::instruction;
        sax.serror = &Reader::libxml_error;
        ctxt_ = xmlCreatePushParserCtxt(&sax, this, nullptr, 0, nullptr);
        if (ctxt_ == nullptr)
            throw std::bad_alloc();
        // The text is UTF-8 whatever its declaration says; nothing is
        // fetched from the network or substituted from a DTD.
        xmlCtxtUseOptions(ctxt_, XML_PARSE_NONET | XML_PARSE_IGNORE_ENC);
        xmlSwitchEncoding(ctxt_, XML_CHAR_ENCODING_UTF8);
    }
    ~Reader()
    {
        if (ctxt_->myDoc != nullptr)
            xmlFreeDoc(ctxt_->myDoc);
        xmlFreeParserCtxt(ctxt_);
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    Document read(Input &input)
    {
        std::string_view piece = input.next();
        // The text is UTF-8 in any case; a byte order mark says no more.
        if (piece.starts_with("\xEF\xBB\xBF"))
            piece.remove_prefix(3);
        std::size_t head = prolog(piece);
        check(piece);
        feed(piece.substr(0, head));
        feed(fragment_open);
        feed(piece.substr(head));
        for (piece = input.next(); !piece.empty(); piece = input.next()) {
            check(piece);
            feed(piece);
        }
        if (!utf8_.complete())
            throw InputError(lines_.line(),
                             "malformed XML: the text is not UTF-8: it ends inside a character");
        feed(fragment_close);
        feed({}, true);
        return finish();
    }

private:
    // What is open: the element of our own around the document first, then
    // one frame for each element of the document.
    struct Frame {
        const xmlChar *prefix = nullptr;
        const xmlChar *local = nullptr;
        int line = 0;
        bool has_text = false; // text that counts: see flush_run
        bool has_elements = false;
        bool nonblank = false;
        std::string text;
        // Its place in the models (null outside them), and the leaves of
        // the models it holds so far.
        JsonSchema::Node schema = nullptr;
        struct Leaf {
            JsonSchema::Node node;
            int line;
        };
        std::vector<Leaf> leaves;
    };

    // The XML declaration must come first, before the element around the
    // document: the length of what does.  A DOCTYPE
    // has no place in a NETCONF message and is refused here, where it can
    // still be told from the document's own elements.
    std::size_t prolog(std::string_view piece)
    {
        std::size_t at = 0;
        if (piece.substr(at).starts_with("<?xml") && piece.size() > at + 5 &&
            std::strchr(" \t\r\n", piece[at + 5]) != nullptr) {
            std::size_t end = piece.find("?>", at);
            if (end != std::string_view::npos)
                at = end + 2;
        }
        std::size_t head = at;
        for (;;) {
            at = piece.find_first_not_of(" \t\r\n", at);
            if (at == std::string_view::npos)
                break;
            if (piece.substr(at).starts_with("<!--")) {
                std::size_t end = piece.find("-->", at + 4);
                if (end == std::string_view::npos)
                    break;
                at = end + 3;
                continue;
            }
            if (piece.substr(at).starts_with("<!DOCTYPE")) {
                LineCounter lines;
                lines.pass(piece.substr(0, at));
                throw InputError(lines.line(),
                                 "a DOCTYPE has no place in a NETCONF message; it is refused");
            }
            break;
        }
        return head;
    }

    // The document must be UTF-8 throughout.  libxml2 checks most of it,
    // but not every part: a CDATA section let overlong forms through.
    void check(std::string_view piece)
    {
        std::size_t bad = 0;
        if (!utf8_.pass(piece, bad)) {
            lines_.pass(piece.substr(0, bad));
            std::string bytes;
            for (std::size_t i = bad; i < piece.size() && i < bad + 4; ++i) {
                char hex[8];
                std::snprintf(hex, sizeof hex, " 0x%02X",
                              static_cast<unsigned>(static_cast<unsigned char>(piece[i])));
                bytes += hex;
            }
            throw InputError(lines_.line(),
                             "malformed XML: the text is not UTF-8, at bytes" + bytes);
        }
        lines_.pass(piece);
    }

    void feed(std::string_view text, bool last = false)
    {
        if (!error_)
            xmlParseChunk(ctxt_, text.data(), static_cast<int>(text.size()), last ? 1 : 0);
        if (error_)
            throw *error_;
    }

    int line() const { return xmlSAX2GetLineNumber(ctxt_); }

    void fail(int line, std::string what)
    {
        if (!error_)
            error_.emplace(line, std::move(what));
        xmlStopParser(ctxt_);
    }

    // Finds the element of `f` in the models, below its parent's place,
    // and refuses a leaf that its parent already holds: a second value
    // would be taken silently, or both translated.  Elements outside the
    // models are left alone, whatever their number; a leaf of the models is
    // one in its model's namespace, so an element of another namespace that
    // shares its name is outside them.
    bool place(Frame &f, Frame &parent, const char *ns, bool envelope)
    {
        f.schema = envelope ? schema_.root() : schema_.child(parent.schema, {}, chars(f.local));
        if (schema_.kind(f.schema) != NodeKind::leaf)
            return true;
        if (ns == nullptr || schema_.ns(f.schema) != ns) {
            f.schema = nullptr;
            return true;
        }
        for (const Frame::Leaf &held : parent.leaves)
            if (held.node == f.schema) {
                fail(f.line, element_name(chars(f.local)) + " is given twice in " +
                                 element_name(chars(parent.local)) + ", first on line " +
                                 std::to_string(held.line));
                return false;
            }
        parent.leaves.push_back({f.schema, f.line});
        return true;
    }

    Frame &open_frame()
    {
        if (frames_.size() == depth_)
            frames_.emplace_back();
        Frame &f = frames_[depth_++];
        f.has_text = f.has_elements = f.nonblank = false;
        f.text.clear();
        f.leaves.clear();
        return f;
    }

    static void start(void *self, const xmlChar *local, const xmlChar *prefix, const xmlChar *uri,
                      int, const xmlChar **, int attribute_count, int, const xmlChar **attributes)
    {
        auto &r = *static_cast<Reader *>(self);
        if (r.error_)
            return;
        const int line = r.line();
        r.flush_run();
        if (r.depth_ > 0)
            r.frames_[r.depth_ - 1].has_elements = true;
        Frame &f = r.open_frame();
        f.prefix = prefix;
        f.local = local;
        f.line = line;
        if (r.depth_ == 1) {
            f.schema = r.schema_.root(); // ours, around the document
            return;
        }
        if (r.depth_ - 1 > max_depth) {
            r.fail(line,
                   "the document nests deeper than " + std::to_string(max_depth) + " elements");
            return;
        }
        if (prefix != nullptr && uri == nullptr) {
            r.fail(line, "namespace prefix '" + std::string(chars(prefix)) + "' is not declared");
            return;
        }
        vidl_yfw_datatree &node = r.builder_.open(chars(local), chars(uri), line);
        const bool envelope = is_envelope(chars(local), chars(uri));
        if (r.depth_ <= 3 && r.first_envelope_[r.depth_ - 2].empty() && envelope)
            r.first_envelope_[r.depth_ - 2] = {qualified(prefix, local), line};
        if (!r.place(f, r.frames_[r.depth_ - 2], node.ns, envelope && r.depth_ == 2))
            return;
        // Attributes come in fives: local name, prefix, namespace, value, end.
        for (int i = 0; i < attribute_count; ++i) {
            const xmlChar **a = attributes + 5 * i;
            if (a[1] == nullptr || chars(a[0]) != "operation")
                continue;
            if (a[2] == nullptr) {
                r.fail(line, "namespace prefix '" + std::string(chars(a[1])) + "' is not declared");
                return;
            }
            if (chars(a[2]) != NS_NETCONF_BASE)
                continue;
            std::string_view value(reinterpret_cast<const char *>(a[3]),
                                   static_cast<std::size_t>(a[4] - a[3]));
            std::optional<uint32_t> op = operation_of(value);
            if (!op) {
                r.fail(line, unknown_operation(value));
                return;
            }
            yfwhost::tree_set_op(&node, *op);
        }
    }

    static void end(void *self, const xmlChar *, const xmlChar *, const xmlChar *)
    {
        auto &r = *static_cast<Reader *>(self);
        if (r.error_)
            return;
        r.flush_run();
        Frame &f = r.frames_[--r.depth_];
        if (r.depth_ == 0)
            return;
        if (f.has_elements && f.nonblank) {
            r.fail(f.line,
                   element_name(qualified(f.prefix, f.local)) + " holds both text and elements");
            return;
        }
        if (!f.has_elements && f.has_text)
            r.builder_.set_value(r.builder_.top(), f.text);
        r.builder_.close();
    }

    // Character data comes in pieces; a run of it ends at the next markup
    // (an element, a CDATA section, a comment, an instruction).
    static void text(void *self, const xmlChar *ch, int len)
    {
        auto &r = *static_cast<Reader *>(self);
        if (r.error_ || r.depth_ == 0)
            return;
        std::string_view piece(reinterpret_cast<const char *>(ch), static_cast<std::size_t>(len));
        if (r.depth_ == 1 && !blank(piece)) {
            r.fail(r.line(), "text outside any element");
            return;
        }
        r.run_.append(piece);
    }

    // A run of blank text is layout, not a value: <ip> </ip> is a selection
    // node, as <ip/> is, and the blanks between a value's pieces drop out.
    // Text in a CDATA section is a value, even blank.
    void flush_run() { take_text(run_, false); }

    void take_text(std::string_view piece, bool cdata)
    {
        if (!cdata && piece.empty())
            return;
        Frame &f = frames_[depth_ - 1];
        const bool counts = !blank(piece);
        if (cdata || counts) {
            f.nonblank = f.nonblank || counts;
            if (depth_ == 1 && f.nonblank) {
                fail(line(), "text outside any element");
                return;
            }
            f.has_text = true;
            if (!f.has_elements)
                f.text.append(piece);
        }
        run_.clear();
    }

    static void cdata(void *self, const xmlChar *ch, int len)
    {
        auto &r = *static_cast<Reader *>(self);
        if (r.error_ || r.depth_ == 0)
            return;
        r.flush_run();
        if (!r.error_)
            r.take_text({reinterpret_cast<const char *>(ch), static_cast<std::size_t>(len)}, true);
    }

    static void comment(void *self, const xmlChar *)
    {
        auto &r = *static_cast<Reader *>(self);
        if (!r.error_ && r.depth_ > 0)
            r.flush_run();
    }

    static void instruction(void *self, const xmlChar *, const xmlChar *)
    {
        comment(self, nullptr);
    }

    static void libxml_error(void *self, xmlErrorPtr e)
    {
        auto &r = *static_cast<Reader *>(self);
        // Namespace prefixes are checked where they matter, with our words.
        if (e == nullptr || e->level < XML_ERR_ERROR || e->domain == XML_FROM_NAMESPACE)
            return;
        r.fail(e->line, "malformed XML: " + describe(*e));
    }

    // libxml2's report in one line, and in the document's terms: the element
    // of our own around the document is not named.
    static std::string describe(const xmlError &e)
    {
        std::string_view message = chars(reinterpret_cast<const xmlChar *>(e.message));
        message = message.substr(0, message.find('\n'));
        while (!message.empty() && (message.back() == ' ' || message.back() == '!'))
            message.remove_suffix(1);
        std::string_view first = chars(reinterpret_cast<const xmlChar *>(e.str1));
        std::string_view second = chars(reinterpret_cast<const xmlChar *>(e.str2));
        switch (e.code) {
        case XML_ERR_INVALID_CHAR:
        case XML_ERR_INVALID_CHARREF:
            if (message.starts_with("Input is not proper UTF-8")) {
                first = first.substr(0, first.find('\n'));
                if (first.starts_with("Bytes: "))
                    first.remove_prefix(7);
                return "the text is not UTF-8, at bytes " + std::string(first);
            }
            return "character U+" + hex(e.int1) + " is not allowed in XML";
        case XML_ERR_TAG_NAME_MISMATCH:
            if (second == element_of_our_own)
                return element_name(first) + " is not closed";
            if (first == element_of_our_own)
                return "</" + std::string(second) + "> closes no open element";
            break;
        case XML_ERR_DOCUMENT_END:
            return "content after the end of the document";
        case XML_ERR_INTERNAL_ERROR:
            // What libxml2 reports of markup it cannot take in content.
            return "a declaration (<!...>) where only elements, text, comments and CDATA may "
                   "stand";
        default:
            break;
        }
        return message.empty() ? std::string("not well-formed") : std::string(message);
    }

    static std::string hex(int value)
    {
        char text[16];
        std::snprintf(text, sizeof text, "%04X", static_cast<unsigned>(value));
        return text;
    }

    Document finish()
    {
        Document doc{builder_.finish(), {}};
        vidl_yfw_datatree *holder = doc.tree.get();
        std::size_t tops = yfwhost::tree_child_count(holder);
        if (tops == 0)
            throw InputError(0, "the document holds no element");
        vidl_yfw_datatree *inside = holder;
        std::size_t nested = 0; // the depth at which envelopes are out of place
        if (tops == 1 && is_envelope(holder->subtrees[0].tag, holder->subtrees[0].ns)) {
            inside = &holder->subtrees[0];
            // The envelope's own attributes are not the request's.
            inside->present &= ~YFW_PRESENT_OP;
            inside->op = 0;
            nested = 1;
        }
        if (!first_envelope_[nested].empty())
            throw InputError(first_envelope_[nested].line,
                             element_name(first_envelope_[nested].name) +
                                 " may only wrap the whole document");
        for (std::size_t i = 0; i < yfwhost::tree_child_count(inside); ++i)
            doc.roots.push_back(&inside->subtrees[i]);
        return doc;
    }

    struct Envelope {
        std::string name;
        int line = 0;
        bool empty() const { return name.empty(); }
    };

    static inline const ModelSchema schema_;
    xmlParserCtxtPtr ctxt_;
    yfwhost::TreeBuilder builder_;
    std::vector<Frame> frames_;
    std::size_t depth_ = 0;
    // The first envelope element among the top-level elements, and among
    // the children of the first top-level element.
    Envelope first_envelope_[2];
    std::optional<InputError> error_;
    std::string run_; // the character data since the last markup
    Utf8Check utf8_;
    LineCounter lines_; // of the pieces checked so far
};

// ------------------------------------------------------------------ writing
//
// Two spaces a level; an element with a value on one line, one without value
// or children closed at once (<name />).

void escape(Output &out, std::string_view s, bool attribute)
{
    std::size_t from = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
        auto c = static_cast<unsigned char>(s[i]);
        const char *with = nullptr;
        char code[8];
        if (c == '&')
            with = "&amp;";
        else if (c == '<')
            with = "&lt;";
        else if (c == '>' && !attribute)
            with = "&gt;";
        else if (c == '"' && attribute)
            with = "&quot;";
        else if (c < 32 && (attribute || (c != '\t' && c != '\n'))) {
            // A tab and a line feed stand as they are in text; a carriage
            // return as such would be read back as a line feed.
            std::snprintf(code, sizeof code, "&#%02u;", c);
            with = code;
        }
        if (with == nullptr)
            continue;
        out.put(s.substr(from, i - from));
        out.put(with);
        from = i + 1;
    }
    out.put(s.substr(from));
}

void indent(Output &out, int depth)
{
    for (int i = 0; i < depth; ++i)
        out.put("  ");
}

using yfwhost::Answer;

// Whether a node or one below it carries an operation.  Answers are shallow:
// their depth is that of the paths the module adds.
bool has_operation(const Answer &a, Answer::Id n)
{
    if (a.has_op(n))
        return true;
    for (Answer::Id c = a.first_child(n); c != Answer::none; c = a.next_sibling(c))
        if (has_operation(a, c))
            return true;
    return false;
}

void write_node(Output &out, const Answer &a, Answer::Id n, const char *parent_ns, int depth,
                bool top, bool indented = true)
{
    const char *tag = a.tag(n);
    const char *ns = a.ns(n);
    if (indented)
        indent(out, depth);
    out.put('<');
    out.put(tag);
    if (ns != parent_ns && std::strcmp(ns, parent_ns) != 0) {
        out.put(" xmlns=\"");
        escape(out, ns, true);
        out.put('"');
    }
    if (a.has_op(n)) {
        out.put(" nc:operation=\"");
        if (a.op(n) < operation_names.size())
            out.put(operation_names[a.op(n)]);
        else
            out.put(std::to_string(a.op(n)));
        out.put('"');
    }
    // A top-level element declares the prefix of the operations below it,
    // so that it stands on its own outside the envelope.
    if (top && has_operation(a, n))
        out.put(" xmlns:nc=\"" NS_NETCONF_BASE "\"");
    const char *value = a.value(n);
    const Answer::Id first = a.first_child(n);
    if (value == nullptr && first == Answer::none) {
        out.put(" />\n");
        return;
    }
    out.put('>');
    if (value != nullptr)
        escape(out, value, false);
    if (first == Answer::none) {
        out.put("</");
        out.put(tag);
        out.put(">\n");
        return;
    }
    if (value == nullptr)
        out.put('\n');
    // After a value the first child follows it on its line.
    for (Answer::Id c = first; c != Answer::none; c = a.next_sibling(c))
        write_node(out, a, c, ns, depth + 1, false, !(value != nullptr && c == first));
    indent(out, depth);
    out.put("</");
    out.put(tag);
    out.put(">\n");
}

} // namespace

Document read_document(Input &input)
{
    Reader reader;
    return reader.read(input);
}

void write_document(const yfwhost::Answer &answer, Output &out)
{
    const char *tag = answer.tag(Answer::root);
    out.put('<');
    out.put(tag);
    out.put(" xmlns=\"" NS_NETCONF_BASE "\"");
    if (std::string_view(tag) == "filter")
        out.put(" type=\"subtree\"");
    if (answer.first_child(Answer::root) == Answer::none) {
        out.put(" />\n");
        return;
    }
    out.put(">\n");
    for (Answer::Id c = answer.first_child(Answer::root); c != Answer::none;
         c = answer.next_sibling(c))
        write_node(out, answer, c, NS_NETCONF_BASE, 1, true);
    out.put("</");
    out.put(tag);
    out.put(">\n");
}

} // namespace octunnel
