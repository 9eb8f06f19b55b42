#include "vantrel/content_plan.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <vector>

#include <unistd.h>

#include <log4cpp/Category.hh>

#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/session.h"
#include "commons/stop.h"
#include "vantrel/archive_writer.h"
#include "vantrel/content_progress.h"

namespace velmo {

namespace {

log4cpp::Category& planLog = log4cpp::Category::getInstance("p.Action");

// How often the status shows the archive whose sum is checked.
const std::chrono::milliseconds kShownEvery(200);
const std::size_t kSumBlock = 1 << 16;

// MD5 of a plain file under name in dir (never through a link), or an empty
// text when there is none.
std::string md5OfFile(const Directory& dir, const std::string& name) {
    if (!dir.isOpen()) return std::string();
    Fd file = dir.openRegular(name);
    if (!file) return std::string();
    Md5 sum;
    std::vector<char> buffer(kSumBlock);
    for (;;) {
        const ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw VELMO_EXC(StreamRead);
        if (n == 0) return sum.hex();
        sum.update(buffer.data(), static_cast<std::size_t>(n));
    }
}

}  // namespace

bool hereAlready(const DumpFile& record, const Directory& contentDir) {
    if (record.md5sum.empty()) return false;
    const std::string leaf = getFileNameFromPath(record.name);
    if (md5OfFile(theSession->directory(), leaf) == record.md5sum) return true;
    const Directory dir = contentDir.existingBelow(getPath(record.name));
    return !(dir.isOpen() && dir.sameAs(theSession->directory()) && leaf == record.name) &&
           md5OfFile(dir, leaf) == record.md5sum;
}

ContentPlan planContent(const std::vector<DumpFile>& records, const Directory& contentDir,
                        const std::string& agentDir, uid_t uid, gid_t gid, FileRetrievalProgressUpdater& progress) {
    ContentPlan plan;
    std::chrono::steady_clock::time_point shown;  // the first archive shows at once
    for (const DumpFile& record : records) {
        checkProgramTerminated();
        // A rerun with much here already shows its progress through the sums.
        if (std::chrono::steady_clock::now() - shown > kShownEvery) {
            progress.save(record.name, record.size, record.size, 0);
            shown = std::chrono::steady_clock::now();
        }
        const Directory dir = contentDir.existingBelow(getPath(record.name));
        const std::string leaf = getFileNameFromPath(record.name);
        if (hereAlready(record, contentDir)) {
            // Here already; removed on the source host when the run that
            // brought it could not.
            if (ArchiveWriter::removalDue(dir, leaf)) plan.toRemove.push_back(ContentPlan::Here{record.name, dir, leaf});
            progress.fileDone();
            continue;
        }
        // A partial archive can only be trusted when its sum will prove the
        // whole at the end; one longer than the archive is no part of it.
        const int64_t partial = ArchiveWriter::resumable(dir, leaf);
        int64_t from = 0;
        if (!record.md5sum.empty() && partial > 0 && partial <= record.size) {
            from = partial;
            planLog.infoStream() << "Continuing " << record.name << " from byte " << from << " of " << record.size;
        }
        plan.archives.push_back(ContentReceiver::Archive{&record, agentDir + "/" + record.name,
                                                         contentDir.below(getPath(record.name), uid, gid, 0755), from});
        plan.toFetch += std::max<int64_t>(0, record.size - from);
    }
    return plan;
}

}  // namespace velmo
