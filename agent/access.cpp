#include "agent/access.h"

#include "agent/datastore.h"
#include "translate/input_error.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <crypt.h>
#include <cstring>
#include <fstream>
#include <libssh/libssh.h>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel::serve {
namespace {

std::string trim(std::string_view s)
{
    const auto from = s.find_first_not_of(" \t\r");
    if (from == std::string_view::npos)
        return {};
    const auto to = s.find_last_not_of(" \t\r");
    return std::string(s.substr(from, to - from + 1));
}

// Calls `take(line, where)` for each line of `file` that is neither blank
// nor a comment, trimmed; `where` ("FILE:N: ") opens the message of any
// error about it.
template <class Take> void each_entry(const std::string &file, Take take)
{
    std::ifstream in(file);
    if (!in)
        throw std::runtime_error("cannot read " + file);
    int number = 0;
    for (std::string raw; std::getline(in, raw);) {
        ++number;
        const std::string line = trim(raw);
        if (!line.empty() && line.front() != '#')
            take(line, file + ":" + std::to_string(number) + ": ");
    }
    if (in.bad())
        throw std::runtime_error("cannot read " + file);
}

// Compares in a time that does not depend on where the texts part.
bool same(std::string_view a, std::string_view b)
{
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
        diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

// What a password is checked against when the user does not exist, so that
// the answer takes as long: a SHA-512 crypt hash of no password anyone has.
constexpr const char no_user_hash[] =
    "$6$octunnelnouser$WwN0p6ZFnaDP9SueTuA9bgEnp5KaL4mEOUJ4WqIJc6XM"
    "OkYY39CjlvRRZE7CezxSlpVZZfsv8yY3L.TcdeY760";

// Why `name` cannot be a user's name, or nothing: SSH carries any bytes,
// but a name with a blank or a control character is a mistake in the file
// (`bob :HASH`) that would keep its user out for good, and would garble the
// log.
std::string bad_name(std::string_view name)
{
    if (name.empty())
        return "no user name";
    for (unsigned char c : name)
        if (c <= ' ' || c == 0x7f)
            return "the user name '" + one_line(name) + "' holds a blank or a control character";
    return {};
}

// The method of a crypt(3) hash as the log may show it: its prefix, never
// the hash.
std::string method_of(const std::string &hash)
{
    if (hash.front() != '$')
        return "DES";
    const auto end = hash.find('$', 1);
    return end == std::string::npos ? "$" : hash.substr(0, end + 1);
}

// Why `hash` cannot be used, or nothing: libxcrypt's crypt_checksalt()
// judges the method, and hashing with the hash as setting must give one as
// long, with the same setting, or the hash was cut short or has something
// more.
std::string bad_hash(const std::string &hash)
{
    if (hash.empty())
        return "no hash after ':'";
    if (hash.find_first_not_of(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./$=,_") !=
        std::string::npos)
        return "the hash is not in crypt(3) form (openssl passwd -6)";
    switch (crypt_checksalt(hash.c_str())) {
    case CRYPT_SALT_OK:
        break;
    case CRYPT_SALT_METHOD_LEGACY:
        // SHA-256 crypt is SHA-512 crypt's twin (the same rounds and
        // design), listed legacy by some builds of libxcrypt only as it is
        // not their default: a users file made with 'openssl passwd -5'
        // keeps working.
        if (hash.starts_with("$5$"))
            break;
        [[fallthrough]];
    case CRYPT_SALT_TOO_CHEAP:
        return "the hash is of a weak method (" + method_of(hash) +
               ", which libxcrypt calls legacy): make it again with 'openssl passwd -6' or "
               "'mkpasswd -m yescrypt'";
    case CRYPT_SALT_METHOD_DISABLED:
        return "the hash is of a method this system's libxcrypt has disabled (" + method_of(hash) +
               ")";
    default:
        return "the hash is not in crypt(3) form (openssl passwd -6)";
    }
    crypt_data data{};
    const char *again = crypt_r("", hash.c_str(), &data);
    const auto setting = hash.rfind('$');
    if (again == nullptr || again[0] == '*' || std::strlen(again) != hash.size() ||
        hash.compare(0, setting, again, setting) != 0)
        return "the hash is not whole: cut short, or with more after it";
    return {};
}

// ---------------------------------------------------------------- from=

struct AddressPattern {
    bool negated = false;
    bool block = false; // CIDR: `family`, `bytes`, `bits`; else `glob`
    std::string glob;   // lower case, '*' and '?'
    int family = AF_UNSPEC;
    unsigned char bytes[16] = {};
    unsigned bits = 0;
};

// `text` as `family` (AF_INET or AF_INET6) in `bytes`; the family it is,
// or AF_UNSPEC when it is no address.
int address_bytes(const std::string &text, unsigned char (&bytes)[16])
{
    if (inet_pton(AF_INET, text.c_str(), bytes) == 1)
        return AF_INET;
    if (inet_pton(AF_INET6, text.c_str(), bytes) == 1)
        return AF_INET6;
    return AF_UNSPEC;
}

bool in_block(const AddressPattern &p, const unsigned char (&bytes)[16])
{
    unsigned i = 0;
    for (; i + 8 <= p.bits; i += 8)
        if (bytes[i / 8] != p.bytes[i / 8])
            return false;
    if (i == p.bits)
        return true;
    const unsigned char mask = static_cast<unsigned char>(0xff << (8 - (p.bits - i)));
    return (bytes[i / 8] & mask) == p.bytes[i / 8];
}

// Whether `text` matches `glob`: '*' any run, '?' any one character.  The
// last '*' is the only one returned to, so it takes at most
// |glob| * |text| steps, never exponential.
bool glob_matches(std::string_view glob, std::string_view text)
{
    std::size_t g = 0, t = 0, star = std::string_view::npos, mark = 0;
    while (t < text.size()) {
        if (g < glob.size() && (glob[g] == '?' || glob[g] == text[t])) {
            ++g;
            ++t;
        } else if (g < glob.size() && glob[g] == '*') {
            star = g++;
            mark = t;
        } else if (star != std::string_view::npos) {
            g = star + 1;
            t = ++mark;
        } else {
            return false;
        }
    }
    while (g < glob.size() && glob[g] == '*')
        ++g;
    return g == glob.size();
}

std::vector<AddressPattern> parse_patterns(const std::string &list)
{
    std::vector<AddressPattern> patterns;
    std::size_t from = 0;
    while (true) {
        const auto comma = std::min(list.find(',', from), list.size());
        std::string text = list.substr(from, comma - from);
        AddressPattern p;
        if (!text.empty() && text.front() == '!') {
            p.negated = true;
            text.erase(0, 1);
        }
        if (text.empty())
            throw std::invalid_argument("an empty pattern");
        if (const auto slash = text.find('/'); slash != std::string::npos) {
            const std::string address = text.substr(0, slash), bits = text.substr(slash + 1);
            p.block = true;
            p.family = address_bytes(address, p.bytes);
            const unsigned most = p.family == AF_INET ? 32 : 128;
            if (p.family == AF_UNSPEC || bits.empty() || bits.size() > 3 ||
                bits.find_first_not_of("0123456789") != std::string::npos ||
                std::stoul(bits) > most)
                throw std::invalid_argument("'" + text + "' is no address/prefix-length");
            p.bits = static_cast<unsigned>(std::stoul(bits));
            for (unsigned i = p.bits; i < most; ++i)
                if ((p.bytes[i / 8] & (0x80 >> (i % 8))) != 0)
                    throw std::invalid_argument("'" + text +
                                                "' has bits set beyond its prefix length");
        } else {
            if (text.find_first_not_of("0123456789abcdefABCDEF.:*?") != std::string::npos)
                throw std::invalid_argument(
                    "'" + one_line(text) +
                    "' is no address pattern: host names are not looked up (what a client's "
                    "DNS answers is its own to choose); give addresses, with * and ? or CIDR");
            for (char &c : text)
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            p.glob = text;
        }
        patterns.push_back(std::move(p));
        if (comma == list.size())
            return patterns;
        from = comma + 1;
    }
}

// As OpenSSH: a negated pattern that matches refuses, whatever else
// matches; else one pattern that matches is enough.
bool match_patterns(const std::vector<AddressPattern> &patterns, const std::string &address)
{
    unsigned char bytes[16] = {};
    const int family = address_bytes(address, bytes);
    std::string text = address;
    for (char &c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    bool matched = false;
    for (const AddressPattern &p : patterns) {
        const bool hit =
            p.block ? family == p.family && in_block(p, bytes) : glob_matches(p.glob, text);
        if (hit && p.negated)
            return false;
        matched |= hit;
    }
    return matched;
}

// ---------------------------------------------------------------- expiry-time=

// YYYYMMDD[HHMM[SS]], in the system's time zone, or in UTC with a 'Z'
// after it, as OpenSSH reads it.
std::time_t parse_expiry(std::string text)
{
    const bool utc = !text.empty() && (text.back() == 'Z' || text.back() == 'z');
    if (utc)
        text.pop_back();
    if ((text.size() != 8 && text.size() != 12 && text.size() != 14) ||
        text.find_first_not_of("0123456789") != std::string::npos)
        throw std::invalid_argument("not YYYYMMDD[HHMM[SS]][Z]");
    auto field = [&](std::size_t at, std::size_t n) {
        return at + n <= text.size() ? std::stoi(text.substr(at, n)) : 0;
    };
    std::tm tm{};
    tm.tm_year = field(0, 4) - 1900;
    tm.tm_mon = field(4, 2) - 1;
    tm.tm_mday = field(6, 2);
    tm.tm_hour = field(8, 2);
    tm.tm_min = field(10, 2);
    tm.tm_sec = field(12, 2);
    tm.tm_isdst = -1;
    const std::tm asked = tm;
    const std::time_t t = utc ? timegm(&tm) : std::mktime(&tm);
    // Both put a day or hour out of range into the next; the fields then
    // differ.
    if (t == -1 || tm.tm_year != asked.tm_year || tm.tm_mon != asked.tm_mon ||
        tm.tm_mday != asked.tm_mday || tm.tm_min != asked.tm_min || tm.tm_sec != asked.tm_sec)
        throw std::invalid_argument("no such time");
    return t;
}

// ---------------------------------------------------------------- options

struct Option {
    std::string name; // lower case
    std::string value;
    bool has_value = false;
};

// The options at the start of `line`, up to the first blank outside
// quotes, as sshd(8) reads them: NAME or NAME="VALUE", apart by commas, \"
// a quote inside a value.  `at` is left on the blank.
std::vector<Option> parse_options(const std::string &line, std::size_t &at)
{
    std::vector<Option> options;
    while (true) {
        Option o;
        while (at < line.size() &&
               (std::isalnum(static_cast<unsigned char>(line[at])) || line[at] == '-'))
            o.name += static_cast<char>(std::tolower(static_cast<unsigned char>(line[at++])));
        if (o.name.empty())
            throw std::invalid_argument(
                "an option's name is missing (options are apart by commas, without blanks)");
        if (at < line.size() && line[at] == '=') {
            if (++at >= line.size() || line[at] != '"')
                throw std::invalid_argument("the value of " + o.name + "= is not in quotes");
            o.has_value = true;
            for (++at;; ++at) {
                if (at >= line.size())
                    throw std::invalid_argument("the value of " + o.name +
                                                "= has no closing quote");
                if (line[at] == '\\' && at + 1 < line.size() && line[at + 1] == '"')
                    o.value += line[++at];
                else if (line[at] == '"')
                    break;
                else
                    o.value += line[at];
            }
            ++at;
        }
        options.push_back(std::move(o));
        if (at >= line.size() || line[at] == ' ' || line[at] == '\t')
            return options;
        if (line[at] != ',')
            throw std::invalid_argument("options are apart by commas, without blanks");
        ++at;
    }
}

// What the agent makes of each option: sessions carry the netconf
// subsystem and nothing else (no shell, command, pty, forwarding, agent,
// X11, environment or rc file), so a restriction of any of those holds by
// itself, and a permission of one gives nothing.
enum class Meaning { from, expiry, holds, refused };
struct KnownOption {
    const char *name;
    bool value;
    Meaning meaning;
    const char *why; // refused: why
};
constexpr KnownOption known_options[] = {
    {"from", true, Meaning::from, nullptr},
    {"expiry-time", true, Meaning::expiry, nullptr},
    {"restrict", false, Meaning::holds, nullptr},
    {"no-agent-forwarding", false, Meaning::holds, nullptr},
    {"no-port-forwarding", false, Meaning::holds, nullptr},
    {"no-pty", false, Meaning::holds, nullptr},
    {"no-user-rc", false, Meaning::holds, nullptr},
    {"no-x11-forwarding", false, Meaning::holds, nullptr},
    {"permitopen", true, Meaning::holds, nullptr},
    {"permitlisten", true, Meaning::holds, nullptr},
    {"tunnel", true, Meaning::holds, nullptr},
    {"environment", true, Meaning::holds, nullptr},
    {"agent-forwarding", false, Meaning::holds, nullptr},
    {"port-forwarding", false, Meaning::holds, nullptr},
    {"pty", false, Meaning::holds, nullptr},
    {"user-rc", false, Meaning::holds, nullptr},
    {"x11-forwarding", false, Meaning::holds, nullptr},
    {"no-touch-required", false, Meaning::holds, nullptr},
    {"command", true, Meaning::refused,
     "cannot be honoured: the agent runs no command, it offers the netconf subsystem alone"},
    {"cert-authority", false, Meaning::refused,
     "is refused: certificates are not supported; give the user's own public key"},
    {"principals", true, Meaning::refused,
     "is refused: it belongs to cert-authority, and certificates are not supported"},
    {"verify-required", false, Meaning::refused,
     "cannot be honoured: the agent cannot tell whether a security key verified its user"},
};

// The type names of OpenSSH certificates end so.
bool is_certificate(std::string_view type)
{
    constexpr std::string_view cert = "-cert-v01@openssh.com";
    return type.size() > cert.size() && type.substr(type.size() - cert.size()) == cert;
}

std::string word(const std::string &line, std::size_t &at)
{
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t'))
        ++at;
    const std::size_t from = at;
    while (at < line.size() && line[at] != ' ' && line[at] != '\t')
        ++at;
    return line.substr(from, at - from);
}

} // namespace

Users Users::read(const std::string &file)
{
    Users users;
    each_entry(file, [&](const std::string &line, const std::string &where) {
        const auto colon = line.find(':');
        if (colon == std::string::npos)
            throw std::runtime_error(where + "not NAME:HASH");
        std::string name = line.substr(0, colon), hash = line.substr(colon + 1);
        if (const std::string why = bad_name(name); !why.empty())
            throw std::runtime_error(where + why);
        if (const std::string why = bad_hash(hash); !why.empty())
            throw std::runtime_error(where + "user '" + name + "': " + why);
        if (!users.hashes_.emplace(name, hash).second)
            throw std::runtime_error(where + "user '" + name + "' is given twice");
    });
    return users;
}

bool Users::check(std::string_view name, std::string_view password) const
{
    auto it = hashes_.find(std::string(name));
    const std::string &hash = it != hashes_.end() ? it->second : std::string(no_user_hash);
    crypt_data data{};
    const char *computed = crypt_r(std::string(password).c_str(), hash.c_str(), &data);
    const bool match = computed != nullptr && computed[0] != '*' && same(computed, hash);
    return match && it != hashes_.end();
}

struct AuthorizedKeys::Key {
    std::string user;
    ssh_key key = nullptr;
    std::string where; // "FILE:N: "
    std::string from;  // as given; empty: from anywhere
    std::vector<AddressPattern> patterns;
    std::optional<std::time_t> expiry;
    std::string expiry_text;
    ~Key() { ssh_key_free(key); }
};

AuthorizedKeys::AuthorizedKeys() = default;
AuthorizedKeys::~AuthorizedKeys() = default;
AuthorizedKeys::AuthorizedKeys(AuthorizedKeys &&) noexcept = default;
AuthorizedKeys &AuthorizedKeys::operator=(AuthorizedKeys &&) noexcept = default;

AuthorizedKeys AuthorizedKeys::read(const std::string &file)
{
    AuthorizedKeys keys;
    each_entry(file, [&](const std::string &line, const std::string &where) {
        auto key = std::make_unique<Key>();
        key->where = where;
        std::size_t at = 0;
        std::string type = word(line, at);
        bool untouched = false; // no-touch-required
        // Options come first when the line does not begin with a key type.
        if (ssh_key_type_from_name(type.c_str()) == SSH_KEYTYPE_UNKNOWN && !is_certificate(type)) {
            at = 0;
            std::vector<Option> options;
            try {
                options = parse_options(line, at);
            } catch (const std::invalid_argument &e) {
                throw std::runtime_error(where + e.what());
            }
            for (const Option &o : options) {
                untouched |= o.name == "no-touch-required";
                const auto *k =
                    std::find_if(std::begin(known_options), std::end(known_options),
                                 [&](const KnownOption &k) { return o.name == k.name; });
                if (k == std::end(known_options))
                    throw std::runtime_error(where + "unknown option '" + one_line(o.name) + "'");
                const std::string shown = o.name + (k->value ? "=" : "");
                if (k->meaning == Meaning::refused)
                    throw std::runtime_error(where + "the option " + shown + " " + k->why);
                if (o.has_value != k->value)
                    throw std::runtime_error(
                        where + o.name +
                        (k->value ? " takes a value in quotes" : " takes no value"));
                try {
                    if (k->meaning == Meaning::from) {
                        if (!key->from.empty())
                            throw std::invalid_argument("given twice");
                        key->patterns = parse_patterns(o.value);
                        key->from = o.value;
                    } else if (k->meaning == Meaning::expiry) {
                        if (key->expiry)
                            throw std::invalid_argument("given twice");
                        key->expiry = parse_expiry(o.value);
                        key->expiry_text = o.value;
                    }
                } catch (const std::invalid_argument &e) {
                    throw std::runtime_error(where + shown + "\"" + one_line(o.value) +
                                             "\": " + e.what());
                }
            }
            type = word(line, at);
        }
        if (is_certificate(type))
            throw std::runtime_error(where + "a certificate (" + one_line(type) +
                                     "): certificates are not supported");
        const ssh_keytypes_e kind = ssh_key_type_from_name(type.c_str());
        const std::string blob = word(line, at);
        if (kind == SSH_KEYTYPE_UNKNOWN || blob.empty() ||
            ssh_pki_import_pubkey_base64(blob.c_str(), kind, &key->key) != SSH_OK)
            throw std::runtime_error(where + "not a public key of a type libssh knows");
        // A security key signs with flags that say whether it was touched;
        // libssh checks the signature but tells the agent nothing of them,
        // so a key that should be touched cannot be held to it.
        if ((kind == SSH_KEYTYPE_SK_ED25519 || kind == SSH_KEYTYPE_SK_ECDSA) && !untouched)
            throw std::runtime_error(where + "a security key (" + type +
                                     ") must be touched to log in, which the agent cannot "
                                     "tell: give no-touch-required to take it without");
        const std::string comment = word(line, at);
        key->user = comment.substr(0, comment.find('@'));
        if (key->user.empty())
            throw std::runtime_error(where +
                                     "no user: the comment after the key names it (alice or "
                                     "alice@host)");
        if (const std::string why = bad_name(key->user); !why.empty())
            throw std::runtime_error(where + why);
        keys.keys_.push_back(std::move(key));
    });
    return keys;
}

bool AuthorizedKeys::check(std::string_view name, const ssh_key_struct *key,
                           const std::string &address, std::time_t now, std::string *why) const
{
    for (const auto &k : keys_) {
        if (k->user != name ||
            ssh_key_cmp(k->key, const_cast<ssh_key>(key), SSH_KEY_CMP_PUBLIC) != 0)
            continue;
        if (!k->from.empty() && !match_patterns(k->patterns, address)) {
            if (why != nullptr)
                *why = k->where + "the key of '" + k->user + "' is not taken from " + address +
                       ": from=\"" + one_line(k->from) + "\"";
            continue;
        }
        if (k->expiry && now > *k->expiry) {
            if (why != nullptr)
                *why = k->where + "the key of '" + k->user + "' expired: expiry-time=\"" +
                       k->expiry_text + "\"";
            continue;
        }
        return true;
    }
    return false;
}

bool address_matches(const std::string &patterns, const std::string &address)
{
    return match_patterns(parse_patterns(patterns), address);
}

std::string host_key(const std::string &state_dir)
{
    const std::string path = state_dir + "/ssh_host_ed25519_key";
    // A key file is written whole or not at all (below); an empty one can
    // only be left by an older agent on a full disk, and holds no identity
    // a client could know: it is made again.
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && st.st_size > 0) {
        if (access(path.c_str(), R_OK) != 0)
            throw std::runtime_error("cannot read the SSH host key " + path + ": " +
                                     std::strerror(errno));
        return path;
    }
    ssh_key key = nullptr;
    if (ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &key) != SSH_OK)
        throw std::runtime_error("cannot make an SSH host key");
    char *text = nullptr;
    const int rc = ssh_pki_export_privkey_base64(key, nullptr, nullptr, nullptr, &text);
    ssh_key_free(key);
    if (rc != SSH_OK || text == nullptr)
        throw std::runtime_error("cannot make an SSH host key");
    std::string pem(text);
    ssh_string_free_char(text);
    try {
        write_durably(path, pem, 0600);
    } catch (const std::exception &e) {
        throw std::runtime_error("cannot write the SSH host key: " + std::string(e.what()));
    }
    return path;
}

} // namespace octunnel::serve
