#include "agent/oper.h"
#include "translate/walk.h"

#include "translate/xml_io.h"

#include <libxml/parser.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <map>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace octunnel::serve {
namespace {

// Whether a native element holds a leaf with a value that the model
// descriptions describe at its place: what a walk of the module reads.
// Stops at the first.
bool describes_a_leaf(const vidl_yfw_datatree &root)
{
    struct Step {
        const vidl_yfw_datatree *n;
        JsonSchema::Node place;
    };
    std::vector<Step> stack{{&root, models().child(models().root(), {}, root.tag)}};
    while (!stack.empty()) {
        const Step s = stack.back();
        stack.pop_back();
        if (s.place == nullptr)
            continue;
        const std::size_t kids = yfwhost::tree_child_count(s.n);
        if (kids == 0 && (s.n->present & YFW_PRESENT_VALUE) != 0)
            return true;
        for (std::size_t i = 0; i < kids; ++i) {
            const vidl_yfw_datatree &k = s.n->subtrees[i];
            stack.push_back({&k, models().child(s.place, {}, k.tag != nullptr ? k.tag : "")});
        }
    }
    return false;
}

// Why a top-level element of an operational document gives <get> nothing,
// or nothing when it may give something.  The router names its models by
// what they hold: Valmora-<name>-cfg configuration, -oper operational data.
std::string passed_over(const vidl_yfw_datatree &root)
{
    const std::string_view ns = canonical_ns(root.ns != nullptr ? root.ns : "");
    const std::string what = "its root " + element_name(root.tag != nullptr ? root.tag : "") +
                             (ns.empty() ? " in no namespace" : " in namespace " + quoted(ns));
    if (ns.ends_with("-cfg"))
        return what + " is native configuration, which <get> answers from the running "
                      "configuration alone";
    if (!native_root_known(root))
        return what + " is no operational model the module reads";
    if (!describes_a_leaf(root))
        return what + " holds no leaf of the model the module reads";
    return {};
}

// Takes out of `doc` the top-level elements that give <get> nothing;
// returns why, one line, or nothing when none was.
std::string keep_operational(Document &doc)
{
    if (doc.roots.empty())
        return "nothing of it is read: it holds no element";
    std::vector<std::string> why;
    std::erase_if(doc.roots, [&](const vidl_yfw_datatree *root) {
        std::string reason = passed_over(*root);
        if (reason.empty())
            return false;
        if (std::find(why.begin(), why.end(), reason) == why.end())
            why.push_back(std::move(reason));
        return true;
    });
    if (why.empty())
        return {};
    // A document of many elements passed over for a few reasons is told
    // of in one line of a few.
    constexpr std::size_t most = 4;
    std::string line = doc.roots.empty() ? "nothing of it is read: " : "partly read: ";
    for (std::size_t i = 0; i < why.size() && i < most; ++i)
        line += (i > 0 ? "; " : "") + one_line(why[i]);
    if (why.size() > most)
        line += "; and " + std::to_string(why.size() - most) + " more";
    return line;
}

// What a change of the directory is told by.  A document is read once its
// writer closes it (written in place) or renames it into the directory,
// never on a mere write: a document being written is not read half-way.  A
// file created is read only when it is a link, made whole at once; the
// writer's close follows the creation of any other.
constexpr uint32_t watched = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CREATE |
                             IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// Without inotify (the kernel's limit of watches reached, a directory not
// there yet), how often the directory is looked at, by the version of each
// document.
constexpr int poll_ms = 1000;

bool is_document(std::string_view name)
{
    return name.size() > 4 && name.ends_with(".xml") && name.front() != '.';
}

// A version of a file: what changes when it is written, replaced or has
// its permissions changed.
struct Version {
    ino_t inode = 0;
    off_t size = -1;
    timespec modified{}, changed{};

