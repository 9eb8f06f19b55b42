// Content retrieval: the agent lists its content archives, they stream back
// over one remote command, each proven by its size and MD5 sum before it
// takes its name, and arrived archives are removed on the source host.
#ifndef VANTREL_RETRIEVE_CONTENT_H
#define VANTREL_RETRIEVE_CONTENT_H

#include <cstdint>
#include <ctime>
#include <string>

#include "commons/local_files.h"
#include "vantrel/actions.h"

namespace velmo {

// Counts the bytes of a content download into the migration status.
class FileRetrievalProgressUpdater : public Ssh::Counter {
public:
    FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize, int32_t files);
    void operator()(int bytes) override;

    // A new archive of size bytes, of which already bytes are here.
    void startFile(int64_t size, int64_t already = 0);
    int32_t& filesLeft() { return filesLeft_; }

private:
    MigrationStatus& status_;
    std::time_t start_;
    int64_t transferred_;
    int64_t sizeLeft_;
    int32_t filesLeft_;
    int64_t currentFileLeft_;
};

class RetrieveContentAction : public Action {
public:
    RetrieveContentAction() : Action(StatusFile::kept) {}
    void execute() override;
    // True when the archive is here already with the listed MD5 sum: in the
    // session directory under the last component of its name, or at its
    // full local path.
    bool checkMD5(const DumpFile& file);

private:
    friend class ContentTransfer;
    void retrieve();

    Directory contentDir_;
};

// Refuses a content name that would leave the content directory.
void checkContentFileName(const std::string& name);
// Refuses, with Exc<&ContentNamesCollide> naming them, content names that
// would land on a file of the session, on another archive's partial
// download, on each other, or on each other's directories.
void checkContentNamesApart(const std::vector<DumpFile>& records, const Directory& contentDir,
                            const Directory& sessionDir);

}  // namespace velmo

#endif
