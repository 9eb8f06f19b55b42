// Remote execution and file transfer against the loopback sshd of the test
// bed.
#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include <signal.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "commons/exceptions.h"
#include "commons/sh_quoting.h"
#include "commons/ssh-transfer.h"
#include "testbed_env.h"

using velmo::Exc;
using velmo::Ssh;

namespace {

struct SummingCounter : Ssh::Counter {
    void operator()(int bytes) override {
        total += bytes;
        ++calls;
    }
    long long total = 0;
    int calls = 0;
};

class SshExec : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ssh_ = tb::connect().release(); }
    static void TearDownTestSuite() {
        delete ssh_;
        ssh_ = nullptr;
    }
    void TearDown() override { velmo::isProgramTerminated = false; }

    int run(const std::string& command, std::string& out, std::string& err, const std::string& input = "") {
        std::istringstream in(input);
        std::ostringstream o, e;
        const int status = ssh_->exec(command, in, o, e, false, false, Ssh::null_counter);
        out = o.str();
        err = e.str();
        return status;
    }

    static Ssh* ssh_;
};
Ssh* SshExec::ssh_ = nullptr;

TEST_F(SshExec, ExitStatusesPassThroughAndStreamsStayApart) {
    std::string out, err;
    EXPECT_EQ(3, run("echo out; echo err >&2; exit 3", out, err));
    EXPECT_EQ("out\n", out);
    EXPECT_EQ("err\n", err);

    EXPECT_EQ(0, run("true", out, err));
    EXPECT_EQ("", out);
    EXPECT_EQ(255, run("exit 255", out, err));
    EXPECT_EQ(127, run("no-such-command-here", out, err));
    EXPECT_NE(std::string::npos, err.find("not found")) << err;
    // A command killed by a signal is never a success.
    EXPECT_NE(0, run("kill -9 $$", out, err));

    // Input arrives whole, then EOF.
    std::string input(300000, 'x');
    input += "end";
    EXPECT_EQ(0, run("cat", out, err, input));
    EXPECT_EQ(input, out);

    // Both streams busy at once: each byte lands on its own side, and neither
    // waits for the other.
    EXPECT_EQ(0, run("(head -c 1000000 /dev/zero | tr '\\0' o) & "
                     "(head -c 700000 /dev/zero | tr '\\0' e >&2); wait",
                     out, err));
    EXPECT_EQ(std::string(1000000, 'o'), out);
    EXPECT_EQ(std::string(700000, 'e'), err);

    // Standard error alone is passed on as it arrives, not held back until
    // standard output or the end of the command wakes the loop.
    struct StampingBuf : std::stringbuf {
        std::streamsize xsputn(const char* s, std::streamsize n) override {
            if (first.time_since_epoch().count() == 0)
                first = std::chrono::steady_clock::now();
            return std::stringbuf::xsputn(s, n);
        }
        std::chrono::steady_clock::time_point first{};
    } stamped;
    std::ostream stampedErr(&stamped);
    std::istringstream none;
    std::ostringstream o;
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(0, ssh_->exec("echo early >&2; sleep 3; echo late", none, o, stampedErr, false, false,
                            Ssh::null_counter));
    EXPECT_EQ("early\n", stamped.str());
    EXPECT_EQ("late\n", o.str());
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(stamped.first - started).count(), 2000);
}

TEST_F(SshExec, CounterSeesExactlyTheStandardOutputChunks) {
    SummingCounter counter;
    std::istringstream in;
    std::ostringstream out, err;
    EXPECT_EQ(0, ssh_->exec("head -c 400000 /dev/zero; head -c 5000 /dev/zero >&2", in, out, err, true, true,
                            counter));
    EXPECT_EQ(400000, counter.total);
    EXPECT_EQ(400000u, out.str().size());
    EXPECT_EQ(5000u, err.str().size());
    EXPECT_GE(counter.calls, 400000 / 65536);

    tb::ScratchDir dir;
    const std::string source = dir / "source";
    tb::writeFile(source, std::string(123457, 'q'));
    SummingCounter fileCounter;
    std::ostringstream content, errors;
    EXPECT_EQ(0, ssh_->get(content, errors, source, fileCounter));
    EXPECT_EQ(123457, fileCounter.total);
    EXPECT_EQ(std::string(123457, 'q'), content.str());
}

