// Agent deployment: copies the shared tree and the agent's own tree to the
// remote agent directory and stores the agent's answer to --get-status.
#ifndef VANTREL_SEND_AGENT_H
#define VANTREL_SEND_AGENT_H

#include <set>
#include <string>

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
    SendAgentAction() : Action(true) {}
    void execute() override;
    bool sendFile(const boost::filesystem::path& localRoot, const boost::filesystem::path& localPath,
                  const boost::filesystem::path& remotePath);
};

}  // namespace velmo

#endif
