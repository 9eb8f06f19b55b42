// The bounded login: a peer that stops answering during the handshake or the
// authentication ends the connection attempt with a time-out, while a remote
// command that runs longer than that bound is left alone.
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"
#include "testbed_env.h"

using velmo::Exc;
using velmo::Ssh;

namespace {

// Sets $VANTREL_SSH_LOGIN_TIMEOUT for the life of the object.
class LoginTimeout {
public:
    explicit LoginTimeout(const char* value) { ::setenv("VANTREL_SSH_LOGIN_TIMEOUT", value, 1); }
    ~LoginTimeout() { ::unsetenv("VANTREL_SSH_LOGIN_TIMEOUT"); }
};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Connects to a scripted server that never completes the login and returns
// how long the attempt took; the attempt must end with a time-out that names
// the host as given.
double timedOutLogin(const std::string& mode, tb::ScratchDir& dir, std::string& log, std::string& events) {
    tb::ScriptedServer server(mode, dir / (mode + ".events"));
    tb::LogCapture capture;
    const auto start = std::chrono::steady_clock::now();
    try {
        Ssh ssh(tb::host(), tb::user(), tb::password(), false, server.port());
        ADD_FAILURE() << "logged in to the " << mode << " server";
    } catch (const Exc<&velmo::ConnectionTimedOut>& e) {
        EXPECT_STREQ("Timeout while attempting connection to host 127.0.0.1", e.what());
    }
    const double took = secondsSince(start);
    log = capture.text();
    events = server.events();
    return took;
}

TEST(SshLoginTimeout, SilentAndStalledPeersEndWithATimeOutWithinTheBound) {
    LoginTimeout bound("2");
    tb::ScratchDir dir;
    std::string log, events;

    // Nothing at all after the TCP connection: no second connection in
    // compatibility mode either, since a mute peer is no protocol mismatch.
    double took = timedOutLogin("silent", dir, log, events);
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 6.0);
    EXPECT_NE(std::string::npos, log.find("SSH handshake timed out")) << log;
    EXPECT_EQ(std::string::npos, log.find("'compatibility' mode")) << log;
    EXPECT_EQ(std::string::npos, events.find("CONNECT 2")) << events;

    // Key exchange done, then silence on the authentication request: one
    // method is tried, not one after the other.
    took = timedOutLogin("stall-auth", dir, log, events);
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 6.0);
    EXPECT_NE(std::string::npos, log.find("SSH authentication timed out")) << log;
    EXPECT_NE(std::string::npos, events.find("KEX 1")) << events;
    EXPECT_EQ(std::string::npos, log.find("Trying 'keyboard-interactive'")) << log;
}

TEST(SshLoginTimeout, UnusableSettingKeepsALongBound) {
    // A value that is not a whole number of seconds from 1 up must neither
    // turn the bound off nor make it zero: the attempts on a silent peer are
    // still waiting after a while (the default itself is checked with the
    // binary).
    tb::ScratchDir dir;
    tb::ScriptedServer server("silent", dir / "events");
    std::vector<pid_t> children;
    for (const char* value : {"0", "-5", "abc", "2x", "99999999999999999999"}) {
        const pid_t child = ::fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            ::setenv("VANTREL_SSH_LOGIN_TIMEOUT", value, 1);
            try {
                Ssh ssh(tb::host(), tb::user(), tb::password(), false, server.port());
            } catch (...) {
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    ::sleep(3);
    for (pid_t child : children) {
        int status;
        EXPECT_EQ(0, ::waitpid(child, &status, WNOHANG)) << "an attempt gave up within 3 s";
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
}

TEST(SshLoginTimeout, LongCommandAfterLoginIsNotCut) {
    LoginTimeout bound("1");
    std::unique_ptr<Ssh> ssh = tb::connect();
    std::ostringstream out, err;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ssh->exec("sleep 3; echo done", out, err, false, Ssh::null_counter)) << err.str();
    EXPECT_EQ("done\n", out.str());
    EXPECT_GE(secondsSince(start), 2.5);
    // A file transfer that stalls in between is not cut either.
    std::ostringstream copy;
    EXPECT_EQ(0, ssh->exec("printf a; sleep 2; printf b", copy, err, true, Ssh::null_counter));
    EXPECT_EQ("ab", copy.str());
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
