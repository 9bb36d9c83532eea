// Who may open a session: users with crypt(3) password hashes, and public
// keys in OpenSSH's authorized_keys form.
#pragma once

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
    // passed over.  HASH is a crypt(3) hash, as `openssl passwd -6` prints
    // it.  Throws std::runtime_error naming the file and line at fault.
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
    // comments keys as user@host).  Throws std::runtime_error naming the file
    // and line at fault.
    static AuthorizedKeys read(const std::string &file);
    // Whether `key` may log `name` in.
    bool check(std::string_view name, const ssh_key_struct *key) const;
    std::size_t size() const { return keys_.size(); }

private:
    struct Key;
    std::vector<std::unique_ptr<Key>> keys_;
};

// The SSH host key of the state directory: made on first use, kept after.
// Returns its path; throws std::runtime_error when it cannot be made.
std::string host_key(const std::string &state_dir);

} // namespace octunnel::serve
