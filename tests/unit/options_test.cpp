#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "vantrel/options.h"

namespace {

const std::string PREFIX = "Unable to parse command line: ";

// Runs parse_options on "vantrel" followed by words, on private copies of the
// words (the parser may reorder them).
bool parse(const std::vector<std::string>& words, config& cfg) {
    std::vector<std::string> copies{"vantrel"};
    copies.insert(copies.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (std::string& word : copies) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    return parse_options(static_cast<int>(copies.size()), argv.data(), &cfg);
}

// The text of the exception verify_options throws, or "" when it passes.
std::string verifyMessage(config cfg) {
    try {
        verify_options(&cfg);
    } catch (const velmo::Exc<&OptParsingError>& e) {
        return e.what();
    }
    return "";
}

std::string missed(const std::string& name) {
    return PREFIX + name + " is required unless --help or -h requested\n";
}
std::string invalid(const std::string& name) { return PREFIX + name + " is not allowed with --help or -h\n"; }
std::string extra(const std::string& option, const std::string& action) {
    return PREFIX + "'--" + option + "' only may be specified when '--" + action + "' is requested";
}

class Options : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv("KVA_PASSWORD");
        unsetenv("KVA_SUDO_PASSWORD");
    }
};

}  // namespace

TEST_F(Options, EveryOptionReachesItsField) {
    config cfg;
    ASSERT_TRUE(parse({"--dump-selected", "--resellers=r1,r2", "--clients", "-", "--domains=a.example",
                       "--no-content", "--no-compress", "--ip=old.example", "--host", "src.example",
                       "--port=2222", "--login", "admin", "--agent-dir=agents/x", "--agent-name", "Agent1",
                       "--dumps-dir=/var/dumps", "--session-path", "/tmp/s", "stray-word",
                       "--selected-objects-file=/tmp/sel.xml", "--no-check-space", "--no-encryption",
                       "--verbose", "--only-mail", "--only-hosting", "--content-transport=rsync", "--server",
                       "--admin-info", "--no-license", "--login=second"},
                      cfg));
    EXPECT_EQ(3, cfg.action);
    EXPECT_EQ("r1,r2", cfg.resellers);
    EXPECT_EQ("-", cfg.clients);
    EXPECT_EQ("a.example", cfg.domains);
    EXPECT_TRUE(cfg.noContent);
    EXPECT_EQ(2, cfg.compression);
    EXPECT_EQ("src.example", cfg.host);
    EXPECT_EQ(2222, cfg.port);
    EXPECT_EQ("second", cfg.login);
    EXPECT_EQ("agents/x", cfg.agentDir);
    EXPECT_EQ("Agent1", cfg.agentName);
    EXPECT_EQ("/var/dumps", cfg.dumpsDir);
    EXPECT_EQ("/tmp/s", cfg.sessionPath);
    EXPECT_EQ("/tmp/sel.xml", cfg.selectedObjectsFile);
    EXPECT_TRUE(cfg.noCheckSpace);
    EXPECT_TRUE(cfg.noEncryption);
    EXPECT_FALSE(cfg.useSudo);
    EXPECT_TRUE(cfg.verbose);
    EXPECT_EQ(2, cfg.filter);
    EXPECT_EQ("rsync", cfg.contentTransport);
    EXPECT_TRUE(cfg.server);
    EXPECT_TRUE(cfg.adminInfo);
    EXPECT_TRUE(cfg.noLicense);

    // The host written last wins, whichever of the two names it came under;
    // long names may be shortened to an unambiguous prefix.
    config other;
    ASSERT_TRUE(parse({"--host=new.example", "--ip", "old.example", "--only-h", "--only-m", "--sess=/s",
                       "--get-c"},
                      other));
    EXPECT_EQ("old.example", other.host);
    EXPECT_EQ(1, other.filter);
    EXPECT_EQ("/s", other.sessionPath);
    EXPECT_EQ(5, other.action);

    const char* actions[] = {"--send-scout",  "--deploy-agent", "--get-dumping-status",
                             "--dump-selected", "--dump-all",   "--get-content",
                             "--remove-agent", "--remove-dumping-status", "--help"};
    for (int id = 0; id < 9; ++id) {
        config one;
        ASSERT_TRUE(parse({actions[id]}, one));
        EXPECT_EQ(id, one.action) << actions[id];
    }
}

