#include "commons/session.h"

#include <sys/stat.h>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "utils/read_configuration.h"

namespace velmo {

SessionFiles* theSession = nullptr;

namespace {

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void createDirectory(const std::string& path, const char* failure) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        // Group kvaadm: the controlling process reads the session as that account.
        uid_t adminUid;
        gid_t adminGid;
        getAdminIds(adminUid, adminGid);
        make_dir(path, 0, adminGid, 0750);
    }
    if (!isDirectory(path)) throw VELMO_EXC(UnableToCreateSession) % failure;
}

std::string getProductDir() { return kvaConfGetDefaultByIndex(_PRODUCT_ROOT_D_INDEX); }
std::string getQmvDir() { return getProductDir() + "/QMV"; }

}  // namespace

SessionFiles::SessionFiles(const std::string& dir) : dir_(dir) {
    createDirectory(dir_, "Unable to create session directory");
    createDirectory(dir_ + "/" + "archives", "Unable to create session archives directory");
}

std::string SessionFiles::getDir() const { return dir_; }
std::string SessionFiles::getStatusFileName() const { return dir_ + "/migration.status"; }
std::string SessionFiles::getResultFileName() const { return dir_ + "/migration.result"; }
std::string SessionFiles::getLogFileName() const { return dir_ + "/migration.log"; }
std::string SessionFiles::getScoutResultFileName() const { return dir_ + "/scout-result.xml"; }
std::string SessionFiles::getDeploymentStatusFileName() const { return dir_ + "/agent-deployment.status"; }
std::string SessionFiles::getDumpFileName() const { return dir_ + "/dump.xml"; }
std::string SessionFiles::getDumpingStatusFileName() const {
    return dir_ + "/" + files::getRemoteDumpingStatusFileName();
}
std::string SessionFiles::getCidFilesDir() const { return dir_; }
std::string SessionFiles::getHostKeyFileName() const { return dir_ + "/host-key"; }

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
