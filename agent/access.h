// Who may open a session: users with crypt(3) password hashes, and public
// keys in OpenSSH's authorized_keys form.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

struct ssh_key_struct;

namespace octunnel::serve {

class Users {
public:
    Users() = default;
    // Reads `NAME:HASH` lines; blank lines and lines starting with '#' are
    // passed over.  NAME is not empty and holds no blank or control
    // character; HASH is a whole crypt(3) hash of a method libxcrypt does
    // not call legacy (yescrypt, SHA-512, bcrypt, scrypt: `openssl passwd
    // -6` or mkpasswd(1) print them), never DES, MD5, SHA-256 or the like.
    // Throws std::runtime_error naming the file and line at fault.
    static Users read(const std::string &file);
    // Whether `password` is the password of `name`.  Takes as long for a
    // user who does not exist as for one who does.
    bool check(std::string_view name, std::string_view password) const;
    std::size_t size() const { return hashes_.size(); }

private:
    std::unordered_map<std::string, std::string> hashes_;
};

class AuthorizedKeys {
public:
    AuthorizedKeys();
    ~AuthorizedKeys();
    AuthorizedKeys(AuthorizedKeys &&) noexcept;
    AuthorizedKeys &operator=(AuthorizedKeys &&) noexcept;
    // Reads OpenSSH's authorized_keys lines (options, type, key, comment):
    // each key logs in the user its comment names, up to an '@' (ssh-keygen
    // comments keys as user@host), never an empty one.  Of the options,
    // from= and expiry-time= are checked at each login; the restrictions
    // (restrict, no-pty, no-port-forwarding, permitopen= ...) hold by
    // themselves, as the agent offers nothing but the netconf subsystem;
    // what it cannot honour (command=, cert-authority, principals=,
    // verify-required, certificates as keys, a security key without
    // no-touch-required, unknown options) refuses the line.  Throws std::runtime_error naming the
    // file and line at fault.
    static AuthorizedKeys read(const std::string &file);
    // Whether `key` may log `name` in from `address` (as source_of() gives
    // it) at `now`; when a line of the key refuses it by its options,
    // `why` says which and how ("FILE:N: ...").
    bool check(std::string_view name, const ssh_key_struct *key, const std::string &address,
               std::time_t now, std::string *why = nullptr) const;
    std::size_t size() const { return keys_.size(); }

private:
    struct Key;
    std::vector<std::unique_ptr<Key>> keys_;
};

// Whether `address` (numeric, IPv4 or IPv6) matches the OpenSSH
// pattern-list `patterns` as from= gives it: addresses with '*' and '?',
// CIDR blocks, '!' before any to refuse what it matches.  Throws
// std::invalid_argument saying what is wrong with the list.
bool address_matches(const std::string &patterns, const std::string &address);

// The SSH host key of the state directory: made on first use, kept after.
// Returns its path; throws std::runtime_error when it cannot be made.
std::string host_key(const std::string &state_dir);

} // namespace octunnel::serve
