#include "access.h"

#include "datastore.h"

#include <cerrno>
#include <crypt.h>
#include <cstring>
#include <fstream>
#include <libssh/libssh.h>
#include <stdexcept>
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

} // namespace

Users Users::read(const std::string &file)
{
    Users users;
    each_entry(file, [&](const std::string &line, const std::string &where) {
        const auto colon = line.find(':');
        if (colon == std::string::npos || colon == 0 || colon + 1 == line.size())
            throw std::runtime_error(where + "not NAME:HASH");
        std::string name = line.substr(0, colon), hash = line.substr(colon + 1);
        if (hash.front() != '$' || hash.find_first_of(" \t:") != std::string::npos)
            throw std::runtime_error(where +
                                     "the hash is not in crypt(3) form (openssl passwd -6)");
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
        // Fields apart by blanks; options, when given, come first and hold
        // no blank outside quotes.
        std::vector<std::string> fields;
        std::string field;
        bool quoted = false;
        for (char c : line) {
            if (c == '"')
                quoted = !quoted;
            if ((c == ' ' || c == '\t') && !quoted) {
                if (!field.empty())
                    fields.push_back(std::move(field));
                field.clear();
            } else {
                field.push_back(c);
            }
        }
        if (!field.empty())
            fields.push_back(std::move(field));
        std::size_t at = 0;
        if (!fields.empty() && ssh_key_type_from_name(fields[0].c_str()) == SSH_KEYTYPE_UNKNOWN)
            at = 1; // options
        if (fields.size() < at + 3)
            throw std::runtime_error(where +
                                     "not TYPE KEY USER[@HOST] (the comment names the user)");
        auto key = std::make_unique<Key>();
        const ssh_keytypes_e type = ssh_key_type_from_name(fields[at].c_str());
        if (type == SSH_KEYTYPE_UNKNOWN ||
            ssh_pki_import_pubkey_base64(fields[at + 1].c_str(), type, &key->key) != SSH_OK)
            throw std::runtime_error(where + "not a public key of a type libssh knows");
        key->user = fields[at + 2].substr(0, fields[at + 2].find('@'));
        keys.keys_.push_back(std::move(key));
    });
    return keys;
}

bool AuthorizedKeys::check(std::string_view name, const ssh_key_struct *key) const
{
    for (const auto &k : keys_)
        if (k->user == name &&
            ssh_key_cmp(k->key, const_cast<ssh_key>(key), SSH_KEY_CMP_PUBLIC) == 0)
            return true;
    return false;
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
