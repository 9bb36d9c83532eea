#include "agent/datastore.h"

#include "octunnel/yfw_namespaces.h"
#include "octunnel/yfw_types.h"
#include "translate/xml_io.h"
#include "translate/yang_names.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel::serve {
namespace {

constexpr int op_none = -2; // default-operation none: walk, change nothing

std::string system_error(const std::string &what, const std::string &path)
{
    return "cannot " + what + " " + path + ": " + std::strerror(errno);
}

bool is_key_of(const Node &leaf, const Node &entry)
{
    if (entry.kind() != NodeKind::list)
        return false;
    for (std::string_view key : models().keys(entry.place()))
        if (key == leaf.tag())
            return true;
    return false;
}

// Whether `e` and what it holds only remove (operation remove, or none
// below one that does): what a missing level of default-operation none may
// hold without error, as there is nothing to remove.
bool only_removes(const Node &e, int inherited)
{
    struct Step {
        const Node *node;
        int op;
    };
    bool removes = false;
    std::vector<Step> stack{{&e, e.op() >= 0 ? e.op() : inherited}};
    while (!stack.empty()) {
        Step s = stack.back();
        stack.pop_back();
        if (s.op == static_cast<int>(YFW_OP_REMOVE))
            removes = true;
        else if (s.op != op_none)
            return false;
        for (const auto &k : s.node->slots())
            if (k)
                stack.push_back({k.get(), k->op() >= 0 ? k->op() : s.op});
    }
    return removes;
}

// Whether an edit's list entry names all its keys.
bool keyed(const Node &e)
{
    for (std::string_view key : models().keys(e.place())) {
        const Node *k = e.child(key);
        if (k == nullptr || !k->has_value())
            return false;
    }
    return true;
}

// The entries of `parent` that an entry of an edit without all its keys
// stands for: those with its name and the keys it gives.
std::vector<Node *> entries_like(const Node &e, const Node &parent)
{
    std::vector<Node *> found;
    for (const auto &k : parent.slots()) {
        if (!k || std::string_view(k->tag()) != e.tag() || std::string_view(k->ns()) != e.ns())
            continue;
        bool match = true;
        for (std::string_view key : models().keys(e.place())) {
            const Node *given = e.child(key);
            if (given == nullptr || !given->has_value())
                continue;
            const Node *held = k->child(key);
            match = match && held != nullptr && held->value() == given->value();
        }
        if (match)
            found.push_back(k.get());
    }
    return found;
}

} // namespace

// Changes made to the tree, kept until the edit is whole so that every one
// can be taken back, newest first.
class Journal {
public:
    ~Journal() = default;

    Node &insert(Node &parent, std::unique_ptr<Node> node, std::size_t slot)
    {
        Node &n = parent.put(std::move(node), slot);
        changes_.push_back({Change::inserted, &parent, n.slot(), nullptr, nullptr, {}, false});
        return n;
    }
    // Puts `node` below `parent`, which this change inserted: taking the
    // parent back takes the node with it, so nothing is kept of it (an
    // entry for each node of a whole new configuration would outweigh the
    // configuration).
    Node &insert_below_new(Node &parent, std::unique_ptr<Node> node, std::size_t slot)
    {
        return parent.put(std::move(node), slot);
    }
    // Takes `n` out of the tree, and returns its slot.
    std::size_t remove(Node &n)
    {
        Node &parent = *n.parent();
        const std::size_t slot = n.slot();
        changes_.push_back({Change::removed, &parent, slot, parent.take(slot), nullptr, {}, false});
        return slot;
    }
    void set_value(Node &n, const std::string &value)
    {
        if (n.has_value() && n.value() == value)
            return;
        changes_.push_back({Change::value_set, nullptr, 0, nullptr, &n, n.value(), n.has_value()});
        n.set_value(value);
    }
    bool empty() const { return changes_.empty(); }
    // Takes the changes of `later` after its own, to be taken back with them.
    void append(Journal &later)
    {
        for (Change &c : later.changes_)
            changes_.push_back(std::move(c));
        later.changes_.clear();
    }

    void undo()
    {
        while (!changes_.empty()) {
            Change &c = changes_.back();
            switch (c.kind) {
            case Change::inserted:
                c.parent->take(c.slot);
                break;
            case Change::removed:
                c.parent->put(std::move(c.node), c.slot);
                break;
            case Change::value_set:
                if (c.had_value)
                    c.valued->set_value(c.old_value);
                else
                    c.valued->clear_value();
                break;
            }
            changes_.pop_back();
        }
    }

