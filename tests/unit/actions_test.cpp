#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

#include "vantrel/actions.h"

using namespace velmo;

TEST(ContentNames, NamesThatWouldLeaveTheContentDirectoryAreRefused) {
    for (const char* name : {"a.tar.gz", "alice/site.tar.gz", "x/y/z", "with blank 'quote'.tar", "..a/b..",
                             "\xc3\xa9t\xc3\xa9.tgz", "a/./b"})
        EXPECT_NO_THROW(checkContentFileName(name)) << name;
    for (const char* name : {"", "/etc/passwd", "../x", "a/../../b", "a/..", "..", "dir/"})
        EXPECT_THROW(checkContentFileName(name), Exc<&UnsafeContentFileName>) << name;
}

TEST(NameFiles, WrittenWithoutLineEndOrReportedAsFileWrite) {
    char dir[] = "/tmp/vantrel-namefile-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string path = std::string(dir) + "/dump-name";
    writeNameFile(path, "/session/dump.xml");
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ("/session/dump.xml", text.str());

    // A directory standing where the file should be.
    const std::string blocked = std::string(dir) + "/blocked";
    ASSERT_EQ(0, mkdir(blocked.c_str(), 0700));
    try {
        writeNameFile(blocked, "x");
        FAIL() << "no FileWrite";
    } catch (const Exc<&FileWrite>& e) {
        EXPECT_EQ(0u, std::string(e.what()).find("Error during " + blocked + " write: "));
    }
    unlink(path.c_str());
    rmdir(blocked.c_str());
    rmdir(dir);
}

TEST(CommandLines, WordsAreQuotedAndJoinedByOneBlank) {
    EXPECT_EQ("rm -rf /tmp/a\\ b", commandLine({"rm", "-rf", "/tmp/a b"}));
    EXPECT_EQ("chown user /x/\\'q\\'", commandLine({"chown", "user", "/x/'q'"}));
}
