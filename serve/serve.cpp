#include "serve/serve.h"

#include "agent/access.h"
#include "agent/datastore.h"
#include "translate/input_error.h"

#include <csignal>
#include <memory>
#include <mutex>
#include <ostream>
#include <pthread.h>
#include <sys/resource.h>
#include <vector>

#include <libyang/libyang.h>

namespace octunnel::serve {
namespace {

// The program's log: one line at a time from any thread.
class Log {
public:
    explicit Log(std::ostream &err) : err_(err) {}
    void operator()(const std::string &line)
    {
        std::lock_guard guard(mutex_);
        err_ << "octunnel serve: " << line << std::endl;
    }

private:
    std::ostream &err_;
    std::mutex mutex_;
};

Log *the_log = nullptr;
bool log_verbose = false;

void ly_print(LY_LOG_LEVEL level, const char *message, const char *path)
{
    if (level <= LY_LLERR && log_verbose && the_log != nullptr)
        (*the_log)(std::string("libyang: ") + one_line(message != nullptr ? message : "") +
                   (path != nullptr ? std::string(" (") + path + ")" : std::string()));
}

// What is made before any front starts, in this order, and gone after
// every front has stopped, in the reverse one.
struct Program {
    std::unique_ptr<StateLock> state_lock;
    std::unique_ptr<Agent> agent;
    std::vector<std::unique_ptr<Service>> fronts;

    ~Program()
    {
        // Last started, first stopped: the NETCONF front's state is what
        // the other fronts' reads may ask of the agent.
        while (!fronts.empty()) {
            fronts.back()->stop();
            fronts.pop_back();
        }
    }
};

} // namespace

int serve(const ServeOptions &o, std::ostream &err)
{
    Log log(err);
    the_log = &log;
    // libyang's messages go to the log while the models last, not after.
    struct Unlog {
        ~Unlog() { the_log = nullptr; }
    } unlog;
    log_verbose = o.verbose;
    // Signals are taken by this thread alone, in sigwait; the others never
    // see them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    Users users;
    AuthorizedKeys keys;
    Admission admission(o.netconf.admission);
    AgentOptions agent_options = o.agent;
    agent_options.yang_dir = o.yang_dir;
    Program program;
    try {
        bool gnmi = false;
#ifdef OCTUNNEL_GNMI
        gnmi = o.gnmi.wanted();
#endif
        if (!o.netconf.wanted() && !gnmi)
            throw std::invalid_argument(
#ifdef OCTUNNEL_GNMI
                "nothing to listen on: give --listen, --unix, --gnmi or several"
#else
                "nothing to listen on: give --listen, --unix or both"
#endif
            );
        if (!o.users.empty())
            users = Users::read(o.users);
        if (!o.authorized_keys.empty())
            keys = AuthorizedKeys::read(o.authorized_keys);
        if (auto why = netconf_refusal(o.netconf, users, keys); !why.empty())
            throw std::invalid_argument(why);
#ifdef OCTUNNEL_GNMI
        if (gnmi)
            if (auto why = gnmi_refusal(o.gnmi, users); !why.empty())
                throw std::invalid_argument(why);
#endif

        // A connection holds a few descriptors (its socket, a socket pair
        // and libssh's); the soft limit many systems start with (1,024) is
        // taken up to what the hard one allows.
        rlimit files{};
        if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
            files.rlim_cur = files.rlim_max;
            setrlimit(RLIMIT_NOFILE, &files);
        }
        // libyang speaks through the log from the first model loaded: the
        // agent's own checks load the models too.
        ly_set_log_clb(ly_print, 1);
        ly_log_level(LY_LLERR);

        program.state_lock = std::make_unique<StateLock>(o.agent.state_dir);
        // The models are loaded once, before any front starts (libnetconf2
        // then speaks for libyang), and shared by the agent and the fronts.
        agent_options.models = std::make_shared<const OpenConfigModels>(o.yang_dir);
        program.agent = std::make_unique<Agent>(agent_options, std::ref(log));
        const Front front{*program.agent, agent_options, o.yang_dir, agent_options.models,
                          users,          keys,          admission,  std::ref(log),
                          o.verbose};
        if (o.netconf.wanted()) {
            program.fronts.push_back(netconf_front(o.netconf, front));
            program.fronts.back()->start();
        }
#ifdef OCTUNNEL_GNMI
        if (gnmi) {
            program.fronts.push_back(gnmi_front(o.gnmi, front));
            program.fronts.back()->start();
        }
#endif
    } catch (const std::exception &e) {
        log(one_line(e.what()));
        return 2;
    }
    log("running configuration in " + program.agent->running_path());

    int signal = 0;
    // SIGHUP reads the access control rules again; a file with a fault is
    // named, and the rules in force stay.
    while (sigwait(&signals, &signal) == 0 && signal == SIGHUP) {
        if (o.agent.nacm_file.empty()) {
            log("SIGHUP: no --nacm file to read again");
            continue;
        }
        try {
            program.agent->reload_rules();
            log("access control rules read again from " + o.agent.nacm_file);
        } catch (const std::exception &e) {
            log("access control rules unchanged: " + one_line(e.what()));
        }
    }
    log(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
    return 0;
}

} // namespace octunnel::serve