    static Version of(const struct stat &st)
    {
        return {st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
    }
    bool operator==(const Version &o) const
    {
        return inode == o.inode && size == o.size && modified.tv_sec == o.modified.tv_sec &&
               modified.tv_nsec == o.modified.tv_nsec && changed.tv_sec == o.changed.tv_sec &&
               changed.tv_nsec == o.changed.tv_nsec;
    }
};

// Documents that a request held last are let go on the reader's thread:
// freeing the tree of a large document takes time that no request is to
// wait for.  Shared with every document's deleter, so that one outliving
// the reader is freed where it is dropped.
struct Retirement {
    std::mutex mutex;
    std::vector<const OperDocument *> pending;
    int wake = -1; // the reader's eventfd; -1 once the reader is gone
    std::thread::id reader;
    std::size_t freed = 0; // bytes of the documents freed since the memory was last trimmed
};

// How many bytes of documents freed make the reader hand the memory back
// to the system: glibc keeps what a thread frees in that thread's arena,
// so the memory of a large document's last version would otherwise stay
// with the agent, and a document replaced once would hold twice its size.
constexpr std::size_t trim_after = std::size_t{16} << 20;

void retire(Retirement &r, const OperDocument *doc)
{
    {
        std::lock_guard guard(r.mutex);
        if (r.wake >= 0 && std::this_thread::get_id() != r.reader) {
            r.pending.push_back(doc);
            const uint64_t one = 1;
            if (::write(r.wake, &one, sizeof one) < 0) {
                // The counter is full: the reader has been woken already.
            }
            return;
        }
        r.freed += doc->bytes;
    }
    delete doc;
}

// Builds the indexes of a document's large lists before it is shared: a
// filter finds entries by their keys through them, so the first <get>
// after a change does not pay for them, and no request builds one in a tree
// that others may read.  (A parent of more than 8 children has one.)
void index_lists(const Node &root)
{
    std::vector<const Node *> stack{&root};
    while (!stack.empty()) {
        const Node *n = stack.back();
        stack.pop_back();
        if (n->child_count() > 8)
            n->find({});
        for (const auto &kid : n->slots())
            if (kid)
                stack.push_back(kid.get());
    }
}

std::string seconds(std::chrono::steady_clock::duration d)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", std::chrono::duration<double>(d).count());
    return text;
}

} // namespace

struct OperationalData::Reader {
    Reader(std::string d, std::function<void(const std::string &)> w, OperOptions o)
        : dir(std::move(d)), warn(std::move(w)), options(std::move(o)),
          retirement(std::make_shared<Retirement>())
    {
    }
    ~Reader()
    {
        stop();
        for (int fd : {inotify, wake})
            if (fd >= 0)
                close(fd);
    }

    const std::string dir;
    const std::function<void(const std::string &)> warn;
    const OperOptions options;

    // What requests and subscribers see.
    mutable std::mutex published_mutex;
    mutable std::condition_variable published_cv;
    // The last snapshot every listener has heard of: waiters wake on it,
    // so that what they then ask of a listener has happened.
    uint64_t heard = 0;
    std::shared_ptr<const OperationalSnapshot> current = std::make_shared<OperationalSnapshot>();
    std::mutex listeners_mutex;
    std::map<uint64_t, Listener> listeners;
    uint64_t next_listener = 1;

    // The reader's own, but for the constructor's first look.
    struct Entry {
        Version seen;                              // the version last looked at, taken or not
        std::shared_ptr<const OperDocument> taken; // its last version read whole
    };
    std::map<std::string, Entry> entries;
    uint64_t sequence = 0;
    bool unlisted = false;  // the directory could not be listed, and that was told
    bool unwatched = false; // it could not be watched, and that was told
    int inotify = -1, watch = -1, wake = -1;
    int inotify_error = 0;
    std::shared_ptr<Retirement> retirement;
    std::atomic<bool> stopping{false};
    std::thread thread;

    void start();
    void stop();
    void run();
    void once(); // waits for a change, and reads what it brought
    bool watch_dir();
    void events(std::set<std::string> &names, bool &all);
    void bury();
    // Hands the memory of the documents freed back to the system.
    void trim();
    void look(const std::set<std::string> *names, bool each);
    bool take(const std::string &name, const std::string &path, const Version &listed);
    void publish();
    // Tells `note` of what the last publication brought.
    void tell();
    std::vector<std::string> told;
};

