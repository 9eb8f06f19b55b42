#include "vantrel/actions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/log.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"

namespace velmo {

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("p.Action");

void debugLog(const std::string& text) {
    if (theDebugLog) theDebugLog->log(text);
}

void debugLog(const ExTraceable& e) {
    if (theDebugLog) theDebugLog->log(e);
}

std::string decimal(int64_t value) { return boost::lexical_cast<std::string>(value); }

}  // namespace

std::string commandLine(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) {
        if (!line.empty()) line += ' ';
        line += sh_quote(word);
    }
    return line;
}

void writeNameFile(const std::string& path, const std::string& text) {
    try {
        std::ofstream out;
        out.exceptions(std::ios::failbit | std::ios::badbit);
        out.open(path.c_str(), std::ios::out | std::ios::trunc | std::ios::binary);
        out << text;
        out.close();
    } catch (const std::ios_base::failure& e) {
        throw VELMO_EXC(FileWrite) % path % e.what();
    }
}

// ---------------------------------------------------------------- Action

Action::Action(bool withStatus) : cfg(nullptr), sudoChecked(false) {
    if (withStatus) {
        status = createMigrationStatusFile();
        status->setIdle();
        status->saveFile();
    }
}

Action::~Action() {
    if (status) {
        try {
            status->setIdle();
            status->saveFile();
        } catch (const ExTraceable& e) {
            debugLog(e);
        } catch (const std::exception& e) {
            debugLog(std::string("Unable to save the idle migration status: ") + e.what());
        }
    }
    // The connection goes last: session first, then socket.
    ssh.reset();
}

void Action::setConfig(const config* c) { cfg = c; }

Ssh* Action::getSsh() {
    if (!ssh) {
        unsigned short port = cfg->port == 0 ? 22 : static_cast<unsigned short>(cfg->port);
        ssh.reset(new Ssh(cfg->host, cfg->login, cfg->password, cfg->noEncryption, port));
    }
    return ssh.get();
}

namespace {
// Every command of an action runs in a fresh sh, inside the agent directory.
std::string userLine(const config& cfg, const std::string& command) {
    return commandLine({"sh", "-c", "cd " + cfg.agentDir + "; " + command});
}
}  // namespace

int Action::execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    return getSsh()->exec(userLine(*cfg, command), in, out, err, quietOutput, quietInput, Ssh::null_counter);
}

int Action::execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput) {
    return getSsh()->exec(userLine(*cfg, command), out, err, quietOutput, Ssh::null_counter);
}

int Action::execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    if (!cfg->useSudo) return execUser(command, in, out, err, quietOutput, quietInput);
    checkSudoPresence();
    const std::string sudoCommand = "sudo -k; sudo -S -p ' ' " + command;
    if (cfg->sudoPassword.empty()) return execUser(sudoCommand, in, out, err, quietOutput, quietInput);

    // sudo reads the password line first; the command gets the rest.
    std::string input = cfg->sudoPassword + "\n";
    input.append(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    std::istringstream withPassword(input);
    return execUser(sudoCommand, withPassword, out, err, quietOutput, quietInput);
}

int Action::execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput) {
    std::istringstream empty;
    return execRoot(command, empty, out, err, quietOutput, false);
}

void Action::checkSudoPresence() {
    if (sudoChecked) return;

    std::ostringstream out, err;
    // No sudo command at all: the shell answers 127 (or 126 for one it may
    // not run); either way there is no sudo to use.
    int rc = getSsh()->exec("sudo -V", out, err, false, Ssh::null_counter);
    if (rc != 0) {
        debugLog("sudo -V ended with status " + decimal(rc));
        throw VELMO_EXC(SudoNotFound) % cfg->host;
    }

    // The password goes on standard input without a line feed; at its end sudo
    // sees end of input, so a refused password ends the probe instead of
    // waiting for another try.
    std::istringstream password(cfg->sudoPassword);
    std::ostringstream probeOut, probeErr;
    rc = getSsh()->exec("sudo -k; sudo -S -p ' ' true", password, probeOut, probeErr, false, false,
                        Ssh::null_counter);
    if (rc != 0) {
        debugLog("sudo password probe ended with status " + decimal(rc) + ": " + maskSecrets(probeErr.str()));
        throw VELMO_EXC(SudoNotAllowed) % cfg->login % cfg->host;
    }
    sudoChecked = true;
}