    // Once the edit stands: drops the empty slots of the parents that
    // changed, where they have become many.
    void commit()
    {
        for (Change &c : changes_)
            if (c.parent != nullptr && c.parent->slots().size() > 2 * c.parent->child_count() + 8)
                c.parent->compact();
        changes_.clear();
    }

private:
    struct Change {
        enum Kind { inserted, removed, value_set } kind;
        Node *parent;
        std::size_t slot;
        std::unique_ptr<Node> node; // what was removed
        Node *valued;
        std::string old_value;
        bool had_value;
    };
    std::vector<Change> changes_;
};

namespace {

class Editor {
public:
    Editor(Tree &tree, Journal &journal) : tree_(tree), journal_(journal) {}

    void apply(const Tree &edit, DefaultOperation def)
    {
        int op = def == DefaultOperation::merge     ? static_cast<int>(YFW_OP_MERGE)
                 : def == DefaultOperation::replace ? static_cast<int>(YFW_OP_REPLACE)
                                                    : op_none;
        walk(edit.root(), tree_.root(), op);
        prune();
    }

private:
    struct Step {
        const Node *e; // the edit node whose children are applied
        Node *d;       // the data node they apply to
        int op;        // what an operation-less child does
        std::size_t next;
        bool made; // whether this edit made `d`
    };
    struct Into {
        Node *d;
        bool made;
    };

    void walk(const Node &edit_root, Node &data_root, int op)
    {
        std::vector<Step> stack{{&edit_root, &data_root, op, 0, false}};
        while (!stack.empty()) {
            Step &s = stack.back();
            if (s.next == s.e->slots().size()) {
                stack.pop_back();
                continue;
            }
            const Node *e = s.e->slots()[s.next++].get();
            if (e == nullptr)
                continue;
            const int inherited = e->op() >= 0 ? e->op() : s.op;
            into_.clear();
            parent_made_ = s.made;
            apply_one(*e, *s.d, s.op);
            for (const Into &i : into_)
                stack.push_back({e, i.d, inherited, 0, i.made});
        }
    }

    [[noreturn]] void fail(const char *tag, const Node &e, const std::string &message)
    {
        throw EditError(tag, path_of(e), e.tag(), message);
    }

    // Applies `e` below `parent`; the data nodes its children apply to go
    // to into_.
    void apply_one(const Node &e, Node &parent, int inherited)
    {
        const int op = e.op() >= 0 ? e.op() : inherited;
        // A list entry's keys name it; they were written with it.
        if (parent.parent() != nullptr && is_key_of(e, parent)) {
            if (op == static_cast<int>(YFW_OP_DELETE) || op == static_cast<int>(YFW_OP_REMOVE))
                fail("operation-not-supported", e,
                     "a list key cannot be deleted apart from its entry");
            return;
        }
        if (e.kind() == NodeKind::list && !keyed(e)) {
            apply_to_entries(e, parent, op);
            return;
        }
        Node *d = parent.find(e.identity());
        switch (op) {
        case YFW_OP_DELETE:
            if (d == nullptr)
                fail("data-missing", e, "there is no " + element_name(e.tag()) + " to delete");
            remove(*d);
            return;
        case YFW_OP_REMOVE:
            if (d != nullptr)
                remove(*d);
            return;
        case YFW_OP_CREATE:
            if (d != nullptr)
                fail("data-exists", e, element_name(e.tag()) + " exists already");
            into_.push_back({&create(e, parent, parent.slots().size()), true});
            return;
        case YFW_OP_REPLACE: {
            std::size_t slot = parent.slots().size();
            if (d != nullptr)
                slot = journal_.remove(*d);
            into_.push_back({&create(e, parent, slot), true});
            return;
        }
        case YFW_OP_MERGE:
            if (d == nullptr) {
                into_.push_back({&create(e, parent, parent.slots().size()), true});
                return;
            }
            if (e.has_value())
                journal_.set_value(*d, e.value());
            into_.push_back({d, parent_made_});
            return;
        case op_none:
            if (d != nullptr)
                into_.push_back({d, parent_made_});
            else if (!only_removes(e, op_none))
                fail("data-missing", e,
                     "there is no " + element_name(e.tag()) +
                         " to edit below, and the default operation is none");
            return;
        default:
            fail("bad-attribute", e, "unknown operation " + std::to_string(op));
        }
    }

