#include "commons/exceptions.h"

#include <cstdlib>
#include <map>

Cloneable::~Cloneable() {}

// Tag functions exist only for their address.
bool OptParsingError(bool b) { return b; }
bool NoAgentDirectory(bool b) { return b; }
bool NoSharedAgentsDirectory(bool b) { return b; }

namespace velmo {

#define VELMO_TAG(name) \
    bool name(bool b) { return b; }
VELMO_TAG(UnknownAction)
VELMO_TAG(HostNotFound)
VELMO_TAG(ConnectionRefused)
VELMO_TAG(ConnectionTimedOut)
VELMO_TAG(NetworkUnreachable)
VELMO_TAG(HostUnreachable)
VELMO_TAG(ConnectionFault)
VELMO_TAG(InvalidHandle)
VELMO_TAG(UnableToStartSshSession)
VELMO_TAG(SshAuthorizationFailed)
VELMO_TAG(SshInvalidCredentials)
VELMO_TAG(SshConnectionFault)
VELMO_TAG(UnableToSendEof)
VELMO_TAG(StreamRead)
VELMO_TAG(StreamWrite)
VELMO_TAG(SudoNotFound)
VELMO_TAG(SudoNotAllowed)
VELMO_TAG(CantTakeFileOwnership)
VELMO_TAG(UnableToOpenScoutFile)
VELMO_TAG(FailedToExecuteScout)
VELMO_TAG(CantCreateAgentDirectory)
VELMO_TAG(CantRequestAgentStatus)
VELMO_TAG(DumpStatusError)
VELMO_TAG(CantRetrieveDump)
VELMO_TAG(CantRetrieveDumpFile)
VELMO_TAG(FileWrite)
VELMO_TAG(CantRetrieveContentList)
VELMO_TAG(CantRetrieveContentFile)
VELMO_TAG(UnableToRemoveRemoteFile)
VELMO_TAG(NotEnoughSpace)
VELMO_TAG(AgentNotFound)
VELMO_TAG(ParseFailed)
VELMO_TAG(UnableToCreateSession)
VELMO_TAG(NoParentNode)
VELMO_TAG(AssertionFailed)
VELMO_TAG(tError_XmlInternal)
VELMO_TAG(tError_SaveFile)
VELMO_TAG(tError_ParseFile)
VELMO_TAG(tError_WrongInputFile)
VELMO_TAG(tError_EmptyDoc)
VELMO_TAG(tError_WrongDoc)
VELMO_TAG(NoSuchAttribute)
VELMO_TAG(tError_XPath_CantEvaluate)
VELMO_TAG(tError_XPath_TypesMismatch)
VELMO_TAG(CantRenameFile)
VELMO_TAG(CantStatFS)
VELMO_TAG(CantCreateTempFile)
VELMO_TAG(UnsafeContentFileName)
#undef VELMO_TAG

namespace {

struct TagRow {
    ExTag tag;
    ExTagInfo info;
};

const TagRow tagTable[] = {
    {&::OptParsingError, {"OptParsingError", "Unable to parse command line: %1%"}},
    {&UnknownAction, {"UnknownAction", "Unknown action passed to the function. Probably bug in the options parser"}},
    {&HostNotFound, {"HostNotFound", "Unable to resolve hostname %1%: %2%"}},
    {&ConnectionRefused, {"ConnectionRefused", "No one listening on the remote address at host %1%"}},
    {&ConnectionTimedOut, {"ConnectionTimedOut", "Timeout while attempting connection to host %1%"}},
    {&NetworkUnreachable, {"NetworkUnreachable", "Specified network host %1% is unreachable"}},
    {&HostUnreachable, {"HostUnreachable", "No route to host %1%"}},
    {&ConnectionFault, {"ConnectionFault", "Unable to connect to host %1%: %2%"}},
    {&InvalidHandle, {"InvalidHandle", "Invalid handle passed"}},
    {&UnableToStartSshSession, {"UnableToStartSshSession", "Unable to start SSH session: %1%"}},
    {&SshAuthorizationFailed, {"SshAuthorizationFailed", "No suitable username/password found"}},
    {&SshInvalidCredentials, {"SshInvalidCredentials", "Unable to connect to host %1%: you have specified incorrect username or password"}},
    {&SshConnectionFault, {"SshConnectionFault", "Lost connection with the remote host"}},
    {&UnableToSendEof, {"UnableToSendEof", "Unable to send EOF to SSH channel: %1%"}},
    {&StreamRead, {"StreamRead", "Cannot read data from the stream"}},
    {&StreamWrite, {"StreamWrite", "Cannot write data to the stream"}},
    {&SudoNotFound, {"SudoNotFound", "sudo command not found on the host %1%. You should install sudo to this host or supply root password for the migration."}},
    {&SudoNotAllowed, {"SudoNotAllowed", "sudo is not allowed for user %1% on host %2%."}},
    {&CantTakeFileOwnership, {"CantTakeFileOwnership", "Cannot take ownership of %1%: %2%"}},
    {&UnableToOpenScoutFile, {"UnableToOpenScoutFile", "Unable to open %1% for transferring to the remote host"}},
    {&FailedToExecuteScout, {"FailedToExecuteScout", "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%"}},
    {&::NoAgentDirectory, {"NoAgentDirectory", "Directory for agent '%1%' does not exist"}},
    {&::NoSharedAgentsDirectory, {"NoSharedAgentsDirectory", "'shared' agents directory not found"}},
    {&CantCreateAgentDirectory, {"CantCreateAgentDirectory", "Can't create agent directory %1% on the remote host: %2%"}},
    {&CantRequestAgentStatus, {"CantRequestAgentStatus", "Cannot request remote agent status using command line %1%: %2%"}},
    {&DumpStatusError, {"DumpStatusError", "Error during getting dumping status"}},
    {&CantRetrieveDump, {"CantRetrieveDump", "Error during dump retrieval"}},
    {&CantRetrieveDumpFile, {"CantRetrieveDumpFile", "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: %1%"}},
    {&FileWrite, {"FileWrite", "Error during %1% write: %2%"}},
    {&CantRetrieveContentList, {"CantRetrieveContentList", "Error during content list retrieval: %1%"}},
    {&CantRetrieveContentFile, {"CantRetrieveContentFile", "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%"}},
    {&UnableToRemoveRemoteFile, {"UnableToRemoveRemoteFile", "Unable to remove remote file '%1%' from '%2%': %3%"}},
    {&NotEnoughSpace, {"NotEnoughSpace", "Selected filesystem has only %1% free space, but %2% is needed for operation"}},
    {&AgentNotFound, {"AgentNotFound", "Agent %1% was not found or does not contain proper spec file"}},
    {&ParseFailed, {"Agent::ParseFailed", "Unable to parse spec file: %1%"}},
    {&UnableToCreateSession, {"UnableToCreateSession", "Unable to create session: %1%"}},
    {&NoParentNode, {"NoParentNode", "No parent node on requested XML element"}},
    {&AssertionFailed, {"AssertionFailed", "Assertion failed: %1%"}},
    {&tError_XmlInternal, {"tError_XmlInternal", "%1%"}},
    {&tError_SaveFile, {"tError_SaveFile", "Can not save the XML document to file '%1%'"}},
    {&tError_ParseFile, {"tError_ParseFile", "The XML file %1% was not parsed successfully with the following errors:\n%2%"}},
    {&tError_WrongInputFile, {"tError_WrongInputFile", "The XML file does not exist or is not a regular file. Check the file '%1%'"}},
    {&tError_EmptyDoc, {"tError_EmptyDoc", "The document is empty. Can not find root element <%1%>"}},
    {&tError_WrongDoc, {"tError_WrongDoc", "The document has the wrong type, root node is <%2%>, but <%1%> was expected"}},
    {&NoSuchAttribute, {"NoSuchAttribute", "Node %1% does not have attribute %2%"}},
    {&tError_XPath_CantEvaluate, {"tError_XPath_CantEvaluate", "The XML document is invalid for XPath exception.\nCan not evaluate result of expression '%1%'"}},
    {&tError_XPath_TypesMismatch, {"tError_XPath_TypesMismatch", "The result of expression '%1%' is not a '%2%' type"}},
    {&CantRenameFile, {"CantRenameFile", "Cannot rename %1% to %2%: %3%"}},
    {&CantStatFS, {"CantStatFS", "Cannot stat filesystem containing %1%: %2%"}},
    {&CantCreateTempFile, {"CantCreateTempFile", "Can not create temporary file with the template '%1%': %2%."}},
    {&UnsafeContentFileName, {"UnsafeContentFileName", "Refusing to retrieve content file '%1%': the name leads outside the content directory"}},
};

}  // namespace

const ExTagInfo& exTagInfo(ExTag tag) {
    static const std::map<ExTag, ExTagInfo> byTag = [] {
        std::map<ExTag, ExTagInfo> m;
        for (const TagRow& row : tagTable) m.emplace(row.tag, row.info);
        return m;
    }();
    auto it = byTag.find(tag);
    if (it == byTag.end()) throw std::logic_error("exception tag without a table row");
    return it->second;
}

ExInfoVisitor::~ExInfoVisitor() {}
void ExInfoVisitor::setSeverity(int) {}

ExVisitable::~ExVisitable() {}

ExTraceable::ExTraceable(const std::string& code, const std::string& format)
    : std::runtime_error(code), message_(format), id_(newUUID()), severity_(3) {}

ExTraceable::~ExTraceable() {}

ExTraceable* ExTraceable::clone() const { return new ExTraceable(*this); }

const char* ExTraceable::what() const noexcept {
    try {
        text_ = message_.str();
    } catch (...) {
        // A site fed the wrong number of arguments: keep the failure visible.
        try {
            text_ = code() + " (message arguments do not fit its format)";
        } catch (...) {
            return "message arguments do not fit its format";
        }
    }
    return text_.c_str();
}

void ExTraceable::accept(ExInfoVisitor& visitor) const {
    visitor.setCode(code());
    visitor.setId(id_);
    visitor.setSeverity(severity_);
    visitor.setMessage(what());
}


ExTaggedIncludable::ExTaggedIncludable(const std::string& code, const std::string& format)
    : ExTraceable(code, format) {}

ExTaggedIncludable::ExTaggedIncludable(const std::string& code, const std::string& format,
                                       const ExTraceable& inner)
    : ExTraceable(code, format), inner_(inner.clone()) {}

ExTaggedIncludable::ExTaggedIncludable(const ExTaggedIncludable& other)
    : ExTraceable(other), inner_(other.inner_ ? other.inner_->clone() : nullptr) {}

ExTaggedIncludable::~ExTaggedIncludable() {}

ExTaggedIncludable* ExTaggedIncludable::clone() const { return new ExTaggedIncludable(*this); }

void ExTaggedIncludable::accept(ExInfoVisitor& visitor) const {
    ExTraceable::accept(visitor);
    acceptInner(visitor);
}

void ExTaggedIncludable::acceptInner(ExInfoVisitor& visitor) const {
    if (inner_) {
        visitor.advanceToInnerException();
        inner_->accept(visitor);
    }
}

std::string newUUID() {
    static const char hex[] = "0123456789abcdef";
    std::string id = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
    for (char& c : id)
        if (c == 'x') c = hex[std::rand() & 15];
    return id;
}

std::string TextMsgFormatter::render() const {
    return (boost::format("%1%[%2%]: %3% [%4%:%5%]\n%6%") % code_ % id_ % message_ % file_ % line_ % context_)
        .str();
}

void TextMsgFormatter::advanceToInnerException() {
    text_ += render();
    text_ += "\nInner exception:\n";
}

std::string TextMsgFormatter::result() const { return text_ + render(); }

std::string formatPlainTextMessage(const ExTraceable& e) {
    TextMsgFormatter formatter;
    e.accept(formatter);
    return formatter.result();
}

}  // namespace velmo