TEST_F(Options, ActionCountAndHelp) {
    struct Case {
        std::vector<std::string> words;
        int action;
    } cases[] = {
        {{}, -1},
        {{"-h"}, 8},
        {{"--help"}, 8},
        {{"--session-path=/s", "-h"}, 8},
        {{"--help", "--send-scout"}, -2},
        {{"--send-scout", "-h"}, -2},
        {{"--send-scout", "--send-scout"}, -2},
        {{"-h", "-h"}, -2},
        {{"--dump-all", "--dump-selected", "--get-content"}, -2},
    };
    for (const Case& c : cases) {
        config cfg;
        EXPECT_TRUE(parse(c.words, cfg));
        EXPECT_EQ(c.action, cfg.action) << ::testing::PrintToString(c.words);
    }

    config none, many;
    none.action = -1;
    many.action = -2;
    EXPECT_EQ(PREFIX + "No action given", verifyMessage(none));
    EXPECT_EQ(PREFIX + "More than one action is given", verifyMessage(many));
}

TEST_F(Options, ParserErrorsStopBeforeThePasswordIsRead) {
    setenv("KVA_PASSWORD", "never-read", 1);
    const std::vector<std::vector<std::string>> failing = {
        {"-h", "--bogus"}, {"--send-scout", "-x"}, {"--host"}, {"--send-scout", "--login"}, {"--no-co"},
        {"--verbose=yes"}};
    ::testing::internal::CaptureStderr();
    for (const auto& words : failing) {
        config cfg;
        EXPECT_FALSE(parse(words, cfg)) << ::testing::PrintToString(words);
        EXPECT_EQ("", cfg.password);
    }
    const std::string diagnostics = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, diagnostics.find("bogus")) << diagnostics;
    ASSERT_NE(nullptr, std::getenv("KVA_PASSWORD"));
    EXPECT_STREQ("never-read", std::getenv("KVA_PASSWORD"));
    unsetenv("KVA_PASSWORD");
}

TEST_F(Options, PortConversion) {
    struct Case {
        const char* argument;
        int port;
    } cases[] = {{"0", -1},      {"65536", -1}, {"-22", -1},   {"abc", -1},  {"", -1},
                 {"99999999999999999999", -1},  {"22abc", 22}, {"  2222", 2222},
                 {"+80", 80},    {"1", 1},      {"65535", 65535}};
    for (const Case& c : cases) {
        config cfg;
        ASSERT_TRUE(parse({"--send-scout", "--host=h", "--login=l", std::string("--port=") + c.argument}, cfg));
        EXPECT_EQ(c.port, cfg.port) << c.argument;
        cfg.password = "pw";
        EXPECT_EQ(c.port == -1 ? PREFIX + "port should be a number in [1, 65535] range" : "",
                  verifyMessage(cfg))
            << c.argument;
    }
}

