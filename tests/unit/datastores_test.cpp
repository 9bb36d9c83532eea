// The datastores beside running through the agent in process, across
// restarts of the agent: the confirmed commit's state file as the agent
// takes it at a start (rolled back, waited for, or refused naming its
// line), a persist-id of any bytes kept across a restart, and startup
// loaded into a running configuration never written and never over one.
#include "agent/agent.h"

#include <gtest/gtest.h>
#include <libyang/libyang.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

using namespace octunnel;
using namespace octunnel::serve;
namespace fs = std::filesystem;

const std::string OC = "http://openconfig.net/yang/interfaces";
const std::string TUN = "http://openconfig.net/yang/interfaces/tunnel";

std::string ttl(int value)
{
    return "<interfaces xmlns=\"" + OC + "\"><interface><name>tunnel-ip12</name><tunnel xmlns=\"" +
           TUN + "\"><config><ttl>" + std::to_string(value) +
           "</ttl></config></tunnel></interface></interfaces>";
}

class Datastores : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() /
               ("octunnel-datastores-" + std::to_string(getpid()) + "-" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        ly_log_options(LY_LOSTORE_LAST);
    }
    void TearDown() override
    {
        agent_.reset();
        fs::remove_all(dir_);
    }
    void start()
    {
        static const auto models = std::make_shared<const OpenConfigModels>(OCTUNNEL_YANG_DIR);
        agent_.reset();
        log_.clear();
        AgentOptions o;
        o.state_dir = dir_.string();
        o.module_path = OCTUNNEL_MODULE_PATH;
        o.models = models;
        agent_ = std::make_unique<Agent>(o, [this](const std::string &l) { log_ += l + "\n"; });
    }
    void ok(const Outcome &o)
    {
        ASSERT_TRUE(o.ok()) << o.errors.front().tag << ": " << o.errors.front().message;
    }
    std::string running()
    {
        Outcome o = agent_->read(1, true, std::nullopt);
        EXPECT_TRUE(o.ok());
        return o.data;
    }
    void write(const std::string &name, const std::string &text)
    {
        std::ofstream(dir_ / name) << text;
    }

    fs::path dir_;
    std::unique_ptr<Agent> agent_;
    std::string log_;
};

TEST_F(Datastores, AStateFileTheAgentDidNotWriteStopsItNamingTheLine)
{
    const struct {
        std::string text, said;
    } cases[] = {
        {"deadline 12x\n\n", "confirmed-commit:1: the deadline is no time"},
        {"# note\nsession 3\n\n", "confirmed-commit:3: it has no deadline"},
        {"deadline 1\nfrob 2\n\n", "confirmed-commit:2: 'frob' is no field of it"},
        {"deadline 1\npersist a%4\n\n", "confirmed-commit:2: the persist-id is not encoded"},
        {"deadline 1\npersist a%zz\n\n", "confirmed-commit:2: the persist-id is not encoded"},
        {"deadline 1\nsession 3", "confirmed-commit:2: no configuration follows"},
    };
    start();
    agent_.reset();
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        write("confirmed-commit", c.text);
        try {
            start();
            ADD_FAILURE() << "the agent started";
        } catch (const std::runtime_error &e) {
            EXPECT_NE(std::string(e.what()).find(c.said), std::string::npos) << e.what();
        }
    }
}

TEST_F(Datastores, AtStartARollbackIsMadeOrWaitedFor)
{
    start();
    ok(agent_->edit_config(1, ttl(10), DefaultOperation::merge, false));
    const std::string before = running();
    // (persist, seconds to the deadline, rolled back at the start)
    const struct {
        bool persist;
        long due;
        bool rolled_back;
    } cases[] = {{true, -5, true}, {false, 3600, true}, {true, 3600, false}};
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.persist) + " " + std::to_string(c.due));
        start();
        ok(agent_->edit_candidate(1, ttl(20), DefaultOperation::merge, false));
        CommitRequest r;
        r.confirmed = true;
        if (c.persist)
            r.persist = "p";
        ok(agent_->commit(1, r));
        ASSERT_NE(running(), before);
        agent_.reset();
        // The deadline moved as the case has it, the rest as written.
        std::ifstream in(dir_ / "confirmed-commit");
        std::string text((std::istreambuf_iterator<char>(in)), {});
        const std::size_t at = text.find("\ndeadline ") + 10;
        text.replace(at, text.find('\n', at) - at, std::to_string(std::time(nullptr) + c.due));
        write("confirmed-commit", text);
        start();
        EXPECT_EQ(running() == before, c.rolled_back) << log_;
        EXPECT_EQ(fs::exists(dir_ / "confirmed-commit"), !c.rolled_back);
        if (!c.rolled_back) {
            EXPECT_NE(log_.find("waits for its confirmation"), std::string::npos) << log_;
            ok(agent_->cancel_commit(1, std::string("p")));
            EXPECT_EQ(running(), before);
        }
    }
}

TEST_F(Datastores, APersistIdOfAnyBytesConfirmsAfterARestart)
{
    const std::string id = std::string("a b%\n<\xc3\xa9>&") + '\0' + "z";
    start();
    ok(agent_->edit_candidate(1, ttl(30), DefaultOperation::merge, false));
    CommitRequest r;
    r.confirmed = true;
    r.persist = id;
    ok(agent_->commit(1, r));
    const std::string committed = running();
    start();
    CommitRequest wrong;
    wrong.persist_id = id.substr(0, id.size() - 1);
    EXPECT_EQ(agent_->commit(2, wrong).errors.at(0).tag, "invalid-value");
    CommitRequest confirm;
    confirm.persist_id = id;
    ok(agent_->commit(2, confirm));
    EXPECT_FALSE(fs::exists(dir_ / "confirmed-commit"));
    start();
    EXPECT_EQ(running(), committed);
}

TEST_F(Datastores, StartupIsLoadedIntoARunningNeverWrittenAlone)
{
    start();
    ok(agent_->copy_config(1, Store::startup, std::nullopt, ttl(40)));
    const std::string startup = agent_->read_store(1, Store::startup, std::nullopt).data;
    ok(agent_->edit_config(1, ttl(41), DefaultOperation::merge, false));
    const std::string written = running();
    start();
    EXPECT_EQ(running(), written) << "startup replaced a running configuration";
    agent_.reset();
    fs::remove(dir_ / "running.xml");
    fs::remove(dir_ / "running.commits");
    start();
    EXPECT_EQ(running(), startup);
    // A startup the agent cannot take stops it, naming the file.
    agent_.reset();
    fs::remove(dir_ / "running.xml");
    fs::remove(dir_ / "running.commits");
    write("startup.xml", "<interfaces xmlns=\"" + OC + "\"><frob/></interfaces>");
    EXPECT_THROW(start(), std::runtime_error);
}

} // namespace
