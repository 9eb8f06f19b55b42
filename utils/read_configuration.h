// Reader of the product configuration file: lines of a variable name and a
// value, with compile-time defaults for the variables the product knows.
#ifndef VANTREL_UTILS_READ_CONFIGURATION_H
#define VANTREL_UTILS_READ_CONFIGURATION_H

struct conf_entry {
    char* name;
    char* value;
};

struct conf_data {
    conf_entry* data;
    unsigned size;
    unsigned nmemb;
    int finalized;
};

enum KvaConfVarIndexT {
    _MIN_POSSIBLE_KVA_CONF_VAR_INDEX = 0,
    _VELMO_MAILNAMES_D_INDEX,
    _COURIER_IMAP_ROOT_D_INDEX,
    _RBLSMTPD_INDEX,
    _CLIENT_PHP_BIN_INDEX,
    _LIB_CRYPTO_PATH_INDEX,
    _LIB_SSL_PATH_INDEX,
    _AWSTATS_DOC_D_INDEX,
    _AWSTATS_TOOLS_D_INDEX,
    _AWSTATS_BIN_D_INDEX,
    _AWSTATS_ETC_D_INDEX,
    _CATALINA_HOME_INDEX,
    _MAILMAN_VAR_D_INDEX,
    _MAILMAN_ROOT_D_INDEX,
    _PGSQL_DATA_D_INDEX,
    _PGSQL_BIN_D_INDEX,
    _MYSQL_BIN_D_INDEX,
    _MYSQL_VAR_D_INDEX,
    _WEB_STAT_INDEX,
    _DUMP_D_INDEX,
    _DUMP_TMP_D_INDEX,
    _NAMED_RUN_ROOT_D_INDEX,
    _FTPD_CONF_INC_INDEX,
    _HTTPD_SERVICE_INDEX,
    _HTTPD_LOG_D_INDEX,
    _HTTPD_INCLUDE_D_INDEX,
    _HTTPD_CONF_D_INDEX,
    _HTTPD_VHOSTS_D_INDEX,
    _PRODUCT_ROOT_D_INDEX,
    _NAMED_OPTIONS_CONF_INDEX,
    _NAMED_ZONES_CONF_INDEX,
    _MAX_POSSIBLE_KVA_CONF_VAR_INDEX
};

extern const char* const theKvaConfNames[];
extern const char* const theKvaConfDefauls[];
extern conf_data* theKvaConfHash;

int conf_init_r(conf_data* table);
int conf_set_r(const char* name, const char* value, conf_data* table);
void conf_finalize_r(conf_data* table);
const char* conf_get_r(const char* name, conf_data* table);
int conf_read_file_r(const char* path, conf_data* table);
void conf_free_r(conf_data* table);
int cmp_conf(const void* a, const void* b);

// The path this build reads ("/etc/kva/kva.conf" when installed).
const char* kvaConfFileName();
int autoprepend();
const char* kvaConfGet(const char* name);
const char* kvaConfGetByIndex(int index);
const char* kvaConfGetDefaultByIndex(int index);

// The library's replaceable log function and its level (6 by default);
// messages of a level above it are not shown.
typedef void (*conf_log_func)(int level, const char* message);
void conf_set_log_function(conf_log_func func);
extern int conf_log_level;

#endif
