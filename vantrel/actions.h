// The actions of vantrel: the common base (lazy connection, execution as the
// login or as root through sudo, ownership hand-back, dumping-status refresh)
// and every action but agent deployment.
#ifndef VANTREL_ACTIONS_H
#define VANTREL_ACTIONS_H

#include <ctime>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "commons/formats.h"
#include "commons/ssh-transfer.h"
#include "vantrel/options.h"

namespace velmo {

class Action {
public:
    explicit Action(bool withStatus);
    virtual ~Action();
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;

    virtual void setConfig(const config* cfg);
    virtual void execute() = 0;

    // The connection of the run, made on first use.
    Ssh* getSsh();

    int execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    int execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);
    int execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    int execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);

    // Throws SudoNotFound or SudoNotAllowed unless sudo works with the
    // configured password; runs once per action.
    void checkSudoPresence();
    // Makes the login the owner of a file root created on the remote host.
    void takeFile(const std::string& remotePath);

protected:
    std::unique_ptr<Ssh> ssh;
    const config* cfg;
    std::unique_ptr<MigrationStatus> status;
    bool sudoChecked;
};

class SendScoutAction : public Action {
public:
    SendScoutAction() : Action(true) {}
    void execute() override;
};

class RetrieveDumpAction : public Action {
public:
    RetrieveDumpAction(const std::vector<std::string>& arguments, const std::string& standardInput);
    void execute() override;

private:
    void retrieve();
    // Copies the agent's dumping status into the session directory; false
    // once that failed, which ends the refresh for the rest of the run.
    bool refreshDumpingStatus();

    std::vector<std::string> arguments_;
    std::string standardInput_;
};

class GetDumpingStatusAction : public Action {
public:
    GetDumpingStatusAction() : Action(true) {}
    void execute() override;
};

// Removes the session's local copy of the agent's dumping status.
class RemoveDumpingStatusAction : public Action {
public:
    RemoveDumpingStatusAction() : Action(true) {}
    void execute() override;
};

// Counts the bytes of a content download into the migration status.
class FileRetrievalProgressUpdater : public Ssh::Counter {
public:
    FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize, int32_t files);
    void operator()(int bytes) override;

    void startFile(int64_t size) { currentFileLeft_ = size; }
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
    RetrieveContentAction() : Action(true) {}
    void execute() override;
    bool checkMD5(const DumpFile& file);

private:
    void retrieve();
    void removeRemote(const std::string& remotePath);
};

// Refuses a content name that would leave the content directory.
void checkContentFileName(const std::string& name);

class RemoveAgentAction : public Action {
public:
    RemoveAgentAction() : Action(false) {}
    void execute() override;

private:
    bool mayRemove(std::string& why);
};

// Writes text into path with no line end; throws FileWrite.
void writeNameFile(const std::string& path, const std::string& text);

// A command line made of words quoted for the remote shell.
std::string commandLine(const std::vector<std::string>& words);

}  // namespace velmo

#endif
