#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/filesystem/path.hpp>

#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "utils/read_configuration.h"

namespace fs = std::filesystem;
using namespace velmo;

namespace {

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/local_utils_test.XXXXXX";
        if (mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

struct stat statOf(const std::string& path) {
    struct stat st;
    std::memset(&st, 0, sizeof st);
    if (stat(path.c_str(), &st) != 0) st.st_mode = 0;
    return st;
}

std::string readAll(FILE* in) {
    std::string text;
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) text.append(buffer, n);
    return text;
}

std::string md5OfText(const std::string& text) {
    std::istringstream in(text);
    return countMd5Sum(in);
}

// Runs body in a child process, so that it loads the product configuration
// into a process-wide table of its own; returns what body returned (empty
// for success) or the text of what it threw.
std::string inChild(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string result;
        try {
            result = body();
        } catch (const std::exception& e) {
            result = std::string("exception: ") + e.what();
        }
        if (!result.empty() && write(fds[1], result.data(), result.size()) < 0) _exit(2);
        _exit(0);
    }
    close(fds[1]);
    std::string result;
    char buffer[1024];
    ssize_t n;
    while ((n = read(fds[0], buffer, sizeof buffer)) > 0) result.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) result += " (child failed)";
    return result;
}

// Replaces the build's configuration file for the life of the object.
class ConfFile {
public:
    explicit ConfFile(const std::string& text) : path_(VANTREL_KVA_CONF) {
        had_ = fs::exists(path_);
        if (had_) {
            std::ifstream in(path_, std::ios::binary);
            std::ostringstream old;
            old << in.rdbuf();
            saved_ = old.str();
        }
        fs::create_directories(fs::path(path_).parent_path());
        std::ofstream(path_, std::ios::binary | std::ios::trunc) << text;
    }
    ~ConfFile() {
        std::error_code ignored;
        fs::remove(path_, ignored);
        if (had_) std::ofstream(path_, std::ios::binary) << saved_;
    }

private:
    std::string path_;
    bool had_ = false;
    std::string saved_;
};

// A stream buffer that yields some bytes and then fails to read.
class FailingBuffer : public std::streambuf {
public:
    explicit FailingBuffer(size_t good) : data_(good, 'z') { setg(&data_[0], &data_[0], &data_[0] + good); }

protected:
    int_type underflow() override { throw std::runtime_error("device error"); }

private:
    std::string data_;
};

}  // namespace

TEST(Md5, TestVectorsBlockEdgesAndReadErrors) {
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", md5OfText(""));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", md5OfText("a"));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5OfText("abc"));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", md5OfText("message digest"));
    EXPECT_EQ("c3fcd3d76192e4007dfb496cca67e13b", md5OfText("abcdefghijklmnopqrstuvwxyz"));
    EXPECT_EQ("d174ab98d277d9f5a5611c2c9f419d9f",
              md5OfText("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"));
    EXPECT_EQ("57edf4a22be3c955ac49da2e2107b67a",
              md5OfText("1234567890123456789012345678901234567890123456789012345678901234567890"
                        "1234567890"));

    // Many 4096-byte blocks and a partial one.
    EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21", md5OfText(std::string(1000000, 'a')));

    std::istringstream failed("abc");
    failed.setstate(std::ios::failbit);
    EXPECT_THROW(countMd5Sum(failed), Exc<&StreamRead>);

    FailingBuffer broken(5000);
    std::istream brokenStream(&broken);
    try {
        countMd5Sum(brokenStream);
        ADD_FAILURE() << "a read error went unnoticed";
    } catch (const Exc<&StreamRead>& e) {
        EXPECT_STREQ("Cannot read data from the stream", e.what());
    }
}

