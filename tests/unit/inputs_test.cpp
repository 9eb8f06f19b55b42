// The readers of what comes in: the product configuration file, agent
// description files, the agent's content list, the selected-objects file, the command
// line, a command's output past its login shell's noise, and a host's offer of methods.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <libssh2.h>

#include "commons/agent_spec.h"
#include "commons/exceptions.h"
#include "commons/formats.h"
#include "commons/host_offer.h"
#include "commons/shell_noise.h"
#include "utils/read_configuration.h"
#include "vantrel/actions.h"
#include "vantrel/dump_options.h"
#include "vantrel/retrieve_content.h"
#include "vantrel/vantrel.h"

namespace fs = boost::filesystem;
using namespace velmo;
using Words = std::vector<std::string>;

namespace {

const fs::path scratch = fs::temp_directory_path() / fs::unique_path("vantrel-unit-%%%%%%");

std::string write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path.string(), std::ios::binary) << text;
    return path.string();
}

// The product root of this program, named in the configuration file the
// build reads before anything looks it up.
struct ProductRoot : ::testing::Environment {
    void SetUp() override { write(VANTREL_KVA_CONF, "PRODUCT_ROOT_D " + scratch.string() + "\nDUMP_TMP_D /x/tmp\n"); }
    void TearDown() override {
        fs::remove(VANTREL_KVA_CONF);
        fs::remove_all(scratch);
    }
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new ProductRoot);

// The start of the plain text of what f throws (the tag comes first), or "".
template <class F> std::string failure(F f) {
    try {
        f();
    } catch (const ExTraceable& e) {
        return formatPlainTextMessage(e);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "";
}

}  // namespace