    // A list entry without all its keys stands for every entry with the
    // keys it gives: the module names no key where a deletion or a replace
    // takes out a whole list.  It can remove them, or reach into them; a
    // new entry needs its keys.
    void apply_to_entries(const Node &e, Node &parent, int op)
    {
        std::vector<Node *> entries = entries_like(e, parent);
        switch (op) {
        case YFW_OP_DELETE:
            if (entries.empty())
                fail("data-missing", e, "there is no " + element_name(e.tag()) + " to delete");
            [[fallthrough]];
        case YFW_OP_REMOVE:
            for (Node *d : entries)
                remove(*d);
            return;
        case YFW_OP_MERGE:
        case op_none:
            for (Node *d : entries)
                into_.push_back({d, parent_made_});
            return;
        default:
            for (std::string_view key : models().keys(e.place()))
                if (const Node *k = e.child(key); k == nullptr || !k->has_value())
                    fail("missing-element", e,
                         element_name(e.tag()) + " has no key " + element_name(key));
        }
    }

    Node &create(const Node &e, Node &parent, std::size_t slot)
    {
        std::unique_ptr<Node> n = tree_.make(parent, e.tag(), e.ns());
        if (e.has_value())
            n->set_value(e.value());
        if (e.kind() == NodeKind::list)
            for (std::string_view key : models().keys(e.place())) {
                const Node *k = e.child(key);
                n->add(k->tag(), k->ns()).set_value(k->value());
            }
        Node &made = parent_made_ ? journal_.insert_below_new(parent, std::move(n), slot)
                                  : journal_.insert(parent, std::move(n), slot);
        created_.push_back(&made);
        return made;
    }

    void remove(Node &d)
    {
        emptied_.push_back(d.parent());
        journal_.remove(d);
    }

    // Containers that the edit left empty, or made and put nothing in, go
    // too, up to a list entry: a container holds data only through what it
    // holds.
    void prune()
    {
        auto empty_container = [](const Node &n) {
            return n.child_count() == 0 && !n.has_value() &&
                   (n.kind() == NodeKind::container || n.kind() == NodeKind::unknown);
        };
        auto climb = [&](Node *n) {
            while (n != nullptr && n->parent() != nullptr && empty_container(*n) && attached(*n)) {
                Node *up = n->parent();
                journal_.remove(*n);
                n = up;
            }
        };
        for (auto it = created_.rbegin(); it != created_.rend(); ++it)
            if (empty_container(**it))
                climb(*it);
        for (Node *n : emptied_)
            climb(n);
    }

    bool attached(const Node &n) const
    {
        const Node *at = &n;
        while (at->parent() != nullptr)
            at = at->parent();
        return at == &tree_.root();
    }

    Tree &tree_;
    Journal &journal_;
    std::vector<Node *> emptied_;
    std::vector<Node *> created_;
    std::vector<Into> into_;
    bool parent_made_ = false; // whether this edit made the parent at hand
};

} // namespace

std::string path_of(const Node &n)
{
    std::vector<const Node *> chain;
    for (const Node *at = &n; at != nullptr && at->parent() != nullptr; at = at->parent())
        chain.push_back(at);
    std::string path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        const Node &step = **it;
        path.append("/").append(step.tag());
        if (step.kind() != NodeKind::list)
            continue;
        for (std::string_view key : models().keys(step.place()))
            if (const Node *k = step.child(key); k != nullptr && k->has_value())
                path.append("[").append(key).append("='").append(k->value()).append("']");
    }
    return path.empty() ? "/" : path;
}

std::string native_document(const Node &holder, uint64_t through)
{
    std::string text = "<!-- The native running configuration of octunnel serve, through commit " +
                       std::to_string(through) +
                       ".\n     Later commits are in running.commits until it is written again. "
                       "-->\n";
    text += "<data xmlns=\"" NS_NETCONF_BASE "\">\n";
    XmlSink sink(text, 1, NS_NETCONF_BASE);
    write(holder, sink);
    text += "</data>\n";
    return text;
}

void write_durably(const std::string &path, std::string_view text, unsigned mode)
{
    const std::size_t cut = path.find_last_of('/');
    const std::string dir = cut == std::string::npos ? "." : path.substr(0, cut + 1);
    std::string temp = path + ".XXXXXX";
    int fd = mkstemp(temp.data());
    if (fd < 0)
        throw std::runtime_error(system_error("write", path));
    auto fail = [&](const char *what) {
        std::string message = system_error(what, temp);
        close(fd);
        unlink(temp.c_str());
        throw std::runtime_error(message);
    };
    for (std::size_t done = 0; done < text.size();) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            fail("write");
        }
        done += static_cast<std::size_t>(n);
    }
    if (fchmod(fd, static_cast<mode_t>(mode)) != 0 || fsync(fd) != 0)
        fail("flush");
    if (close(fd) != 0) {
        std::string message = system_error("write", temp);
        unlink(temp.c_str());
        throw std::runtime_error(message);
    }
    if (rename(temp.c_str(), path.c_str()) != 0) {
        std::string message = system_error("rename to " + path, temp);
        unlink(temp.c_str());
        throw std::runtime_error(message);
    }
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0)
        throw std::runtime_error(system_error("open", dir));
    const int synced = fsync(dfd);
    close(dfd);
    if (synced != 0)
        throw std::runtime_error(system_error("flush", dir));
}

