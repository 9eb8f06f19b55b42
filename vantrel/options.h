// The options record of one run, built from the command line and the two
// password variables of the environment, and its check against the action.
#ifndef VANTREL_VANTREL_OPTIONS_H
#define VANTREL_VANTREL_OPTIONS_H

#include <string>

// Which part of the objects is dumped.
enum opt_backup_filter : int {
    OPT_BACKUP_FILTER_NONE = 0,
    OPT_BACKUP_FILTER_ONLY_MAIL = 1,
    OPT_BACKUP_FILTER_ONLY_HOSTING = 2
};

// Compression of the dump.
enum opt_backup_compress : int {
    OPT_BACKUP_COMPRESS_NOT_SET = 0,
    OPT_BACKUP_COMPRESS_STANDARD = 1,
    OPT_BACKUP_COMPRESS_NONE = 2
};

// Values of config::action.
enum ActionId : int {
    ACTION_MANY = -2,
    ACTION_NONE = -1,
    ACTION_SEND_SCOUT = 0,
    ACTION_DEPLOY_AGENT = 1,
    ACTION_GET_DUMPING_STATUS = 2,
    ACTION_DUMP_SELECTED = 3,
    ACTION_DUMP_ALL = 4,
    ACTION_GET_CONTENT = 5,
    ACTION_REMOVE_AGENT = 6,
    ACTION_REMOVE_DUMPING_STATUS = 7,
    ACTION_HELP = 8,
    ACTION_VERSION = 9
};

struct config {
    ActionId action = ACTION_NONE;
    std::string resellers;
    std::string clients;
    std::string domains;
    bool noContent = false;
    opt_backup_compress compression = OPT_BACKUP_COMPRESS_NOT_SET;
    std::string host;
    int port = 0;  // 0: not given; -1: not a number in 1..65535
    std::string login;
    std::string password;
    std::string agentDir;
    std::string agentName;
    std::string dumpsDir;
    std::string sessionPath;
    std::string selectedObjectsFile;
    bool noCheckSpace = false;
    bool noEncryption = false;
    bool useSudo = false;
    bool sudoPasswordProvided = false;
    std::string sudoPassword;
    bool verbose = false;
    opt_backup_filter filter = OPT_BACKUP_FILTER_NONE;
    std::string contentTransport;
    bool server = false;
    bool adminInfo = false;
    bool noLicense = false;
    // From the environment as well: a private key file and its passphrase
    // (KVA_KEY_FILE, KVA_KEY_PASSPHRASE), whether an ssh-agent is there
    // (SSH_AUTH_SOCK), and the cap on the bytes a run moves per second
    // (KVA_BWLIMIT; 0: none, -1: a value that is no rate).
    std::string keyFile;
    std::string keyPassphrase;
    bool useAgent = false;
    long long bandwidthLimit = 0;
};

// Fills cfg from the command line, then takes the login password from the
// environment. False when the option parser reports an unknown option or a
// missing argument (its diagnostic is on standard error).
bool parse_options(int argc, char** argv, config* cfg);

// Checks that the options fit the action; throws Exc<&OptParsingError>.
void verify_options(config* cfg);

// Writes the usage text to standard output.
void usage();
// Writes "vantrel <version>" and a line feed to standard output.
void version();

// Keeps KVA_SUDO_PASSWORD and KVA_KEY_PASSPHRASE in the environment but
// wipes their values from the block the process started with, which others
// can read from /proc.
void hide_sudo_password();
// Whether KVA_SUDO_PASSWORD exists (an empty value counts).
bool is_sudo_password_provided();
// The value of KVA_SUDO_PASSWORD.
std::string get_sudo_password();
// The login password: KVA_PASSWORD, read once into a process-wide buffer and
// removed from the environment so that no child inherits it.
const char* get_env_noncrypted_password();

// Each throws Exc<&OptParsingError> with its text.
[[noreturn]] void req_action_argument_missed(const std::string& name);
[[noreturn]] void invalid_option(const std::string& name);
[[noreturn]] void extra_option(const std::string& option, const std::string& action);

#endif
