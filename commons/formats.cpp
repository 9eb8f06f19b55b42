#include "commons/formats.h"

#include <algorithm>
#include <type_traits>
#include <typeinfo>

#include <unistd.h>

#include <boost/format.hpp>
#include <boost/lexical_cast.hpp>
#include <libxml/entities.h>

#include "commons/session.h"

namespace velmo {

MigrationStatus::~MigrationStatus() = default;
AgentFileList::~AgentFileList() = default;

// ----------------------------------------------------------- migration status

XmlMigrationStatus::XmlMigrationStatus() : state_(idle), operation_(deploy) {
    initNewDoc("migration-status");
}

void XmlMigrationStatus::setAgentOperation(agentOperation op) {
    state_ = agent;
    operation_ = op;
}

void XmlMigrationStatus::setTransferTotals(const std::string& files, const std::string& size) {
    state_ = contentTransfer;
    totalFiles_ = filesLeft_ = files;
    totalSize_ = sizeLeft_ = size;
}

void XmlMigrationStatus::setTransferFilesLeft(const std::string& files) {
    state_ = contentTransfer;
    filesLeft_ = files;
}

void XmlMigrationStatus::setTransferSizeLeft(const std::string& size) {
    state_ = contentTransfer;
    sizeLeft_ = size;
}

void XmlMigrationStatus::setCurrentFile(const std::string& name, const std::string& size) {
    currentFile_ = name;
    currentFileSize_ = currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setTransferCurrentFileSizeLeft(const std::string& size) {
    state_ = contentTransfer;
    currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::clearRoot() {
    xmlNode* child = root_->children;
    while (child != nullptr) {
        xmlNode* next = child->next;
        xmlUnlinkNode(child);
        xmlFreeNode(child);
        child = next;
    }
}

void XmlMigrationStatus::saveFile() {
    pid_ = std::to_string(getpid());
    clearRoot();
    newTextChild(root_, "pid", pid_);

    xmlNode* holder = nullptr;
    switch (state_) {
    case idle:
        newChild(root_, "idle");
        break;
    case agent:
        holder = newChild(root_, "agent");
        addAttribute(holder, "action", operation_ == deploy ? "deploy" : "wait");
        break;
    default:
        holder = newChild(root_, "transfer");
        if (!speed_.empty()) addAttribute(holder, "speed", speed_);
        break;
    }

    if (holder != nullptr) newTextChild(holder, "host", host_);
    if (state_ == dumpTransfer) {
        newChild(holder, "dumpfile");
    } else if (state_ == contentTransfer) {
        xmlNode* files = newChild(holder, "files");
        addAttribute(files, "total", totalFiles_);
        addAttribute(files, "left", filesLeft_);
        if (!totalSize_.empty() && !sizeLeft_.empty()) {
            addAttribute(files, "size-total", totalSize_);
            addAttribute(files, "size-left", sizeLeft_);
        }
        if (!currentFile_.empty()) {
            xmlNode* current = newTextChild(files, "current-file", currentFile_);
            if (!currentFileSize_.empty()) {
                addAttribute(current, "size", currentFileSize_);
                addAttribute(current, "size-left", currentFileSizeLeft_);
            }
        }
    }

    saveToFileAtomically(theSession->directory(), session_names::STATUS);
}

std::unique_ptr<MigrationStatus> createMigrationStatusFile() {
    return std::unique_ptr<MigrationStatus>(new XmlMigrationStatus());
}

// --------------------------------------------------------------- content list

namespace {

// The whole text must be the number; anything else is a tagged error that
// keeps the conversion's own text. lexical_cast lets "-1" wrap around for an
// unsigned target: a sign is refused there with the same error.
template <class Number>
Number toNumber(const std::string& text) {
    try {
        if (std::is_unsigned<Number>::value && text.find('-') != std::string::npos)
            throw boost::bad_lexical_cast(typeid(std::string), typeid(Number));
        return boost::lexical_cast<Number>(text);
    } catch (const boost::bad_lexical_cast& e) {
        throw VELMO_EXC(BadContentListNumber) % text % e.what();
    }
}

// Longest archive name taken from the list: no local path is longer.
const size_t MAX_CONTENT_NAME = 4096;

}  // namespace

XmlAgentFileList::XmlAgentFileList(const std::string& text) : tXmlQmvDocument(text) {
    initFileDoc("contentlist");
}

void XmlAgentFileList::parse() {
    files_.clear();
    EntityMeasure nameLength(getDoc(), MAX_CONTENT_NAME);
    for (xmlNode* node = root_->children; node != nullptr; node = node->next) {
        if (node->type != XML_ELEMENT_NODE || xmlStrcmp(node->name, BAD_CAST "file") != 0) continue;
        const int64_t size = toNumber<int64_t>(getAttribute(node, "size"));
        const std::string md5sum = getAttribute(node, "md5sum");
        if (nameLength.text(node->children) > MAX_CONTENT_NAME)
            throw VELMO_EXC(tError_XmlInternal) %
                (boost::format("The content list names a file of more than %1% bytes") % MAX_CONTENT_NAME).str();
        files_.emplace_back(getNodeText(node), size, md5sum);
    }
}

uint64_t XmlAgentFileList::getTotalSize() const { return toNumber<uint64_t>(getAttribute(root_, "size")); }


std::unique_ptr<AgentFileList> getFileList(const std::string& text) {
    std::unique_ptr<XmlAgentFileList> list(new XmlAgentFileList(text));
    list->parse();
    return std::unique_ptr<AgentFileList>(list.release());
}

}  // namespace velmo
