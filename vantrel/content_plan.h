// Which archives of a content list come, and from where on: an archive that
// is here already with its listed sum neither comes nor goes again (though
// one that a stopped run could not remove on the source host is removed
// now); a part that a stopped run left is continued when its sum will prove
// the whole at the end.
#ifndef VANTREL_CONTENT_PLAN_H
#define VANTREL_CONTENT_PLAN_H

#include <cstdint>
#include <string>
#include <vector>

#include "commons/formats.h"
#include "commons/local_files.h"
#include "vantrel/content_receiver.h"

namespace velmo {

class FileRetrievalProgressUpdater;

struct ContentPlan {
    // Here already and still to be removed on the source host.
    struct Here {
        std::string name;
        Directory dir;
        std::string leaf;
    };
    std::vector<ContentReceiver::Archive> archives;  // the archives that come, in list order
    std::vector<Here> toRemove;
    int64_t toFetch = 0;                             // bytes that come
};

// Where the archives land: contentDir (their directories made as kvaadm's,
// uid and gid); agentDir: where they are on the source host. The
// progress counts each archive here already and shows the one looked at.
ContentPlan planContent(const std::vector<DumpFile>& records, const Directory& contentDir,
                        const std::string& agentDir, uid_t uid, gid_t gid, FileRetrievalProgressUpdater& progress);

// True when the archive is here already with the listed MD5 sum: in the
// session directory under the last component of its name, or at its full
// local path under contentDir.
bool hereAlready(const DumpFile& record, const Directory& contentDir);

}  // namespace velmo

#endif