TEST(Md5, SparseFileAbove4GiBInConstantMemory) {
    TempDir dir;
    const std::string path = dir.path() + "/sparse";
    const off_t size = (off_t(1) << 32) + 4096 * 3 + 17;
    {
        int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, ftruncate(fd, size));
        const char head[] = "head of the file";
        const char tail[] = "tail";
        ASSERT_EQ(ssize_t(sizeof head), pwrite(fd, head, sizeof head, 0));
        ASSERT_EQ(ssize_t(sizeof tail), pwrite(fd, tail, sizeof tail, size - off_t(sizeof tail)));
        close(fd);
    }
    ASSERT_EQ(size, statOf(path).st_size);
    // md5sum of exactly this file.
    const std::string expected = "f9f72a58ccbcd7c0e033c22a4e8a5b5c";

    struct rusage before, after;
    getrusage(RUSAGE_SELF, &before);
    std::ifstream file(path, std::ios::binary);
    EXPECT_EQ(expected, countMd5Sum(file));
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "peak RSS grew in KiB";
}

// Every quoted word, given to a real shell as an argument, comes back as the
// exact bytes it was made from.
TEST(ShQuote, RoundTripThroughRealShells) {
    std::vector<std::string> words;
    std::string every;
    for (int c = 1; c < 256; ++c) {
        const std::string byte(1, static_cast<char>(c));
        words.push_back(byte);
        words.push_back("a" + byte + "b");
        words.push_back(byte + byte + "x" + byte);
        every += byte;
    }
    words.push_back(every);
    for (const char* word : {"-n", "--", "-e", "~", "~root/x", "a=b", "$(id)", "`id`", "${HOME}", "'quoted'",
                             "\"dq\"", "a\\", "\\n", "*.txt", "[ab]", "x\ny\n", "\n", "#not a comment",
                             "a&&b||c", "<in >out 2>&1", "\xc3\xa9t\xc3\xa9 \xe2\x82\xac", "a\tb  c"})
        words.push_back(word);
    TempDir dir;
    for (const char* shell : {"/bin/sh", "LC_ALL=C /bin/bash", "LC_ALL=C.UTF-8 /bin/bash"}) {
        std::string script;
        for (const std::string& word : words) script += "printf '%s' x " + sh_quote(word) + "; printf '\\000'\n";
        const std::string scriptPath = dir.path() + "/quoted.sh";
        std::ofstream(scriptPath, std::ios::binary | std::ios::trunc) << script;
        FILE* out = popen((std::string(shell) + " " + scriptPath).c_str(), "r");
        ASSERT_NE(nullptr, out);
        const std::string output = readAll(out);
        EXPECT_EQ(0, pclose(out)) << shell;

        std::vector<std::string> back;
        std::string::size_type from = 0, zero;
        while ((zero = output.find('\0', from)) != std::string::npos) {
            back.push_back(output.substr(from, zero - from));
            from = zero + 1;
        }
        ASSERT_EQ(words.size(), back.size()) << shell;
        for (size_t i = 0; i < words.size(); ++i)
            EXPECT_EQ("x" + words[i], back[i]) << shell << " word quoted as " << ::testing::PrintToString(sh_quote(words[i]));
    }
}

