// Content retrieval: the agent lists its content archives, they stream back
// over one or several connections, each proven by its size and MD5 sum before
// it takes its name, and arrived archives are removed on the source host.
#ifndef VANTREL_RETRIEVE_CONTENT_H
#define VANTREL_RETRIEVE_CONTENT_H

#include <cstdint>
#include <ctime>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "commons/local_files.h"
#include "vantrel/actions.h"

namespace velmo {

// Keeps the migration status of a content transfer: the mean speed of the
// run from the bytes counted, what is left in all and of the current archive.
// The status file is saved by the transfer, at each archive's start and end.
class FileRetrievalProgressUpdater : public Ssh::Counter {
public:
    FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize, int32_t files);
    // Bytes received in this run.
    void operator()(int bytes) override;
    void setLeft(int64_t sizeLeft, int64_t currentFileLeft);
    // One archive less to go: fetched, or here already.
    void fileDone();
    int64_t totalSize() const { return totalSize_; }

private:
    MigrationStatus& status_;
    std::time_t start_;
    int64_t totalSize_;
    int64_t transferred_;
    int32_t filesLeft_;
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
    // A login on a thread of its own, as connect makes it; after a stop
    // request, interruptLogins cuts its waits short.
    std::unique_ptr<Ssh> loginAside(Reconnects& tries, const std::function<bool()>& giveUp);
    // After a stop request: ends the others' logins at the gate and signals
    // the threads still logging in until they are gone (a few seconds at
    // most); a stop request reaches one thread only.
    void interruptLogins();
    // The logins that wait for the first one (firstLogin_) end, unless it
    // was kept.
    void closeGate();

    Directory contentDir_;
    // In this order: the logins' threads use the list until they are joined.
    std::mutex loginsMutex_;
    std::vector<pthread_t> loggingIn_;  // the threads in loginAside
    // The connections of the streams besides the first are made along with
    // it and log in once it did (never with credentials that failed, and
    // after its host key is pinned).
    std::promise<void> firstLogin_;  // gone unkept, it ends the others' logins
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