TEST(Configuration, LineRulesAndDefaults) {
    std::string text = "# comment\n\n \t \n  # indented\nROOT /opt/kva # where\nVHOSTS\t/srv/my vhosts  \n"
                       "  \tINDENTED   value\nHASH a#b\nASSIGNED=/etc/x\nNAME_ONLY   \nNO_VALUE  # none\n"
                       "TWICE first\nTWICE second\nLONG " + std::string(10000, 'v') + "\n#" + std::string(5000, 'c') +
                       "\n" + std::string(4500, 'N') + " named\n";
    for (int i = 0; i < 45; ++i) text += "VAR_" + std::to_string(i) + " value " + std::to_string(i) + "\n";
    conf_data* table = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
    ASSERT_EQ(0, conf_read_file_r(write(scratch / "kva.conf", text + "LAST no line feed").c_str(), table));
    const std::pair<std::string, const char*> cases[] = {
        {"ROOT", "/opt/kva"}, {"VHOSTS", "/srv/my vhosts"}, {"INDENTED", "value"}, {"HASH", "a"},
        {"TWICE", "second"}, {"LAST", "no line feed"}, {std::string(4500, 'N'), "named"}, {"VAR_0", "value 0"},
        {"VAR_44", "value 44"}, {"ASSIGNED", nullptr}, {"NAME_ONLY", nullptr}, {"NO_VALUE", nullptr},
        {"root", nullptr}};
    for (const auto& c : cases) EXPECT_STREQ(c.second, conf_get_r(c.first.c_str(), table)) << c.first;
    EXPECT_EQ(std::string(10000, 'v'), conf_get_r("LONG", table));
    EXPECT_EQ(53u, table->nmemb);
    EXPECT_EQ(-1, conf_read_file_r("/nonexistent/kva.conf", table));
    EXPECT_EQ(ENOENT, errno);
    conf_free_r(table);

    // The product's file: a value it sets, or the compile-time default.
    EXPECT_STREQ("/x/tmp", kvaConfGet("DUMP_TMP_D"));
    EXPECT_EQ(scratch.string(), kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_EQ(nullptr, kvaConfGetByIndex(_MYSQL_BIN_D_INDEX));
    EXPECT_STREQ("/usr/bin", kvaConfGetDefaultByIndex(_MYSQL_BIN_D_INDEX));
}

TEST(AgentDescription, TokenValueLines) {
    const std::string file = (scratch / "description").string(), bad = "Unable to parse spec file: " + file + ":";
    const struct { std::string text; Agent::ParseResult values; std::string failure; } cases[] = {
        // Colons in a value, its trailing blanks kept, the last definition wins.
        {"Description: x:y\n\nEntryPoint: a\nDocumentType:\t\v\f doc.dtd \nEntryPoint:b\nStylesheet: s",
         {"x:y", "b", "doc.dtd ", "s", ""}, ""},
        {"Description: d\r\nInterpreter:\r\n", {"d\r", "", "", "", ""}, ""},
        {"", {}, ""},
        // Line numbers count the empty lines.
        {"Description: a\n \nEntryPoint: b\n", {}, bad + "2: Expected '<token>: <value>', got ' '"},
        {"Description: a\n\nEntryPoint\n", {}, bad + "3: Expected '<token>: <value>', got 'EntryPoint'"},
        {"entrypoint: a.pl\n", {}, "Unable to parse spec file: Illegal parameter found in " + file + ": entrypoint"},
        {"EntryPoint : a.pl\n", {}, "Illegal parameter found in " + file + ": EntryPoint "},
    };
    for (const auto& c : cases) {
        write(file, c.text);
        Agent::ParseResult values;
        const std::string text = failure([&] { values = Agent::parse(file); });
        EXPECT_EQ(c.values, values) << c.text;
        EXPECT_NE(std::string::npos, text.find(c.failure)) << text;
        EXPECT_EQ(c.failure.empty(), text.empty()) << text;
    }
    EXPECT_EQ(Agent::ParseResult(), Agent::parse((scratch / "none").string()));
}

TEST(AgentDescription, OnlyPlainNamesOfValidAgentsAreFound) {
    const fs::path agents = scratch / "QMV" / "agents";
    write(agents / "inner" / "control" / "spec", "EntryPoint: inner.pl\n");
    write(agents / "broken" / "control" / "spec", "EntryPoint: a.pl\nBogus: 1\n");
    write(agents / "control" / "spec", "EntryPoint: x.pl\n");
    write(scratch / "QMV" / "outside" / "control" / "spec", "EntryPoint: x.pl\n");
    fs::create_directories(agents / "nofile" / "control");
    fs::create_directories(agents / "filedir" / "control" / "spec");
    for (const std::string& name : Words{"", ".", "..", "../outside", "inner/", "./inner", "/inner", "late", "nofile",
                                         "filedir", "broken", std::string("inner\0x", 7)})
        EXPECT_EQ(0u, failure([&] { theAgentsFactory().getAgent(name); }).find("AgentNotFound")) << name;
    EXPECT_EQ("inner.pl", theAgentsFactory().getAgent("inner")->getEntryPoint());
    // A failure is not remembered.
    write(agents / "late" / "control" / "spec", "EntryPoint: late.pl\n");
    EXPECT_EQ("late.pl", theAgentsFactory().getAgent("late")->getEntryPoint());
}

TEST(ContentList, RecordsTotalsAndRefusals) {
    std::unique_ptr<AgentFileList> list = getFileList(
        "<?xml version=\"1.0\"?>\n<contentlist size=\"18446744073709551615\"><!-- archives -->"
        "<file size=\"1024\" md5sum=\"0123abc\">dom/a.tgz</file><other size=\"x\"/>"
        "<file size=\"-5\" md5sum=\"\"> a&amp;b&#47; .tgz </file><file size=\"9\" md5sum=\"x\">" +
        std::string(4096, 'n') + "</file></contentlist>");
    const std::vector<DumpFile>& files = list->getFileList();
    ASSERT_EQ(3u, files.size());
    EXPECT_EQ("dom/a.tgz", files[0].name);
    EXPECT_EQ(1024, files[0].size);
    EXPECT_EQ("0123abc", files[0].md5sum);
    EXPECT_EQ(" a&b/ .tgz ", files[1].name);
    EXPECT_EQ(-5, files[1].size);
    EXPECT_EQ(4096u, files[2].name.size());
    EXPECT_EQ(UINT64_MAX, list->getTotalSize());

    const std::string entity = "<!DOCTYPE c [<!ENTITY a '" + std::string(1000, 'a') + "'>]>";
    // Six levels of ten references to 100 bytes: 100 MB of text.
    std::string bomb = "<!DOCTYPE x [<!ENTITY a '" + std::string(100, 'x') + "'>";
    for (char level = 'b'; level <= 'g'; ++level) {
        bomb += std::string("<!ENTITY ") + level + " '";
        for (int i = 0; i < 10; ++i) bomb += std::string("&") + char(level - 1) + ";";
        bomb += "'>";
    }
    const std::pair<std::string, std::string> refused[] = {
        {"", "AssertionFailed"},
        {"<contentlist>", "tError_ParseFile"},
        {"<content/>", "tError_WrongDoc"},
        {"<contentlist><file md5sum=\"x\">a</file></contentlist>", "NoSuchAttribute"},
        {"<contentlist><file size=\"1\">a</file></contentlist>", "NoSuchAttribute"},
        {"<contentlist><file size=\"12abc\" md5sum=\"x\"/></contentlist>", "BadContentListNumber"},
        {"<contentlist><file size=\"9223372036854775808\" md5sum=\"x\"/></contentlist>", "BadContentListNumber"},
        // Names no longer than a local path can be, also through entities.
        {"<contentlist><file size=\"1\" md5sum=\"x\">" + std::string(4097, 'n') + "</file></contentlist>",
         "tError_XmlInternal"},
        {entity + "<contentlist><file size=\"1\" md5sum=\"x\">&a;&a;&a;&a;&a;</file></contentlist>",
         "tError_XmlInternal"},
        {bomb + "]><contentlist size=\"1\"><file size=\"1\" md5sum=\"&g;\">n</file></contentlist>", "tError_ParseFile"},
    };
    for (const auto& c : refused)
        EXPECT_EQ(0u, failure([&] { getFileList(c.first); }).find(c.second)) << c.first;
    for (const std::string total : {"", "-1", "18446744073709551616"})
        EXPECT_NE("", failure([&] { getFileList("<contentlist size=\"" + total + "\"/>")->getTotalSize(); })) << total;
    EXPECT_EQ(0u, failure([] { getFileList("<contentlist/>")->getTotalSize(); }).find("NoSuchAttribute"));
}

TEST(DumpOptions, SelectionFileAndCommandLine) {
    using Dump = std::pair<Words, std::string>;  // the agent's arguments and standard input
    const auto dump = [](const config& cfg) {
        Dump d;
        prepareDumpArguments(cfg, d.first, d.second);
        return d;
    };
    config cfg;
    cfg.action = ACTION_DUMP_SELECTED;
    cfg.domains = "a,b";
    EXPECT_EQ(Dump({"--migration-mode", "--dump-domains=-", "--include-app-distrib"}, "a,b"), dump(cfg));
    cfg.clients = "c";
    cfg.resellers = "r";
    cfg.filter = OPT_BACKUP_FILTER_ONLY_MAIL;
    cfg.compression = OPT_BACKUP_COMPRESS_NONE;
    cfg.server = cfg.adminInfo = cfg.noLicense = true;
    EXPECT_EQ(Dump({"--migration-mode", "--dump-domains=-", "--dump-clients=-", "--dump-resellers=-", "--only-mail",
                    "--no-compress", "--include-app-distrib", "--server", "--admin-info", "--no-license"},
                   "a,b\nc\nr"),
              dump(cfg));

    // The file's lists come first; its server and admin-info elements count
    // for nothing, and the command line's filter wins.
    config file;
    file.action = ACTION_DUMP_SELECTED;
    file.domains = "z";
    file.filter = OPT_BACKUP_FILTER_ONLY_HOSTING;
    file.selectedObjectsFile = write(
        scratch / "selection.xml",
        "<any><parameters filter=\"only-mail\" compression-level=\"do-not-compress\"/><domain><name>x</name></domain>"
        "<domain><name/></domain><deep><domain><name>y</name></domain></deep><client><name>cl</name></client>"
        "<server><license/></server><admin-info/></any>");
    EXPECT_EQ(Dump({"--migration-mode", "--dump-domains=-", "--dump-clients=-", "--only-hosting", "--no-compress",
                    "--include-app-distrib"},
                   "x,y,z\ncl"),
              dump(file));
    file.selectedObjectsFile += ".missing";
    EXPECT_EQ(0u, failure([&] { dump(file); }).find("tError_WrongInputFile"));

    // --dump-all passes what its command line gives, in the same words.
    cfg.action = ACTION_DUMP_ALL;
    EXPECT_EQ(Dump({"--migration-mode", "--dump-all", "--only-mail", "--no-compress", "--server", "--admin-info",
                    "--no-license"},
                   ""),
              dump(cfg));
}

TEST(Options, VerificationPerAction) {
    ::unsetenv("KVA_SUDO_PASSWORD");
    const std::string R = " --host=h --login=l", A = R + " --agent-dir=d --agent-name=n";
    // The message is "" when the options fit the action.
    const struct { std::string line; const char* password; std::string message; } cases[] = {
        {"", "pw", "No action given"},
        {"--send-scout --dump-all" + R, "pw", "More than one action is given"},
        {"--send-scout" + R, "pw", ""},
        {"--send-scout --login=l", "pw", "host is required"},
        {"--send-scout --ip=h --login=l --port=65535", "pw", ""},
        {"--send-scout --port=0" + R, "pw", "port should be a number in [1, 65535] range"},
        {"--send-scout --port=65536" + R, "pw", "port should be a number"},
        {"--send-scout --host=h", "pw", "login is required"},
        {"--send-scout" + R, "", "password is required"},
        {"--send-scout --sudo-password" + R, "pw", "KVA_SUDO_PASSWORD environment variable is not provided"},
        {"--send-scout --agent-dir=d" + R, "pw", "agent directory is not allowed"},
        {"--deploy-agent --agent-dir=d" + R, "pw", "agent name is required"},
        {"--deploy-agent --agent-name=n" + R, "pw", "agent directory is required"},
        {"--get-content --no-check-space --no-encryption --dumps-dir=x" + A, "pw", ""},
        {"--dump-all --no-check-space" + A, "pw", "'--no-check-space' only may be specified when '--get-content'"},
        {"--get-content --no-content" + A, "pw", "'--no-content' only may be specified when '--dump-*'"},
        {"--dump-selected --no-content" + A, "pw", ""},
        {"--remove-agent" + A, "pw", ""},
        {"--remove-dumping-status", "", ""},
        {"--remove-dumping-status --host=h", "", "host is not allowed"},
        {"--remove-dumping-status", "pw", "password is not allowed"},
        {"--remove-dumping-status --sudo-password", "", "sudo parameters is not allowed"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words = {"vantrel"};
        std::istringstream in(c.line);
        for (std::string word; in >> word;) words.push_back(word);
        std::vector<char*> argv;
        for (std::string& w : words) argv.push_back(&w[0]);
        config cfg;
        ASSERT_TRUE(parse_options(static_cast<int>(argv.size()), argv.data(), &cfg));
        cfg.password = c.password;
        const std::string text = failure([&] { verify_options(&cfg); });
        EXPECT_TRUE(c.message.empty() ? text.empty() : text.find(": Unable to parse command line: " + c.message) !=
                                                           std::string::npos)
            << c.line << "\n" << text;
    }
}

TEST(ContentNames, NamesLeavingTheContentDirectoryAreRefused) {
    for (const char* name : {"a.tar.gz", "alice/site.tar.gz", "with blank 'quote'", "..a/b..", "\xc3\xa9t\xc3\xa9",
                             "a/./b"})
        EXPECT_EQ("", failure([&] { checkContentFileName(name); })) << name;
    for (const std::string& name : Words{"", "/etc/passwd", "../x", "a/../../b", "a/..", "..", "dir/", {"a\0b", 3}})
        EXPECT_EQ(0u, failure([&] { checkContentFileName(name); }).find("UnsafeContentFileName")) << name;
}

TEST(ShellNoise, OutputBeginsPastTheMarkerLineInWhateverChunks) {
    const std::string marker = newCommandMarker();
    const std::string longNoise(300, 'n');
    struct Case {
        std::string noise, line, output;
    } cases[] = {
        {"", marker + "\n", "<doc/>\n"},
        {"Welcome\nload 0.42\n", marker + "\n", "<doc/>"},
        {"no line end", marker + "\n", "x\n" + marker + "\n"},  // the command may print the marker itself
        {longNoise, "\r\n" + marker + "\r\n", std::string("\0bytes", 6)},  // a terminal's line ends
        {"vantrel-begin-", marker + "\n", ""},
    };
    for (const Case& c : cases) {
        const std::string all = c.noise + c.line + c.output;
        for (std::size_t piece : {std::size_t(1), std::size_t(7), all.size()}) {
            ShellNoise noise(marker);
            std::string passed;
            for (std::size_t at = 0; at < all.size(); at += piece) {
                const std::string chunk = all.substr(at, piece);
                const std::size_t skip = noise.skip(chunk.data(), chunk.size());
                passed += chunk.substr(skip);
            }
            EXPECT_EQ(c.output, passed) << c.noise << " in pieces of " << piece;
            EXPECT_EQ(c.noise.size() + (c.line[0] == '\r' ? 2 : 0), noise.dropped());
            EXPECT_EQ((c.noise + c.line).substr(0, std::min<std::size_t>(200, noise.dropped())), noise.start());
            EXPECT_TRUE(noise.passed());
        }
    }
}

TEST(HostOffer, KeyExchangeListsFromTheHostsFirstPacket) {
    const auto string = [](const std::string& text) {
        const uint32_t n = static_cast<uint32_t>(text.size());
        return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)} + text;
    };
    std::string payload = std::string(1, '\x14') + std::string(16, 'c') +
                          string("curve25519-sha256,ext-info-s,kex-strict-s-v00@openssh.com") + string("ssh-ed25519");
    for (int i = 0; i < 2; ++i) payload += string("aes128-ctr,aes256-gcm@openssh.com");
    for (int i = 0; i < 2; ++i) payload += string("hmac-sha2-256-etm@openssh.com");
    for (int i = 0; i < 4; ++i) payload += string(i < 2 ? "none,zlib@openssh.com" : "");
    payload += std::string(5, '\0');
    const std::string padding(4, 'p');
    const std::string packet = string(std::string(1, char(padding.size())) + payload + padding);
    const std::string sent = "a line before\r\nSSH-2.0-OpenSSH_9.2p1\r\n" + packet;
    for (std::size_t cut = 0; cut < sent.size(); ++cut) {
        HostOffer offer;
        ASSERT_FALSE(parseHostOffer(sent.substr(0, cut), offer)) << cut;
    }
    HostOffer offer;
    ASSERT_TRUE(parseHostOffer(sent, offer));
    EXPECT_EQ(Words{"curve25519-sha256"}, offer.methods[HostOffer::kex]);
    EXPECT_EQ((Words{"aes128-ctr", "aes256-gcm@openssh.com"}), offer.methods[HostOffer::cipherIn]);
    EXPECT_EQ(Words{"hmac-sha2-256-etm@openssh.com"}, offer.methods[HostOffer::macOut]);
    EXPECT_EQ((Words{"none", "zlib@openssh.com"}), offer.methods[HostOffer::compressionIn]);
    // Only the MACs are missing from this build where it has no encrypt-then-MAC.
    bool keyExchangeOnly = true;
    const std::string why = methodMismatch(offer, "src.example.test", keyExchangeOnly);
    EXPECT_FALSE(keyExchangeOnly);
    // (libssh2 1.11 has them: then nothing is missing.)
    EXPECT_EQ(libssh2_version(0x010b00) != nullptr, why.empty()) << why;
    if (!why.empty()) {
        EXPECT_EQ(0u, why.find("No common MAC with src.example.test: the host offers hmac-sha2-256-etm")) << why;
    }
    for (const std::string& garbage : {std::string(9000, 'x'), "SSH-2.0-x\r\n" + string(std::string(3, '\x01'))}) {
        HostOffer none;
        EXPECT_NE("", failure([&] { parseHostOffer(garbage, none); }));
    }
}