StateLock::StateLock(const std::string &dir)
{
    // Made here as the agent makes it, the agent's own: the lock comes first.
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
        throw std::runtime_error(system_error("make the state directory", dir));
    const std::string path = dir + "/lock";
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0)
        throw std::runtime_error(system_error("open", path));
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        char pid[32] = {};
        const ssize_t n = pread(fd_, pid, sizeof pid - 1, 0);
        close(fd_);
        fd_ = -1;
        if (error != EWOULDBLOCK)
            throw std::runtime_error("cannot lock " + path + ": " + std::strerror(error));
        std::string holder(pid, n > 0 ? static_cast<std::size_t>(n) : 0);
        while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' '))
            holder.pop_back();
        throw std::runtime_error("the state directory " + dir + " is served by another agent" +
                                 (holder.empty() ? "" : " (process " + holder + ")") +
                                 ": one agent a directory");
    }
    // Whose the lock is, for the next agent's refusal; the lock holds
    // without it.
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd_, 0) == 0 && pwrite(fd_, pid.data(), pid.size(), 0) < 0)
        return;
}

StateLock::~StateLock()
{
    if (fd_ >= 0)
        close(fd_);
}

namespace {

// The commit a document says it holds the configuration through; 0 for one
// that says none (written by hand, or before there was a log).
// Through which commit the document `f` holds the configuration, read from
// its first line; `f` is left at its start.  Read of the very file the
// document is read from: an agent may put another in its place meanwhile.
uint64_t folded_through(std::FILE *f)
{
    char start[256] = {};
    const std::size_t n = std::fread(start, 1, sizeof start - 1, f);
    std::rewind(f);
    const std::string_view text(start, n);
    constexpr std::string_view mark = "octunnel serve, through commit ";
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos || !text.starts_with("<!--"))
        return 0;
    uint64_t number = 0;
    for (std::size_t i = at + mark.size(); i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
        number = number * 10 + static_cast<uint64_t>(text[i] - '0');
    return number;
}

std::string log_file(const std::string &document)
{
    std::string path = document;
    if (path.ends_with(".xml"))
        path.resize(path.size() - 4);
    return path + ".commits";
}

const char *default_operation_name(DefaultOperation d)
{
    switch (d) {
    case DefaultOperation::merge:
        return "merge";
    case DefaultOperation::replace:
        return "replace";
    case DefaultOperation::none:
        break;
    }
    return "none";
}

} // namespace

Datastore::Datastore(std::string path, bool read_only) : path_(std::move(path))
{
    // The log before the document: should an agent write the document
    // again in between, the document read holds every commit of the log
    // read (and the commits are passed over by their numbers), and an agent
    // starts the log again only once it has.
    log_ = std::make_unique<CommitLog>(log_file(path_), read_only);
    struct stat st {};
    const bool exists = stat(path_.c_str(), &st) == 0;
    if (!exists && errno != ENOENT)
        throw std::runtime_error(system_error("read", path_));
    if (exists) {
        // A file that is no document is refused with its name and line, as
        // an operator would look for it.
        std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path_.c_str(), "re"),
                                                                &std::fclose);
        if (!file)
            throw std::runtime_error(system_error("read", path_));
        number_ = folded_through(file.get());
        Document doc;
        try {
            Input input(file.get(), max_document_bytes);
            doc = read_document(input);
        } catch (const InputError &e) {
            throw std::runtime_error(path_ + (e.line > 0 ? ":" + std::to_string(e.line) : "") +
                                     ": " + e.what());
        }
        adopt(tree_, doc);
        // Operations have no place in a configuration.
        std::vector<Node *> stack{&tree_.root()};
        while (!stack.empty()) {
            Node *n = stack.back();
            stack.pop_back();
            n->set_op(-1);
            for (const auto &k : n->slots())
                stack.push_back(k.get());
        }
    }

    // The commits the document does not hold yet, applied again as they
    // were first.
    for (const CommitLog::Commit &c : log_->commits()) {
        if (c.number <= number_)
            continue; // folded already, the log not yet started again
        for (const CommitLog::Edit &e : c.edits) {
            const DefaultOperation d = e.default_operation == "replace" ? DefaultOperation::replace
                                       : e.default_operation == "none"  ? DefaultOperation::none
                                                                        : DefaultOperation::merge;
            try {
                Tree edit;
                adopt(edit, read_xml(e.text, e.text.size() + 1));
                Journal own;
                Editor(tree_, own).apply(edit, d);
                own.commit();
            } catch (const std::exception &err) {
                throw std::runtime_error(log_->path() + ": commit " + std::to_string(c.number) +
                                         " does not apply to " + path_ + ": " + err.what());
            }
        }
        number_ = c.number;
    }
    log_->forget_commits();
    if (exists && st.st_size > 0)
        fold_at_ = std::max<uint64_t>(fold_at_, static_cast<uint64_t>(st.st_size));
}

