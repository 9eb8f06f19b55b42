#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include <boost/filesystem.hpp>
#include <boost/lexical_cast.hpp>

#include "commons/formats.h"
#include "commons/session.h"

using namespace velmo;
namespace fs = boost::filesystem;

namespace {

class StatusFile : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/formats_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name));
        dir_ = name;
        session_.reset(new SessionLifetimeController(dir_ + "/session"));
        status_ = createMigrationStatusFile();
    }
    void TearDown() override {
        status_.reset();
        session_.reset();
        fs::remove_all(dir_);
    }

    // The status file after a save, with the declaration and the leading pid
    // element checked and left out.
    std::string saved() {
        status_->saveFile();
        std::stringstream text;
        text << std::ifstream(theSession->getStatusFileName().c_str()).rdbuf();
        std::string file = text.str();
        const std::string head = "<?xml version=\"1.0\"?>\n", pid = "<pid>" + std::to_string(getpid()) + "</pid>";
        std::string::size_type at = file.find(pid);
        if (file.compare(0, head.size(), head) != 0 || at == std::string::npos || file.find('>', head.size()) + 1 != at ||
            file.back() != '\n')
            return "unexpected: " + file;
        file.erase(at, pid.size());
        return file.substr(head.size(), file.size() - head.size() - 1);
    }

    std::string dir_;
    std::unique_ptr<SessionLifetimeController> session_;
    std::unique_ptr<MigrationStatus> status_;
};

}  // namespace

TEST_F(StatusFile, IdleAgentDumpAndTranslate) {
    EXPECT_EQ("<migration-status><idle/></migration-status>", saved());
    status_->setAgentParams("src.example");
    EXPECT_EQ("<migration-status><idle/></migration-status>", saved());
    status_->setAgentOperation(MigrationStatus::deploy);
    EXPECT_EQ("<migration-status><agent action=\"deploy\"><host>src.example</host></agent></migration-status>", saved());
    status_->setAgentOperation(static_cast<MigrationStatus::agentOperation>(7));
    EXPECT_EQ("<migration-status><agent action=\"wait\"><host>src.example</host></agent></migration-status>", saved());

    // Totals set earlier do not show once the dump is being pulled.
    status_->setTransferTotals("10", "2048");
    status_->setTransferDump();
    status_->setTransferSpeed("1.5 MB/s");
    EXPECT_EQ("<migration-status><transfer speed=\"1.5 MB/s\"><host>src.example</host><dumpfile/></transfer>"
              "</migration-status>",
              saved());
    status_->setTranslate();
    EXPECT_EQ("<migration-status><translate/></migration-status>", saved());
}

TEST_F(StatusFile, ContentTransfer) {
    status_->setAgentParams("h&o");
    status_->setTransferTotals("10", "2048");
    EXPECT_EQ("<migration-status><transfer><host>h&amp;o</host>"
              "<files total=\"10\" left=\"10\" size-total=\"2048\" size-left=\"2048\"/></transfer></migration-status>",
              saved());

    status_->setTransferFilesLeft("9");
    status_->setTransferSizeLeft("1024");
    status_->setCurrentFile("dir/a.tgz", "512");
    status_->setTransferCurrentFileSizeLeft("100");
    status_->setTransferSpeed("2 KB/s");
    EXPECT_EQ("<migration-status><transfer speed=\"2 KB/s\"><host>h&amp;o</host>"
              "<files total=\"10\" left=\"9\" size-total=\"2048\" size-left=\"1024\">"
              "<current-file size=\"512\" size-left=\"100\">dir/a.tgz</current-file></files></transfer>"
              "</migration-status>",
              saved());

    // A file of unknown size; no byte totals.
    status_->setCurrentFile("b.tgz", "");
    status_->setTransferTotals("3", "");
    EXPECT_EQ("<migration-status><transfer speed=\"2 KB/s\"><host>h&amp;o</host>"
              "<files total=\"3\" left=\"3\"><current-file>b.tgz</current-file></files></transfer></migration-status>",
              saved());
}

