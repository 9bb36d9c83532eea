// The confirmed commit (RFC 6241, 8.4): a <commit> that running takes back
// unless a confirming <commit> comes within its timeout.
//
// The promise outlives the agent.  Before a confirmed commit changes
// running, the state directory holds, written whole, the file
// `confirmed-commit`: running's configuration before it (what a rollback
// restores), the deadline by the wall clock, the session that made it and
// its persist-id.  A confirming commit or a rollback takes the file away
// once it is done.  An agent that starts with the file there rolls back at
// once when the deadline has passed, or when the commit was its session's
// (without persist: that session ended with the agent), and otherwise waits
// for what is left of the timeout.  A crash between the file and the commit
// leaves a rollback to the configuration running still has, which changes
// nothing.
//
// A rollback goes through running's edit path like any commit: the saved
// configuration replaces running's, applied as the difference and read
// back, so that the native configuration is what it was.
#include "agent/agent.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace octunnel::serve {
namespace {

constexpr const char header[] = "# octunnel confirmed commit: unless a commit confirms it by the "
                                "deadline, running returns to the configuration below.";

std::string utc(std::time_t t)
{
    std::tm tm{};
    gmtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

// A persist-id on one line: bytes other than letters, digits and "-._~"
// as %XX.
std::string encoded(std::string_view s)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s)
        if (std::isalnum(c) != 0 || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    return out;
}

std::optional<std::string> decoded(std::string_view s)
{
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '%') {
            out += s[i];
            continue;
        }
        if (i + 2 >= s.size() || std::isxdigit(static_cast<unsigned char>(s[i + 1])) == 0 ||
            std::isxdigit(static_cast<unsigned char>(s[i + 2])) == 0)
            return std::nullopt;
        out += static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
        i += 2;
    }
    return out;
}

RpcError error(const char *tag, std::string message, const char *type = "protocol")
{
    RpcError e;
    e.type = type;
    e.tag = tag;
    e.message = std::move(message);
    return e;
}

} // namespace

std::string Agent::confirm_path() const
{
    return options_.state_dir + "/confirmed-commit";
}

void Agent::save_pending()
{
    if (!pending_) {
        if (unlink(confirm_path().c_str()) != 0 && errno != ENOENT)
            throw std::runtime_error("cannot remove " + confirm_path() + ": " +
                                     std::strerror(errno));
        if (int dir = open(options_.state_dir.c_str(), O_RDONLY | O_DIRECTORY); dir >= 0) {
            fsync(dir);
            close(dir);
        }
        return;
    }
    std::string text = header;
    text += "\ndeadline " + std::to_string(pending_->deadline) + " " + utc(pending_->deadline);
    text += "\nsession " + std::to_string(pending_->session);
    if (pending_->persist)
        text += "\npersist " + encoded(*pending_->persist);
    text += "\n\n" + pending_->rollback;
    write_durably(confirm_path(), text, 0600);
}

void Agent::roll_back(const std::string &why)
{
    const Pending pending = *pending_;
    // The agent's own act: over running's lock, whoever holds it, and
    // beyond any user's access.
    std::string rollback = pending.rollback; // the edit takes its text
    Outcome o = edit_locked(lock_owner_, rollback, DefaultOperation::replace, false, false);
    pending_.reset();
    confirm_cv_.notify_all();
    const std::string made =
        pending.session != 0 ? " of session " + std::to_string(pending.session) : "";
    if (!o.ok()) {
        log_("the confirmed commit" + made + " was not taken back (" + why +
             "): " + o.errors.front().message);
    } else {
        log_("running returned to its configuration before the confirmed commit" + made + ": " +
             why);
    }
    try {
        save_pending();
    } catch (const std::exception &e) {
        log_(one_line(e.what()));
    }
}