TEST_F(SshExec, GetToLocalFileAndFailedReadLeavesNothing) {
    tb::ScratchDir dir;
    const std::string source = dir / "name with 'quote' and $dollar";
    tb::writeFile(source, "remote content\n");
    const std::string local = dir / "local";
    EXPECT_EQ(0, ssh_->get(local, source));
    EXPECT_EQ("remote content\n", tb::readFile(local));
    struct stat st;
    ASSERT_EQ(0, ::stat(local.c_str(), &st));
    EXPECT_EQ(0u, st.st_mode & 027) << std::oct << st.st_mode;

    // An existing local copy is truncated, then removed when the read fails.
    tb::writeFile(local, "stale");
    std::ostringstream err;
    EXPECT_NE(0, ssh_->get(local, err, dir / "missing", Ssh::null_counter));
    EXPECT_FALSE(tb::exists(local));
    EXPECT_NE(std::string::npos, err.str().find("No such file")) << err.str();

    // A local file that cannot be created fails at the first chunk.
    EXPECT_THROW(ssh_->get(dir / "no-dir/file", source), Exc<&velmo::StreamWrite>);
}

TEST_F(SshExec, PutEmptyLargeAndUnreadable) {
    tb::ScratchDir dir;
    std::string out, err;

    std::istringstream empty;
    const std::string emptyRemote = dir / "empty";
    ssh_->put(empty, emptyRemote);
    ASSERT_TRUE(tb::exists(emptyRemote));
    EXPECT_EQ("", tb::readFile(emptyRemote));

    // 20 MiB and a bit of random bytes, compared by md5 on both sides.
    const std::string local = dir / "random";
    ASSERT_EQ(0, std::system(("head -c 20971529 /dev/urandom > '" + local + "'").c_str()));
    const std::string remote = dir / "copy of random";
    ssh_->put(local, remote);
    ASSERT_EQ(0, run("md5sum < " + velmo::sh_quote(local) + "; md5sum < " + velmo::sh_quote(remote), out, err));
    ASSERT_EQ(2 * 36u, out.size()) << out;
    EXPECT_EQ(out.substr(0, 36), out.substr(36));

    // An unreadable local file is refused before the remote copy is touched.
    tb::writeFile(remote, "keep me");
    EXPECT_THROW(ssh_->put(dir / "does-not-exist", remote), Exc<&velmo::StreamRead>);
    EXPECT_EQ("keep me", tb::readFile(remote));
}

TEST_F(SshExec, TerminationStopsTransferAtItsNextChunk) {
    tb::ScratchDir dir;
    const std::string source = dir / "big";
    tb::writeFile(source, std::string(4 << 20, 'b'));

    struct StopAfterFirst : Ssh::Counter {
        void operator()(int bytes) override {
            seen += bytes;
            velmo::terminateProgram();
        }
        long long seen = 0;
    } stopper;
    const std::string local = dir / "partial";
    std::ostringstream err;
    EXPECT_THROW(ssh_->get(local, err, source, stopper), velmo::MigrationTerminatedException);
    EXPECT_GT(stopper.seen, 0);
    EXPECT_LE(stopper.seen, 65536);
    EXPECT_FALSE(tb::exists(local));

    // With the flag set, an exchange without any data still completes.
    std::string out;
    std::string errText;
    EXPECT_EQ(4, run("exit 4", out, errText));
    try {
        run("echo x", out, errText);
        FAIL() << "a chunk was written after the stop request";
    } catch (const velmo::MigrationTerminatedException& e) {
        EXPECT_STREQ("Migration has been terminated", e.what());
    }

    // The connection stays usable once the flag is cleared.
    velmo::isProgramTerminated = false;
    EXPECT_EQ(0, run("echo again", out, errText));
    EXPECT_EQ("again\n", out);
}

