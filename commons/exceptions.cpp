#include "commons/exceptions.h"

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_generators.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "commons/mutex.h"

Cloneable::~Cloneable() {}

#define VELMO_TAG(name, code, format) const ExTag name = {code, format};

VELMO_TAG(OptParsingError, "OptParsingError", "Unable to parse command line: %1%")
VELMO_TAG(NoAgentDirectory, "NoAgentDirectory", "Directory for agent '%1%' does not exist")
VELMO_TAG(NoSharedAgentsDirectory, "NoSharedAgentsDirectory", "'shared' agents directory not found")

namespace velmo {

VELMO_TAG(UnknownAction, "UnknownAction",
          "Unknown action passed to the function. Probably bug in the options parser")
VELMO_TAG(HostNotFound, "HostNotFound", "Unable to resolve hostname %1%: %2%")
VELMO_TAG(ConnectionRefused, "ConnectionRefused", "No one listening on the remote address at host %1%")
VELMO_TAG(ConnectionTimedOut, "ConnectionTimedOut", "Timeout while attempting connection to host %1%")
VELMO_TAG(NetworkUnreachable, "NetworkUnreachable", "Specified network host %1% is unreachable")
VELMO_TAG(HostUnreachable, "HostUnreachable", "No route to host %1%")
VELMO_TAG(ConnectionFault, "ConnectionFault", "Unable to connect to host %1%: %2%")
VELMO_TAG(InvalidHandle, "InvalidHandle", "Invalid handle passed")
VELMO_TAG(UnableToStartSshSession, "UnableToStartSshSession", "Unable to start SSH session: %1%")
VELMO_TAG(SshAuthorizationFailed, "SshAuthorizationFailed", "No suitable username/password found")
VELMO_TAG(SshInvalidCredentials, "SshInvalidCredentials",
          "Unable to connect to host %1%: you have specified incorrect username or password")
VELMO_TAG(SshConnectionFault, "SshConnectionFault", "Lost connection with the remote host")
VELMO_TAG(UnableToSendEof, "UnableToSendEof", "Unable to send EOF to SSH channel: %1%")
VELMO_TAG(StreamRead, "StreamRead", "Cannot read data from the stream")
VELMO_TAG(StreamWrite, "StreamWrite", "Cannot write data to the stream")
VELMO_TAG(SudoNotFound, "SudoNotFound",
          "sudo command not found on the host %1%. You should install sudo to this host or supply root password for the migration.")
VELMO_TAG(SudoNotAllowed, "SudoNotAllowed", "sudo is not allowed for user %1% on host %2%.")
VELMO_TAG(CantTakeFileOwnership, "CantTakeFileOwnership", "Cannot take ownership of %1%: %2%")
VELMO_TAG(UnableToOpenScoutFile, "UnableToOpenScoutFile",
          "Unable to open %1% for transferring to the remote host")
VELMO_TAG(FailedToExecuteScout, "FailedToExecuteScout",
          "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%")
VELMO_TAG(CantCreateAgentDirectory, "CantCreateAgentDirectory",
          "Can't create agent directory %1% on the remote host: %2%")
VELMO_TAG(CantRequestAgentStatus, "CantRequestAgentStatus",
          "Cannot request remote agent status using command line %1%: %2%")
VELMO_TAG(DumpStatusError, "DumpStatusError", "Error during getting dumping status")
VELMO_TAG(CantRetrieveDump, "CantRetrieveDump", "Error during dump retrieval")
VELMO_TAG(CantRetrieveDumpFile, "CantRetrieveDumpFile",
          "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: %1%")
VELMO_TAG(FileWrite, "FileWrite", "Error during %1% write: %2%")
VELMO_TAG(CantRetrieveContentList, "CantRetrieveContentList", "Error during content list retrieval: %1%")
VELMO_TAG(CantRetrieveContentFile, "CantRetrieveContentFile",
          "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%")
VELMO_TAG(UnableToRemoveRemoteFile, "UnableToRemoveRemoteFile",
          "Unable to remove remote file '%1%' from '%2%': %3%")
VELMO_TAG(NotEnoughSpace, "NotEnoughSpace",
          "Selected filesystem has only %1% free space, but %2% is needed for operation")
VELMO_TAG(AgentNotFound, "AgentNotFound", "Agent %1% was not found or does not contain proper spec file")
VELMO_TAG(ParseFailed, "Agent::ParseFailed", "Unable to parse spec file: %1%")
VELMO_TAG(UnableToCreateSession, "UnableToCreateSession", "Unable to create session: %1%")
VELMO_TAG(AssertionFailed, "AssertionFailed", "Assertion failed: %1%")
VELMO_TAG(tError_XmlInternal, "tError_XmlInternal", "%1%")
VELMO_TAG(tError_SaveFile, "tError_SaveFile", "Can not save the XML document to file '%1%'")
VELMO_TAG(tError_ParseFile, "tError_ParseFile",
          "The XML file %1% was not parsed successfully with the following errors:\n%2%")
VELMO_TAG(tError_WrongInputFile, "tError_WrongInputFile",
          "The XML file does not exist or is not a regular file. Check the file '%1%'")
VELMO_TAG(tError_EmptyDoc, "tError_EmptyDoc", "The document is empty. Can not find root element <%1%>")
VELMO_TAG(tError_WrongDoc, "tError_WrongDoc",
          "The document has the wrong type, root node is <%2%>, but <%1%> was expected")
VELMO_TAG(NoSuchAttribute, "NoSuchAttribute", "Node %1% does not have attribute %2%")
VELMO_TAG(tError_XPath_CantEvaluate, "tError_XPath_CantEvaluate",
          "The XML document is invalid for XPath exception.\nCan not evaluate result of expression '%1%'")
VELMO_TAG(tError_XPath_TypesMismatch, "tError_XPath_TypesMismatch",
          "The result of expression '%1%' is not a '%2%' type")
VELMO_TAG(CantRenameFile, "CantRenameFile", "Cannot rename %1% to %2%: %3%")
VELMO_TAG(CantStatFS, "CantStatFS", "Cannot stat filesystem containing %1%: %2%")
VELMO_TAG(CantCreateTempFile, "CantCreateTempFile",
          "Can not create temporary file with the template '%1%': %2%.")
VELMO_TAG(CantFindHomeDirectory, "CantFindHomeDirectory",
          "Cannot find the login's home directory for the agent directory %1%: %2%")
VELMO_TAG(HostKeyMismatch, "HostKeyMismatch",
          "The host key of %1% is not the one of this migration: %2% was expected, %3% was offered; no password was sent")
VELMO_TAG(BadHostKeyPin, "BadHostKeyPin", "Cannot check the host key of %1% against %2%: %3%")
VELMO_TAG(BadContentListNumber, "BadContentListNumber",
          "The content list holds '%1%' where a number belongs: %2%")
VELMO_TAG(ContentFileMismatch, "ContentFileMismatch",
          "The content file '%1%' did not arrive whole: %2% bytes with MD5 sum %3% were listed, %4% bytes with MD5 sum %5% arrived")
VELMO_TAG(CantWriteRemoteFile, "CantWriteRemoteFile", "Cannot write the remote file %1%: %2%")
VELMO_TAG(UnsafeContentFileName, "UnsafeContentFileName",
          "Refusing to retrieve content file '%1%': the name leads outside the content directory")
VELMO_TAG(LinkNotFollowed, "LinkNotFollowed",
          "%1% is a symbolic link that another account can change: vantrel does not follow it")
VELMO_TAG(CommandRefused, "CommandRefused", "The source host refused %1%")
VELMO_TAG(SudoNeedsTerminal, "SudoNeedsTerminal", "sudo on %1% requires a terminal (Defaults requiretty): %2%")
VELMO_TAG(SshKeyUnusable, "SshKeyUnusable", "Unable to log in with the key %1%: %2%")
VELMO_TAG(SessionBusy, "SessionBusy",
          "The session %1% is in use by another run of vantrel: this run changed nothing there (its result is %2%)")
VELMO_TAG(ContentNamesCollide, "ContentNamesCollide",
          "The content list names files that would take the place of the session's own files or of each other: %1%")
VELMO_TAG(CantOpenDirectory, "CantOpenDirectory", "Cannot open or create the directory %1%: %2%")

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

void ExTraceable::raise() const { throw *this; }

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

void ExTaggedIncludable::raise() const { throw *this; }

void ExTaggedIncludable::acceptInner(ExInfoVisitor& visitor) const {
    if (inner_) {
        visitor.advanceToInnerException();
        inner_->accept(visitor);
    }
}

std::string newUUID() {
    // Runs started in the same second must not share identifiers: the ids
    // come from the system's random source, not from a generator seeded with
    // the time. A random UUID already has the "4"; its variant digit is one of
    // 8, 9, a, b and is pinned to "8".
    // Failures come on the streams' threads too: one generator, one at a time.
    static Mutex mutex;
    MutexLock hold(mutex);
    static boost::uuids::random_generator generate;
    std::string id = boost::uuids::to_string(generate());
    id[19] = '8';
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