Datastore::~Datastore() = default;

void Datastore::commit(std::vector<CommitLog::Edit> edits)
{
    log_->append({number_ + 1, std::move(edits)});
    ++number_;
    if (log_->size() < fold_at_)
        return;
    // The commit stands; the document is written again another time if it
    // cannot be now, once the log has grown as much again.
    std::unique_lock writing(writing_, std::try_to_lock);
    if (!writing.owns_lock())
        return; // being written: it catches up with the log when it can
    try {
        const std::string text = document();
        write_durably(path_, text);
        written_through_ = number_;
        folded(number_, text.size());
    } catch (const std::exception &) {
        fold_at_ = 2 * log_->size();
    }
}

void Datastore::commit_whole()
{
    // Waits for a document being written: the one written here must be
    // the last.
    std::lock_guard writing(writing_);
    const std::string text = native_document(tree_.root(), number_ + 1);
    write_durably(path_, text);
    written_through_ = ++number_;
    folded(number_, text.size());
}

std::string Datastore::document() const
{
    return native_document(tree_.root(), number_);
}

void Datastore::fold()
{
    std::lock_guard writing(writing_);
    const std::string text = document();
    write_durably(path_, text);
    written_through_ = number_;
    folded(number_, text.size());
}

void Datastore::write_document(const std::string &text, uint64_t through)
{
    std::lock_guard writing(writing_);
    // A commit wrote a later document meanwhile: this one would take its
    // commits off the disk.
    if (through < written_through_)
        return;
    write_durably(path_, text);
    written_through_ = through;
}

void Datastore::folded(uint64_t through, std::size_t document_size)
{
    if (through == number_)
        log_->clear();
    fold_at_ = std::max<uint64_t>(1u << 20, document_size);
}

Datastore::Change::Change(Datastore &store) : store_(store), journal_(std::make_unique<Journal>())
{
}

Datastore::Change::~Change()
{
    if (!done_)
        journal_->undo();
}

void Datastore::Change::apply(const Tree &edit, DefaultOperation default_operation)
{
    // An edit that fails takes back what it did, and only that.
    Journal own;
    try {
        Editor(store_.tree_, own).apply(edit, default_operation);
    } catch (...) {
        own.undo();
        throw;
    }
    if (own.empty())
        return;
    journal_->append(own);
    if (whole_)
        return;
    // Logged as it was given, to be applied again at start as it was now.
    std::string text;
    XmlSink sink(text);
    sink.with_operations();
    write(edit.root(), sink);
    logged_ += text.size();
    edits_.push_back({default_operation_name(default_operation), std::move(text)});
    // A log this large would have the document written at once: the
    // change is written as the document instead, and its text is not held
    // until then.
    if (logged_ >= store_.fold_at_) {
        whole_ = true;
        std::vector<CommitLog::Edit>().swap(edits_);
    }
}

bool Datastore::Change::changed() const
{
    return !journal_->empty();
}

void Datastore::Change::commit()
{
    // Either throws, and the destructor takes the change back.
    if (!journal_->empty() && whole_)
        store_.commit_whole();
    else if (!journal_->empty())
        store_.commit(std::move(edits_));
    journal_->commit();
    done_ = true;
}

bool Datastore::edit(const Tree &edit, DefaultOperation default_operation, bool test_only)
{
    Change change(*this);
    change.apply(edit, default_operation);
    const bool changed = change.changed();
    if (!test_only)
        change.commit();
    return changed;
}

} // namespace octunnel::serve
