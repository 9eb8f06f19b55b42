#include "utils/read_configuration.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#ifndef VANTREL_KVA_CONF
#define VANTREL_KVA_CONF "/etc/kva/kva.conf"
#endif
#ifndef VANTREL_PRODUCT_ROOT
#define VANTREL_PRODUCT_ROOT "/usr/local/kva"
#endif

namespace {

const int CONF_REPORT_LEVEL = 12;
const unsigned CONF_GROWTH = 20;
const int CONF_VAR_COUNT = _MAX_POSSIBLE_KVA_CONF_VAR_INDEX + 1;

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) return std::string();
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.resize(static_cast<size_t>(length));
    return text;
}

void defaultConfLog(int level, const char* message) {
    if (level > conf_log_level) return;
    std::fprintf(stderr, "%s\n", message);
    std::fprintf(stdout, "%s\n", message);
}

void confReport(const char* format, ...) __attribute__((format(printf, 1, 2)));
void confReport(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    defaultConfLog(CONF_REPORT_LEVEL, text.c_str());
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The text of a line from the variable name on, without its line feed, for
// the reports on rejected lines.
std::string reportedLine(const char* from) {
    std::string text(from);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// Applies one line of the file to the table. Returns -1 only when storing an
// accepted pair failed; rejected lines are reported and skipped.
int applyLine(char* line, conf_data* table) {
    char* p = line;
    while (isBlank(*p)) ++p;
    if (*p == '\0' || *p == '#') return 0;

    char* name = p;
    while (isNameChar(*p)) ++p;
    if (!isBlank(*p)) {
        confReport("Invalid variable definition %s\nExpected a space after variable name\n",
                   reportedLine(name).c_str());
        return 0;
    }
    char* nameEnd = p++;
    while (isBlank(*p)) ++p;
    if (*p == '\0' || *p == '#') {
        confReport("Invalid variable definition %s\nExpected a value", reportedLine(name).c_str());
        return 0;
    }

    char* value = p;
    char* end = std::strchr(value, '#');
    if (end == nullptr) end = value + std::strlen(value);
    while (end > value && isBlank(end[-1])) --end;
    *end = '\0';
    *nameEnd = '\0';
    return conf_set_r(name, value, table);
}

conf_entry* findEntry(const char* name, conf_data* table) {
    if (table == nullptr || table->data == nullptr || name == nullptr) return nullptr;
    if (table->finalized) {
        conf_entry key;
        key.name = const_cast<char*>(name);
        key.value = nullptr;
        return static_cast<conf_entry*>(
            std::bsearch(&key, table->data, table->nmemb, sizeof(conf_entry), cmp_conf));
    }
    for (unsigned i = 0; i < table->nmemb; ++i)
        if (std::strcmp(table->data[i].name, name) == 0) return &table->data[i];
    return nullptr;
}

// Values found by kvaConfGetByIndex, indexed like theKvaConfNames.
const char* theKvaConfCache[CONF_VAR_COUNT];
bool theKvaConfCacheReady = false;

}  // namespace

int conf_log_level = 6;

const char* const theKvaConfNames[CONF_VAR_COUNT] = {
    "_MIN_POSSIBLE_KVA_CONF_VAR_NAME",
    "VELMO_MAILNAMES_D",
    "COURIER_IMAP_ROOT_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "FTPD_CONF_INC",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "PRODUCT_ROOT_D",
    "NAMED_OPTIONS_CONF",
    "NAMED_ZONES_CONF",
    "_MAX_POSSIBLE_KVA_CONF_VAR_NAME",
};

const char* const theKvaConfDefauls[CONF_VAR_COUNT] = {
    "_MIN_POSSIBLE_KVA_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/",
    "/usr/sbin/rblsmtpd",
    "/usr/local/kva/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/apache2/icons/awstats",
    "/usr/share/awstats",
    "/srv/www/cgi-bin/awstats",
    "/etc/awstats",
    "/usr/share/tomcat6",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/kva/dumps",
    "/tmp",
    "/var/lib/named",
    "/etc/proftpd.include",
    "apache2",
    "/var/log/apache2",
    "/etc/apache2/conf.d",
    "/etc/apache2",
    "/srv/www/vhosts",
    VANTREL_PRODUCT_ROOT,
    "/etc/named.conf.include.velmo-options",
    "/etc/named.conf.include.velmo-zones",
    "_MAX_POSSIBLE_KVA_CONF_VAR_VALUE",
};

conf_data* theKvaConfHash = nullptr;

void product_message_log(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    if (text.empty() || text.back() != '\n') text += '\n';
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}

int cmp_conf(const void* a, const void* b) {
    return std::strcmp(static_cast<const conf_entry*>(a)->name, static_cast<const conf_entry*>(b)->name);
}

int conf_init_r(conf_data* table) {
    if (table == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (table->data == nullptr) {
        conf_entry* data = static_cast<conf_entry*>(std::calloc(CONF_GROWTH, sizeof(conf_entry)));
        if (data == nullptr) {
            errno = ENOMEM;
            confReport("Unable to read configuration: %s", std::strerror(ENOMEM));
            return -1;
        }
        table->data = data;
        table->size = CONF_GROWTH;
        table->nmemb = 0;
        table->finalized = 1;
        return 0;
    }
    if (table->nmemb < table->size) return 0;

    unsigned newSize = table->size * 2;
    if (table->nmemb + CONF_GROWTH > newSize) newSize = table->nmemb + CONF_GROWTH;
    conf_entry* data = static_cast<conf_entry*>(std::realloc(table->data, newSize * sizeof(conf_entry)));
    if (data == nullptr) {
        errno = ENOMEM;
        confReport("Unable to read configuration: %s", std::strerror(ENOMEM));
        return -1;
    }
    table->data = data;
    table->size = newSize;
    return 0;
}

int conf_set_r(const char* name, const char* value, conf_data* table) {
    if (name == nullptr || value == nullptr || table == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (conf_entry* existing = findEntry(name, table)) {
        char* copy = strdup(value);
        if (copy == nullptr) {
            errno = ENOMEM;
            confReport("Unable to form configuration: %s", std::strerror(ENOMEM));
            return -1;
        }
        std::free(existing->value);
        existing->value = copy;
        return 0;
    }

    if (conf_init_r(table) != 0) return -1;
    char* nameCopy = strdup(name);
    char* valueCopy = strdup(value);
    if (nameCopy == nullptr || valueCopy == nullptr) {
        std::free(nameCopy);
        std::free(valueCopy);
        errno = ENOMEM;
        confReport("Unable to form configuration: %s", std::strerror(ENOMEM));
        return -1;
    }
    conf_entry& entry = table->data[table->nmemb++];
    entry.name = nameCopy;
    entry.value = valueCopy;
    table->finalized = 0;
    return 0;
}

void conf_finalize_r(conf_data* table) {
    if (table == nullptr || table->finalized) return;
    if (table->data != nullptr && table->nmemb > 1)
        std::qsort(table->data, table->nmemb, sizeof(conf_entry), cmp_conf);
    table->finalized = 1;
}

const char* conf_get_r(const char* name, conf_data* table) {
    conf_entry* entry = findEntry(name, table);
    return entry != nullptr ? entry->value : nullptr;
}

int conf_read_file_r(const char* path, conf_data* table) {
    if (conf_init_r(table) != 0) return -1;

    FILE* file = std::fopen(path, "r");
    if (file == nullptr) {
        int saved = errno;
        confReport("unable to open configuration file %s: %s\n", path, std::strerror(saved));
        errno = saved;
        return -1;
    }

    char* line = nullptr;
    size_t capacity = 0;
    int result = 0;
    for (;;) {
        errno = 0;
        if (getline(&line, &capacity, file) < 0) break;
        if (applyLine(line, table) != 0) {
            int saved = errno;
            std::free(line);
            std::fclose(file);
            errno = saved;
            return -1;
        }
    }
    int saved = errno;
    std::free(line);
    conf_finalize_r(table);
    if (std::ferror(file)) {
        confReport("Unable to read configuration file: %s", std::strerror(saved));
        result = -1;
    }
    std::fclose(file);
    if (result != 0) errno = saved;
    return result;
}

void conf_free_r(conf_data* table) {
    if (table == nullptr) return;
    if (table->data != nullptr) {
        for (unsigned i = 0; i < table->nmemb; ++i) {
            std::free(table->data[i].name);
            std::free(table->data[i].value);
        }
        std::free(table->data);
    }
    std::free(table);
}

const char* kvaConfFileName() { return VANTREL_KVA_CONF; }

int autoprepend() {
    if (theKvaConfHash != nullptr) return 0;
    if (!theKvaConfCacheReady) {
        for (const char*& cached : theKvaConfCache) cached = nullptr;
        theKvaConfCacheReady = true;
    }

    conf_data* table = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
    if (table == nullptr) {
        product_message_log("Not enough memory to allocate Velmo runtime configuration structure\n");
        return -1;
    }
    if (conf_read_file_r(kvaConfFileName(), table) != 0) {
        int saved = errno;
        conf_free_r(table);
        errno = saved;
        return -1;
    }
    theKvaConfHash = table;
    return 0;
}

const char* kvaConfGet(const char* name) {
    if (autoprepend() != 0) return nullptr;
    return conf_get_r(name, theKvaConfHash);
}

const char* kvaConfGetByIndex(int index) {
    if (index < 0 || index >= CONF_VAR_COUNT) return nullptr;
    if (theKvaConfCacheReady && theKvaConfCache[index] != nullptr) return theKvaConfCache[index];
    const char* value = kvaConfGet(theKvaConfNames[index]);
    if (value != nullptr) theKvaConfCache[index] = value;
    return value;
}

const char* kvaConfGetDefaultByIndex(int index) {
    if (index < 0 || index >= CONF_VAR_COUNT) return nullptr;
    const char* value = kvaConfGetByIndex(index);
    return value != nullptr ? value : theKvaConfDefauls[index];
}
