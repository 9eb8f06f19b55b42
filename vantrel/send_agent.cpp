#include "vantrel/send_agent.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include <boost/bind/bind.hpp>
#include <boost/filesystem.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "vantrel/remote_programs.h"
#include "vantrel/terminal.h"

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
        if (std::find(directories_.begin(), directories_.end(), remotePath.string()) == directories_.end())
            directories_.push_back(remotePath.string());
        return true;
    }
    // A file of both trees goes once, the agent's copy (its tree comes second).
    auto known = std::find_if(files_.begin(), files_.end(),
                              [&](const std::pair<std::string, std::string>& f) { return f.second == remotePath.string(); });
    if (known != files_.end())
        known->first = localPath.string();
    else
        files_.emplace_back(localPath.string(), remotePath.string());
    return true;
}

namespace {

// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;

// The files of a deployment as the unpacker reads them, one after the other,
// without holding more than a block in memory.
class TreePacker : public IOReadChannel {
public:
    explicit TreePacker(const std::vector<std::pair<std::string, std::string>>& files) : files_(files) {
        for (const auto& f : files_) total_ += static_cast<int64_t>(fs::file_size(f.first));
    }
    int read(char* buffer, unsigned size) override {
        while (pending_.empty() && left_ == 0) {
            if (file_.is_open()) file_.close();
            if (next_ == files_.size()) return 0;
            const auto& f = files_[next_++];
            file_.open(f.first.c_str(), std::ios::in | std::ios::binary);
            if (!file_.is_open()) return -1;
            sendLog.info("remote <copy " + f.second + " (from " + f.first + ")");
            left_ = static_cast<uint64_t>(fs::file_size(f.first));
            pending_ = std::to_string(left_) + " " + std::to_string(f.second.size()) + "\n" + f.second;
        }
        if (!pending_.empty()) {
            const std::size_t n = std::min<std::size_t>(size, pending_.size());
            std::memcpy(buffer, pending_.data(), n);
            pending_.erase(0, n);
            return static_cast<int>(n);
        }
        file_.read(buffer, static_cast<std::streamsize>(std::min<uint64_t>(size, left_)));
        const std::streamsize n = file_.gcount();
        // A file that shrank since its size was taken cannot keep its frame.
        if (n <= 0) return -1;
        left_ -= static_cast<uint64_t>(n);
        done_ += n;
        progress_.update(files_[next_ - 1].second, done_, total_);
        return static_cast<int>(n);
    }

private:
    const std::vector<std::pair<std::string, std::string>>& files_;
    std::size_t next_ = 0;
    std::ifstream file_;
    std::string pending_;
    uint64_t left_ = 0;
    ProgressLine progress_;
    int64_t done_ = 0;
    int64_t total_ = 0;
};

// Longest text of directory names that one creation command takes.
const std::size_t kDirectoryBatch = 32 * 1024;

}  // namespace

void SendAgentAction::createDirectories() {
    // The first directory is the agent directory itself: the marker that
    // makes it ours goes in right after it, before anything else.
    const std::string script =
        "login=$1; marker=$2; shift 2; "
        "for d; do mkdir -p -- \"$d\" && chown -- \"$login\" \"$d\" || { printf '%s' \"$d\"; exit 1; }; "
        "[ -z \"$marker\" ] || { : > \"$d/$marker\" && chown -- \"$login\" \"$d/$marker\" || "
        "{ printf '%s' \"$d\"; exit 1; }; }; marker=; done";
    std::size_t done = 0;
    while (done < directories_.size()) {
        // A failure names the directory it stopped at, or else the batch's first.
        const std::string& first = directories_[done];
        std::vector<std::string> words{"sh", "-c", script, "sh", cfg->login, done == 0 ? AGENT_DIR_MARKER : ""};
        std::size_t length = 0;
        for (; done < directories_.size() && (length == 0 || length + directories_[done].size() < kDirectoryBatch);
             ++done) {
            sendLog.info("remote mkdir " + directories_[done]);
            words.push_back(directories_[done]);
            length += directories_[done].size();
        }
        const CommandResult made = run(CommandOptions("/").asRoot(), commandLine(words));
        if (made.status != 0)
            throw VELMO_EXC(CantCreateAgentDirectory) % (made.output.empty() ? first : made.output) % made.errors;
    }
    directories_.clear();
}

void SendAgentAction::copyFiles() {
    TreePacker packer(files_);
    BoundedText output;
    const CommandResult unpacked =
        run(CommandOptions(agentDir()).quietInput(), commandLine(perlRunning(remote::agent_unpacker)), packer, output);
    const std::string out = output.str();
    if (unpacked.status == kCommandNotFound && out.empty()) {
        sendLog.info("No perl on the source host: the files go one by one");
        for (const auto& f : files_) {
            sendLog.info("remote <copy " + f.second + " (from " + f.first + ")");
            getSsh()->put(f.first, f.second);
        }
    } else if (unpacked.status != 0) {
        std::istringstream report(out);
        std::size_t index = files_.size();
        std::string error;
        if (report >> index) std::getline(report >> std::ws, error);
        if (index < files_.size()) throw VELMO_EXC(CantWriteRemoteFile) % files_[index].second % error;
        throw VELMO_EXC(CantWriteRemoteFile) % agentDir() % unpacked.errors;
    }
    files_.clear();
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
    recursive_dir_walk_sync(sharedDir, agentDir(), boost::bind(&SendAgentAction::sendFile, this, sharedDir, _1, _2));

    // The directories go in one command as root, the files in one stream as
    // the login. Without the agent's own tree the shared one still goes over.
    const fs::path localAgentDir = agentsRoot / cfg->agentName;
    const bool agentTree = isValidAgentName(cfg->agentName) && fs::exists(localAgentDir);
    if (agentTree)
        recursive_dir_walk_sync(localAgentDir, agentDir(),
                                boost::bind(&SendAgentAction::sendFile, this, localAgentDir, _1, _2));
    // A connection lost half way connects again and goes on with the step it
    // was on: each step (the directories, the files, the status) may run
    // twice, and each leaves the same.
    reconnecting("The deployment's directories", [this] { createDirectories(); });
    reconnects().progressed();
    reconnecting("The deployment's files", [this] { copyFiles(); });
    reconnects().progressed();
    if (!agentTree) throw VELMO_EXC(NoAgentDirectory) % localAgentDir.string();

    status->setAgentOperation(MigrationStatus::wait);
    status->saveFile();
    sendLog.notice("Getting agent deployment status");

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    const std::string entry = agentDir() + "/" + agent->getEntryPoint();

    CommandResult answer;
    reconnecting("The agent's status", [&] {
        // The agent's answer stays, whatever it was.
        NewFile statusFile(theSession->directory(), session_names::DEPLOYMENT_STATUS);
        NewFileWriter output(statusFile);
        EmptyInput none;
        try {
            answer = run(CommandOptions(agentDir()).asRoot().endingWithRun(),
                         commandLine({agent->getEffectiveInterpreter(), entry, "--get-status"}), none, output);
        } catch (...) {
            statusFile.commitQuietly();
            throw;
        }
        statusFile.commit();
    });
    if (answer.status != 0) throw VELMO_EXC(CantRequestAgentStatus) % entry % answer.errors;
}

}  // namespace velmo
