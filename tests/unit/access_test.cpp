// Who may log in, and how fast a source may fail: the lines of the users
// and authorized_keys files refused with their place, the address patterns
// of from=, and the admission's limits and penalties on a clock of the
// test's own.  What the options of a key do at a login, and the attacks
// themselves, are tested over SSH with real clients (tests/serve/
// test_logins.py).
#include "agent/access.h"
#include "agent/admission.h"

#include <gtest/gtest.h>

#include <crypt.h>
#include <libssh/libssh.h>

#include <arpa/inet.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

using namespace octunnel::serve;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::string file_of(const std::string &name, const std::string &text)
{
    const fs::path path = fs::temp_directory_path() / ("octunnel-access-" + name);
    std::ofstream(path) << text;
    return path.string();
}

std::string hash_of(const char *prefix, const std::string &password)
{
    char salt[CRYPT_GENSALT_OUTPUT_SIZE];
    if (crypt_gensalt_rn(prefix, 0, nullptr, 0, salt, sizeof salt) == nullptr)
        throw std::runtime_error(std::string("no salt for ") + prefix);
    crypt_data data{};
    return crypt_r(password.c_str(), salt, &data);
}

// The message a read throws, or "" when it reads.
template <class Read> std::string refusal_of(Read read)
{
    try {
        read();
    } catch (const std::runtime_error &e) {
        return e.what();
    }
    return "";
}

TEST(Users, RefuseWeakHashesAndMalformedLinesNamingTheLine)
{
    const std::string good = hash_of("$6$", "x");
    const struct {
        std::string line, said;
    } rows[] = {
        // Methods libxcrypt calls legacy.
        {"bob:" + hash_of("$1$", "x"), "weak method ($1$"},
        {"bob:ab01234567890", "weak method (DES"},
        {"bob:_J9..abcdwxyz.ABCD", "weak method"},
        // What is no crypt(3) hash, or not all of one.
        {"bob:$garbage", "not in crypt(3) form"},
        {"bob:$apr1$hC2x081Q$yNUkEI5s1fKqGdiF4iCFZ/", "not in crypt(3) form"},
        {"bob:!" + good, "not in crypt(3) form"},
        {"bob:" + good.substr(0, good.size() - 5), "not whole"},
        {"bob:" + good + "AAAA", "not whole"},
        {"bob:" + good.substr(0, good.rfind('$') + 1), "not whole"},
        {"bob:", "no hash"},
        {"bob " + good, "not NAME:HASH"},
        // Names that would never log in, or garble the log.
        {"bob :" + good, "'bob ' holds a blank"},
        {std::string("b\x01ob:") + good, "control character"},
        {std::string("bob\x7f:") + good, "control character"},
        {":" + good, "no user name"},
    };
    for (const auto &row : rows) {
        const std::string file =
            file_of("users-bad", "# first\nalice:" + good + "\n\n" + row.line + "\n");
        const std::string said = refusal_of([&] { Users::read(file); });
        EXPECT_EQ(said.rfind(file + ":4: ", 0), 0u) << row.line << ": " << said;
        EXPECT_NE(said.find(row.said), std::string::npos) << row.line << ": " << said;
        EXPECT_EQ(said.find(good.substr(good.rfind('$'))), std::string::npos)
            << "the message shows the hash: " << said;
    }
    // The strong methods are taken, SHA-256 crypt among them.
    for (const char *method : {"$6$", "$5$", "$y$", "$2b$"}) {
        const std::string file = file_of("users-good", std::string("bob:") + hash_of(method, "x"));
        EXPECT_EQ(refusal_of([&] { Users::read(file); }), "") << method;
    }
    const std::string twice = file_of("users-twice", "bob:" + good + "\nbob:" + good + "\n");
    EXPECT_NE(refusal_of([&] { Users::read(twice); }).find(":2: user 'bob' is given twice"),
              std::string::npos);
}

// A public key as authorized_keys gives it: "TYPE BASE64", and the key.
struct PublicKey {
    ssh_key key = nullptr;
    std::string text;
    PublicKey()
    {
        EXPECT_EQ(ssh_pki_generate(SSH_KEYTYPE_ED25519, 0, &key), SSH_OK);
        char *b64 = nullptr;
        EXPECT_EQ(ssh_pki_export_pubkey_base64(key, &b64), SSH_OK);
        text = std::string("ssh-ed25519 ") + b64;
        ssh_string_free_char(b64);
    }
    ~PublicKey() { ssh_key_free(key); }
};

