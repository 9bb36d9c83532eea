#include "netconf/monitor.h"

#include "agent/tree.h"

namespace octunnel::serve {

const char octunnel_monitoring_yang[] = R"(module octunnel-netconf-monitoring {
  yang-version 1.1;
  namespace "urn:octunnel:yang:octunnel-netconf-monitoring";
  prefix octnm;

  import ietf-netconf-monitoring {
    prefix ncm;
  }

  organization
    "octunnel";
  description
    "What the NETCONF agent of octunnel (octunnel serve) reports through
     ietf-netconf-monitoring beyond the identities of that module.";

  revision 2026-11-25 {
    description
      "First revision: the transport of the agent's UNIX socket.";
  }

  identity netconf-unix {
    base ncm:transport;
    description
      "NETCONF over a UNIX stream socket on the agent's host, framed as
       over SSH but without SSH: the socket's permissions are the access
       control, and the session's user is the owner of the connecting
       process.";
  }
}
)";

namespace {

void counters(std::string &out, const SessionCounters &c)
{
    append_leaf(out, "in-rpcs", std::to_string(c.in_rpcs.load()));
    append_leaf(out, "in-bad-rpcs", std::to_string(c.in_bad_rpcs.load()));
    append_leaf(out, "out-rpc-errors", std::to_string(c.out_rpc_errors.load()));
    append_leaf(out, "out-notifications", std::to_string(c.out_notifications.load()));
}

} // namespace

std::string rfc3339(std::time_t t)
{
    std::tm utc{};
    gmtime_r(&t, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

Monitor::Monitor() : start_(std::time(nullptr)) {}

void Monitor::started(Session s)
{
    std::lock_guard guard(mutex_);
    ++sessions_in_;
    const uint32_t id = s.id;
    sessions_[id] = std::move(s);
}

void Monitor::ended(uint32_t id, bool dropped)
{
    std::lock_guard guard(mutex_);
    if (sessions_.erase(id) > 0 && dropped)
        ++dropped_;
}

void Monitor::rpc(SessionCounters &c)
{
    ++c.in_rpcs;
    ++all_.in_rpcs;
}

void Monitor::rpc_error(SessionCounters &c)
{
    ++c.out_rpc_errors;
    ++all_.out_rpc_errors;
}

void Monitor::notification(SessionCounters &c)
{
    ++c.out_notifications;
    ++all_.out_notifications;
}

void Monitor::bad_rpc(SessionCounters &c)
{
    ++c.in_bad_rpcs;
    ++all_.in_bad_rpcs;
    rpc_error(c);
}

void Monitor::set_served(std::string capabilities, std::string schemas)
{
    std::lock_guard guard(mutex_);
    capabilities_ = std::move(capabilities);
    schemas_ = std::move(schemas);
}

std::string Monitor::netconf_state(const DatastoreLocks &locks) const
{
    std::string out = "<netconf-state xmlns=\"";
    out += monitoring_ns;
    out += "\">";
    std::lock_guard guard(mutex_);
    out += "<capabilities>" + capabilities_ + "</capabilities>";
    out += "<datastores>";
    for (const auto &[name, lock] :
         {std::pair{"running", &locks.running}, std::pair{"candidate", &locks.candidate},
          std::pair{"startup", &locks.startup}}) {
        out += "<datastore><name>";
        out += name;
        out += "</name>";
        if (lock->session != 0) {
            out += "<locks><global-lock>";
            append_leaf(out, "locked-by-session", std::to_string(lock->session));
            append_leaf(out, "locked-time", rfc3339(lock->since));
            out += "</global-lock></locks>";
        }
        out += "</datastore>";
    }
    out += "</datastores>";
    out += "<schemas>" + schemas_ + "</schemas>";
    out += "<sessions>";
    for (const auto &[id, s] : sessions_) {
        out += "<session>";
        append_leaf(out, "session-id", std::to_string(id));
        // An identity of another module than the leaf's is named with the
        // prefix that module's namespace is declared with.
        if (s.transport == Transport::ssh) {
            append_leaf(out, "transport", "netconf-ssh");
        } else {
            out += "<transport xmlns:";
            out += octunnel_monitoring_prefix;
            out += "=\"";
            out += octunnel_monitoring_ns;
            out += "\">";
            out += octunnel_monitoring_prefix;
            out += ":netconf-unix</transport>";
        }
        append_leaf(out, "username", s.user);
        if (!s.source_host.empty())
            append_leaf(out, "source-host", s.source_host);
        append_leaf(out, "login-time", rfc3339(s.login));
        counters(out, *s.counters);
        out += "</session>";
    }
    out += "</sessions><statistics>";
    append_leaf(out, "netconf-start-time", rfc3339(start_));
    append_leaf(out, "in-bad-hellos", std::to_string(bad_hellos_.load()));
    append_leaf(out, "in-sessions", std::to_string(sessions_in_.load()));
    append_leaf(out, "dropped-sessions", std::to_string(dropped_.load()));
    counters(out, all_);
    return out + "</statistics></netconf-state>";
}

} // namespace octunnel::serve