// Every cell of the per-action rules: an action's minimal valid record passes;
// taking away a required option, or adding a forbidden one, fails with that
// option's text; adding an accepted one still passes.
TEST_F(Options, VerificationRulesPerAction) {
    enum Cell { A, R, F };
    struct Row {
        const char* what;
        void (*put)(config&);
        void (*take)(config&);
        std::string required;
        std::string forbidden;
        Cell cells[8];
    };
    const Row rows[] = {
        {"host", [](config& c) { c.host = "src.example"; }, [](config& c) { c.host.clear(); }, missed("host"),
         invalid("host"), {R, R, R, R, R, R, R, F}},
        {"port", [](config& c) { c.port = 2222; }, [](config& c) { c.port = 0; }, "", invalid("port"),
         {A, A, A, A, A, A, A, F}},
        {"login", [](config& c) { c.login = "admin"; }, [](config& c) { c.login.clear(); }, missed("login"),
         invalid("login"), {R, R, R, R, R, R, R, F}},
        {"password", [](config& c) { c.password = "pw"; }, [](config& c) { c.password.clear(); },
         missed("password"), invalid("password"), {R, R, R, R, R, R, R, F}},
        {"sudo",
         [](config& c) {
             c.useSudo = true;
             c.sudoPasswordProvided = true;
             c.sudoPassword = "spw";
         },
         [](config& c) { c.useSudo = c.sudoPasswordProvided = false; }, "", invalid("sudo parameters"),
         {A, A, A, A, A, A, A, F}},
        {"agent dir", [](config& c) { c.agentDir = "agent"; }, [](config& c) { c.agentDir.clear(); },
         missed("agent directory"), invalid("agent directory"), {F, R, R, R, R, R, R, F}},
        {"agent name", [](config& c) { c.agentName = "Agent1"; }, [](config& c) { c.agentName.clear(); },
         missed("agent name"), invalid("agent name"), {F, R, R, R, R, R, R, F}},
        {"no-check-space", [](config& c) { c.noCheckSpace = true; }, [](config& c) { c.noCheckSpace = false; },
         "", extra("no-check-space", "get-content"), {F, F, F, F, F, A, F, F}},
        {"no-encryption", [](config& c) { c.noEncryption = true; }, [](config& c) { c.noEncryption = false; },
         "", extra("no-encryption", "get-content"), {F, F, F, F, F, A, F, F}},
        {"no-content", [](config& c) { c.noContent = true; }, [](config& c) { c.noContent = false; }, "",
         extra("no-content", "dump-*"), {F, F, F, A, A, F, F, F}},
    };

    for (int action = 0; action < 8; ++action) {
        config base;
        base.action = action;
        base.sessionPath = "/tmp/session";
        for (const Row& row : rows)
            if (row.cells[action] == R) row.put(base);
        ASSERT_EQ("", verifyMessage(base)) << "action " << action;

        for (const Row& row : rows) {
            config changed = base;
            switch (row.cells[action]) {
                case R:
                    row.take(changed);
                    EXPECT_EQ(row.required, verifyMessage(changed)) << "action " << action << " " << row.what;
                    break;
                case F:
                    row.put(changed);
                    EXPECT_EQ(row.forbidden, verifyMessage(changed)) << "action " << action << " " << row.what;
                    break;
                case A:
                    row.put(changed);
                    EXPECT_EQ("", verifyMessage(changed)) << "action " << action << " " << row.what;
                    break;
            }
        }

        // The options nobody checks here go with every action.
        config loaded = base;
        loaded.resellers = loaded.clients = loaded.domains = "-";
        loaded.selectedObjectsFile = "/tmp/sel.xml";
        loaded.server = loaded.adminInfo = loaded.noLicense = loaded.verbose = true;
        loaded.compression = OPT_BACKUP_COMPRESS_NONE;
        loaded.filter = OPT_BACKUP_FILTER_ONLY_HOSTING;
        loaded.contentTransport = "rsync";
        loaded.dumpsDir = "/var/dumps";
        loaded.sessionPath.clear();
        EXPECT_EQ("", verifyMessage(loaded)) << "action " << action;
    }

    // The option-to-action checks come first, then host before port.
    config scout;
    scout.action = 0;
    scout.port = -1;
    scout.noContent = true;
    EXPECT_EQ(extra("no-content", "dump-*"), verifyMessage(scout));
    scout.noContent = false;
    EXPECT_EQ(missed("host"), verifyMessage(scout));
    scout.host = "h";
    EXPECT_EQ(PREFIX + "port should be a number in [1, 65535] range", verifyMessage(scout));

    config removal;
    removal.action = 7;
    removal.useSudo = true;
    removal.agentName = "n";
    removal.password = "p";
    EXPECT_EQ(invalid("password"), verifyMessage(removal));
}