void Action::takeFile(const std::string& remotePath) {
    if (!cfg->useSudo) return;
    checkSudoPresence();
    std::ostringstream out, err;
    int rc = execRoot(commandLine({"chown", cfg->login, remotePath}), out, err, false);
    if (rc != 0) throw VELMO_EXC(CantTakeFileOwnership) % remotePath % err.str();
}

// ---------------------------------------------------------------- scout

void SendScoutAction::execute() {
    status->setAgentParams(cfg->host);
    status->setAgentOperation(MigrationStatus::deploy);
    status->saveFile();

    const std::string scoutPath = files::getScoutFileName();
    std::ifstream script(scoutPath.c_str(), std::ios::in | std::ios::binary);
    if (!script.is_open()) throw VELMO_EXC(UnableToOpenScoutFile) % scoutPath;

    std::ofstream resultFile(theSession->getScoutResultFileName().c_str(),
                             std::ios::out | std::ios::trunc | std::ios::binary);
    std::ostringstream err;
    int rc = execRoot("perl", script, resultFile, err, false, true);
    if (rc != 0) throw VELMO_EXC(FailedToExecuteScout) % rc % err.str();

    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();
}

// ---------------------------------------------------------------- dump

RetrieveDumpAction::RetrieveDumpAction(const std::vector<std::string>& arguments,
                                       const std::string& standardInput)
    : Action(true), arguments_(arguments), standardInput_(standardInput) {}

void RetrieveDumpAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(CantRetrieveDump, e);
    }
}

bool RetrieveDumpAction::refreshDumpingStatus() {
    try {
        const std::string remote = cfg->agentDir + "/" + files::getRemoteDumpingStatusFileName();
        const std::string local = theSession->getDumpingStatusFileName();
        // A failed read leaves no temporary file, and the last copy stays.
        getSsh()->get(local + ".tmp", remote);
        std::rename((local + ".tmp").c_str(), local.c_str());
        return true;
    } catch (const ExTraceable& e) {
        // The refresh stops for the rest of the run; the action goes on.
        debugLog(e);
    } catch (const std::exception& e) {
        debugLog(std::string("Dumping status refresh failed: ") + e.what());
    }
    return false;
}

void RetrieveDumpAction::retrieve() {
    const std::string remoteDump = cfg->agentDir + "/dump.xml";
    status->setAgentParams(cfg->host);
    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    std::vector<std::string> words{agent->getEffectiveInterpreter(),
                                   cfg->agentDir + "/" + agent->getEntryPoint()};
    words.insert(words.end(), arguments_.begin(), arguments_.end());
    if (cfg->noContent) words.push_back("--no-content");
    const std::string command = commandLine(words);

    // While the agent works, its dumping status is copied into the session
    // every 5 seconds.
    getSsh()->setPeriodic(std::chrono::seconds(5), [this] { return refreshDumpingStatus(); });
    std::ostringstream out, err;
    int rc;
    try {
        if (!standardInput_.empty()) {
            std::istringstream in(standardInput_);
            rc = execRoot(command, in, out, err, false, false);
        } else {
            rc = execRoot(command, out, err, false);
        }
    } catch (...) {
        getSsh()->clearPeriodic();
        throw;
    }
    getSsh()->clearPeriodic();
    if (rc != 0) throw VELMO_EXC(CantRetrieveDumpFile) % err.str();

    takeFile(remoteDump);
    const std::string localDump = theSession->getDumpFileName();
    getSsh()->get(localDump, remoteDump);
    writeNameFile(cfg->sessionPath + "/dump-name", localDump);
}

void GetDumpingStatusAction::execute() {
    try {
        status->setAgentParams(cfg->host);
        status->setAgentOperation(MigrationStatus::wait);
        status->saveFile();
        const std::string remoteStatus = cfg->agentDir + "/" + files::getRemoteDumpingStatusFileName();
        takeFile(remoteStatus);
        getSsh()->get(std::cout, remoteStatus);
        std::cout.flush();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(DumpStatusError, e);
    }
}