TEST_F(SshExec, PasswordsNeverReachTheLog) {
    const std::string secret = tb::password();
    tb::LogCapture capture;
    std::string out, err;
    // The password goes in on stdin (as sudo reads it), is echoed on both
    // streams and appears in the command line itself (behind a comment).
    const std::string input = secret + "\nrest of input\n";
    EXPECT_EQ(0, run("tee /dev/stderr #" + secret, out, err, input));
    EXPECT_EQ(input, out);
    EXPECT_EQ(input, err);

    const std::string log = capture.text();
    EXPECT_EQ(std::string::npos, log.find(secret)) << log;
    EXPECT_NE(std::string::npos, log.find("remote stdin <- ********\nrest of input")) << log;
    EXPECT_NE(std::string::npos, log.find("remote stdout -> ********")) << log;
    EXPECT_NE(std::string::npos, log.find("remote stderr -> ********")) << log;
    EXPECT_NE(std::string::npos, log.find("Executing tee /dev/stderr #******** on the remote host")) << log;
    EXPECT_NE(std::string::npos, log.find("Execution finished with return code 0")) << log;
}

// ---- SIGALRM every 100 ms during a 30-second command ----

Ssh* alarmTarget = nullptr;

struct RefreshHook : velmo::Alarm {
    // What the status refresh of the actions does: unhook, fetch a small file
    // over a second channel while the outer command waits.
    void doAlarm() override {
        alarmTarget->setAlarm(nullptr);
        ++calls;
        if (calls % 10 == 1) {
            std::ostringstream copy;
            if (alarmTarget->get(copy, statusFile) == 0 && copy.str() == "status\n")
                ++fetched;
        }
    }
    std::string statusFile;
    int calls = 0;
    int fetched = 0;
} refreshHook;

volatile sig_atomic_t signalsSeen = 0;

// Like the actions' handler: only marks the connection.
void onAlarm(int) {
    signalsSeen = signalsSeen + 1;
    alarmTarget->setAlarm(&refreshHook);
}

TEST_F(SshExec, SurvivesSigalrmEveryHundredMilliseconds) {
    tb::ScratchDir dir;
    refreshHook.statusFile = dir / "status";
    tb::writeFile(refreshHook.statusFile, "status\n");
    alarmTarget = ssh_;

    // The timer and the handler (no SA_RESTART) for the life of the object.
    struct Ticking {
        Ticking() {
            struct sigaction action {};
            action.sa_handler = &onAlarm;
            sigemptyset(&action.sa_mask);
            sigaction(SIGALRM, &action, &previous);
            itimerval every100ms{{0, 100000}, {0, 100000}};
            setitimer(ITIMER_REAL, &every100ms, nullptr);
        }
        ~Ticking() {
            itimerval off{};
            setitimer(ITIMER_REAL, &off, nullptr);
            sigaction(SIGALRM, &previous, nullptr);
        }
        struct sigaction previous;
    };

    std::string input(8 << 20, 'i');
    std::istringstream in(input);
    std::ostringstream out, err;
    SummingCounter counter;
    int status = -1;
    {
        Ticking ticking;
        status = ssh_->exec("sleep 2; wc -c; i=0; while [ $i -lt 30 ]; do echo out $i; echo err $i >&2; "
                            "head -c 100000 /dev/zero; sleep 1; i=$((i+1)); done; exit 5",
                            in, out, err, true, true, counter);
    }
    ssh_->setAlarm(nullptr);

    EXPECT_EQ(5, status);
    std::string expectedOut = std::to_string(input.size()) + "\n";
    std::string expectedErr;
    for (int i = 0; i < 30; ++i) {
        expectedOut += "out " + std::to_string(i) + "\n" + std::string(100000, '\0');
        expectedErr += "err " + std::to_string(i) + "\n";
    }
    EXPECT_EQ(expectedOut.size(), out.str().size());
    EXPECT_TRUE(expectedOut == out.str());
    EXPECT_EQ(expectedErr, err.str());
    EXPECT_EQ(static_cast<long long>(expectedOut.size()), counter.total);
    EXPECT_GT(signalsSeen, 20);
    EXPECT_GT(refreshHook.calls, 20);
    EXPECT_GT(refreshHook.fetched, 2);
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
