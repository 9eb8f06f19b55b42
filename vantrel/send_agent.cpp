#include "vantrel/send_agent.h"

#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include <pwd.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/exceptions.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"

namespace fs = boost::filesystem;

namespace velmo {

namespace {

log4cpp::Category& sendLog = log4cpp::Category::getInstance("p.SendAgentAction");

// Directories of the walk in progress, by their real path.
std::set<fs::path>& activeDirectories() {
    static std::set<fs::path> active;
    return active;
}

}  // namespace

void recursive_dir_walk_internal(const fs::path& entryPath, const fs::path& remoteParent,
                                 const DirWalkCallback& callback) {
    recursive_dir_walk_sync(entryPath, remoteParent / entryPath.filename(), callback);
}

void recursive_dir_walk_sync(const fs::path& localPath, const fs::path& remotePath, const DirWalkCallback& callback) {
    bool descend = callback(localPath, remotePath);
    if (!descend || !fs::is_directory(localPath)) return;

    const fs::path real = fs::canonical(localPath);
    std::set<fs::path>& active = activeDirectories();
    if (!active.insert(real).second) {
        sendLog.warn("Not descending into %s again: it leads back to %s", localPath.string().c_str(),
                     real.string().c_str());
        return;
    }
    try {
        for (fs::directory_iterator it(localPath), end; it != end; ++it)
            recursive_dir_walk_internal(it->path(), remotePath, callback);
    } catch (...) {
        active.erase(real);
        throw;
    }
    active.erase(real);
}

bool SendAgentAction::sendFile(const fs::path& localRoot, const fs::path& localPath, const fs::path& remotePath) {
    if (fs::is_directory(localPath)) {
        if (localPath.parent_path().string() == localRoot.string() && localPath.filename() == AGENTS_CONTROL_DIR)
            return false;
        sendLog.info("remote mkdir " + remotePath.string());
        std::ostringstream out, err;
        if (execRoot(commandLine({"mkdir", "-p", remotePath.string()}), out, err, false) != 0)
            throw VELMO_EXC(CantCreateAgentDirectory) % remotePath.string() % err.str();
        std::ostringstream chownOut, chownErr;
        if (execRoot(commandLine({"chown", cfg->login, remotePath.string()}), chownOut, chownErr, false) != 0)
            throw VELMO_EXC(CantCreateAgentDirectory) % remotePath.string() % chownErr.str();
        return true;
    }
    sendLog.info("remote <copy " + remotePath.string() + " (from " + localPath.string() + ")");
    getSsh()->put(localPath.string(), remotePath.string());
    return true;
}

void SendAgentAction::execute() {
    status->setAgentParams(cfg->host);
    status->setAgentOperation(MigrationStatus::deploy);
    status->saveFile();
    sendLog.notice("Copying agent " + cfg->agentName + " to the remote host.");

    const fs::path agentsRoot(files::agents::getDir());
    const fs::path sharedDir = agentsRoot / AGENTS_SHARED_DIR;
    if (!fs::exists(sharedDir)) throw VELMO_EXC(NoSharedAgentsDirectory);
    using namespace boost::placeholders;
    recursive_dir_walk_sync(sharedDir, cfg->agentDir, boost::bind(&SendAgentAction::sendFile, this, sharedDir, _1, _2));

    const fs::path localAgentDir = agentsRoot / cfg->agentName;
    if (!isValidAgentName(cfg->agentName) || !fs::exists(localAgentDir))
        throw VELMO_EXC(NoAgentDirectory) % localAgentDir.string();
    recursive_dir_walk_sync(localAgentDir, cfg->agentDir,
                            boost::bind(&SendAgentAction::sendFile, this, localAgentDir, _1, _2));

    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();
    sendLog.notice("Getting agent deployment status");

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    const std::string entry = cfg->agentDir + "/" + agent->getEntryPoint();
    const std::string interpreter = agent->getEffectiveInterpreter();

    const std::string statusPath = theSession->getDeploymentStatusFileName();
    std::ofstream statusFile(statusPath.c_str(), std::ios::out | std::ios::trunc | std::ios::binary);
    const std::string inner = "cd " + cfg->agentDir + " && " + interpreter + " " + entry + " --get-status";
    std::ostringstream err;
    int rc = execRoot(commandLine({"sh", "-c", inner}), statusFile, err, false);
    if (rc != 0) throw VELMO_EXC(CantRequestAgentStatus) % entry % err.str();

    uid_t uid = 0;
    gid_t gid = 0;
    if (struct passwd* pw = getpwnam("kvaadm")) {
        uid = pw->pw_uid;
        gid = pw->pw_gid;
    } else {
        std::cerr << program_invocation_short_name << ": Unable to getpwnam for user kvaadm" << std::endl;
    }
    if (chown(statusPath.c_str(), uid, gid) != 0) {
        // The file stays with the run's owner.
    }
    statusFile.close();
}

}  // namespace velmo