void RemoveDumpingStatusAction::execute() {
    // The session's own copy of the agent's dumping status; nothing outside
    // the session directory is touched and no connection is made.
    std::remove(theSession->getDumpingStatusFileName().c_str());
}

// ---------------------------------------------------------------- content

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize,
                                                           int32_t files)
    : status_(status), start_(std::time(nullptr)), transferred_(0), sizeLeft_(totalSize), filesLeft_(files),
      currentFileLeft_(0) {}

// value - amount, wrapping around instead of overflowing.
static int64_t minus(int64_t value, int64_t amount) {
    return static_cast<int64_t>(static_cast<uint64_t>(value) - static_cast<uint64_t>(amount));
}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    if (bytes <= 0) return;
    // The sizes come from the agent's list: a hostile one may put them next
    // to the ends of the range, where signed arithmetic would overflow.
    sizeLeft_ = minus(sizeLeft_, bytes);
    currentFileLeft_ = minus(currentFileLeft_, bytes);
    transferred_ = minus(transferred_, -static_cast<int64_t>(bytes));
    std::time_t now = std::time(nullptr);
    int64_t speed = now != start_ ? transferred_ / static_cast<int64_t>(now - start_) : 0;
    status_.setTransferSpeed(decimal(speed));
    status_.setTransferSizeLeft(decimal(sizeLeft_));
    status_.setTransferCurrentFileSizeLeft(decimal(currentFileLeft_));
}

void checkContentFileName(const std::string& name) {
    bool unsafe = name.empty() || name[0] == '/';
    std::string::size_type start = 0;
    while (!unsafe && start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string component = name.substr(start, end - start);
        if (component == ".." || (component.empty() && end == name.size())) unsafe = true;
        start = end + 1;
    }
    if (unsafe || name.find('\0') != std::string::npos) throw VELMO_EXC(UnsafeContentFileName) % name;
}

bool RetrieveContentAction::checkMD5(const DumpFile& file) {
    if (file.md5sum.empty()) return false;
    const std::string path = theSession->getCidFilesDir() + "/" + getFileNameFromPath(file.name);
    std::ifstream in(path.c_str(), std::ios::in | std::ios::binary);
    if (!in.is_open()) return false;
    return countMd5Sum(in) == file.md5sum;
}

void RetrieveContentAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(CantRetrieveDump, e);
    }
}

void RetrieveContentAction::retrieve() {
    uid_t uid;
    gid_t gid;
    getAdminIds(uid, gid);
    make_content_dir(theSession->getCidFilesDir(), uid, gid, 0755);

    status->setAgentParams(cfg->host);
    status->setTransferDump();
    status->saveFile();

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    const std::string command = commandLine(
        {agent->getEffectiveInterpreter(), cfg->agentDir + "/" + agent->getEntryPoint(), "--get-content-list"});
    std::ostringstream out, err;
    int rc = execRoot(command, out, err, false);
    if (rc != 0) throw VELMO_EXC(CantRetrieveContentList) % err.str();

    std::unique_ptr<AgentFileList> list = getFileList(out.str());
    const std::vector<DumpFile>& records = list->getFileList();
    const uint64_t total = list->getTotalSize();
    // Every name is checked before anything is written.
    for (const DumpFile& record : records) checkContentFileName(record.name);

    const std::string contentDir = cfg->dumpsDir.empty() ? theSession->getCidFilesDir() : cfg->dumpsDir;
    if (!cfg->noCheckSpace) {
        uint64_t available = getFreeSpace(contentDir);
        if (available < total)
            throw VELMO_EXC(NotEnoughSpace) % boost::lexical_cast<std::string>(available) %
                boost::lexical_cast<std::string>(total);
    }
    status->setTransferTotals(decimal(static_cast<int64_t>(records.size())),
                              boost::lexical_cast<std::string>(total));

    FileRetrievalProgressUpdater updater(*status, static_cast<int64_t>(total),
                                         static_cast<int32_t>(records.size()));
    for (const DumpFile& record : records) {
        const std::string localPath = contentDir + "/" + record.name;
        const std::string remotePath = cfg->agentDir + "/" + record.name;

        updater.startFile(record.size);
        status->setCurrentFile(record.name, decimal(record.size));
        status->saveFile();
        make_content_dir(getPath(localPath), uid, gid, 0755);

        if (!checkMD5(record)) {
            // The archive takes its name only once it is complete, so that an
            // interrupted run never leaves a partial file under that name.
            const std::string partPath = localPath + ".part";
            std::ostringstream downloadErr;
            try {
                rc = getSsh()->get(partPath, downloadErr, remotePath, updater);
            } catch (...) {
                std::remove(partPath.c_str());
                throw;
            }
            if (rc != 0)
                throw VELMO_EXC(CantRetrieveContentFile) % remotePath % cfg->host % localPath % downloadErr.str();
            if (std::rename(partPath.c_str(), localPath.c_str()) != 0) {
                const std::string why = std::strerror(errno);
                std::remove(partPath.c_str());
                throw VELMO_EXC(CantRetrieveContentFile) % remotePath % cfg->host % localPath % why;
            }
            removeRemote(remotePath);
        }

        --updater.filesLeft();
        status->setTransferFilesLeft(decimal(updater.filesLeft()));
        status->saveFile();
    }

    writeNameFile(cfg->sessionPath + "/dump-name", contentDir + "/dump.xml");
    writeNameFile(cfg->sessionPath + "/migration-result-name", contentDir + "/migration.result");
}

