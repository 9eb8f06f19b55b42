// Connecting and authenticating against the loopback sshd variants and the
// scripted server of the test bed, and a connection cut in mid-transfer.
#include <cstdlib>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"
#include "testbed_env.h"

using velmo::Exc;
using velmo::Ssh;

namespace {

std::size_t occurrences(const std::string& text, const std::string& what) {
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

std::string run(Ssh& ssh, const std::string& command) {
    std::ostringstream out, err;
    EXPECT_EQ(0, ssh.exec(command, out, err, false, Ssh::null_counter)) << err.str();
    return out.str();
}

TEST(SshConnect, WrongPasswordTriesEachMethodOnceThenInvalidCredentials) {
    tb::LogCapture capture;
    try {
        Ssh ssh(tb::host(), tb::user(), "not the password", false, tb::port("VANTREL_TB_PORT"));
        FAIL() << "logged in with a wrong password";
    } catch (const Exc<&velmo::SshInvalidCredentials>& e) {
        EXPECT_STREQ("Unable to connect to host 127.0.0.1: you have specified incorrect username or password",
                     e.what());
    }
    const std::string log = capture.text();
    EXPECT_EQ(1u, occurrences(log, "Trying 'password' authentication")) << log;
    EXPECT_EQ(1u, occurrences(log, "Trying 'keyboard-interactive' authentication")) << log;
    EXPECT_NE(std::string::npos, log.find("Authentication failed")) << log;
}

TEST(SshConnect, PublickeyOnlyServerIsRefusedWithoutAnAttempt) {
    tb::LogCapture capture;
    EXPECT_THROW(Ssh(tb::host(), tb::user(), tb::password(), false, tb::port("VANTREL_TB_PUBKEY_PORT")),
                 Exc<&velmo::SshInvalidCredentials>);
    const std::string log = capture.text();
    EXPECT_NE(std::string::npos, log.find("Got the following allowed userauth methods: publickey")) << log;
    EXPECT_EQ(0u, occurrences(log, "Trying '")) << log;
}

TEST(SshConnect, KeyboardInteractiveOnlyServerLogsIn) {
    tb::LogCapture capture;
    std::unique_ptr<Ssh> ssh = tb::connect("VANTREL_TB_KBDINT_PORT");
    EXPECT_EQ(tb::user() + "\n", run(*ssh, "id -un"));
    const std::string log = capture.text();
    EXPECT_EQ(0u, occurrences(log, "Trying 'password'")) << log;
    EXPECT_NE(std::string::npos, log.find("Filling 1 responses with the password")) << log;
    EXPECT_NE(std::string::npos, log.find("Authenticated successfully")) << log;
    EXPECT_FALSE(ssh->session().compatibilityMode());
    EXPECT_EQ(nullptr, ssh->session().reserveChannel());
}

TEST(SshConnect, DisabledEncryptionFallsBackToTheDefaultCipher) {
    tb::LogCapture capture;
    Ssh ssh(tb::host(), tb::user(), tb::password(), true, tb::port("VANTREL_TB_PORT"));
    EXPECT_EQ("ok\n", run(ssh, "echo ok"));
    const std::string log = capture.text();
    EXPECT_NE(std::string::npos, log.find("Disabling SSH encryption")) << log;
    std::smatch selected;
    ASSERT_TRUE(std::regex_search(log, selected, std::regex("Selected (\\S+) encryption method"))) << log;
    EXPECT_NE("none", selected[1].str());
}

TEST(SshConnect, ScriptedThreePromptRequestGetsThreePasswords) {
    tb::ScratchDir dir;
    tb::ScriptedServer server("kbdint-3-prompts", dir / "events");
    tb::LogCapture capture;
    Ssh ssh(tb::host(), tb::user(), tb::password(), false, server.port());
    EXPECT_EQ("ok\n", run(ssh, "echo ok"));
    EXPECT_NE(std::string::npos, capture.text().find("Filling 3 responses with the password"));
    EXPECT_NE(std::string::npos, server.events().find("AUTH 1 " + tb::user() + " keyboard-interactive ok"))
        << server.events();
}

TEST(SshConnect, FailedHandshakeIsRetriedOnceInCompatibilityMode) {
    tb::ScratchDir dir;
    tb::ScriptedServer server("fail-first-handshake", dir / "events");
    tb::LogCapture capture;
    Ssh ssh(tb::host(), tb::user(), tb::password(), false, server.port());
    EXPECT_TRUE(ssh.session().compatibilityMode());
    EXPECT_NE(nullptr, ssh.session().reserveChannel());
    // Later commands run normally beside the reserve channel.
    EXPECT_EQ("one\n", run(ssh, "echo one"));
    EXPECT_EQ("two\n", run(ssh, "echo two"));

    const std::string events = server.events();
    EXPECT_NE(std::string::npos, events.find("KEX 2 diffie-hellman-group1-sha1")) << events;
    std::smatch reserve;
    ASSERT_TRUE(std::regex_search(events, reserve, std::regex("EXEC 2 (\\d+) cat\\n"))) << events;
    EXPECT_EQ(1u, occurrences(events, " cat\n")) << events;
    EXPECT_EQ(std::string::npos, events.find("EXIT 2 " + reserve[1].str() + " ")) << events;
    EXPECT_EQ(std::string::npos, events.find("CONNECT 3")) << events;
    EXPECT_NE(std::string::npos, capture.text().find("Attempt to start SSH session in a 'compatibility' mode"));
}

TEST(SshConnect, ConnectionCutMidTransferIsAConnectionFault) {
    tb::ScratchDir dir;
    const std::string source = dir / "source";
    tb::writeFile(source, std::string(4 << 20, 'c'));
    ::setenv("VANTREL_TB_CUT_AFTER", "1048576", 1);
    tb::ScriptedServer server("cut-mid-transfer", dir / "events");
    ::unsetenv("VANTREL_TB_CUT_AFTER");

    Ssh ssh(tb::host(), tb::user(), tb::password(), false, server.port());
    EXPECT_EQ("before\n", run(ssh, "echo before"));
    const std::string local = dir / "copy";
    EXPECT_THROW(ssh.get(local, source), Exc<&velmo::SshConnectionFault>);
    EXPECT_FALSE(tb::exists(local));
    EXPECT_NE(std::string::npos, server.events().find("CUT 1")) << server.events();
    // Whatever the connection is asked afterwards, it fails rather than hangs.
    std::ostringstream out, err;
    EXPECT_ANY_THROW(ssh.exec("echo after", out, err, false, Ssh::null_counter));
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
