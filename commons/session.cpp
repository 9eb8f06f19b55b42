#include "commons/session.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "utils/read_configuration.h"

namespace velmo {

SessionFiles* theSession = nullptr;

namespace session_names {
const char* const STATUS = "migration.status";
const char* const RESULT = "migration.result";
const char* const CONTENT_RESULT = "transfer.result";
const char* const LOG = "migration.log";
const char* const SCOUT_RESULT = "scout-result.xml";
const char* const DEPLOYMENT_STATUS = "agent-deployment.status";
const char* const DUMP = "dump.xml";
const char* const DUMP_NAME = "dump-name";
const char* const RESULT_NAME = "migration-result-name";
const char* const HOST_KEY = "host-key";
const char* const ARCHIVES = "archives";
}  // namespace session_names

namespace {

std::string getProductDir() { return kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX); }
std::string getQmvDir() { return getProductDir() + "/QMV"; }

}  // namespace

SessionFiles::SessionFiles(const std::string& dir) : dir_(dir) {
    // Group kvaadm: the controlling process reads the session as that account.
    uid_t adminUid;
    gid_t adminGid;
    getAdminIds(adminUid, adminGid);
    const char* failure = "Unable to create session directory";
    try {
        directory_ = Directory::make(dir_, 0, adminGid, 0750);
        // One run per session: a second one touches nothing in it.
        if (::flock(directory_.fd(), LOCK_EX | LOCK_NB) != 0) {
            busy_ = errno == EWOULDBLOCK;
            if (busy_) return;
        }
        failure = "Unable to create session archives directory";
        directory_.below(session_names::ARCHIVES, 0, adminGid, 0750);
    } catch (const ExTraceable& e) {
        throw VELMO_EXC(UnableToCreateSession) % (std::string(failure) + ": " + e.what());
    }
}

std::string SessionFiles::logForLog4cpp() {
    if (!log_) {
        try {
            log_ = directory_.openOwn(session_names::LOG, O_WRONLY | O_APPEND, 0640);
        } catch (const ExTraceable&) {
            // The log is lost, not the run.
            return "/dev/null";
        }
    }
    // The open file itself: log4cpp opening this name cannot be led elsewhere.
    return "/proc/self/fd/" + std::to_string(log_.get());
}

std::string SessionFiles::getDir() const { return dir_; }
std::string SessionFiles::getStatusFileName() const { return dir_ + "/" + session_names::STATUS; }
std::string SessionFiles::getResultFileName() const { return dir_ + "/" + session_names::RESULT; }
std::string SessionFiles::getLogFileName() const { return dir_ + "/" + session_names::LOG; }
std::string SessionFiles::getScoutResultFileName() const { return dir_ + "/" + session_names::SCOUT_RESULT; }
std::string SessionFiles::getDeploymentStatusFileName() const {
    return dir_ + "/" + session_names::DEPLOYMENT_STATUS;
}
std::string SessionFiles::getDumpFileName() const { return dir_ + "/" + session_names::DUMP; }
std::string SessionFiles::getDumpingStatusFileName() const {
    return dir_ + "/" + files::getRemoteDumpingStatusFileName();
}
std::string SessionFiles::getCidFilesDir() const { return dir_; }
std::string SessionFiles::getHostKeyFileName() const { return dir_ + "/" + session_names::HOST_KEY; }

SessionLifetimeController::SessionLifetimeController(const std::string& dir) {
    theSession = new SessionFiles(dir);
}

SessionLifetimeController::~SessionLifetimeController() {
    delete theSession;
    theSession = nullptr;
}

namespace files {
std::string getQmvLogConfigFileName() { return getQmvDir() + "/log4cpp.properties"; }
std::string getScoutFileName() { return getQmvDir() + "/scout.pl"; }
std::string getTmpDir() { return getQmvDir() + "/tmp"; }
std::string getRemoteDumpingStatusFileName() { return "dumping-status.xml"; }
namespace agents {
std::string getDir() { return getQmvDir() + "/agents"; }
}  // namespace agents
}  // namespace files

}  // namespace velmo
