#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "utils/read_configuration.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::pair<int, std::string>> reports;

void captureReport(int level, const char* message) { reports.emplace_back(level, message); }

class ConfigurationFile : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/read_configuration_test.XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir_ = pattern;
        table_ = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
        reports.clear();
        conf_set_log_function(captureReport);
    }
    void TearDown() override {
        conf_set_log_function(nullptr);
        conf_free_r(table_);
        fs::remove_all(dir_);
    }

    std::string write(const std::string& text) {
        std::string path = dir_ + "/kva.conf";
        std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
        return path;
    }

    std::string dir_;
    conf_data* table_ = nullptr;
};

bool reported(const std::string& text) {
    for (const auto& report : reports)
        if (report.second.find(text) != std::string::npos) return true;
    return false;
}

}  // namespace

TEST_F(ConfigurationFile, LineFormat) {
    const std::string path = write(
        "# a comment line\n"
        "\n"
        "   \t  \n"
        "   # an indented comment\n"
        "PRODUCT_ROOT_D /opt/kva # where the product lives\n"
        "HTTPD_VHOSTS_D\t/srv/my vhosts  \n"
        "DUMP_D /var/dumps \n"
        "DUMP_TMP_D /var/tmp  # scratch\n"
        "  \tINDENTED_1   value\n"
        "HASH_INSIDE a#b\n"
        "ASSIGNED=/etc/x\n"
        "NAME_ONLY   \n"
        "NAME_AND_COMMENT  # nothing here\n"
        "TWICE first\n"
        "TWICE second\n"
        "LAST no line feed");
    ASSERT_EQ(0, conf_read_file_r(path.c_str(), table_));

    EXPECT_STREQ("/opt/kva", conf_get_r("PRODUCT_ROOT_D", table_));
    EXPECT_STREQ("/srv/my vhosts", conf_get_r("HTTPD_VHOSTS_D", table_));
    EXPECT_STREQ("/var/dumps", conf_get_r("DUMP_D", table_));
    EXPECT_STREQ("/var/tmp", conf_get_r("DUMP_TMP_D", table_));
    EXPECT_STREQ("value", conf_get_r("INDENTED_1", table_));
    EXPECT_STREQ("a", conf_get_r("HASH_INSIDE", table_));
    EXPECT_STREQ("second", conf_get_r("TWICE", table_));
    EXPECT_STREQ("no line feed", conf_get_r("LAST", table_));
    EXPECT_EQ(nullptr, conf_get_r("ASSIGNED", table_));
    EXPECT_EQ(nullptr, conf_get_r("NAME_ONLY", table_));
    EXPECT_EQ(nullptr, conf_get_r("NAME_AND_COMMENT", table_));
    EXPECT_EQ(nullptr, conf_get_r("product_root_d", table_));
    EXPECT_EQ(8u, table_->nmemb);

    ASSERT_EQ(3u, reports.size());
    EXPECT_EQ("Invalid variable definition ASSIGNED=/etc/x\nExpected a space after variable name\n",
              reports[0].second);
    EXPECT_EQ("Invalid variable definition NAME_ONLY   \nExpected a value", reports[1].second);
    EXPECT_TRUE(reported("NAME_AND_COMMENT  # nothing here\nExpected a value"));
}

// Lookups before sorting search the table one by one, after it by halves;
// replacing a value keeps a sorted table sorted, a new name does not.
TEST_F(ConfigurationFile, GrowthAndReplacement) {
    char name[32], value[32];
    for (int i = 44; i >= 0; --i) {
        std::snprintf(name, sizeof name, "VAR_%02d", i);
        std::snprintf(value, sizeof value, "value %d", i);
        ASSERT_EQ(0, conf_set_r(name, value, table_));
    }
    EXPECT_EQ(0, conf_set_r("VAR_07", "replaced", table_));
    EXPECT_EQ(45u, table_->nmemb);
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < 45; ++i) {
            std::snprintf(name, sizeof name, "VAR_%02d", i);
            std::snprintf(value, sizeof value, "value %d", i);
            EXPECT_STREQ(i == 7 ? "replaced" : value, conf_get_r(name, table_)) << name << " pass " << pass;
        }
        EXPECT_EQ(nullptr, conf_get_r("VAR_45", table_));
        conf_finalize_r(table_);
    }
    EXPECT_EQ(0, conf_set_r("VAR_00", "again", table_));
    EXPECT_EQ(1, table_->finalized);
    EXPECT_EQ(0, conf_set_r("AAA", "new", table_));
    EXPECT_EQ(0, table_->finalized);
    EXPECT_STREQ("new", conf_get_r("AAA", table_));
    EXPECT_STREQ("again", conf_get_r("VAR_00", table_));
}