void OperationalData::Reader::start()
{
    // libxml2 sets itself up once, before a second thread parses.
    static std::once_flag init;
    std::call_once(init, [] { xmlInitParser(); });
    wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    inotify_error = errno;
    if (wake < 0)
        throw std::runtime_error(std::string("cannot start the reader of operational documents: ") +
                                 std::strerror(errno));
    retirement->wake = wake;
    // Watched before the first look, so that no change after it goes
    // untold.
    watch_dir();
    look(nullptr, false);
    // The reader takes no signal: the agent's main thread waits for them.
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    std::lock_guard guard(retirement->mutex);
    retirement->reader = thread.get_id();
}

void OperationalData::Reader::stop()
{
    stopping = true;
    if (thread.joinable()) {
        const uint64_t one = 1;
        if (::write(wake, &one, sizeof one) < 0) {
            // Full: the reader is woken already.
        }
        thread.join();
    }
    std::vector<const OperDocument *> left;
    {
        std::lock_guard guard(retirement->mutex);
        retirement->wake = -1;
        left.swap(retirement->pending);
    }
    for (const OperDocument *doc : left)
        delete doc;
}

bool OperationalData::Reader::watch_dir()
{
    if (inotify >= 0)
        watch = inotify_add_watch(inotify, dir.c_str(), watched);
    if (watch >= 0) {
        unwatched = false;
        return true;
    }
    if (!unwatched)
        warn("cannot watch " + dir + " for changes (" +
             std::strerror(inotify < 0 ? inotify_error : errno) +
             "): its documents are looked at every second");
    unwatched = true;
    return false;
}

void OperationalData::Reader::run()
{
    while (!stopping) {
        try {
            once();
        } catch (const std::exception &e) {
            // The reader goes on: what stands is answered meanwhile.
            warn("the reader of operational documents in " + dir + ": " + one_line(e.what()));
            std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms));
        }
    }
}

void OperationalData::Reader::once()
{
    pollfd fds[2] = {{wake, POLLIN, 0}, {inotify, POLLIN, 0}};
    const int n = poll(fds, inotify >= 0 ? 2 : 1, watch >= 0 ? -1 : poll_ms);
    if (n < 0 && errno != EINTR)
        throw std::runtime_error(std::string("poll: ") + std::strerror(errno));
    if ((fds[0].revents & POLLIN) != 0) {
        uint64_t count;
        if (::read(wake, &count, sizeof count) < 0) {
            // Read by an earlier wake.
        }
        bury();
    }
    if (stopping)
        return;
    std::set<std::string> names;
    bool all = false;
    if (inotify >= 0 && (fds[1].revents & POLLIN) != 0)
        events(names, all);
    // Unwatched, the directory is looked at whole, watched again
    // where it can be.
    if (watch < 0) {
        all = true;
        watch_dir();
    }
    if (all)
        look(nullptr, true);
    else if (!names.empty())
        look(&names, true);
}

void OperationalData::Reader::events(std::set<std::string> &names, bool &all)
{
    alignas(inotify_event) char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(inotify, buffer, sizeof buffer);
        if (got <= 0)
            return;
        for (ssize_t at = 0; at < got;) {
            const auto *e = reinterpret_cast<const inotify_event *>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + e->len);
            // Events were lost: every document is looked at by its version.
            if ((e->mask & IN_Q_OVERFLOW) != 0)
                all = true;
            if (e->wd != watch)
                continue;
            // The directory itself went or moved: what now stands at its
            // path is watched instead, or looked at every second.
            if ((e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
                if ((e->mask & IN_IGNORED) == 0)
                    inotify_rm_watch(inotify, watch);
                watch = -1;
                all = true;
                continue;
            }
            if (e->len == 0 || !is_document(e->name))
                continue;
            if ((e->mask & IN_CREATE) != 0) {
                struct stat st {};
                const std::string path = dir + "/" + e->name;
                if (lstat(path.c_str(), &st) != 0 || (!S_ISLNK(st.st_mode) && st.st_nlink < 2))
                    continue;
            }
            names.emplace(e->name);
        }
    }
}

void OperationalData::Reader::bury()
{
    std::vector<const OperDocument *> dead;
    {
        std::lock_guard guard(retirement->mutex);
        dead.swap(retirement->pending);
    }
    std::size_t bytes = 0;
    for (const OperDocument *doc : dead) {
        bytes += doc->bytes;
        delete doc;
    }
    {
        std::lock_guard guard(retirement->mutex);
        retirement->freed += bytes;
    }
    trim();
}