TEST(MakeDir, CreatesMissingLevelsWithModeAndOwner) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give directories away";
    TempDir dir;
    const mode_t oldMask = umask(022);

    std::string target = dir.path() + "/one/two/three";
    std::vector<char> writable(target.begin(), target.end());
    writable.push_back('\0');
    make_dir(writable.data(), 4321, 4322, 0775);
    EXPECT_STREQ(target.c_str(), writable.data()) << "the path text is restored";
    for (const char* level : {"/one", "/one/two", "/one/two/three"}) {
        struct stat st = statOf(dir.path() + level);
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << level;
        EXPECT_EQ(0755u, st.st_mode & 07777) << level;
        EXPECT_EQ(4321u, st.st_uid) << level;
        EXPECT_EQ(4322u, st.st_gid) << level;
    }
    struct stat top = statOf(dir.path());
    EXPECT_EQ(0u, top.st_uid);
    EXPECT_EQ(0700u, top.st_mode & 07777);

    // An existing directory is left as it is.
    make_dir(dir.path() + "/one/two", 0, 0, 0700);
    EXPECT_EQ(4321u, statOf(dir.path() + "/one/two").st_uid);
    EXPECT_EQ(0755u, statOf(dir.path() + "/one/two").st_mode & 07777);

    make_dir(boost::filesystem::path(dir.path()) / "via" / "boost", 0, 4322, 0750);
    EXPECT_EQ(0750u, statOf(dir.path() + "/via/boost").st_mode & 07777);
    EXPECT_EQ(4322u, statOf(dir.path() + "/via").st_gid);

    // Content directories are made under the mask 022 whatever the process has.
    umask(077);
    make_content_dir(dir.path() + "/content/a", 4321, 4322, 0777);
    EXPECT_EQ(0755u, statOf(dir.path() + "/content").st_mode & 07777);
    EXPECT_EQ(0755u, statOf(dir.path() + "/content/a").st_mode & 07777);
    EXPECT_EQ(077u, umask(oldMask));
}

TEST(TempFileName, InGivenDirectoryAndErrors) {
    TempDir dir;
    for (const std::string& given : {dir.path(), dir.path() + "/"}) {
        const std::string first = QMV_getTempFileName(given, "dump.");
        const std::string second = QMV_getTempFileName(given, "dump.");
        EXPECT_NE(first, second);
        for (const std::string& name : {first, second}) {
            EXPECT_EQ(dir.path() + "/dump.", name.substr(0, dir.path().size() + 6)) << name;
            EXPECT_EQ(dir.path().size() + 12, name.size()) << name;
            struct stat st = statOf(name);
            EXPECT_TRUE(S_ISREG(st.st_mode)) << name;
            EXPECT_EQ(0600u, st.st_mode & 07777) << name;
            EXPECT_EQ(0, st.st_size) << name;
        }
    }

    const std::string missing = dir.path() + "/missing";
    try {
        QMV_getTempFileName(missing, "x");
        ADD_FAILURE() << "no exception for a missing directory";
    } catch (const Exc<&CantCreateTempFile>& e) {
        EXPECT_EQ("Can not create temporary file with the template '" + missing + "/xXXXXXX': " +
                      std::strerror(ENOENT) + ".",
                  std::string(e.what()));
    }
}

// The directory of temporary files and the product paths come from the
// product configuration; each case runs in a child with its own file.
TEST(TempFileName, EmptyDirectoryFallsBackToConfiguration) {
    TempDir dir;
    const std::string root = dir.path() + "/product";
    const std::string dumpTmp = dir.path() + "/dumptmp";
    fs::create_directories(root + "/QMV/tmp");
    fs::create_directories(dumpTmp);

    {
        ConfFile conf("PRODUCT_ROOT_D " + root + "\n");
        EXPECT_EQ("", inChild([&]() -> std::string {
                      const std::string name = QMV_getTempFileName("", "t.");
                      if (name.rfind(root + "/QMV/tmp/t.", 0) != 0) return "temp file at " + name;
                      return files::agents::getDir() == root + "/QMV/agents" ? "" : files::agents::getDir();
                  }));
    }
    {
        ConfFile conf("PRODUCT_ROOT_D " + root + "\nDUMP_TMP_D " + dumpTmp + "/\n");
        EXPECT_EQ("", inChild([&]() -> std::string {
                      const std::string name = QMV_getTempFileName("", "t.");
                      return name.rfind(dumpTmp + "/t.", 0) == 0 ? "" : "temp file at " + name;
                  }));
    }
    {
        ConfFile conf("# nothing set\n");
        const char* rootDefaultEnv = std::getenv("VANTREL_PRODUCT_ROOT_DEFAULT");
        const std::string rootDefault = rootDefaultEnv ? rootDefaultEnv : "/usr/local/kva";
        EXPECT_EQ("", inChild([&]() -> std::string {
                      std::vector<char> buffer;
                      initTempName(buffer, "", "t.");
                      if (std::string(buffer.data()) != rootDefault + "/QMV/tmp/t.XXXXXX")
                          return std::string("template ") + buffer.data();
                      return files::agents::getDir() == rootDefault + "/QMV/agents" ? "" : files::agents::getDir();
                  }));
    }
}

