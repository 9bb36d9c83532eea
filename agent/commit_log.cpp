#include "agent/commit_log.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel::serve {
namespace {

constexpr std::string_view header = "octunnel commit log 1\n";

constexpr std::array<uint32_t, 256> crc_table()
{
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) != 0 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

// CRC-32 (IEEE 802.3), as zlib and most tools compute it.
uint32_t crc32(std::string_view data)
{
    static constexpr std::array<uint32_t, 256> table = crc_table();
    uint32_t c = 0xFFFFFFFFu;
    for (char ch : data)
        c = table[(c ^ static_cast<unsigned char>(ch)) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

std::runtime_error failure(const std::string &what, const std::string &path)
{
    return std::runtime_error("cannot " + what + " " + path + ": " + std::strerror(errno));
}

// The words of a line, split on single spaces.
std::vector<std::string_view> words(std::string_view line)
{
    std::vector<std::string_view> out;
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t space = std::min(line.find(' ', at), line.size());
        out.push_back(line.substr(at, space - at));
        at = space + 1;
    }
    return out;
}

template <typename Number> bool number(std::string_view text, Number &n, int base = 10)
{
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), n, base);
    return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

// A commit of `text` at `at`, and where it ends; nothing when what is there
// is no whole commit.
std::optional<std::pair<CommitLog::Commit, std::size_t>> parse_commit(std::string_view text,
                                                                      std::size_t at)
{
    const std::size_t eol = text.find('\n', at);
    if (eol == std::string_view::npos || eol - at > 64)
        return std::nullopt;
    const auto w = words(text.substr(at, eol - at));
    CommitLog::Commit commit;
    uint64_t length = 0;
    uint32_t crc = 0;
    if (w.size() != 4 || w[0] != "commit" || !number(w[1], commit.number) ||
        !number(w[2], length) || w[3].size() != 8 || !number(w[3], crc, 16) ||
        length > text.size() - eol - 1)
        return std::nullopt;
    const std::string_view payload = text.substr(eol + 1, length);
    if (crc32(payload) != crc)
        return std::nullopt;
    for (std::size_t p = 0; p < payload.size();) {
        const std::size_t end = payload.find('\n', p);
        if (end == std::string_view::npos)
            return std::nullopt;
        const auto e = words(payload.substr(p, end - p));
        uint64_t size = 0;
        if (e.size() != 3 || e[0] != "edit" || !number(e[2], size) ||
            size > payload.size() - end - 1)
            return std::nullopt;
        commit.edits.push_back({std::string(e[1]), std::string(payload.substr(end + 1, size))});
        p = end + 1 + size;
    }
    return std::make_pair(std::move(commit), eol + 1 + length);
}

} // namespace

uint64_t CommitLog::header_size()
{
    return header.size();
}

CommitLog::CommitLog(std::string path, bool read_only) : path_(std::move(path))
{
    fd_ =
        open(path_.c_str(), read_only ? O_RDONLY | O_CLOEXEC : O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
        if (read_only && errno == ENOENT)
            return;
        throw failure("open", path_);
    }
    std::string text;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw failure("read", path_);
        if (n == 0)
            break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    if (text.empty() && !read_only) {
        // A new log: its first line, and its name in the directory, on the
        // disk before any commit is.
        if (::write(fd_, header.data(), header.size()) != static_cast<ssize_t>(header.size()) ||
            fsync(fd_) != 0)
            throw failure("write", path_);
        const std::size_t cut = path_.find_last_of('/');
        const std::string dir = cut == std::string::npos ? "." : path_.substr(0, cut + 1);
        const int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dfd >= 0) {
            fsync(dfd);
            close(dfd);
        }
        size_ = header.size();
        return;
    }
    if (text.empty())
        return;
    if (!std::string_view(text).starts_with(header))
        throw std::runtime_error(path_ +
                                 ": not a commit log of this agent (its first line is "
                                 "not \"" +
                                 std::string(header.substr(0, header.size() - 1)) + "\")");
    std::size_t at = header.size();
    while (at < text.size()) {
        auto parsed = parse_commit(text, at);
        if (!parsed) {
            // Only the last commit can be half-written, and it was never
            // acknowledged: a whole commit after the damage means the damage
            // is not that.
            for (std::size_t next = text.find("\ncommit ", at); next != std::string::npos;
                 next = text.find("\ncommit ", next + 1))
                if (parse_commit(text, next + 1))
                    throw std::runtime_error(path_ + ": the commit at byte " + std::to_string(at) +
                                             " is damaged, and commits follow it");
            dropped_ = "a commit left half-written at byte " + std::to_string(at) + " of " + path_ +
                       " (" + std::to_string(text.size() - at) +
                       " bytes) was never acknowledged, and is dropped";
            if (!read_only && ftruncate(fd_, static_cast<off_t>(at)) != 0)
                throw failure("cut back", path_);
            break;
        }
        commits_.push_back(std::move(parsed->first));
        at = parsed->second;
    }
    size_ = at;
}

CommitLog::~CommitLog()
{
    if (fd_ >= 0)
        close(fd_);
}

void CommitLog::append(const Commit &commit)
{
    std::string payload;
    for (const Edit &e : commit.edits) {
        payload += "edit " + e.default_operation + " " + std::to_string(e.text.size()) + "\n";
        payload += e.text;
    }
    char crc[9];
    std::snprintf(crc, sizeof crc, "%08x", crc32(payload));
    std::string record = "commit " + std::to_string(commit.number) + " " +
                         std::to_string(payload.size()) + " " + crc + "\n";
    record += payload;
    for (std::size_t done = 0; done < record.size();) {
        const ssize_t n = pwrite(fd_, record.data() + done, record.size() - done,
                                 static_cast<off_t>(size_ + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const std::runtime_error e = failure("write", path_);
            if (ftruncate(fd_, static_cast<off_t>(size_)) != 0)
                throw failure("cut back", path_);
            throw e;
        }
        done += static_cast<std::size_t>(n);
    }
    if (fdatasync(fd_) != 0) {
        const std::runtime_error e = failure("flush", path_);
        if (ftruncate(fd_, static_cast<off_t>(size_)) != 0)
            throw failure("cut back", path_);
        throw e;
    }
    size_ += record.size();
}

void CommitLog::clear()
{
    if (ftruncate(fd_, static_cast<off_t>(header.size())) != 0 || fdatasync(fd_) != 0)
        throw failure("clear", path_);
    size_ = header.size();
}

} // namespace octunnel::serve
