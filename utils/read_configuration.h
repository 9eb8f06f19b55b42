// Reader of the product configuration file: lines of a variable name and a
// value, with compile-time defaults for the variables the product knows.
//
// The _r functions work on a table given by the caller; the kvaConf functions
// work on the one process-wide table, loaded from the file on first use.
#ifndef VANTREL_UTILS_READ_CONFIGURATION_H
#define VANTREL_UTILS_READ_CONFIGURATION_H

struct conf_entry {
    char* name;
    char* value;
};

struct conf_data {
    conf_entry* data;    // owned; null before first use
    unsigned size;       // capacity, in entries
    unsigned nmemb;      // entries in use
    int finalized;       // 1 when sorted by name (binary search allowed)
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

// Variable names and compile-time defaults, indexed by KvaConfVarIndexT
// (_MAX_POSSIBLE_KVA_CONF_VAR_INDEX + 1 entries each).
extern const char* const theKvaConfNames[];
extern const char* const theKvaConfDefauls[];
// The process-wide table; null until the file was read successfully.
extern conf_data* theKvaConfHash;

// Makes room for one more entry: 20 entries for a new table; a full table
// grows to twice its capacity or by 20, whichever is larger. 0 or -1 (ENOMEM).
int conf_init_r(conf_data* table);
// Stores copies of name and value; an existing name gets the new value.
// 0 or -1 (ENOMEM).
int conf_set_r(const char* name, const char* value, conf_data* table);
// Sorts the entries by name unless they already are.
void conf_finalize_r(conf_data* table);
// The value of name, or null.
const char* conf_get_r(const char* name, conf_data* table);
// Reads a configuration file into the table; 0, or -1 with errno set.
int conf_read_file_r(const char* path, conf_data* table);
// Frees the entries, the array and the table itself; null is allowed.
void conf_free_r(conf_data* table);
// strcmp of the names of two conf_entry.
int cmp_conf(const void* a, const void* b);

// The path this build reads ("/etc/kva/kva.conf" when installed).
const char* kvaConfFileName();
// Loads the file into the process-wide table unless that was done; 0 or -1.
// A failed load is tried again by the next call.
int autoprepend();
// The value set in the file, or null (also when the file cannot be read).
const char* kvaConfGet(const char* name);
// kvaConfGet of the variable of that index; a found value is cached for the
// rest of the process.
const char* kvaConfGetByIndex(int index);
// kvaConfGetByIndex, or the compile-time default of the index.
const char* kvaConfGetDefaultByIndex(int index);

// The library's log level (6 by default). The reader reports its problems
// with the level 12, and a report is shown (on standard error and standard
// output) only when its level is at most conf_log_level.
extern int conf_log_level;

// The product message log: prints the formatted message, with a line feed
// added if it lacks one, to standard error and then to standard output.
void product_message_log(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
