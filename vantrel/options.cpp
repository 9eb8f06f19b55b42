#include "vantrel/options.h"

#include <cstdio>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <string>

#include <getopt.h>

#include <boost/format.hpp>

#include "commons/commons.h"
#include "commons/exceptions.h"

namespace {

// getopt_long values of the long options; above every character value.
enum OptionValue {
    OPT_SEND_SCOUT = 256,
    OPT_DEPLOY_AGENT,
    OPT_GET_DUMPING_STATUS,
    OPT_DUMP_SELECTED,
    OPT_DUMP_ALL,
    OPT_GET_CONTENT,
    OPT_REMOVE_AGENT,
    OPT_REMOVE_DUMPING_STATUS,
    OPT_HELP,
    OPT_VERSION,
    OPT_NO_CONTENT,
    OPT_NO_COMPRESS,
    OPT_IP,
    OPT_HOST,
    OPT_PORT,
    OPT_LOGIN,
    OPT_AGENT_DIR,
    OPT_AGENT_NAME,
    OPT_DUMPS_DIR,
    OPT_NO_CHECK_SPACE,
    OPT_NO_ENCRYPTION,
    OPT_SUDO_PASSWORD,
    OPT_RESELLERS,
    OPT_CLIENTS,
    OPT_DOMAINS,
    OPT_SELECTED_OBJECTS_FILE,
    OPT_SESSION_PATH,
    OPT_VERBOSE,
    OPT_ONLY_MAIL,
    OPT_ONLY_HOSTING,
    OPT_CONTENT_TRANSPORT,
    OPT_SERVER,
    OPT_ADMIN_INFO,
    OPT_NO_LICENSE
};

const struct option longOptions[] = {
    {"send-scout", no_argument, nullptr, OPT_SEND_SCOUT},
    {"deploy-agent", no_argument, nullptr, OPT_DEPLOY_AGENT},
    {"get-dumping-status", no_argument, nullptr, OPT_GET_DUMPING_STATUS},
    {"dump-selected", no_argument, nullptr, OPT_DUMP_SELECTED},
    {"dump-all", no_argument, nullptr, OPT_DUMP_ALL},
    {"get-content", no_argument, nullptr, OPT_GET_CONTENT},
    {"remove-agent", no_argument, nullptr, OPT_REMOVE_AGENT},
    {"remove-dumping-status", no_argument, nullptr, OPT_REMOVE_DUMPING_STATUS},
    {"help", no_argument, nullptr, OPT_HELP},
    {"version", no_argument, nullptr, OPT_VERSION},
    {"no-content", no_argument, nullptr, OPT_NO_CONTENT},
    {"no-compress", no_argument, nullptr, OPT_NO_COMPRESS},
    {"ip", required_argument, nullptr, OPT_IP},
    {"host", required_argument, nullptr, OPT_HOST},
    {"port", required_argument, nullptr, OPT_PORT},
    {"login", required_argument, nullptr, OPT_LOGIN},
    {"agent-dir", required_argument, nullptr, OPT_AGENT_DIR},
    {"agent-name", required_argument, nullptr, OPT_AGENT_NAME},
    {"dumps-dir", required_argument, nullptr, OPT_DUMPS_DIR},
    {"no-check-space", no_argument, nullptr, OPT_NO_CHECK_SPACE},
    {"no-encryption", no_argument, nullptr, OPT_NO_ENCRYPTION},
    {"sudo-password", no_argument, nullptr, OPT_SUDO_PASSWORD},
    {"resellers", required_argument, nullptr, OPT_RESELLERS},
    {"clients", required_argument, nullptr, OPT_CLIENTS},
    {"domains", required_argument, nullptr, OPT_DOMAINS},
    {"selected-objects-file", required_argument, nullptr, OPT_SELECTED_OBJECTS_FILE},
    {"session-path", required_argument, nullptr, OPT_SESSION_PATH},
    {"verbose", no_argument, nullptr, OPT_VERBOSE},
    {"only-mail", no_argument, nullptr, OPT_ONLY_MAIL},
    {"only-hosting", no_argument, nullptr, OPT_ONLY_HOSTING},
    {"content-transport", required_argument, nullptr, OPT_CONTENT_TRANSPORT},
    {"server", no_argument, nullptr, OPT_SERVER},
    {"admin-info", no_argument, nullptr, OPT_ADMIN_INFO},
    {"no-license", no_argument, nullptr, OPT_NO_LICENSE},
    {nullptr, 0, nullptr, 0},
};

const char* const LOGIN_PASSWORD_VARIABLE = "KVA_PASSWORD";
const char* const SUDO_PASSWORD_VARIABLE = "KVA_SUDO_PASSWORD";
const char* const KEY_PASSPHRASE_VARIABLE = "KVA_KEY_PASSPHRASE";

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

// Bytes per second, with K or M for KiB or MiB ("8M"); -1 for anything else
// and for 0, 0 when the text is empty (no cap).
long long rateOf(const std::string& text) {
    if (text.empty()) return 0;
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    long long unit = 1;
    if (*end == 'K' || *end == 'k') unit = 1 << 10;
    if (*end == 'M' || *end == 'm') unit = 1 << 20;
    if (unit != 1) ++end;
    if (errno != 0 || end == text.c_str() || *end != '\0' || value <= 0 || value > (1LL << 40) / unit) return -1;
    return value * unit;
}

// The login password, read from the environment once.
char thePasswordBuffer[4096];

void setAction(config* cfg, ActionId id) { cfg->action = cfg->action == ACTION_NONE ? id : ACTION_MANY; }

// strtol in base 10; 0 and everything outside 1..65535 become -1.
int convertPort(const char* text) {
    long value = std::strtol(text, nullptr, 10);
    return value >= 1 && value <= 65535 ? static_cast<int>(value) : -1;
}

[[noreturn]] void fail(const std::string& text) { throw VELMO_EXC(OptParsingError) % text; }

const char usageText[] =
    "Usage: [KVA_PASSWORD=<password> | KVA_SUDO_PASSWORD = <sudo_password>] vantrel \n"
    "          --host=<hostname or IP address> (obsolete alias is --ip)\n"
    "          [--port=<port>] (defaults to 22)\n"
    "          --login=<username>\n"
    "          [--sudo-password]\n"
    "          --agent-dir=<dir> (relative path on the remote side)\n"
    "          ( --send-scout\n"
    "          | --deploy-agent --session-path <dir> --agent-name <agent>\n"
    "          | --get-dumping-status --session-path <dir>\n"
    "          | ( --dump-selected [--selected-objects-file=<file-path>]\n"
    "                [--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]]"
    " [--domains=-|<domain1>[,<domain2>...]]\n"
    "             | --dump-all ) \n"
    "                [--server] [--admin-info] [--no-license]\n"
    "                 --session-path <dir> --agent-name <agent>\n"
    "                [--no-content] [--no-compress]\n"
    "                [--only-mail]\n"
    "                [--only-hosting]\n"
    "          | --get-content --session-path <dir> --agent-name <agent>\n"
    "                [--no-check-space] [--no-encryption (not implemented)]"
    " [--dumps-dir=<dir-on-destination-host>]\n"
    "          | --remove-agent --session-path <dir> --agent-name <agent>\n"
    "          | --remove-dumping-status --session-path <dir>\n"
    "          | --help | -h)\n";

}  // namespace

