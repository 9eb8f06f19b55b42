#include "vantrel/vantrel.h"

#include <cerrno>
#include <cstring>
#include <iostream>

#include <unistd.h>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/log.h"
#include "commons/session.h"
#include "commons/ssh-transfer.h"
#include "utils/read_configuration.h"
#include "vantrel/dump_options.h"
#include "vantrel/retrieve_content.h"
#include "vantrel/send_agent.h"
#include "vantrel/terminal.h"

namespace velmo {

namespace {

int report(const ExTraceable& e, int code) {
    theDebugLog->log(e);
    theLog->log(e);
    std::cerr << e.what();
    std::cerr.flush();
    showCauses(e);
    return code;
}

void readListFromStandardInput(config& cfg) {
    std::string* target = nullptr;
    if (cfg.resellers == "-")
        target = &cfg.resellers;
    else if (cfg.clients == "-")
        target = &cfg.clients;
    else if (cfg.domains == "-")
        target = &cfg.domains;
    if (target == nullptr) return;
    std::string line;
    std::getline(std::cin, line);
    *target = line;
}

}  // namespace

// Another run holds the session: this one says so under a result name of its
// own, where it overwrites nothing, and touches nothing else.
static int refuseBusySession(const config& cfg) {
    const std::string result = getLogName(cfg).empty() ? session_names::RESULT : getLogName(cfg);
    const std::string name = result + ".busy-" + std::to_string(::getpid());
    const auto refusal = VELMO_EXC(SessionBusy) % cfg.sessionPath % theSession->directory().pathOf(name);
    {
        XmlLog document(name);
        document.log(refusal);
    }
    std::cerr << refusal.what() << "\n";
    return 1;
}

std::string getLogName(const config& cfg) {
    return cfg.action == ACTION_GET_CONTENT ? "transfer.result" : std::string();
}

Action* getActionByIdInternal(const config& cfg) {
    switch (cfg.action) {
        case ACTION_SEND_SCOUT:
            return new SendScoutAction();
        case ACTION_DEPLOY_AGENT:
            return new SendAgentAction();
        case ACTION_GET_DUMPING_STATUS:
            return new GetDumpingStatusAction();
        case ACTION_DUMP_SELECTED:
        case ACTION_DUMP_ALL: {
            std::vector<std::string> arguments;
            std::string standardInput;
            prepareDumpArguments(cfg, arguments, standardInput);
            return new RetrieveDumpAction(arguments, standardInput);
        }
        case ACTION_GET_CONTENT:
            return new RetrieveContentAction();
        case ACTION_REMOVE_AGENT:
            return new RemoveAgentAction();
        case ACTION_REMOVE_DUMPING_STATUS:
            return new RemoveDumpingStatusAction();
        case ACTION_MANY:
        case ACTION_NONE:
        case ACTION_HELP:
        case ACTION_VERSION:
            break;
    }
    throw VELMO_EXC(UnknownAction);
}

std::unique_ptr<Action> getActionById(const config& cfg) {
    std::unique_ptr<Action> action(getActionByIdInternal(cfg));
    action->setConfig(&cfg);
    return action;
}

int do_actions(config& cfg) {
    LogLifetimeController resultLog(getLogName(cfg));
    try {
        readListFromStandardInput(cfg);
        std::unique_ptr<Action> action = getActionById(cfg);
        action->execute();
        theLog->setSuccess(true);
        action.reset();
        return 0;
    } catch (const Exc<&ConnectionRefused>& e) {
        return report(e, 11);
    } catch (const Exc<&ConnectionTimedOut>& e) {
        return report(e, 12);
    } catch (const Exc<&NetworkUnreachable>& e) {
        return report(e, 13);
    } catch (const Exc<&HostUnreachable>& e) {
        return report(e, 14);
    } catch (const Exc<&ConnectionFault>& e) {
        return report(e, 15);
    } catch (const Exc<&HostNotFound>& e) {
        return report(e, 16);
    } catch (const Exc<&SshInvalidCredentials>& e) {
        return report(e, 17);
    } catch (const Exc<&SshKeyUnusable>& e) {
        return report(e, 17);
    } catch (const Exc<&SshConnectionFault>& e) {
        return report(e, 18);
    } catch (const ExTraceable& e) {
        return report(e, 2);
    } catch (const MigrationTerminatedException& e) {
        theLog->setSuccess(true);
        theDebugLog->log(std::string(e.what()));
        std::cout << e.what();
        std::cout.flush();
        return 0;
    }
}

int real_main(int argc, char** argv) {
    hide_sudo_password();
    // A configuration file that cannot be read means the built-in defaults;
    // the log of the run says so (the reader itself says nothing).
    const int unreadConfiguration = autoprepend() == 0 ? 0 : (errno != 0 ? errno : EINVAL);

    config cfg;
    if (!parse_options(argc, argv, &cfg)) return 1;
    addPlainName(cfg.login);
    addPlainName(cfg.host);
    if (cfg.action == ACTION_HELP) {
        usage();
        return 0;
    }
    if (cfg.action == ACTION_VERSION) {
        version();
        return 0;
    }
    if (cfg.action == ACTION_NONE) {
        std::cerr << "Action required. See --help\n";
        return 1;
    }
    if (cfg.sessionPath.empty()) {
        std::cerr << "--session-path is required.\n";
        return 1;
    }

    SessionLifetimeController session(cfg.sessionPath);
    if (theSession->busy()) return refuseBusySession(cfg);
    DebugLogLifetimeController debugLog(cfg.verbose);
    StartStopLogger startStop("Vantrel", argc, argv);
    if (unreadConfiguration != 0)
        theDebugLog->log(std::string("The product configuration ") + kvaConfFileName() + " was not read (" +
                         std::strerror(unreadConfiguration) + "): the built-in defaults apply");
    try {
        verify_options(&cfg);
    } catch (const Exc<&OptParsingError>& e) {
        theDebugLog->log(e);
        showRefusal(e);
        startStop.setExitCode(1);
        return 1;
    }
    try {
        int code = do_actions(cfg);
        startStop.setExitCode(code);
        return code;
    } catch (...) {
        startStop.setExitCode(1);
        throw;
    }
}

}  // namespace velmo