Outcome Agent::commit(uint32_t session, const CommitRequest &r)
{
    std::lock_guard guard(mutex_);
    if (auto e = locked_by_other(session, candidate_lock_, "candidate"))
        return Outcome::error(*e);
    // Who may confirm a confirmed commit waiting: with persist, whoever
    // gives its persist-id; without, its own session alone.
    if (pending_) {
        if (pending_->persist) {
            if (!r.persist_id)
                return Outcome::error(error("invalid-value",
                                            "a confirmed commit with persist waits: the commit "
                                            "that confirms or extends it gives its <persist-id>"));
            if (*r.persist_id != *pending_->persist)
                return Outcome::error(error(
                    "invalid-value", "<persist-id> is not that of the confirmed commit waiting"));
        } else if (r.persist_id) {
            return Outcome::error(
                error("invalid-value", "the confirmed commit waiting was made without persist"));
        } else if (pending_->session != session) {
            return Outcome::error(error(
                "in-use", "the confirmed commit of session " + std::to_string(pending_->session) +
                              " waits: that session alone confirms or cancels it"));
        }
    } else if (r.persist_id) {
        return Outcome::error(
            error("invalid-value", "no confirmed commit waits for its confirmation"));
    }

    const std::optional<Pending> before = pending_;
    if (r.confirmed) {
        Pending p;
        if (pending_)
            p.rollback = pending_->rollback; // a follow-up keeps the first's rollback
        else if (auto e = running_text(p.rollback))
            return Outcome::error(*e);
        p.deadline = std::time(nullptr) + static_cast<std::time_t>(r.timeout);
        p.session = session;
        p.persist = r.persist ? r.persist : (pending_ ? pending_->persist : std::nullopt);
        pending_ = std::move(p);
    } else {
        pending_.reset();
    }
    // The promise is on the disk before running changes.
    if (r.confirmed) {
        try {
            save_pending();
        } catch (const std::exception &err) {
            pending_ = before;
            RpcError e = error("operation-failed",
                               "the commit was not made: " + one_line(err.what()), "application");
            log_(e.message);
            return Outcome::error(e);
        }
    }
    Outcome o = commit_candidate(session);
    if (!o.ok()) {
        pending_ = before;
        if (r.confirmed) {
            try {
                save_pending();
            } catch (const std::exception &err) {
                log_(one_line(err.what()));
            }
        }
        return o;
    }
    if (r.confirmed) {
        log_("a confirmed commit of session " + std::to_string(session) +
             ": running returns to its configuration before it at " + utc(pending_->deadline) +
             " unless a commit confirms it");
        tell(ConfirmedCommitEvent{before ? "extend" : "start", session, r.timeout});
    } else if (before) {
        tell(ConfirmedCommitEvent{"complete", session, 0});
        log_("the confirmed commit of session " + std::to_string(before->session) +
             " confirmed by session " + std::to_string(session));
        try {
            save_pending();
        } catch (const std::exception &err) {
            log_(one_line(err.what()));
        }
    }
    confirm_cv_.notify_all();
    return o;
}

Outcome Agent::cancel_commit(uint32_t session, const std::optional<std::string> &persist_id)
{
    std::lock_guard guard(mutex_);
    if (!pending_)
        return Outcome::error(
            error("invalid-value", "no confirmed commit waits for its confirmation"));
    if (pending_->persist) {
        if (!persist_id || *persist_id != *pending_->persist)
            return Outcome::error(error("invalid-value",
                                        "a confirmed commit with persist is cancelled by its "
                                        "<persist-id>, and this is not it"));
    } else if (persist_id) {
        return Outcome::error(
            error("invalid-value", "the confirmed commit waiting was made without persist"));
    } else if (pending_->session != session) {
        return Outcome::error(
            error("in-use", "the confirmed commit of session " + std::to_string(pending_->session) +
                                " waits: that session alone confirms or cancels it"));
    }
    roll_back("cancelled by session " + std::to_string(session));
    tell(ConfirmedCommitEvent{"cancel", session, 0});
    return {};
}