TEST_F(ConfigurationFile, LinesOfAnyLength) {
    const std::string longValue(10000, 'v');
    const std::string longComment = "#" + std::string(5000, 'c');
    const std::string longName(4500, 'N');
    const std::string path = write("FIRST " + longValue + "\n" + longComment + "\nSECOND x" +
                                   std::string(4200, ' ') + "y   # " + std::string(4100, '#') + "\n" +
                                   longName + " named\nTHIRD 3\n");
    ASSERT_EQ(0, conf_read_file_r(path.c_str(), table_));
    EXPECT_EQ(longValue, conf_get_r("FIRST", table_));
    EXPECT_EQ("x" + std::string(4200, ' ') + "y", conf_get_r("SECOND", table_));
    EXPECT_STREQ("named", conf_get_r(longName.c_str(), table_));
    EXPECT_STREQ("3", conf_get_r("THIRD", table_));
    EXPECT_EQ(4u, table_->nmemb);
    EXPECT_TRUE(reports.empty());
}

TEST_F(ConfigurationFile, MissingFileAndDefaultLogFunction) {
    const std::string missing = dir_ + "/absent.conf";
    errno = 0;
    EXPECT_EQ(-1, conf_read_file_r(missing.c_str(), table_));
    EXPECT_EQ(ENOENT, errno);
    ASSERT_EQ(1u, reports.size());
    EXPECT_EQ(12, reports[0].first);
    EXPECT_EQ("unable to open configuration file " + missing + ": " + std::strerror(ENOENT) + "\n",
              reports[0].second);

    // The default function keeps level-12 reports quiet under the level 6 and
    // shows them on both streams once the level allows it.
    conf_set_log_function(nullptr);
    const std::string path = write("BROKEN=1\n");
    EXPECT_EQ(6, conf_log_level);
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, conf_read_file_r(path.c_str(), table_));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());

    conf_log_level = 12;
    ::testing::internal::CaptureStderr();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(0, conf_read_file_r(path.c_str(), table_));
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    conf_log_level = 6;
    const std::string expected =
        "Invalid variable definition BROKEN=1\nExpected a space after variable name\n\n";
    EXPECT_EQ(expected, err);
    EXPECT_EQ(expected, out);
}

// The process-wide table: the only test of this program that loads it.
TEST(ProductConfiguration, ProcessWideTableCacheAndDefaults) {
    const std::string confPath = VANTREL_KVA_CONF;
    ASSERT_STREQ(VANTREL_KVA_CONF, kvaConfFileName());
    const char* rootDefaultEnv = std::getenv("VANTREL_PRODUCT_ROOT_DEFAULT");
    const std::string rootDefault = rootDefaultEnv ? rootDefaultEnv : "/usr/local/kva";

    // Keep whatever the build tree had there and put it back at the end.
    std::string saved;
    const bool hadFile = fs::exists(confPath);
    if (hadFile) {
        std::ifstream in(confPath, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        saved = text.str();
        fs::remove(confPath);
    }
    fs::create_directories(fs::path(confPath).parent_path());

    // No file: nothing is set, every index falls back to its default, and a
    // later call tries to read the file again.
    EXPECT_EQ(-1, autoprepend());
    EXPECT_EQ(nullptr, theKvaConfHash);
    EXPECT_EQ(nullptr, kvaConfGet("PRODUCT_ROOT_D"));
    EXPECT_EQ(nullptr, kvaConfGetByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_EQ(rootDefault, kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_EQ(nullptr, kvaConfGetByIndex(-1));
    EXPECT_EQ(nullptr, kvaConfGetDefaultByIndex(32));

    std::ofstream(confPath) << "PRODUCT_ROOT_D /opt/first\nDUMP_TMP_D /var/tmp/first\n";
    EXPECT_STREQ("/opt/first", kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_STREQ("/var/tmp/first", kvaConfGet("DUMP_TMP_D"));
    EXPECT_STREQ("/usr/bin", kvaConfGetDefaultByIndex(_MYSQL_BIN_D_INDEX));
    EXPECT_EQ(0, autoprepend());
    ASSERT_NE(nullptr, theKvaConfHash);

    // The file changes within the run: the first values stay.
    std::ofstream(confPath) << "PRODUCT_ROOT_D /opt/second\nMYSQL_BIN_D /opt/mysql\n";
    EXPECT_STREQ("/opt/first", kvaConfGetByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_STREQ("/opt/first", kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_STREQ("/usr/bin", kvaConfGetDefaultByIndex(_MYSQL_BIN_D_INDEX));

    // Even a table read again holds no sway over an index already looked up.
    conf_data* first = theKvaConfHash;
    theKvaConfHash = nullptr;
    EXPECT_STREQ("/opt/second", kvaConfGet("PRODUCT_ROOT_D"));
    EXPECT_STREQ("/opt/first", kvaConfGetByIndex(_PRODUCT_ROOT_D_INDEX));
    EXPECT_STREQ("/opt/mysql", kvaConfGetDefaultByIndex(_MYSQL_BIN_D_INDEX));
    conf_free_r(theKvaConfHash);
    theKvaConfHash = first;

    fs::remove(confPath);
    if (hadFile) std::ofstream(confPath, std::ios::binary) << saved;
}