// An sk-ssh-ed25519 public key (its type, 32 bytes, application "ssh:").
const std::string security_key = "AAAAGnNrLXNzaC1lZDI1NTE5QG9wZW5zc2guY29tAAAAIAECAwQFBgcICQoLDA0O"
                                 "DxAREhMUFRYXGBkaGxwdHh8gAAAABHNzaDo=";

TEST(AuthorizedKeys, RefuseWhatCannotBeHonouredNamingTheLine)
{
    const PublicKey k;
    const struct {
        std::string line, said;
    } rows[] = {
        {"cert-authority " + k.text + " carol", "cert-authority is refused: certificates"},
        {"principals=\"carol\" " + k.text + " carol", "principals= is refused"},
        {"command=\"/bin/true\" " + k.text + " carol", "command= cannot be honoured"},
        {"verify-required " + k.text + " carol", "verify-required cannot be honoured"},
        {"frobnicate " + k.text + " carol", "unknown option 'frobnicate'"},
        {"ssh-ed25519-cert-v01@openssh.com AAAA carol", "certificates are not supported"},
        // The user comes from the comment, and is never empty.
        {k.text + " @host", "no user"},
        {k.text, "no user"},
        {k.text + " \x01x@host", "control character"},
        {"ssh-ed25519 AAAAnotakey carol", "not a public key"},
        // A security key, whose touch libssh does not tell.
        {"sk-ssh-ed25519@openssh.com " + security_key + " carol", "must be touched"},
        // Options as sshd reads them, or not at all.
        {"from=10.0.0.1 " + k.text + " carol", "not in quotes"},
        {"from=\"10.0.0.1 " + k.text + " carol", "no closing quote"},
        {"no-pty=\"x\" " + k.text + " carol", "no-pty takes no value"},
        {"from " + k.text + " carol", "from takes a value"},
        {"no-pty, restrict " + k.text + " carol", "apart by commas"},
        {"from=\"10.0.0.1\",from=\"10.0.0.2\" " + k.text + " carol", "given twice"},
        // from= holds addresses: names are not looked up.
        {"from=\"*.example.com\" " + k.text + " carol", "host names are not looked up"},
        {"from=\"10.0.0.1/33\" " + k.text + " carol", "no address/prefix-length"},
        {"from=\"10.0.0.1/8\" " + k.text + " carol", "bits set beyond its prefix length"},
        {"from=\"10.0.0.*/8\" " + k.text + " carol", "no address/prefix-length"},
        {"from=\"10.0.0.1,,10.0.0.2\" " + k.text + " carol", "an empty pattern"},
        {"expiry-time=\"2030\" " + k.text + " carol", "not YYYYMMDD"},
        {"expiry-time=\"20300230\" " + k.text + " carol", "no such time"},
    };
    const AuthorizedKeys taken = AuthorizedKeys::read(file_of(
        "keys-sk", "no-touch-required sk-ssh-ed25519@openssh.com " + security_key + " carol\n"));
    EXPECT_EQ(taken.size(), 1u);
    for (const auto &row : rows) {
        const std::string file =
            file_of("keys-bad", "# keys\n" + k.text + " alice@laptop\n" + row.line + "\n");
        const std::string said = refusal_of([&] { AuthorizedKeys::read(file); });
        EXPECT_EQ(said.rfind(file + ":3: ", 0), 0u) << row.line << ": " << said;
        EXPECT_NE(said.find(row.said), std::string::npos) << row.line << ": " << said;
    }
}