TEST_F(Options, SudoPasswordFromEnvironment) {
    config absent;
    ASSERT_TRUE(parse({"--send-scout", "--host=h", "--login=l", "--sudo-password"}, absent));
    EXPECT_TRUE(absent.useSudo);
    EXPECT_FALSE(absent.sudoPasswordProvided);
    absent.password = "pw";
    EXPECT_EQ(PREFIX + "KVA_SUDO_PASSWORD environment variable is not provided with --sudo-password\n",
              verifyMessage(absent));

    setenv("KVA_SUDO_PASSWORD", "", 1);
    EXPECT_TRUE(is_sudo_password_provided());
    config empty;
    ASSERT_TRUE(parse({"--send-scout", "--host=h", "--login=l", "--sudo-password"}, empty));
    EXPECT_TRUE(empty.useSudo);
    EXPECT_TRUE(empty.sudoPasswordProvided);
    EXPECT_EQ("", empty.sudoPassword);
    empty.password = "pw";
    EXPECT_EQ("", verifyMessage(empty));

    // Read when the option is met, left in the environment, and masked in logs.
    setenv("KVA_SUDO_PASSWORD", "sudo-Pw 42", 1);
    config given;
    ASSERT_TRUE(parse({"--sudo-password", "--deploy-agent"}, given));
    EXPECT_EQ("sudo-Pw 42", given.sudoPassword);
    EXPECT_EQ("sudo-Pw 42", get_sudo_password());
    EXPECT_STREQ("sudo-Pw 42", std::getenv("KVA_SUDO_PASSWORD"));
    EXPECT_EQ("echo ******** | sudo -S", velmo::maskSecrets("echo sudo-Pw 42 | sudo -S"));

    unsetenv("KVA_SUDO_PASSWORD");
    EXPECT_FALSE(is_sudo_password_provided());
    EXPECT_EQ("", get_sudo_password());
}

TEST_F(Options, LoginPasswordTakenOnceFromEnvironment) {
    // In a child, so that this process's buffer stays untouched: a long value
    // is cut to 4095 characters.
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        setenv("KVA_PASSWORD", std::string(5000, 'p').c_str(), 1);
        const bool ok = std::strlen(get_env_noncrypted_password()) == 4095 && std::getenv("KVA_PASSWORD") == nullptr;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    setenv("KVA_PASSWORD", "login-s3cret", 1);
    config cfg;
    ASSERT_TRUE(parse({"--remove-dumping-status", "--session-path=/s"}, cfg));
    EXPECT_EQ("login-s3cret", cfg.password);
    EXPECT_EQ(nullptr, std::getenv("KVA_PASSWORD"));
    EXPECT_STREQ("login-s3cret", get_env_noncrypted_password());
    EXPECT_EQ(invalid("password"), verifyMessage(cfg));
    EXPECT_EQ("user ******** logged in", velmo::maskSecrets("user login-s3cret logged in"));

    // Once read, the value stays even when the variable comes back.
    setenv("KVA_PASSWORD", "another", 1);
    EXPECT_STREQ("login-s3cret", get_env_noncrypted_password());
    unsetenv("KVA_PASSWORD");
}

TEST_F(Options, UsageText) {
    const std::string b10(10, ' '), b13(13, ' '), b16(16, ' '), b17(17, ' ');
    const std::string expected =
        "Usage: [KVA_PASSWORD=<password> | KVA_SUDO_PASSWORD = <sudo_password>] vantrel \n" +
        b10 + "--host=<hostname or IP address> (obsolete alias is --ip)\n" +
        b10 + "[--port=<port>] (defaults to 22)\n" +
        b10 + "--login=<username>\n" +
        b10 + "[--sudo-password]\n" +
        b10 + "--agent-dir=<dir> (relative path on the remote side)\n" +
        b10 + "( --send-scout\n" +
        b10 + "| --deploy-agent --session-path <dir> --agent-name <agent>\n" +
        b10 + "| --get-dumping-status --session-path <dir>\n" +
        b10 + "| ( --dump-selected [--selected-objects-file=<file-path>]\n" +
        b16 + "[--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]] "
              "[--domains=-|<domain1>[,<domain2>...]]\n" +
        b13 + "| --dump-all ) \n" +
        b16 + "[--server] [--admin-info] [--no-license]\n" +
        b17 + "--session-path <dir> --agent-name <agent>\n" +
        b16 + "[--no-content] [--no-compress]\n" +
        b16 + "[--only-mail]\n" +
        b16 + "[--only-hosting]\n" +
        b10 + "| --get-content --session-path <dir> --agent-name <agent>\n" +
        b16 + "[--no-check-space] [--no-encryption (not implemented)] [--dumps-dir=<dir-on-destination-host>]\n" +
        b10 + "| --remove-agent --session-path <dir> --agent-name <agent>\n" +
        b10 + "| --remove-dumping-status --session-path <dir>\n" +
        b10 + "| --help | -h)\n";
    ::testing::internal::CaptureStdout();
    usage();
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(expected, printed);
    EXPECT_EQ(1250u, printed.size());
}