// The kernel shows a process's environment as it was at start-up
// (/proc/<pid>/environ reads that original block, whatever setenv and
// unsetenv do later). Overwriting the bytes of a value there keeps it out
// of that view.
static void wipeValue(char* value) {
    volatile char* p = value;
    while (*p != '\0') *p++ = '\0';
}

void hide_sudo_password() {
    for (const char* name : {SUDO_PASSWORD_VARIABLE, KEY_PASSPHRASE_VARIABLE}) {
        char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        // setenv stores a copy of its own, so the variable keeps its value
        // for this process while the start-up block forgets it.
        const std::string copy(value);
        if (setenv(name, copy.c_str(), 1) == 0) wipeValue(value);
        velmo::addSecret(copy);
    }
}

bool is_sudo_password_provided() { return std::getenv(SUDO_PASSWORD_VARIABLE) != nullptr; }

std::string get_sudo_password() {
    const char* value = std::getenv(SUDO_PASSWORD_VARIABLE);
    return value != nullptr ? value : "";
}

const char* get_env_noncrypted_password() {
    if (thePasswordBuffer[0] != '\0') return thePasswordBuffer;
    if (char* value = std::getenv(LOGIN_PASSWORD_VARIABLE)) {
        std::strncpy(thePasswordBuffer, value, sizeof thePasswordBuffer - 1);
        thePasswordBuffer[sizeof thePasswordBuffer - 1] = '\0';
        velmo::addSecret(thePasswordBuffer);
        wipeValue(value);
    }
    unsetenv(LOGIN_PASSWORD_VARIABLE);
    return thePasswordBuffer;
}