TEST(AddressPatterns, MatchAsOpenSshDoes)
{
    const struct {
        const char *patterns, *address;
        bool matches;
    } rows[] = {
        {"127.0.0.1", "127.0.0.1", true},
        {"127.0.0.*", "127.0.0.10", true},
        {"127.0.0.?", "127.0.0.7", true},
        {"*", "2001:db8::1", true},
        {"10.0.0.0/8", "10.255.0.1", true},
        {"10.0.0.0/8", "11.0.0.1", false},
        {"192.0.2.128/25", "192.0.2.127", false},
        {"192.0.2.128/25", "192.0.2.200", true},
        {"10.0.0.0/8", "::1", false},
        {"2001:db8::/32", "2001:db8:ffff::1", true},
        {"2001:DB8::*", "2001:db8::42", true},
        // A negated pattern that matches refuses, whatever else matches;
        // one alone admits no one.
        {"10.0.0.0/8,!10.9.9.9", "10.9.9.9", false},
        {"!10.9.9.9,10.0.0.0/8", "10.9.9.8", true},
        {"!10.9.9.9", "10.9.9.8", false},
        {"!10.0.0.0/8,*", "10.1.1.1", false},
        // However many stars, a match takes time linear in them.
        {"*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*1*2", "111.111.111.111", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(address_matches(row.patterns, row.address), row.matches)
            << row.patterns << " / " << row.address;
}

// An admission on a clock that moves only when the test says, with dice
// that roll what the test says.
struct Fixture {
    Clock::time_point now = Clock::time_point{} + 1000h;
    unsigned dice = 0;
    Admission admission;
    explicit Fixture(AdmissionLimits limits)
        : admission(
              limits, [this] { return now; }, [this] { return dice; })
    {
    }
};

TEST(Admission, BoundsLoginsPerSourceAndDropsAtRandomAboveStart)
{
    AdmissionLimits limits;
    limits.per_source = 3;
    limits.startups = {5, 50, 9};
    Fixture f(limits);
    Admission &a = f.admission;
    // One source holds three, no more; the log hears of it once in a row.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(a.admit("192.0.2.1"));
    const auto busy = a.admit("192.0.2.1");
    EXPECT_EQ(busy.refusal, Admission::Refusal::source_busy);
    EXPECT_TRUE(busy.log);
    EXPECT_EQ(busy.count, 3u);
    EXPECT_FALSE(a.admit("192.0.2.1").log);
    a.release("192.0.2.1");
    EXPECT_TRUE(a.admit("192.0.2.1"));
    EXPECT_TRUE(a.admit("192.0.2.1").log) << "a new run of refusals is told again";
    EXPECT_TRUE(a.admit("192.0.2.2"));
    EXPECT_EQ(a.logging_in(), 4u);

    // From START on, a chance of RATE percent rising to 100 at FULL:
    // (logging in, the highest roll dropped).
    const struct {
        unsigned in, dropped_below;
    } rows[] = {{5, 50}, {6, 62}, {7, 75}, {8, 87}, {9, 100}};
    EXPECT_TRUE(a.admit("192.0.2.3"));
    unsigned n = 5;
    for (const auto &row : rows) {
        ASSERT_EQ(a.logging_in(), row.in);
        f.dice = row.dropped_below - 1;
        EXPECT_EQ(a.admit("198.51.100." + std::to_string(n)).refusal, Admission::Refusal::startups)
            << row.in;
        if (row.dropped_below == 100)
            break;
        f.dice = row.dropped_below;
        EXPECT_TRUE(a.admit("198.51.100." + std::to_string(n++))) << row.in;
    }
    f.dice = 99;
    EXPECT_EQ(a.admit("203.0.113.1").refusal, Admission::Refusal::startups);
    // Sources that hold nothing are not remembered.
    EXPECT_EQ(a.logging_in("203.0.113.1"), 0u);
}

TEST(Admission, AFailingSourceIsHeldToItsRateAndOthersAreNot)
{
    AdmissionLimits limits;
    limits.penalty = 1s;
    limits.burst = 10;
    Fixture f(limits);
    Admission &a = f.admission;
    // An attacker tries whenever it is let, every 10 ms, on as many
    // connections as it likes: its n-th failure comes no sooner than
    // (n - burst) * penalty after its first, and not much later.
    const Clock::time_point start = f.now;
    unsigned failures = 0, refusals_told = 0;
    bool refused_for_a_while = false;
    while (failures < 200) {
        const auto v = a.attempt("192.0.2.66");
        if (v) {
            ++failures;
            EXPECT_GE(f.now - start, (static_cast<int>(failures) - 10) * 1s) << failures;
            // The user it guesses at logs in from elsewhere all along.
            ASSERT_TRUE(a.attempt("192.0.2.1"));
            a.succeeded("192.0.2.1");
            continue;
        }
        EXPECT_EQ(v.refusal, Admission::Refusal::penalised);
        refusals_told += v.log;
        // Refused, new connections too, until the penalty has run out.
        if (!refused_for_a_while && v.left > 5s) {
            refused_for_a_while = true;
            EXPECT_EQ(a.admit("192.0.2.66").refusal, Admission::Refusal::penalised);
            EXPECT_TRUE(a.admit("192.0.2.1"));
            a.release("192.0.2.1");
        }
        f.now += 10ms;
    }
    EXPECT_TRUE(refused_for_a_while);
    EXPECT_LE(f.now - start, 200s) << "each refusal lasts as long as the penalty left";
    EXPECT_GE(refusals_told, 1u);
    EXPECT_LE(refusals_told, 200u / 10u + 1) << "one line for each time it is refused";
    EXPECT_EQ(a.penalty("192.0.2.1"), Clock::duration::zero());
}

TEST(Admission, RightCredentialsCostNothingAndIdleConnectionsDo)
{
    AdmissionLimits limits;
    Fixture f(limits);
    Admission &a = f.admission;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(a.attempt("192.0.2.1")) << i;
        a.succeeded("192.0.2.1");
    }
    // Connections dropped for saying nothing count as failures, and so a
    // source that keeps opening them is refused too.
    for (int i = 0; i < 10; ++i) {
        const auto v = a.admit("192.0.2.9");
        ASSERT_TRUE(v);
        a.release(v.account);
        a.charge(v.account);
    }
    EXPECT_EQ(a.admit("192.0.2.9").refusal, Admission::Refusal::penalised);
    f.now += 10s;
    EXPECT_TRUE(a.admit("192.0.2.9"));
    // No source is refused longer than max_penalty after it stopped.
    for (int i = 0; i < 10000; ++i)
        a.charge("192.0.2.10");
    EXPECT_EQ(a.penalty("192.0.2.10"), limits.max_penalty);
}

TEST(Admission, SourcesBeyondTheTableShareOneAccount)
{
    AdmissionLimits limits;
    limits.max_sources = 3;
    limits.per_source = 2;
    Fixture f(limits);
    Admission &a = f.admission;
    for (const char *s : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
        a.charge(s);
    const auto v = a.admit("192.0.2.4");
    ASSERT_TRUE(v);
    EXPECT_NE(v.account, "192.0.2.4");
    EXPECT_TRUE(a.admit("192.0.2.5"));
    EXPECT_EQ(a.admit("192.0.2.6").refusal, Admission::Refusal::source_busy);
    // Once penalties have run out, the table makes room again.
    f.now += 2s;
    a.release(v.account);
    EXPECT_EQ(a.admit("192.0.2.7").account, "192.0.2.7");
    EXPECT_LE(a.sources(), 3u);
}

TEST(Admission, SourcesAreAddressesAndIpv6Slash64s)
{
    auto source = [](int family, const char *text) {
        sockaddr_storage s{};
        if (family == AF_INET) {
            auto *in = reinterpret_cast<sockaddr_in *>(&s);
            in->sin_family = AF_INET;
            inet_pton(AF_INET, text, &in->sin_addr);
            return source_of(reinterpret_cast<sockaddr *>(&s), sizeof(sockaddr_in));
        }
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&s);
        in6->sin6_family = AF_INET6;
        inet_pton(AF_INET6, text, &in6->sin6_addr);
        return source_of(reinterpret_cast<sockaddr *>(&s), sizeof(sockaddr_in6));
    };
    EXPECT_EQ(source(AF_INET, "192.0.2.1").key, "192.0.2.1");
    EXPECT_EQ(source(AF_INET6, "::ffff:192.0.2.1").key, "192.0.2.1");
    EXPECT_EQ(source(AF_INET6, "::ffff:192.0.2.1").address, "192.0.2.1");
    EXPECT_EQ(source(AF_INET6, "2001:db8:1:2:3:4:5:6").key, "2001:db8:1:2::/64");
    EXPECT_EQ(source(AF_INET6, "2001:db8:1:2:ffff::1").key, "2001:db8:1:2::/64");
    EXPECT_EQ(source(AF_INET6, "2001:db8:1:2:ffff::1").address, "2001:db8:1:2:ffff::1");
}

} // namespace
