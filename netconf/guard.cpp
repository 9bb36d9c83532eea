#include "netconf/guard.h"

#include "agent/tree.h"
#include "translate/input_error.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <strings.h>

namespace octunnel::serve {
namespace {

constexpr std::string_view end_mark = "]]>]]>";
// How much of the end mark still stands after a mismatch following
// `matched` characters of it: the longest border of its first `matched`.
constexpr std::size_t border[] = {0, 0, 1, 0, 1, 2};
// libnetconf2 is handed chunks no larger than this.
constexpr std::size_t max_chunk = std::size_t{1} << 28;
// The longest text of libxml2 said back to a client.
constexpr std::size_t max_said = 200;

bool is_utf8(std::string_view s)
{
    std::size_t i = 0;
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(s[at]); };
    while (i < s.size()) {
        const unsigned char c = byte(i);
        if (c < 0x80) {
            ++i;
            continue;
        }
        std::size_t n;
        uint32_t cp;
        if ((c & 0xE0) == 0xC0)
            n = 1, cp = c & 0x1F;
        else if ((c & 0xF0) == 0xE0)
            n = 2, cp = c & 0x0F;
        else if ((c & 0xF8) == 0xF0)
            n = 3, cp = c & 0x07;
        else
            return false;
        if (i + n >= s.size())
            return false;
        for (std::size_t k = 1; k <= n; ++k) {
            if ((byte(i + k) & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (byte(i + k) & 0x3F);
        }
        // Overlong forms, surrogates and what lies beyond Unicode.
        if ((n == 1 && cp < 0x80) || (n == 2 && cp < 0x800) || (n == 3 && cp < 0x10000) ||
            (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
            return false;
        i += n + 1;
    }
    return true;
}

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view trimmed(std::string_view s)
{
    while (!s.empty() && is_blank(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back()))
        s.remove_suffix(1);
    return s;
}

// What the SAX parser learns of a message, without building a tree.
struct Scan {
    xmlParserCtxtPtr ctxt = nullptr;
    bool hello = false;
    bool root_only = false; // stop once the root's start tag is read
    int depth = 0;
    bool too_deep = false;
    bool dtd = false;
    bool root_seen = false;
    std::string root, root_ns;
    bool has_message_id = false;
    std::string message_id;
    int operations = 0;     // elements directly in the root
    bool root_text = false; // text directly in the root, not blanks
    // A hello: its capabilities, and whether it gives a session-id.
    bool session_id = false;
    bool in_capability = false;
    std::string capability;
    bool base10 = false, base11 = false;
    std::string error; // libxml2's first error
    int error_line = 0;
};

std::string_view text_of(const xmlChar *s)
{
    return s != nullptr ? std::string_view(reinterpret_cast<const char *>(s)) : std::string_view();
}

void start_element(void *user, const xmlChar *local, const xmlChar *, const xmlChar *uri, int,
                   const xmlChar **, int nb_attributes, int, const xmlChar **attributes)
{
    Scan &s = *static_cast<Scan *>(user);
    if (++s.depth > max_message_depth) {
        s.too_deep = true;
        xmlStopParser(s.ctxt);
        return;
    }
    if (s.depth == 1) {
        s.root_seen = true;
        s.root = text_of(local);
        s.root_ns = text_of(uri);
        // Each attribute: local name, prefix, URI, value, end of value.
        for (int i = 0; i < nb_attributes; ++i) {
            const xmlChar **a = attributes + 5 * i;
            if (a[2] == nullptr && text_of(a[0]) == "message-id") {
                s.has_message_id = true;
                s.message_id.assign(reinterpret_cast<const char *>(a[3]),
                                    static_cast<std::size_t>(a[4] - a[3]));
            }
        }
        if (s.root_only)
            xmlStopParser(s.ctxt);
    } else if (s.depth == 2) {
        ++s.operations;
        if (s.hello && text_of(local) == "session-id")
            s.session_id = true;
    } else if (s.depth == 3 && s.hello && text_of(local) == "capability") {
        s.in_capability = true;
        s.capability.clear();
    }
}

void end_element(void *user, const xmlChar *, const xmlChar *, const xmlChar *)
{
    Scan &s = *static_cast<Scan *>(user);
    if (s.in_capability && s.depth == 3) {
        const std::string_view cap = trimmed(s.capability);
        s.base10 |= cap == base10;
        s.base11 |= cap == base11;
        s.in_capability = false;
    }
    --s.depth;
}

void characters(void *user, const xmlChar *ch, int len)
{
    Scan &s = *static_cast<Scan *>(user);
    if (s.depth == 1 && !trimmed(std::string_view(reinterpret_cast<const char *>(ch),
                                                  static_cast<std::size_t>(len)))
                             .empty())
        s.root_text = true;
    if (s.in_capability && s.depth == 3)
        s.capability.append(reinterpret_cast<const char *>(ch), static_cast<std::size_t>(len));
}

void cdata(void *user, const xmlChar *ch, int len)
{
    Scan &s = *static_cast<Scan *>(user);
    if (s.depth == 1)
        s.root_text = true;
    characters(user, ch, len);
}

void internal_subset(void *user, const xmlChar *, const xmlChar *, const xmlChar *)
{
    Scan &s = *static_cast<Scan *>(user);
    s.dtd = true;
    xmlStopParser(s.ctxt);
}

void structured_error(void *user, xmlErrorPtr e)
{
    Scan &s = *static_cast<Scan *>(user);
    if (e != nullptr && e->level >= XML_ERR_ERROR && s.error.empty()) {
        s.error = one_line(
            trimmed(e->message != nullptr ? e->message : "not well-formed").substr(0, max_said));
        s.error_line = e->line;
    }
}

MessageCheck refused(std::string tag, std::string message)
{
    MessageCheck c;
    c.tag = std::move(tag);
    c.message = std::move(message);
    return c;
}
// A push parser of libxml2 into `scan`, with the text of elements too when
// `text` (a whole message) or their names alone (the head of one).
void start_parser(Scan &scan, bool text)
{
    xmlSAXHandler sax;
    std::memset(&sax, 0, sizeof sax);
    sax.initialized = XML_SAX2_MAGIC;
    sax.startElementNs = start_element;
    sax.endElementNs = end_element;
    if (text) {
        sax.characters = characters;
        sax.cdataBlock = cdata;
    }
    sax.internalSubset = internal_subset;
    sax.serror = structured_error;
    scan.ctxt = xmlCreatePushParserCtxt(&sax, &scan, nullptr, 0, nullptr);
    if (scan.ctxt == nullptr)
        throw std::bad_alloc();
    // Entities are replaced in attribute values as they are read: only
    // those of XML itself, as no document type declaration is taken.
    xmlCtxtUseOptions(scan.ctxt,
                      XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
}

} // namespace

MessageCheck check_message(std::string_view text, bool hello)
{
    static std::once_flag init;
    std::call_once(init, [] { xmlInitParser(); });
    const std::string_view start = trimmed(text);
    if (start.empty())
        return refused(hello ? "" : "malformed-message", "the message holds no element");
    if (!is_utf8(text) || text.find('\0') != std::string_view::npos)
        return refused(hello ? "" : "malformed-message", "the message is not UTF-8 text");
    if (start.front() != '<')
        return refused(hello ? "" : "malformed-message",
                       "the message is not well-formed XML: text before its first element");

    Scan scan;
    scan.hello = hello;
    start_parser(scan, true);
    for (std::size_t at = 0;;) {
        const std::size_t n = std::min<std::size_t>(text.size() - at, std::size_t{1} << 20);
        const bool last = at + n == text.size();
        xmlParseChunk(scan.ctxt, text.data() + at, static_cast<int>(n), last ? 1 : 0);
        at += n;
        if (last || scan.ctxt->disableSAX || scan.too_deep || scan.dtd)
            break;
    }
    const bool well_formed = scan.ctxt->wellFormed != 0 && scan.ctxt->nsWellFormed != 0;
    std::string encoding;
    if (scan.ctxt->encoding != nullptr)
        encoding = reinterpret_cast<const char *>(scan.ctxt->encoding);
    else if (scan.ctxt->input != nullptr && scan.ctxt->input->encoding != nullptr)
        encoding = reinterpret_cast<const char *>(scan.ctxt->input->encoding);
    xmlFreeParserCtxt(scan.ctxt);

    const std::string malformed = hello ? "" : "malformed-message";
    MessageCheck c;
    if (scan.too_deep) {
        c = refused(hello ? "" : "too-big", "the message nests deeper than " +
                                                std::to_string(max_message_depth) + " elements");
    } else if (scan.dtd) {
        c = refused(malformed, "the message has a document type declaration, which NETCONF "
                               "messages do not");
    } else if (!well_formed || !scan.root_seen) {
        c = refused(malformed,
                    "the message is not well-formed XML" +
                        (scan.error_line > 0 ? " (line " + std::to_string(scan.error_line) + ")"
                                             : std::string()) +
                        (scan.error.empty() ? std::string() : ": " + scan.error));
    } else if (!encoding.empty() && strcasecmp(encoding.c_str(), "UTF-8") != 0 &&
               strcasecmp(encoding.c_str(), "UTF8") != 0) {
        c = refused(malformed, "the message is not in UTF-8 but " + one_line(encoding));
    } else if (scan.root_ns != netconf_ns || scan.root != (hello ? "hello" : "rpc")) {
        c = refused(malformed, std::string(hello ? "the first message is not a <hello>"
                                                 : "the message is not an <rpc>") +
                                   " of NETCONF (" + std::string(netconf_ns) + ")");
    } else if (hello) {
        c.ok = !scan.session_id && (scan.base10 || scan.base11);
        if (!c.ok)
            c.message = scan.session_id ? "the client's hello gives a session-id"
                                        : "the client's hello offers neither base:1.0 nor 1.1";
        c.base10 = scan.base10;
        c.base11 = scan.base11;
    } else if (!scan.has_message_id) {
        c = refused("missing-attribute", "the <rpc> has no message-id");
        c.bad_attribute = "message-id";
        c.bad_element = "rpc";
    } else if (scan.root_text) {
        // libyang takes no text beside the operation, and libnetconf2 would
        // not answer a base:1.0 session at all.
        c = refused("malformed-message", "the <rpc> holds text beside its operation");
    } else if (scan.operations != 1) {
        c = refused(scan.operations == 0 ? "missing-element" : "malformed-message",
                    scan.operations == 0 ? "the <rpc> names no operation"
                                         : "the <rpc> holds more than one operation");
        if (scan.operations == 0)
            c.bad_element = "rpc";
    } else {
        c.ok = true;
        c.message_id = scan.message_id;
    }
    if (!c.ok)
        c.message_id = scan.has_message_id && scan.message_id.size() <= 1024 ? scan.message_id : "";
    return c;
}

std::string message_id_of_head(std::string_view head)
{
    static std::once_flag init;
    std::call_once(init, [] { xmlInitParser(); });
    Scan scan;
    scan.root_only = true;
    start_parser(scan, false);
    head = head.substr(0, max_refused_head);
    xmlParseChunk(scan.ctxt, head.data(), static_cast<int>(head.size()), 0);
    xmlFreeParserCtxt(scan.ctxt);
    if (!scan.root_seen || scan.root != "rpc" || scan.root_ns != netconf_ns ||
        !scan.has_message_id || scan.message_id.size() > 1024 || !is_utf8(scan.message_id))
        return "";
    return scan.message_id;
}

bool RequestBudget::take(std::size_t n)
{
    std::size_t held = held_.load(std::memory_order_relaxed);
    do {
        if (n > limit_ || held > limit_ - n)
            return false;
    } while (!held_.compare_exchange_weak(held, held + n, std::memory_order_relaxed));
    return true;
}

std::string error_reply(const MessageCheck &c)
{
    const bool rpc_type =
        c.tag == "malformed-message" || c.tag == "operation-failed" || c.tag == "resource-denied";
    std::string out = "<rpc-reply xmlns=\"";
    out += netconf_ns;
    out += "\"";
    if (!c.message_id.empty()) {
        out += " message-id=\"";
        escape_xml(out, c.message_id, true);
        out += "\"";
    }
    out += "><rpc-error><error-type>";
    out += rpc_type ? "rpc" : "protocol";
    out += "</error-type><error-tag>";
    out += c.tag;
    out += "</error-tag><error-severity>error</error-severity><error-message xml:lang=\"en\">";
    escape_xml(out, c.message);
    out += "</error-message>";
    if (!c.bad_attribute.empty() || !c.bad_element.empty()) {
        out += "<error-info>";
        if (!c.bad_attribute.empty())
            out += "<bad-attribute>" + c.bad_attribute + "</bad-attribute>";
        if (!c.bad_element.empty())
            out += "<bad-element>" + c.bad_element + "</bad-element>";
        out += "</error-info>";
    }
    out += "</rpc-error></rpc-reply>";
    return out;
}

// ---------------------------------------------------------------- the guard

void SessionGuard::end(std::string why)
{
    if (!ended_)
        reason_ = std::move(why);
    ended_ = true;
}

std::string SessionGuard::framed(std::string_view message) const
{
    if (!chunked_)
        return std::string(message) + std::string(end_mark);
    std::string out;
    out.reserve(message.size() + 32);
    for (std::size_t at = 0; at < message.size(); at += max_chunk) {
        const std::size_t n = std::min(max_chunk, message.size() - at);
        out += "\n#" + std::to_string(n) + "\n";
        out.append(message.substr(at, n));
    }
    return out + "\n##\n";
}

void SessionGuard::answer(std::string reply, Out &out)
{
    ++refused_;
    waiting_.push_back({handed_on_, framed(reply), false});
    waiting_bytes_ += waiting_.back().text.size();
    release(out);
}

void SessionGuard::release(Out &out)
{
    while (!waiting_.empty() && waiting_.front().after <= answered_) {
        waiting_bytes_ -= waiting_.front().text.size();
        out.to_client += waiting_.front().text;
        if (waiting_.front().then_end)
            end(reason_.empty() ? "a message larger than the agent takes" : reason_);
        waiting_.pop_front();
    }
}

bool SessionGuard::charge(std::size_t n)
{
    if (over_budget_)
        return false;
    if (charge_.take(n)) {
        charged_ += n;
        return true;
    }
    // Refused: the rest of the message is read to its end and not kept, but
    // for its head, where its message-id is.  Where a message ends by the
    // end mark, the part of the mark that may stand at the end of what came
    // is carried over.
    over_budget_ = true;
    size_ = message_.size();
    matched_ = 0;
    for (const char c :
         std::string_view(message_).substr(size_ - std::min<std::size_t>(size_, 5))) {
        while (matched_ > 0 && c != end_mark[matched_])
            matched_ = border[matched_];
        if (c == end_mark[matched_])
            ++matched_;
    }
    charge_.give_back(charged_);
    charged_ = 0;
    if (message_.size() > max_refused_head) {
        message_.resize(max_refused_head);
        message_.shrink_to_fit();
    }
    return false;
}

void SessionGuard::keep_head(std::string_view bytes)
{
    if (message_.size() < max_refused_head)
        message_.append(bytes.substr(0, max_refused_head - message_.size()));
}

void SessionGuard::refuse_for_budget(const std::string &head, Out &out)
{
    MessageCheck c;
    c.tag = "resource-denied";
    c.message_id = message_id_of_head(head);
    const std::size_t limit = charge_.budget() != nullptr ? charge_.budget()->limit() : 0;
    c.message = "this request of " + std::to_string(size_) + " bytes would pass the " +
                std::to_string(limit) +
                " bytes that the requests of all sessions may hold before they are answered; "
                "send it again once others are answered";
    over_budget_ = false;
    size_ = 0;
    matched_ = 0;
    ++denied_;
    waiting_.push_back({handed_on_, framed(error_reply(c)), false});
    waiting_bytes_ += waiting_.back().text.size();
    release(out);
}

void SessionGuard::message_done(Out &out)
{
    std::string text;
    text.swap(message_);
    if (!hello_done_) {
        const MessageCheck c = check_message(text, true);
        if (!c.ok)
            return end("a hello that is not one: " + c.message);
        hello_done_ = true;
        // Both sides go on in chunks when the client can: the agent always
        // offers base:1.1.
        std::string hello = "<hello xmlns=\"" + std::string(netconf_ns) + "\"><capabilities>";
        if (c.base10)
            hello += "<capability>" + std::string(base10) + "</capability>";
        if (c.base11)
            hello += "<capability>" + std::string(base11) + "</capability>";
        out.to_agent += hello + "</capabilities></hello>" + std::string(end_mark);
        chunked_ = c.base11;
        in_ = chunked_ ? In::newline : In::message;
        return;
    }
    if (over_budget_)
        return refuse_for_budget(text, out);
    MessageCheck c = check_message(text, false);
    if (c.ok && screen_) {
        if (auto reply = screen_(text, c.message_id)) {
            charge_.give_back(charged_);
            charged_ = 0;
            answer(std::move(*reply), out);
            return;
        }
    }
    if (c.ok) {
        out.to_agent += framed(text);
        ++handed_on_;
        // Held until libnetconf2 answers it.
        in_flight_.push_back(charged_);
        charged_ = 0;
        return;
    }
    charge_.give_back(charged_);
    charged_ = 0;
    if (c.tag == "malformed-message" && !chunked_)
        c.tag = "operation-failed";
    answer(error_reply(c), out);
}

std::size_t SessionGuard::from_client(std::string_view bytes, Out &out)
{
    std::size_t i = 0;
    const auto too_big = [&] {
        MessageCheck c;
        c.tag = "too-big";
        c.message = "a message larger than " + std::to_string(max_) +
                    " bytes, more than the agent takes; the session ends";
        message_.clear();
        message_.shrink_to_fit();
        charge_.give_back(charged_);
        charged_ = 0;
        closing_ = true;
        reason_ = "a message larger than " + std::to_string(max_) + " bytes";
        ++refused_;
        waiting_.push_back({handed_on_, framed(error_reply(c)), true});
        waiting_bytes_ += waiting_.back().text.size();
        release(out);
    };
    const auto fail = [&](std::string why) {
        end(std::move(why));
        return i;
    };
    // The size of the message in hand, kept or not.
    const auto size = [&] { return over_budget_ ? size_ : message_.size(); };
    // A call adds no more than max_waiting of the guard's own answers to
    // those due now, whatever number of messages the bytes hold.
    const std::size_t due = out.to_client.size();
    while (i < bytes.size() && taking() && out.to_client.size() - due < max_waiting) {
        const char c = bytes[i];
        switch (in_) {
        case In::message: {
            const std::size_t limit = hello_done_ ? max_ : max_hello;
            if (over_budget_) {
                // Not kept: the end mark is looked for as the bytes go by.
                std::size_t j = i;
                bool found = false;
                while (j < bytes.size() && !found) {
                    const char b = bytes[j++];
                    while (matched_ > 0 && b != end_mark[matched_])
                        matched_ = border[matched_];
                    if (b == end_mark[matched_])
                        ++matched_;
                    found = matched_ == end_mark.size();
                }
                keep_head(bytes.substr(i, j - i));
                size_ += j - i;
                i = j;
                if (found) {
                    matched_ = 0;
                    size_ -= end_mark.size();
                    if (size_ > limit)
                        too_big();
                    else
                        message_done(out);
                } else if (size_ > limit + end_mark.size() - 1) {
                    too_big();
                }
                break;
            }
            // The end mark, looked for from where the last bytes left off.
            const std::size_t from = message_.size() >= 5 ? message_.size() - 5 : 0;
            const std::size_t room = limit + end_mark.size() - message_.size();
            const std::string_view piece = bytes.substr(i, room);
            message_.append(piece);
            const std::size_t at = std::string_view(message_).find(end_mark, from);
            if (at == std::string::npos) {
                i += piece.size();
                if (message_.size() > limit + end_mark.size() - 1) {
                    if (!hello_done_)
                        return fail("a hello larger than 1 MiB");
                    too_big();
                } else if (hello_done_) {
                    charge(piece.size());
                }
                break;
            }
            // The bytes after the end mark go round again.
            i += piece.size() - (message_.size() - at - end_mark.size());
            message_.resize(at);
            if (at > limit) {
                if (!hello_done_)
                    return fail("a hello larger than 1 MiB");
                too_big();
                break;
            }
            if (hello_done_ && message_.size() > charged_)
                charge(message_.size() - charged_);
            message_done(out);
            break;
        }
        case In::newline:
            if (c != '\n')
                return fail("a chunk that does not start with \"\\n#\"");
            in_ = In::hash;
            ++i;
            break;
        case In::hash:
            if (c != '#')
                return fail("a chunk that does not start with \"\\n#\"");
            in_ = In::first;
            ++i;
            break;
        case In::first:
            if (c == '#') {
                if (!has_chunk_)
                    return fail("a message of no chunk");
                in_ = In::end_newline;
            } else if (c >= '1' && c <= '9') {
                chunk_size_ = static_cast<uint64_t>(c - '0');
                digits_ = 1;
                in_ = In::digits;
            } else {
                return fail("a chunk size that is not 1 to 4294967295");
            }
            ++i;
            break;
        case In::digits:
            if (c == '\n') {
                if (size() + chunk_size_ > max_) {
                    too_big();
                    break;
                }
                left_ = chunk_size_;
                in_ = In::data;
            } else if (c >= '0' && c <= '9' && digits_ < 10) {
                chunk_size_ = chunk_size_ * 10 + static_cast<uint64_t>(c - '0');
                ++digits_;
                if (chunk_size_ > 4294967295u)
                    return fail("a chunk size that is not 1 to 4294967295");
            } else {
                return fail("a chunk size that is not 1 to 4294967295");
            }
            ++i;
            break;
        case In::end_newline:
            if (c != '\n')
                return fail("a message end mark not followed by \"\\n\"");
            in_ = In::newline;
            has_chunk_ = false;
            ++i;
            message_done(out);
            break;
        case In::data: {
            const std::size_t take = static_cast<std::size_t>(
                std::min<uint64_t>(left_, static_cast<uint64_t>(bytes.size() - i)));
            const std::string_view part = bytes.substr(i, take);
            if (charge(take)) {
                message_.append(part);
            } else {
                keep_head(part);
                size_ += take;
            }
            left_ -= take;
            i += take;
            if (left_ == 0) {
                has_chunk_ = true;
                in_ = In::newline;
            }
            break;
        }
        }
    }
    return i;
}

void SessionGuard::back_head(std::string_view bytes)
{
    for (const char c : bytes) {
        if (back_head_size_ == sizeof back_head_)
            return;
        if (back_head_size_ == 0 && (c == ' ' || c == '\n' || c == '\r' || c == '\t'))
            continue;
        back_head_[back_head_size_++] = c;
    }
}

void SessionGuard::from_agent(std::string_view bytes, Out &out)
{
    // libnetconf2's messages end where its frames say; each that ends lets
    // the answers of the guard that wait for it go after it, but for an
    // event notification, which answers nothing.
    static constexpr std::string_view notification = "<notification";
    std::size_t sent = 0;
    auto message_ended = [&](std::size_t upto) {
        out.to_client.append(bytes.substr(sent, upto - sent));
        sent = upto;
        const bool event = std::string_view(back_head_, back_head_size_).starts_with(notification);
        back_head_size_ = 0;
        if (!agent_hello_done_) {
            agent_hello_done_ = true;
        } else if (!event) {
            ++answered_;
            if (!in_flight_.empty()) {
                charge_.give_back(in_flight_.front());
                in_flight_.pop_front();
            }
            release(out);
        }
    };
    for (std::size_t i = 0; i < bytes.size();) {
        const char c = bytes[i];
        // Its hello, and every message of a base:1.0 session, ends with the
        // end mark; those of a base:1.1 session are chunks.
        const bool chunks = agent_hello_done_ && chunked_;
        if (!chunks) {
            if (back_head_size_ < sizeof back_head_)
                back_head({&c, 1});
            while (back_matched_ > 0 && c != end_mark[back_matched_])
                back_matched_ = border[back_matched_];
            if (c == end_mark[back_matched_])
                ++back_matched_;
            ++i;
            if (back_matched_ == end_mark.size()) {
                back_matched_ = 0;
                message_ended(i);
                if (agent_hello_done_ && chunked_)
                    back_ = Back::newline;
            }
            continue;
        }
        switch (back_) {
        case Back::message:
        case Back::newline:
            back_ = c == '\n' ? Back::hash : Back::newline;
            ++i;
            break;
        case Back::hash:
            back_ = c == '#' ? Back::first : Back::newline;
            ++i;
            break;
        case Back::first:
            if (c == '#') {
                back_ = Back::end_newline;
            } else {
                back_left_ = static_cast<uint64_t>(c - '0');
                back_ = Back::digits;
            }
            ++i;
            break;
        case Back::digits:
            if (c == '\n')
                back_ = back_left_ > 0 ? Back::data : Back::newline;
            else if (back_left_ < (uint64_t{1} << 40))
                back_left_ = back_left_ * 10 + static_cast<uint64_t>(c - '0');
            ++i;
            break;
        case Back::end_newline:
            ++i;
            back_ = Back::newline;
            message_ended(i);
            break;
        case Back::data: {
            const std::size_t take = static_cast<std::size_t>(
                std::min<uint64_t>(back_left_, static_cast<uint64_t>(bytes.size() - i)));
            if (back_head_size_ < sizeof back_head_)
                back_head(bytes.substr(i, take));
            back_left_ -= take;
            i += take;
            if (back_left_ == 0)
                back_ = Back::newline;
            break;
        }
        }
    }
    out.to_client.append(bytes.substr(sent));
}

} // namespace octunnel::serve
