#include "cli/output_file.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel {
namespace {

std::runtime_error cannot_write(const std::string &path, int error)
{
    return std::runtime_error("cannot write " + path + ": " + std::strerror(error));
}

std::string dir_of(const std::string &path)
{
    const std::size_t cut = path.find_last_of('/');
    if (cut == std::string::npos)
        return ".";
    return cut == 0 ? "/" : path.substr(0, cut);
}

// Where `path` leads once every symbolic link on its last component is
// followed (the directories on the way the system follows itself).  As many
// links as the system itself follows, then ELOOP.
std::string follow(const std::string &path)
{
    std::string at = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st {};
        if (lstat(at.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
            return at;
        std::vector<char> buffer(PATH_MAX);
        const ssize_t n = readlink(at.c_str(), buffer.data(), buffer.size());
        if (n < 0 || static_cast<std::size_t>(n) == buffer.size())
            throw cannot_write(path, n < 0 ? errno : ENAMETOOLONG);
        std::string to(buffer.data(), static_cast<std::size_t>(n));
        at = to.front() == '/' ? to : dir_of(at) + "/" + to;
    }
    throw cannot_write(path, ELOOP);
}

mode_t new_file_mode()
{
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

// The same file, for a path that may not exist yet: its device and inode
// when it does, else where it would be made.
struct Identity {
    bool exists = false;
    bool regular = false;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string made_at;

    bool same(const Identity &o) const
    {
        if (exists != o.exists)
            return false;
        return exists ? dev == o.dev && ino == o.ino : made_at == o.made_at;
    }
};

Identity identity(const std::string &path)
{
    Identity id;
    const std::string target = follow(path);
    struct stat st {};
    if (stat(target.c_str(), &st) == 0) {
        id.exists = true;
        id.regular = S_ISREG(st.st_mode);
        id.dev = st.st_dev;
        id.ino = st.st_ino;
        return id;
    }
    id.regular = true; // it will be made as one
    const std::string dir = dir_of(target);
    char resolved[PATH_MAX];
    id.made_at = realpath(dir.c_str(), resolved) != nullptr
                     ? std::string(resolved) + "/" + target.substr(target.find_last_of('/') + 1)
                     : target;
    return id;
}

} // namespace

OutputFile::OutputFile(const std::string &path) : path_(path), target_(follow(path))
{
    struct stat st {};
    const bool exists = stat(target_.c_str(), &st) == 0;
    if (exists && S_ISDIR(st.st_mode))
        throw cannot_write(path_, EISDIR);
    in_place_ = exists && !S_ISREG(st.st_mode);
    if (in_place_) {
        file_ = std::tmpfile();
        if (file_ == nullptr)
            throw cannot_write(path_, errno);
    } else {
        mode_ = exists ? st.st_mode & 07777 : new_file_mode();
        temp_ = target_ + ".XXXXXX";
        const int fd = mkstemp(temp_.data());
        if (fd < 0) {
            const int error = errno;
            temp_.clear();
            throw cannot_write(path_, error);
        }
        if (fchmod(fd, mode_) != 0 || (file_ = fdopen(fd, "w")) == nullptr) {
            const int error = errno;
            close(fd);
            std::remove(temp_.c_str());
            temp_.clear();
            throw cannot_write(path_, error);
        }
    }
    out_.emplace(file_);
}

OutputFile::~OutputFile()
{
    out_.reset();
    if (file_ != nullptr)
        std::fclose(file_);
    if (!temp_.empty())
        std::remove(temp_.c_str());
}

void OutputFile::prepare()
{
    try {
        out_->flush();
    } catch (const std::exception &) {
        throw cannot_write(path_, errno);
    }
    if (in_place_)
        return;
    out_.reset();
    if (std::fclose(std::exchange(file_, nullptr)) != 0)
        throw cannot_write(path_, errno);
}

void OutputFile::publish()
{
    if (!in_place_) {
        if (std::rename(temp_.c_str(), target_.c_str()) != 0)
            throw cannot_write(path_, errno);
        temp_.clear();
        return;
    }
    // O_NONBLOCK is not asked for: a FIFO waits for its reader, as a shell
    // redirection to it would.
    const int fd = open(target_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        throw cannot_write(path_, errno);
    std::rewind(file_);
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), file_);
        for (std::size_t done = 0; done < n;) {
            const ssize_t w = ::write(fd, buffer.data() + done, n - done);
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0) {
                const int error = errno;
                close(fd);
                throw cannot_write(path_, error);
            }
            done += static_cast<std::size_t>(w);
        }
        if (n < buffer.size())
            break;
    }
    const bool read_error = std::ferror(file_) != 0;
    if (close(fd) != 0 || read_error)
        throw cannot_write(path_, read_error ? EIO : errno);
}

void check_output_paths(const std::string &input,
                        const std::vector<std::pair<std::string, std::string>> &outputs)
{
    std::optional<Identity> in;
    struct stat st {};
    if (input == "-") {
        if (fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode))
            in = Identity{true, true, st.st_dev, st.st_ino, {}};
    } else if (stat(input.c_str(), &st) == 0) {
        in = Identity{true, S_ISREG(st.st_mode), st.st_dev, st.st_ino, {}};
    }
    std::vector<std::pair<const std::string *, Identity>> seen;
    for (const auto &[option, path] : outputs) {
        if (path.empty())
            continue;
        Identity id = identity(path);
        // A device or FIFO is written in place, losing nothing to another
        // write: /dev/null may take two outputs.
        if (!id.regular)
            continue;
        if (in && in->same(id))
            throw std::invalid_argument(option + " " + path +
                                        " is the input: it would be overwritten");
        for (const auto &[other, other_id] : seen)
            if (other_id.same(id))
                throw std::invalid_argument(option + " " + path + " is the same file as " + *other +
                                            ": one would overwrite the other");
        seen.emplace_back(&option, std::move(id));
    }
}

} // namespace octunnel