void OperationalData::Reader::trim()
{
    std::lock_guard guard(retirement->mutex);
    if (retirement->freed < trim_after)
        return;
    retirement->freed = 0;
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

// Looks at the documents `names` (every document of the directory when
// null), reading each written since it was read, and publishes: after each
// document taken when `each`, so that what a change brings is answered as
// soon as it is read, and the memory of its last version goes with it; and
// at the end when documents went (or, for the first look, always).
void OperationalData::Reader::look(const std::set<std::string> *names, bool each)
{
    std::set<std::string> listed;
    std::vector<std::string> gone;
    // A whole look goes by each document's version; an event says the
    // document named was written again, whatever its version says.
    const bool by_version = names == nullptr;
    if (names == nullptr) {
        if (DIR *d = opendir(dir.c_str()); d != nullptr) {
            unlisted = false;
            while (const dirent *e = readdir(d))
                if (is_document(e->d_name))
                    listed.emplace(e->d_name);
            closedir(d);
            for (auto it = entries.begin(); it != entries.end();) {
                if (listed.contains(it->first)) {
                    ++it;
                    continue;
                }
                gone.push_back(dir + "/" + it->first);
                it = entries.erase(it);
            }
        } else {
            // The documents known are looked at one by one: those whose
            // file is gone (the directory with them) go, the others stand
            // as they were last read.
            if (!unlisted)
                warn("cannot read the directory " + dir + ": " + std::strerror(errno) +
                     "; <get> answers its documents as they were last read");
            unlisted = true;
            for (const auto &[name, entry] : entries)
                listed.insert(name);
        }
        names = &listed;
    }
    for (const std::string &name : *names) {
        const std::string path = dir + "/" + name;
        struct stat st {};
        if (stat(path.c_str(), &st) != 0 ? errno == ENOENT || errno == ENOTDIR
                                         : !S_ISREG(st.st_mode)) {
            if (entries.erase(name) > 0)
                gone.push_back(path);
            continue;
        }
        if (!S_ISREG(st.st_mode))
            continue; // it cannot be looked at: it stands as it was
        const Version now = Version::of(st);
        auto known = entries.find(name);
        if (by_version && known != entries.end() && known->second.seen == now)
            continue;
        if (take(name, path, now) && each) {
            publish();
            tell();
        }
    }
    if (!each || !gone.empty())
        publish();
    for (const std::string &path : gone)
        told.push_back(path + ": gone; <get> answers nothing of it");
    tell();
}

void OperationalData::Reader::tell()
{
    if (options.note)
        for (const std::string &line : told)
            options.note(line + " (operational data #" + std::to_string(sequence) + ")");
    told.clear();
}

// Reads the document at `path` (of version `listed` when looked at), and
// takes it when it was read whole.  Returns whether it was taken.
bool OperationalData::Reader::take(const std::string &name, const std::string &path,
                                   const Version &listed)
{
    auto [at, fresh] = entries.try_emplace(name);
    Entry &entry = at->second;
    // What was not looked at whole is looked at again, as if never seen.
    auto unseen = [&, at = at, fresh = fresh] {
        if (fresh)
            entries.erase(at);
        return false;
    };
    const auto began = std::chrono::steady_clock::now();
    std::string where = path, why;
    std::unique_ptr<OperDocument> doc;
    Version version = listed;
    // Opened without waiting, and read through what was opened: a name
    // that turns out no regular file is not read, and a document renamed
    // over it meanwhile is the next one read.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat before {};
    if (fd < 0 && errno == ENOENT) {
        return unseen(); // gone since it was looked at: its removal is told next
    } else if (fd < 0) {
        why = std::string("cannot be read: ") + std::strerror(errno);
    } else if (fstat(fd, &before) != 0 || !S_ISREG(before.st_mode)) {
        why = "is not a regular file";
        close(fd);
    } else if (static_cast<uint64_t>(before.st_size) > options.max_document) {
        version = Version::of(before);
        why = "is " + std::to_string(before.st_size) + " bytes, more than the " +
              std::to_string(options.max_document) +
              " the agent reads of an operational document (--max-oper-document)";
        close(fd);
    } else {
        version = Version::of(before);
        if (options.reading)
            options.reading(path);
        std::FILE *file = fdopen(fd, "rb");
        if (file == nullptr) {
            why = std::string("cannot be read: ") + std::strerror(errno);
            close(fd);
        } else {
            std::string passed;
            try {
                Input input(file, options.max_document);
                Document read = read_document(input);
                passed = keep_operational(read);
                doc = std::make_unique<OperDocument>();
                doc->path = path;
                adopt(doc->tree, read);
                index_lists(doc->tree.root());
            } catch (const InputError &e) {
                if (e.line > 0)
                    where += ":" + std::to_string(e.line);
                why = one_line(e.what());
                doc.reset();
            } catch (const std::exception &e) {
                why = one_line(e.what());
                doc.reset();
            }
            // Written while it was read (in place): what was read is no
            // version of it.  The writer's close tells of it again.
            struct stat after {};
            const bool torn = fstat(fileno(file), &after) != 0 || !(Version::of(after) == version);
            std::fclose(file);
            if (torn)
                return unseen();
            if (doc && !passed.empty())
                warn(path + ": " + passed);
        }
    }
    entry.seen = version;
    if (!doc) {
        warn(where + ": " + why +
             (entry.taken ? "; <get> answers its last version read whole"
                          : "; <get> answers nothing of it"));
        return false;
    }
    doc->bytes = static_cast<std::size_t>(version.size);
    const std::size_t bytes = doc->bytes;
    // Its last version is let go by the publication that follows, once no
    // request holds it: two versions of a document are held no longer.
    entry.taken = std::shared_ptr<const OperDocument>(
        doc.release(), [r = retirement](const OperDocument *d) { retire(*r, d); });
    told.push_back(path + ": read, " + std::to_string(bytes) + " bytes in " +
                   seconds(std::chrono::steady_clock::now() - began) +
                   (entry.taken->tree.root().child_count() > 0 ? "; <get> answers it"
                                                               : "; <get> answers nothing of it"));
    return true;
}

void OperationalData::Reader::publish()
{
    auto next = std::make_shared<OperationalSnapshot>();
    next->sequence = ++sequence;
    for (const auto &[name, entry] : entries)
        if (entry.taken) {
            next->documents.push_back(entry.taken);
            next->holders.push_back(&entry.taken->tree.root());
        }
    std::shared_ptr<const OperationalSnapshot> now = next, last;
    {
        std::lock_guard guard(published_mutex);
        last = std::exchange(current, std::move(next));
    }
    // The snapshot before goes here, and the documents only it held with
    // it, unless a request holds it still.
    last.reset();
    trim();
    {
        std::lock_guard guard(listeners_mutex);
        for (const auto &[id, listener] : listeners)
            listener(now);
    }
    {
        std::lock_guard guard(published_mutex);
        heard = now->sequence;
    }
    published_cv.notify_all();
}

OperationalData::OperationalData(std::string dir, std::function<void(const std::string &)> warn,
                                 OperOptions options)
    : reader_(std::make_unique<Reader>(std::move(dir), std::move(warn), std::move(options)))
{
    if (!reader_->dir.empty())
        reader_->start();
}

OperationalData::~OperationalData() = default;

std::shared_ptr<const OperationalSnapshot> OperationalData::snapshot() const
{
    std::lock_guard guard(reader_->published_mutex);
    return reader_->current;
}

uint64_t OperationalData::subscribe(Listener listener)
{
    std::lock_guard guard(reader_->listeners_mutex);
    const uint64_t id = reader_->next_listener++;
    reader_->listeners.emplace(id, std::move(listener));
    return id;
}

void OperationalData::unsubscribe(uint64_t id)
{
    std::lock_guard guard(reader_->listeners_mutex);
    reader_->listeners.erase(id);
}

std::shared_ptr<const OperationalSnapshot> OperationalData::wait_after(uint64_t sequence) const
{
    std::unique_lock guard(reader_->published_mutex);
    reader_->published_cv.wait(guard, [&] { return reader_->heard > sequence; });
    return reader_->current;
}

} // namespace octunnel::serve