bool parse_options(int argc, char** argv, config* cfg) {
    // Start the parser afresh: it keeps its position between calls.
    optind = 0;
    int value;
    while ((value = getopt_long(argc, argv, "h", longOptions, nullptr)) != -1) {
        switch (value) {
            case OPT_SEND_SCOUT: setAction(cfg, ACTION_SEND_SCOUT); break;
            case OPT_DEPLOY_AGENT: setAction(cfg, ACTION_DEPLOY_AGENT); break;
            case OPT_GET_DUMPING_STATUS: setAction(cfg, ACTION_GET_DUMPING_STATUS); break;
            case OPT_DUMP_SELECTED: setAction(cfg, ACTION_DUMP_SELECTED); break;
            case OPT_DUMP_ALL: setAction(cfg, ACTION_DUMP_ALL); break;
            case OPT_GET_CONTENT: setAction(cfg, ACTION_GET_CONTENT); break;
            case OPT_REMOVE_AGENT: setAction(cfg, ACTION_REMOVE_AGENT); break;
            case OPT_REMOVE_DUMPING_STATUS: setAction(cfg, ACTION_REMOVE_DUMPING_STATUS); break;
            case OPT_HELP:
            case 'h': setAction(cfg, ACTION_HELP); break;
            case OPT_VERSION: setAction(cfg, ACTION_VERSION); break;
            case OPT_NO_CONTENT: cfg->noContent = true; break;
            case OPT_NO_COMPRESS: cfg->compression = OPT_BACKUP_COMPRESS_NONE; break;
            case OPT_IP:
            case OPT_HOST: cfg->host = optarg; break;
            case OPT_PORT: cfg->port = convertPort(optarg); break;
            case OPT_LOGIN: cfg->login = optarg; break;
            case OPT_AGENT_DIR: cfg->agentDir = optarg; break;
            case OPT_AGENT_NAME: cfg->agentName = optarg; break;
            case OPT_DUMPS_DIR: cfg->dumpsDir = optarg; break;
            case OPT_NO_CHECK_SPACE: cfg->noCheckSpace = true; break;
            case OPT_NO_ENCRYPTION: cfg->noEncryption = true; break;
            case OPT_SUDO_PASSWORD:
                cfg->useSudo = true;
                if (is_sudo_password_provided()) {
                    cfg->sudoPasswordProvided = true;
                    cfg->sudoPassword = get_sudo_password();
                    velmo::addSecret(cfg->sudoPassword);
                }
                break;
            case OPT_RESELLERS: cfg->resellers = optarg; break;
            case OPT_CLIENTS: cfg->clients = optarg; break;
            case OPT_DOMAINS: cfg->domains = optarg; break;
            case OPT_SELECTED_OBJECTS_FILE: cfg->selectedObjectsFile = optarg; break;
            case OPT_SESSION_PATH: cfg->sessionPath = optarg; break;
            case OPT_VERBOSE: cfg->verbose = true; break;
            case OPT_ONLY_MAIL: cfg->filter = OPT_BACKUP_FILTER_ONLY_MAIL; break;
            case OPT_ONLY_HOSTING: cfg->filter = OPT_BACKUP_FILTER_ONLY_HOSTING; break;
            case OPT_CONTENT_TRANSPORT: cfg->contentTransport = optarg; break;
            case OPT_SERVER: cfg->server = true; break;
            case OPT_ADMIN_INFO: cfg->adminInfo = true; break;
            case OPT_NO_LICENSE: cfg->noLicense = true; break;
            default:
                // '?': unknown option or missing argument, already reported.
                return false;
        }
    }
    cfg->password = get_env_noncrypted_password();
    cfg->keyFile = variable("KVA_KEY_FILE");
    cfg->keyPassphrase = variable(KEY_PASSPHRASE_VARIABLE);
    cfg->useAgent = !variable("SSH_AUTH_SOCK").empty();
    cfg->bandwidthLimit = rateOf(variable("KVA_BWLIMIT"));
    return true;
}