void RetrieveContentAction::removeRemote(const std::string& remotePath) {
    // Best effort: a failure is logged and the retrieval goes on.
    try {
        std::ostringstream out, err;
        int rc = execRoot(commandLine({"rm", remotePath}), out, err, false);
        if (rc != 0) debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % remotePath % cfg->host % err.str());
    } catch (const ExTraceable& e) {
        debugLog(e);
    } catch (const std::exception& e) {
        debugLog((boost::format("Unable to remove remote file '%1%' from '%2%': %3%") % remotePath % cfg->host %
                  e.what())
                     .str());
    } catch (...) {
        debugLog((boost::format("Unable to remove remote file '%1%' from '%2%': %3%") % remotePath % cfg->host %
                  "Unknown internal exception occured")
                     .str());
    }
}

// ---------------------------------------------------------------- removal

bool RemoveAgentAction::mayRemove(std::string& why) {
    const std::string& dir = cfg->agentDir;
    if (dir.empty()) {
        why = "the agent directory is empty";
        return false;
    }
    if (dir.find_first_not_of("/.") == std::string::npos) {
        why = "the agent directory names the root directory";
        return false;
    }
    for (std::string::size_type at = 0; (at = dir.find("..", at)) != std::string::npos; at += 2) {
        bool startsComponent = at == 0 || dir[at - 1] == '/';
        bool endsComponent = at + 2 == dir.size() || dir[at + 2] == '/';
        if (startsComponent && endsComponent) {
            why = "the agent directory contains a '..' component";
            return false;
        }
    }
    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    if (agent->getEntryPoint().empty()) {
        why = "agent " + cfg->agentName + " names no entry point to recognise a deployment by";
        return false;
    }
    const std::string marker = dir + "/" + agent->getEntryPoint();
    std::ostringstream out, err;
    if (execRoot(commandLine({"test", "-f", marker}), out, err, false) != 0) {
        why = "it holds no deployed agent (" + marker + " is missing)";
        return false;
    }
    return true;
}

void RemoveAgentAction::execute() {
    try {
        std::string why;
        if (!mayRemove(why)) {
            actionLog.warn("Refusing to remove agent directory '%s': %s", cfg->agentDir.c_str(), why.c_str());
            debugLog("Refusing to remove agent directory '" + cfg->agentDir + "': " + why);
            return;
        }
        std::ostringstream out, err;
        execRoot(commandLine({"rm", "-rf", cfg->agentDir}), out, err, false);
    } catch (const ExTraceable& e) {
        // Removal is a clean-up: its failures never fail the run.
        debugLog(e);
    }
}

}  // namespace velmo
