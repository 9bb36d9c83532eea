// The startup configuration (RFC 6241, 8.7): the configuration the agent
// starts from when it has no running configuration of its own.
//
// Running is durable here: every commit is on the disk before its answer,
// and a restarted agent serves running as it was.  So startup is not loaded
// at every start, which would take back every commit since the last
// <copy-config> to startup; it is what an agent whose running configuration
// has never been written (a new state directory, or one whose running.xml
// and running.commits an operator took away to reset it) starts from.  It
// is written only by <copy-config> and taken away by <delete-config>, never
// by an edit or a commit of running, as section 8.7 says.
//
// It is kept as `startup.xml` in the state directory: the OpenConfig
// configuration, as the text of an inline <config> (its <interfaces>),
// written whole or not at all.
#include "agent/agent.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace octunnel::serve {

std::string Agent::startup_path() const
{
    return options_.state_dir + "/startup.xml";
}

bool Agent::never_written(const AgentOptions &o)
{
    // Neither the document nor the log of the commits made since it was
    // written (datastore.h).
    struct stat st {};
    for (const char *name : {"/running.xml", "/running.commits"})
        if (stat((o.state_dir + name).c_str(), &st) == 0 || errno != ENOENT)
            return false;
    return true;
}

std::optional<RpcError> Agent::startup_text(std::string &text) const
{
    text.clear();
    std::ifstream in(startup_path(), std::ios::binary);
    if (!in) {
        if (errno == ENOENT)
            return std::nullopt; // none stored: startup is empty
        RpcError e;
        e.tag = "operation-failed";
        e.message = "cannot read " + startup_path() + ": " + std::strerror(errno);
        return e;
    }
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
    return std::nullopt;
}

Outcome Agent::store_startup(uint32_t session, const std::string &text, bool trusted)
{
    if (auto e = locked_by_other(session, startup_lock_, "startup"))
        return Outcome::error(*e);
    // Kept in the models' canonical form, what the session may write of it
    // checked; and, unless it is running's own, checked as the agent will
    // take it at a start: every check of an edit that makes it running's
    // whole configuration.
    DataTree whole;
    if (auto e = checked_config(session, text, Store::startup, whole))
        return Outcome::error(*e);
    const std::string kept = text_of(whole.get());
    if (!trusted) {
        // A check that keeps nothing is not held up by running's lock.  The
        // edit takes the text it is given.
        std::string trial = kept;
        if (Outcome o = edit_locked(lock_owner_ != 0 ? lock_owner_ : session, trial,
                                    DefaultOperation::replace, true, false);
            !o.ok())
            return o;
    }
    try {
        write_durably(startup_path(), kept, 0600);
    } catch (const std::exception &err) {
        RpcError e;
        e.tag = "operation-failed";
        e.message = "the startup configuration was not written: " + one_line(err.what());
        log_(e.message);
        return Outcome::error(e);
    }
    tell(ConfigChange{session, false, "startup", {}});
    return {};
}

Outcome Agent::delete_config(uint32_t session, Store target)
{
    std::lock_guard guard(mutex_);
    if (target != Store::startup) {
        RpcError e;
        e.type = "protocol";
        e.tag = "invalid-value";
        e.message = "only the startup configuration is deleted";
        return Outcome::error(e);
    }
    if (auto e = locked_by_other(session, startup_lock_, "startup"))
        return Outcome::error(*e);
    if (unlink(startup_path().c_str()) != 0 && errno != ENOENT) {
        RpcError e;
        e.tag = "operation-failed";
        e.message = "cannot remove " + startup_path() + ": " + std::strerror(errno);
        return Outcome::error(e);
    }
    // The removal is on the disk before the answer.
    if (int dir = open(options_.state_dir.c_str(), O_RDONLY | O_DIRECTORY); dir >= 0) {
        fsync(dir);
        close(dir);
    }
    tell(ConfigChange{session, false, "startup", {}});
    return {};
}

} // namespace octunnel::serve