TEST(Session, DirectoryCreationAndFileNames) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to give directories away";
    struct group* admin = getgrnam("kvaadm");
    if (admin == nullptr) GTEST_SKIP() << "no kvaadm group";
    const gid_t adminGid = admin->gr_gid;
    TempDir dir;
    const mode_t oldMask = umask(022);

    const std::string path = dir.path() + "/p1/p2/session";
    {
        SessionLifetimeController lifetime(path);
        ASSERT_NE(nullptr, theSession);
        EXPECT_EQ(path, theSession->getDir());
    }
    EXPECT_EQ(nullptr, theSession);
    for (const char* level : {"/p1", "/p1/p2", "/p1/p2/session", "/p1/p2/session/archives"}) {
        struct stat st = statOf(dir.path() + level);
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << level;
        EXPECT_EQ(0750u, st.st_mode & 07777) << level;
        EXPECT_EQ(0u, st.st_uid) << level;
        EXPECT_EQ(adminGid, st.st_gid) << level;
    }

    // An existing directory keeps its owner and mode; only archives is added.
    const std::string existing = dir.path() + "/existing";
    fs::create_directory(existing);
    ASSERT_EQ(0, chmod(existing.c_str(), 0711));
    ASSERT_EQ(0, chown(existing.c_str(), 1234, 1235));
    SessionFiles kept(existing);
    struct stat st = statOf(existing);
    EXPECT_EQ(0711u, st.st_mode & 07777);
    EXPECT_EQ(1234u, st.st_uid);
    EXPECT_EQ(1235u, st.st_gid);
    EXPECT_EQ(adminGid, statOf(existing + "/archives").st_gid);
    EXPECT_EQ(0750u, statOf(existing + "/archives").st_mode & 07777);

    const std::string plain = dir.path() + "/plain";
    std::ofstream(plain) << "x";
    try {
        SessionFiles broken(plain);
        ADD_FAILURE() << "a plain file was taken for a session directory";
    } catch (const Exc<&UnableToCreateSession>& e) {
        EXPECT_STREQ("Unable to create session: Unable to create session directory", e.what());
    }
    const std::string noArchives = dir.path() + "/no-archives";
    fs::create_directory(noArchives);
    std::ofstream(noArchives + "/archives") << "x";
    try {
        SessionFiles broken(noArchives);
        ADD_FAILURE() << "a plain file was taken for the archives directory";
    } catch (const Exc<&UnableToCreateSession>& e) {
        EXPECT_STREQ("Unable to create session: Unable to create session archives directory", e.what());
    }

    const std::string slashed = dir.path() + "/slashed/";
    SessionFiles session(slashed);
    EXPECT_EQ(slashed, session.getDir());
    EXPECT_EQ(slashed + "/migration.status", session.getStatusFileName());
    EXPECT_TRUE(S_ISDIR(statOf(session.getDir() + "/archives").st_mode));
    umask(oldMask);
}

TEST(LocalFiles, FreeSpace) {
    EXPECT_GT(getFreeSpace("/"), 0u);
    try {
        getFreeSpace("/nonexistent/vantrel/path");
        ADD_FAILURE() << "no exception for a missing path";
    } catch (const Exc<&CantStatFS>& e) {
        EXPECT_EQ(std::string("Cannot stat filesystem containing /nonexistent/vantrel/path: ") + std::strerror(ENOENT),
                  e.what());
    }
}
