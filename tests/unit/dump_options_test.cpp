#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "vantrel/dump_options.h"
#include "vantrel/vantrel.h"

using namespace velmo;

namespace {

struct Prepared {
    std::vector<std::string> arguments;
    std::string input;
};

Prepared prepare(const config& cfg) {
    Prepared p;
    prepareDumpArguments(cfg, p.arguments, p.input);
    return p;
}

std::string writeSelection(const std::string& xml) {
    char name[] = "/tmp/vantrel-selection-XXXXXX";
    int fd = mkstemp(name);
    close(fd);
    std::ofstream(name) << xml;
    return name;
}

typedef std::vector<std::string> Words;

}  // namespace

TEST(DumpOptions, CommandLineSelectionOnly) {
    config cfg;
    cfg.action = ACTION_DUMP_SELECTED;
    cfg.domains = "a.example,b.example";
    Prepared p = prepare(cfg);
    EXPECT_EQ((Words{"--migration-mode", "--dump-domains=-", "--include-app-distrib"}), p.arguments);
    EXPECT_EQ("a.example,b.example", p.input);

    // All three lists, filters and switches, in their fixed order.
    cfg.clients = "c1";
    cfg.resellers = "r1,r2";
    cfg.filter = OPT_BACKUP_FILTER_ONLY_MAIL;
    cfg.compression = OPT_BACKUP_COMPRESS_NONE;
    cfg.server = cfg.adminInfo = cfg.noLicense = true;
    cfg.noContent = true;
    p = prepare(cfg);
    EXPECT_EQ((Words{"--migration-mode", "--dump-domains=-", "--dump-clients=-", "--dump-resellers=-",
                     "--only-mail", "--no-compress", "--include-app-distrib", "--server", "--admin-info",
                     "--no-license"}),
              p.arguments);
    EXPECT_EQ("a.example,b.example\nc1\nr1,r2", p.input);

    // A list still "-" after standard input was read goes on as the name "-".
    config dash;
    dash.action = ACTION_DUMP_SELECTED;
    dash.clients = "-";
    EXPECT_EQ("-", prepare(dash).input);
}

TEST(DumpOptions, SelectionFileMergedWithCommandLine) {
    const std::string path = writeSelection(
        "<selection><parameters filter=\"only-mail\" compression-level=\"do-not-compress\"/>"
        "<domain><name>x</name></domain><domain><name></name></domain><domain><name/></domain>"
        "<deep><domain><name>y</name></domain></deep>"
        "<client><name>cl</name></client><server><license/></server><admin-info/></selection>");
    config cfg;
    cfg.action = ACTION_DUMP_SELECTED;
    cfg.selectedObjectsFile = path;
    cfg.domains = "z";
    cfg.filter = OPT_BACKUP_FILTER_ONLY_HOSTING;
    Prepared p = prepare(cfg);
    // The file's server and admin-info elements have no effect; the command
    // line's filter wins over the file's.
    EXPECT_EQ((Words{"--migration-mode", "--dump-domains=-", "--dump-clients=-", "--only-hosting", "--no-compress",
                     "--include-app-distrib"}),
              p.arguments);
    EXPECT_EQ("x,y,z\ncl", p.input);
    unlink(path.c_str());

    config missing;
    missing.action = ACTION_DUMP_SELECTED;
    missing.selectedObjectsFile = "/nonexistent/selection.xml";
    EXPECT_THROW(prepare(missing), Exc<&tError_WrongInputFile>);
}

TEST(DumpOptions, RsyncTransportAndDumpAll) {
    config cfg;
    cfg.action = ACTION_DUMP_ALL;
    cfg.contentTransport = "rsync";
    cfg.host = "src";
    cfg.login = "root";
    cfg.password = "pw";
    Prepared p = prepare(cfg);
    EXPECT_EQ((Words{"--content-transport=rsync", "--migration-mode", "--dump-all"}), p.arguments);
    EXPECT_EQ("src\nroot\npw\n0\n", p.input);

    cfg.port = -1;
    EXPECT_EQ("src\nroot\npw\n\n", prepare(cfg).input);
    cfg.contentTransport = "Rsync";
    EXPECT_EQ((Words{"--migration-mode", "--dump-all"}), prepare(cfg).arguments);
}
