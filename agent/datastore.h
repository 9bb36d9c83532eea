// The router's native running configuration as the agent keeps it: a tree
// in memory, and on disk a native document with the log of the commits made
// since it was last written (commit_log.h): together they always hold the
// last committed configuration whole.
#pragma once

#include "agent/commit_log.h"
#include "agent/tree.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace octunnel::serve {

// An edit that cannot be applied, in NETCONF's terms: its error-tag (RFC
// 6241, appendix A), the native node it is about, and a message.
struct EditError : std::runtime_error {
    EditError(std::string tag, std::string path, std::string element, const std::string &message)
        : std::runtime_error(message), tag(std::move(tag)), path(std::move(path)),
          element(std::move(element))
    {
    }
    std::string tag;
    std::string path;    // the node, as /a/b[k='v']/c
    std::string element; // its tag, for error-info's bad-element
};

// What a node of an edit without an operation of its own, or of a parent
// that has one, does (RFC 6241, 7.2, default-operation).
enum class DefaultOperation { merge, replace, none };

class Journal;

class Datastore {
public:
    // A change under way: edits applied one after the other, kept by
    // commit() or taken back, whole, when the change ends without it.
    class Change {
    public:
        explicit Change(Datastore &store);
        ~Change();
        Change(const Change &) = delete;
        Change &operator=(const Change &) = delete;

        // Applies `edit` as Datastore::edit does; throws EditError, and
        // then the change holds what it held before.
        void apply(const Tree &edit, DefaultOperation default_operation);
        // Whether the edits so far changed anything.
        bool changed() const;
        // Keeps the change: the disk holds it when this returns.  Throws
        // std::runtime_error, having taken the change back, when it cannot
        // be written.
        void commit();

    private:
        Datastore &store_;
        std::unique_ptr<Journal> journal_;
        std::vector<CommitLog::Edit> edits_; // as the log keeps them
        std::size_t logged_ = 0;             // bytes of their texts
        // Whether the change is too large for the log: it is committed by
        // writing the document whole.
        bool whole_ = false;
        bool done_ = false;
    };

    // The configuration kept in the document `path` (read when the file
    // exists) and the commits of the log beside it that the document does
    // not hold yet.  `read_only` changes neither file: it reads what an
    // agent serving them has committed so far.  Throws std::runtime_error
    // for a file that cannot be read, or is not a document (naming its
    // line).
    explicit Datastore(std::string path, bool read_only = false);
    ~Datastore();

    const Tree &tree() const { return tree_; }
    const std::string &path() const { return path_; }
    const std::string &log_path() const { return log_->path(); }
    // What was found on reading the files that an operator should hear
    // of (a commit half-written by a crash, dropped); empty when nothing.
    const std::string &note() const { return log_->dropped(); }

    // Applies `edit`, whose top-level nodes are native roots carrying the
    // operations of RFC 6241 (merge, replace, create, delete, remove), all or
    // nothing: either every node is applied and, unless `test_only`, the file
    // holds the new configuration when this returns, or nothing changed.
    // Returns whether anything changed.  Throws EditError for an edit that
    // does not fit the configuration, std::runtime_error for a file that
    // cannot be written.
    bool edit(const Tree &edit, DefaultOperation default_operation, bool test_only);

    // Whether the document lacks commits that the log holds.
    bool behind() const { return log_->size() > 0; }
    // Writes the document whole (to a new file first, flushed to the disk,
    // then renamed over the old one) and starts the log again.  A commit
    // does so itself once the log outgrows the document, so that the disk
    // holds at most about twice the configuration.
    void fold();
    // The document as fold() writes it.
    std::string document() const;

    // fold() in three steps, so that the long one, writing the document,
    // needs nothing else of the datastore and may run while it takes
    // commits: the document as it stands and the commit it holds through;
    // then write_document() of them, on any thread; then folded() with the
    // commit, which starts the log again unless commits came meanwhile (the
    // log then keeps them, and those the document holds are passed over at
    // start by their numbers).  One document is written at a time: a commit
    // that outgrows the log while one is written leaves it to that one.
    std::pair<std::string, uint64_t> snapshot() const { return {document(), number_}; }
    // Writes nothing when a later document was written meanwhile.
    void write_document(const std::string &text, uint64_t through);
    void folded(uint64_t through, std::size_t document_size);

private:
    friend class Change;
    // Logs a change of `edits` as the next commit.
    void commit(std::vector<CommitLog::Edit> edits);
    // Commits the change made to the tree by writing the document whole,
    // through the next commit; the log starts again.
    void commit_whole();

    Tree tree_;
    std::string path_;
    std::unique_ptr<CommitLog> log_;
    std::mutex writing_;           // of the document
    uint64_t number_ = 0;          // of the last commit
    uint64_t written_through_ = 0; // the commit of the last document written, under writing_
    uint64_t fold_at_ = 1u << 20;  // the log's size that makes a commit fold
};

// The text of a native document holding the top-level nodes of `holder`,
// as the running configuration file holds them, through commit `through`.
std::string native_document(const Node &holder, uint64_t through = 0);

// The state directory's lock, held for the life of the agent that serves
// it: two agents writing one running configuration would each lose what the
// other acknowledged.  The lock is the kernel's (flock), so it goes with the
// process however that ends; the file says whose it is.
class StateLock {
public:
    // Makes the directory if need be.  Throws std::runtime_error naming the
    // directory, and the process id of the agent that holds it.
    explicit StateLock(const std::string &dir);
    ~StateLock();
    StateLock(const StateLock &) = delete;
    StateLock &operator=(const StateLock &) = delete;

private:
    int fd_ = -1;
};

// Writes `text` to `path` whole or not at all: to a new file beside it,
// flushed to the disk, renamed, and the directory flushed.  Throws
// std::runtime_error naming the file.  The file is readable by `mode`.
void write_durably(const std::string &path, std::string_view text, unsigned mode = 0644);

// The path of a node, as /a/b[k='v']/c: list entries by their keys.
std::string path_of(const Node &n);

} // namespace octunnel::serve
