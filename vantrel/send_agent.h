// Agent deployment: copies the shared tree and the agent's own tree to the
// remote agent directory and stores the agent's answer to --get-status.
#ifndef VANTREL_SEND_AGENT_H
#define VANTREL_SEND_AGENT_H

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <boost/function.hpp>

#include "vantrel/actions.h"

namespace velmo {

typedef boost::function<bool(const boost::filesystem::path&, const boost::filesystem::path&)> DirWalkCallback;

// Depth-first, pre-order walk of a local tree onto remote paths. A directory
// is descended only when the callback returns true for it. A symbolic link
// that leads back to a directory already being walked is not descended again.
void recursive_dir_walk_sync(const boost::filesystem::path& localPath, const boost::filesystem::path& remotePath,
                             const DirWalkCallback& callback);
void recursive_dir_walk_internal(const boost::filesystem::path& entryPath,
                                 const boost::filesystem::path& remoteParent, const DirWalkCallback& callback);

class SendAgentAction : public Action {
public:
    SendAgentAction() : Action(StatusFile::kept) {}
    void execute() override;
    // Takes one item of a walk into the deployment: a directory to create (a
    // top-level control directory is left out, and not descended into), or a
    // file to copy. Returns whether the walk descends into localPath.
    bool sendFile(const boost::filesystem::path& localRoot, const boost::filesystem::path& localPath,
                  const boost::filesystem::path& remotePath);

private:
    // Creates the collected directories as root, in the order of the walk,
    // and hands them to the login; Exc<&CantCreateAgentDirectory>.
    void createDirectories();
    // Writes the collected files as the login; Exc<&CantWriteRemoteFile> for
    // a file the source host cannot take.
    void copyFiles();

    std::vector<std::string> directories_;
    std::vector<std::pair<std::string, std::string>> files_;  // local path, remote path
};

}  // namespace velmo

#endif
