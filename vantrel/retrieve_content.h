// Content retrieval: the agent lists its content archives, they stream back
// over one or several connections, each proven by its size and MD5 sum before
// it takes its name, and arrived archives are removed on the source host.
// The parts: content_names (the names checked), content_plan (what comes),
// content_streams (the connections and their threads), content_receiver
// (the archives on their way), content_progress (the status), source_removal
// (the archives removed there); this unit drives them.
#ifndef VANTREL_RETRIEVE_CONTENT_H
#define VANTREL_RETRIEVE_CONTENT_H

#include <memory>

#include "commons/local_files.h"
#include "vantrel/actions.h"
#include "vantrel/content_names.h"

namespace velmo {

class AgentFileList;
class ContentStreams;

class RetrieveContentAction : public Action {
public:
    RetrieveContentAction() : Action(StatusFile::kept) {}
    void execute() override;
    // True when the archive is here already with the listed MD5 sum: in the
    // session directory under the last component of its name, or at its
    // full local path.
    bool checkMD5(const DumpFile& file);

private:
    void retrieve();
    // Asks the agent for its content list while the streams get ready.
    std::unique_ptr<AgentFileList> listContent(ContentStreams& streams);

    Directory contentDir_;
};

}  // namespace velmo

#endif