void req_action_argument_missed(const std::string& name) {
    fail((boost::format("%s is required unless --help or -h requested\n") % name).str());
}

void invalid_option(const std::string& name) {
    fail((boost::format("%1% is not allowed with --help or -h\n") % name).str());
}

void extra_option(const std::string& option, const std::string& action) {
    fail((boost::format("'--%1%' only may be specified when '--%2%' is requested") % option % action).str());
}

void verify_options(config* cfg) {
    if (cfg->action == ACTION_NONE) fail("No action given");
    if (cfg->action == ACTION_MANY) fail("More than one action is given");

    if (cfg->action != ACTION_GET_CONTENT) {
        if (cfg->noCheckSpace) extra_option("no-check-space", "get-content");
        if (cfg->noEncryption) extra_option("no-encryption", "get-content");
    }
    if (cfg->action != ACTION_DUMP_SELECTED && cfg->action != ACTION_DUMP_ALL && cfg->noContent)
        extra_option("no-content", "dump-*");

    if (cfg->action == ACTION_REMOVE_DUMPING_STATUS || cfg->action == ACTION_HELP) {
        if (!cfg->host.empty()) invalid_option("host");
        if (cfg->port != 0) invalid_option("port");
        if (!cfg->login.empty()) invalid_option("login");
        if (!cfg->password.empty()) invalid_option("password");
        if (!cfg->agentDir.empty()) invalid_option("agent directory");
        if (!cfg->agentName.empty()) invalid_option("agent name");
        if (cfg->useSudo) invalid_option("sudo parameters");
        return;
    }

    if (cfg->host.empty()) req_action_argument_missed("host");
    if (cfg->port == -1) fail("port should be a number in [1, 65535] range");
    if (cfg->login.empty()) req_action_argument_missed("login");
    // A key, or an agent's, logs in without a password.
    if (cfg->password.empty() && cfg->keyFile.empty() && !cfg->useAgent) req_action_argument_missed("password");
    if (cfg->bandwidthLimit < 0)
        fail("KVA_BWLIMIT='" + variable("KVA_BWLIMIT") +
             "' is no rate: give bytes per second above 0, with K or M for KiB or MiB per second (8M, say)");
    if (cfg->useSudo && !cfg->sudoPasswordProvided)
        fail("KVA_SUDO_PASSWORD environment variable is not provided with --sudo-password\n");
    if (cfg->action == ACTION_SEND_SCOUT) {
        if (!cfg->agentDir.empty()) invalid_option("agent directory");
        if (!cfg->agentName.empty()) invalid_option("agent name");
    } else {
        if (cfg->agentDir.empty()) req_action_argument_missed("agent directory");
        if (cfg->agentName.empty()) req_action_argument_missed("agent name");
    }
}

void usage() {
    std::fwrite(usageText, 1, sizeof usageText - 1, stdout);
    std::fflush(stdout);
}

void version() {
    std::fputs("vantrel " VANTREL_VERSION "\n", stdout);
    std::fflush(stdout);
}
