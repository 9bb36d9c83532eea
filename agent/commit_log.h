// The log of commits beside the running configuration's document: each
// commit appended and flushed to the disk before it is acknowledged, so that
// a commit costs what it changed, not the size of the configuration.  The
// document is brought up to date from time to time (folded), and the log
// then starts again; at start, the commits the document does not hold yet
// are applied to it again.
//
// The file is text a person can read:
//
//     octunnel commit log 1
//     commit 7 412 5f1c2a9e
//     edit merge 393
//     <interface-configurations xmlns="..." ...>...</interface-configurations>
//
// A commit's line gives its number, the length of what follows it and the
// CRC-32 of that; each of its edits gives its default operation and its
// length, and is a native document with its NETCONF operations.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace octunnel::serve {

class CommitLog {
public:
    struct Edit {
        std::string default_operation; // merge, replace or none
        std::string text;              // a native document with operations
    };
    struct Commit {
        uint64_t number = 0;
        std::vector<Edit> edits;
    };

    // The log at `path`, made if it is not there (unless `read_only`).  Its
    // commits are read into commits(); a commit left half-written by a
    // crash (the last one, never acknowledged) is dropped, and the file cut
    // back to the commits before it unless `read_only`; what it dropped is
    // told by dropped().  Throws std::runtime_error naming the file and the
    // byte where a commit other than the last is damaged.
    CommitLog(std::string path, bool read_only = false);
    ~CommitLog();
    CommitLog(const CommitLog &) = delete;
    CommitLog &operator=(const CommitLog &) = delete;

    const std::vector<Commit> &commits() const { return commits_; }
    // Frees what commits() holds, once applied.
    void forget_commits() { commits_ = {}; }
    const std::string &dropped() const { return dropped_; }
    const std::string &path() const { return path_; }

    // Appends `commit` and flushes it to the disk.  Throws
    // std::runtime_error, the file as it was, when it cannot.
    void append(const Commit &commit);
    // Bytes of commits in the file.
    uint64_t size() const { return size_ > header_size() ? size_ - header_size() : 0; }
    // Drops every commit: the document holds them.
    void clear();

private:
    static uint64_t header_size();
    std::string path_;
    int fd_ = -1;
    uint64_t size_ = 0;
    std::vector<Commit> commits_;
    std::string dropped_;
};

} // namespace octunnel::serve
