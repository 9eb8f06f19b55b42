// The migration status file the controlling process polls while an action
// runs, and the content list an agent prints before content is pulled back.
#ifndef VANTREL_COMMONS_FORMATS_H
#define VANTREL_COMMONS_FORMATS_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "commons/xml_wrap.h"

namespace velmo {

// What the running action is doing. Setters only record; saveFile() writes.
class MigrationStatus {
public:
    enum agentOperation : int { deploy = 0, wait = 1 };

    virtual ~MigrationStatus();
    virtual void setIdle() = 0;
    virtual void setAgentParams(const std::string& host) = 0;
    virtual void setAgentOperation(agentOperation op) = 0;
    virtual void setTransferSpeed(const std::string& speed) = 0;
    virtual void setTransferDump() = 0;
    virtual void setTransferTotals(const std::string& files, const std::string& size) = 0;
    virtual void setTransferFilesLeft(const std::string& files) = 0;
    virtual void setTransferSizeLeft(const std::string& size) = 0;
    virtual void setCurrentFile(const std::string& name, const std::string& size) = 0;
    virtual void setTransferCurrentFileSizeLeft(const std::string& size) = 0;
    virtual void saveFile() = 0;
};

// The status as the document "migration-status", rebuilt and written
// atomically to the session's status file by every saveFile().
class XmlMigrationStatus : public tXmlQmvDocument, public MigrationStatus {
public:
    XmlMigrationStatus();

    void setIdle() override { state_ = idle; }
    void setAgentParams(const std::string& host) override { host_ = host; }
    void setAgentOperation(agentOperation op) override;
    void setTransferSpeed(const std::string& speed) override { speed_ = speed; }
    void setTransferDump() override { state_ = dumpTransfer; }
    void setTransferTotals(const std::string& files, const std::string& size) override;
    void setTransferFilesLeft(const std::string& files) override;
    void setTransferSizeLeft(const std::string& size) override;
    void setCurrentFile(const std::string& name, const std::string& size) override;
    void setTransferCurrentFileSizeLeft(const std::string& size) override;
    // Needs theSession. Throws the errors of the atomic save.
    void saveFile() override;

private:
    enum State { idle, agent, dumpTransfer, contentTransfer };

    void clearRoot();

    State state_;
    agentOperation operation_;
    std::string pid_;
    std::string host_;
    std::string speed_;
    std::string totalFiles_;
    std::string filesLeft_;
    std::string totalSize_;
    std::string sizeLeft_;
    std::string currentFileSizeLeft_;
    std::string currentFile_;
    std::string currentFileSize_;
};

// A new idle status with an empty document; writes nothing.
std::unique_ptr<MigrationStatus> createMigrationStatusFile();

// One content archive of the agent's list.
struct DumpFile {
    DumpFile(const std::string& n, int64_t s, const std::string& m) : name(n), size(s), md5sum(m) {}

    std::string name;    // relative to the agent directory, may hold "/"
    int64_t size;
    std::string md5sum;  // as the agent wrote it
};

class AgentFileList {
public:
    virtual ~AgentFileList();
    virtual const std::vector<DumpFile>& getFileList() const = 0;
    virtual uint64_t getTotalSize() const = 0;
};

// The content list "contentlist"; the totals are read from the root at each call.
class XmlAgentFileList : public tXmlQmvDocument, public AgentFileList {
public:
    // Parses the text and checks the root; throws the errors of the wrapper.
    explicit XmlAgentFileList(const std::string& text);

    // Fills the records from the "file" children of the root; throws
    // Exc<&NoSuchAttribute> or Exc<&BadContentListNumber>.
    void parse();

    const std::vector<DumpFile>& getFileList() const override { return files_; }
    uint64_t getTotalSize() const override;

private:
    std::vector<DumpFile> files_;
};

// The agent's "--get-content-list" output as records and totals.
std::unique_ptr<AgentFileList> getFileList(const std::string& text);

}  // namespace velmo

#endif