TEST_F(StatusFile, DeployCountersStayOnTheRoot) {
    status_->setDeployTotals("3", "5");
    EXPECT_EQ("<migration-status total-accounts=\"3\" total-domains=\"5\" completed-accounts=\"\" "
              "completed-domains=\"\"></migration-status>",
              saved());
    status_->setDeploy("1", "2");
    status_->setCurrentObject("example.com", MigrationStatus::domain);
    EXPECT_EQ("<migration-status total-accounts=\"3\" total-domains=\"5\" completed-accounts=\"1\" "
              "completed-domains=\"2\"><current-object type=\"domain\">example.com</current-object></migration-status>",
              saved());
    status_->setCurrentObject("alice", MigrationStatus::account);
    EXPECT_NE(std::string::npos, saved().find("<current-object type=\"account\">alice</current-object>"));
    status_->setCurrentObject("", MigrationStatus::domain);
    EXPECT_EQ(std::string::npos, saved().find("current-object"));

    status_->setIdle();
    EXPECT_EQ("<migration-status total-accounts=\"3\" total-domains=\"5\" completed-accounts=\"1\" "
              "completed-domains=\"2\"><idle/></migration-status>",
              saved());

    // A failed save throws and keeps the record for the next one.
    fs::remove(theSession->getStatusFileName());
    fs::create_directories(theSession->getStatusFileName() + "/x");
    status_->setTranslate();
    EXPECT_THROW(status_->saveFile(), Exc<&CantRenameFile>);
    fs::remove_all(theSession->getStatusFileName());
    EXPECT_NE(std::string::npos, saved().find("><translate/></migration-status>"));
}

namespace {

template <class F> std::string failureOf(F f) {
    try {
        f();
    } catch (const ExTraceable& e) {
        return e.code() + ": " + e.what();
    } catch (const boost::bad_lexical_cast& e) {
        return e.what();
    }
    return "no failure";
}

const std::string badCast = "bad lexical cast: source type value could not be interpreted as target";

}  // namespace

TEST(ContentList, Records) {
    std::unique_ptr<AgentFileList> list = getFileList(
        "<?xml version=\"1.0\"?>\n<contentlist size=\"18446744073709551615\" unpacked=\"4096\">\n  <!-- archives -->\n"
        "  <file size=\"1024\" md5sum=\"0123456789ABCDEF0123456789abcdef\">domains/example.com/httpdocs.tgz</file>\n"
        "  <other size=\"x\"/>\n"
        "  <file size=\"-5\" md5sum=\"d41d8cd98f00b204e9800998ecf8427e\"> a&amp;b .tgz </file>\n"
        "  <file size=\"9223372036854775807\" md5sum=\"\"/>\n</contentlist>\n");
    const std::vector<DumpFile>& files = list->getFileList();
    ASSERT_EQ(3u, files.size());
    EXPECT_EQ("domains/example.com/httpdocs.tgz", files[0].name);
    EXPECT_EQ(1024, files[0].size);
    EXPECT_EQ("0123456789ABCDEF0123456789abcdef", files[0].md5sum);
    EXPECT_EQ(" a&b .tgz ", files[1].name);
    EXPECT_EQ(-5, files[1].size);
    EXPECT_EQ("", files[2].name);
    EXPECT_EQ(INT64_MAX, files[2].size);
    EXPECT_EQ(UINT64_MAX, list->getTotalSize());
    EXPECT_EQ(4096u, list->getUnpackedSize());

    std::unique_ptr<AgentFileList> empty = getFileList("<contentlist size=\"0\" unpacked=\"7\"/>");
    EXPECT_TRUE(empty->getFileList().empty());
    EXPECT_EQ(7u, empty->getUnpackedSize());
}

TEST(ContentList, Failures) {
    EXPECT_EQ("AssertionFailed: Assertion failed: content.size()", failureOf([] { getFileList(""); }));
    EXPECT_EQ(0u, failureOf([] { getFileList("<contentlist>"); })
                      .find("tError_ParseFile: The XML file - was not parsed successfully with the following errors:\n"));
    EXPECT_EQ("tError_WrongDoc: The document has the wrong type, root node is <content>, but <contentlist> was expected",
              failureOf([] { getFileList("<content/>"); }));
    EXPECT_EQ("NoSuchAttribute: Node file does not have attribute size",
              failureOf([] { getFileList("<contentlist size=\"1\"><file md5sum=\"x\">a</file></contentlist>"); }));
    EXPECT_EQ("NoSuchAttribute: Node file does not have attribute md5sum",
              failureOf([] { getFileList("<contentlist size=\"1\"><file size=\"1\">a</file></contentlist>"); }));
    for (const char* size : {"12abc", "", " 12", "1.5", "9223372036854775808"}) {
        EXPECT_EQ(badCast, failureOf([&] {
                      getFileList(std::string("<contentlist><file size=\"") + size + "\" md5sum=\"x\"/></contentlist>");
                  })) << size;
    }

    // The totals are read when asked for, each on its own; no sign, no overflow.
    std::unique_ptr<AgentFileList> list = getFileList("<contentlist unpacked=\"-1\"/>");
    EXPECT_EQ("NoSuchAttribute: Node contentlist does not have attribute size", failureOf([&] { list->getTotalSize(); }));
    EXPECT_EQ(badCast, failureOf([&] { list->getUnpackedSize(); }));
    list = getFileList("<contentlist size=\"18446744073709551616\"/>");
    EXPECT_EQ(badCast, failureOf([&] { list->getTotalSize(); }));
}