void Agent::confirm_loop(std::stop_token stop)
{
    std::unique_lock guard(mutex_);
    while (!stop.stop_requested() && !stopping_) {
        if (!pending_) {
            confirm_cv_.wait(guard, stop, [&] { return pending_.has_value() || stopping_; });
            continue;
        }
        const std::time_t deadline = pending_->deadline;
        const auto due = std::chrono::system_clock::from_time_t(deadline);
        if (std::chrono::system_clock::now() < due) {
            confirm_cv_.wait_until(guard, stop, due, [&] {
                return stopping_ || !pending_ || pending_->deadline != deadline;
            });
            continue;
        }
        roll_back("no commit confirmed it by " + utc(deadline));
        tell(ConfirmedCommitEvent{"timeout", 0, 0});
    }
}

void Agent::resume_datastores()
{
    // What a crash left half-written beside the files of this part: the
    // new files write_durably() had not renamed yet.
    if (DIR *d = opendir(options_.state_dir.c_str()); d != nullptr) {
        while (const dirent *e = readdir(d)) {
            const std::string_view name = e->d_name;
            for (std::string_view kept : {"startup.xml.", "confirmed-commit."})
                if (name.starts_with(kept) && name.size() == kept.size() + 6)
                    unlink((options_.state_dir + "/" + std::string(name)).c_str());
        }
        closedir(d);
    }

    if (running_new_) {
        std::string text;
        if (auto e = startup_text(text))
            throw std::runtime_error(e->message);
        if (!text.empty()) {
            Outcome o = edit_locked(0, text, DefaultOperation::replace, false, false);
            if (!o.ok())
                throw std::runtime_error(
                    startup_path() +
                    ": the startup configuration is not taken: " + o.errors.front().message);
            log_("running starts from the startup configuration, " + startup_path());
        }
    }

    std::ifstream in(confirm_path(), std::ios::binary);
    if (!in)
        return;
    std::ostringstream all;
    all << in.rdbuf();
    const std::string text = all.str();
    Pending p;
    std::size_t at = 0;
    int line = 0;
    bool deadline = false;
    auto bad = [&](const std::string &why) {
        return std::runtime_error(confirm_path() + ":" + std::to_string(line) + ": " + why +
                                  " (the confirmed commit's state, which the agent writes)");
    };
    for (;;) {
        ++line;
        const std::size_t end = text.find('\n', at);
        if (end == std::string::npos)
            throw bad("no configuration follows the fields");
        const std::string_view l(text.data() + at, end - at);
        at = end + 1;
        if (l.empty())
            break;
        if (l.starts_with("#"))
            continue;
        const std::size_t space = l.find(' ');
        const std::string_view key = l.substr(0, space);
        const std::string value(space == std::string_view::npos ? "" : l.substr(space + 1));
        if (key == "deadline") {
            char *stop = nullptr;
            errno = 0;
            const long long t = std::strtoll(value.c_str(), &stop, 10);
            if (errno != 0 || stop == value.c_str() || (*stop != '\0' && *stop != ' '))
                throw bad("the deadline is no time");
            p.deadline = static_cast<std::time_t>(t);
            deadline = true;
        } else if (key == "session") {
            p.session = static_cast<uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
        } else if (key == "persist") {
            p.persist = decoded(value);
            if (!p.persist)
                throw bad("the persist-id is not encoded as the agent writes it");
        } else {
            throw bad("'" + one_line(std::string(key)) + "' is no field of it");
        }
    }
    if (!deadline)
        throw bad("it has no deadline");
    p.rollback = text.substr(at);
    const uint32_t made = p.session;
    p.session = 0; // the sessions of the last run are gone
    pending_ = std::move(p);
    const std::string of = made != 0 ? " of session " + std::to_string(made) : "";
    if (!pending_->persist)
        roll_back("its session ended with the agent's last run");
    else if (std::time(nullptr) >= pending_->deadline)
        roll_back("its deadline, " + utc(pending_->deadline) +
                  ", passed while the agent was "
                  "stopped");
    else
        log_("the confirmed commit" + of + " waits for its confirmation until " +
             utc(pending_->deadline) + "; running returns to its configuration before it then");
}

} // namespace octunnel::serve
