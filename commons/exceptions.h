// The one exception family of vantrel: a failure kind is a tag object holding
// its code and message format, the exception type is Exc<&Tag>; a throw site
// feeds the message placeholders with operator% and records where it threw:
//
//     throw VELMO_EXC(SudoNotAllowed) % login % host;
//     throw VELMO_EXC_INNER(CantRetrieveDump, caught);
#ifndef VANTREL_COMMONS_EXCEPTIONS_H
#define VANTREL_COMMONS_EXCEPTIONS_H

#include <memory>
#include <stdexcept>
#include <string>

#include <boost/format.hpp>

class Cloneable {
public:
    virtual ~Cloneable();
    // A new heap copy, owned by the caller.
    virtual Cloneable* clone() const = 0;
};

// A failure kind: the code reported for it and its message format. Each tag is
// one object, so that its address tells it apart from every other tag.
struct ExTag {
    const char* code;
    const char* format;
};

// Tags declared outside the namespace.
extern const ExTag OptParsingError;
extern const ExTag NoAgentDirectory;
extern const ExTag NoSharedAgentsDirectory;

namespace velmo {

class ExInfoVisitor {
public:
    virtual ~ExInfoVisitor();
    virtual void setCode(const std::string& code) = 0;
    virtual void setId(const std::string& id) = 0;
    virtual void setMessage(const std::string& message) = 0;
    virtual void setContext(const std::string& context) = 0;
    virtual void setFile(const std::string& file) = 0;
    virtual void setLine(int line) = 0;
    virtual void advanceToInnerException() = 0;
    virtual void setSeverity(int severity);
};

class ExVisitable {
public:
    virtual ~ExVisitable();
    virtual void accept(ExInfoVisitor& visitor) const = 0;
};

class ExTraceable : public Cloneable, public ExVisitable, public std::runtime_error {
public:
    ExTraceable(const std::string& code, const std::string& format);
    ExTraceable(const ExTraceable&) = default;
    ~ExTraceable() override;

    ExTraceable* clone() const override;
    // Throws a copy of this exception as the type it is.
    [[noreturn]] virtual void raise() const;
    // Renders the message with the arguments fed so far. Never throws.
    const char* what() const noexcept override;
    void accept(ExInfoVisitor& visitor) const override;

    std::string code() const { return std::runtime_error::what(); }
    const std::string& id() const { return id_; }
    int severity() const { return severity_; }

protected:
    template <class T> void feedValue(const T& value) { message_ % value; }

    boost::format message_;
    mutable std::string text_;
    std::string id_;
    int severity_;
};

class ExTaggedIncludable : public ExTraceable {
public:
    ExTaggedIncludable(const std::string& code, const std::string& format);
    ExTaggedIncludable(const std::string& code, const std::string& format, const ExTraceable& inner);
    ExTaggedIncludable(const ExTaggedIncludable& other);
    ExTaggedIncludable& operator=(const ExTaggedIncludable&) = delete;
    ~ExTaggedIncludable() override;

    ExTaggedIncludable* clone() const override;
    [[noreturn]] void raise() const override;
    void accept(ExInfoVisitor& visitor) const override;

    // The failure that caused this one, or null.
    const ExTraceable* inner() const { return inner_.get(); }

protected:
    void acceptInner(ExInfoVisitor& visitor) const;

private:
    std::unique_ptr<ExTraceable> inner_;
};

template <const ExTag* tag>
class Exc : public ExTaggedIncludable {
public:
    Exc(const std::string& context, const std::string& file, int line)
        : ExTaggedIncludable(tag->code, tag->format),
          context_(context), file_(file), line_(line) {}
    Exc(const ExTraceable& inner, const std::string& context, const std::string& file, int line)
        : ExTaggedIncludable(tag->code, tag->format, inner),
          context_(context), file_(file), line_(line) {}

    Exc* clone() const override { return new Exc(*this); }
    [[noreturn]] void raise() const override { throw *this; }

    void accept(ExInfoVisitor& visitor) const override {
        visitor.setContext(context_);
        visitor.setFile(file_);
        visitor.setLine(line_);
        visitor.setCode(code());
        visitor.setId(id_);
        visitor.setSeverity(severity_);
        visitor.setMessage(what());
        acceptInner(visitor);
    }

    // Feeds one placeholder of the message format.
    template <class T> Exc& operator%(const T& value) {
        feedValue(value);
        return *this;
    }

    const std::string& context() const { return context_; }
    const std::string& file() const { return file_; }
    int line() const { return line_; }

private:
    std::string context_;
    std::string file_;
    int line_;
};

// A new random identifier of the form xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx,
// drawn from the system's random source.
std::string newUUID();

// Renders an exception and its inner exceptions as plain text.
class TextMsgFormatter : public ExInfoVisitor {
public:
    void setCode(const std::string& code) override { code_ = code; }
    void setId(const std::string& id) override { id_ = id; }
    void setMessage(const std::string& message) override { message_ = message; }
    void setContext(const std::string& context) override { context_ = context; }
    void setFile(const std::string& file) override { file_ = file; }
    void setLine(int line) override { line_ = line; }
    void advanceToInnerException() override;
    void setSeverity(int severity) override { severity_ = severity; }

    // The accumulated text followed by the current fields.
    std::string result() const;

private:
    std::string render() const;

    std::string text_;
    std::string code_;
    std::string id_;
    std::string context_;
    std::string file_;
    int line_ = 0;
    std::string message_;
    int severity_ = 0;
};

std::string formatPlainTextMessage(const ExTraceable& e);

// The tags of the system; exceptions.cpp gives their codes and formats.
extern const ExTag UnknownAction;
extern const ExTag HostNotFound;
extern const ExTag ConnectionRefused;
extern const ExTag ConnectionTimedOut;
extern const ExTag NetworkUnreachable;
extern const ExTag HostUnreachable;
extern const ExTag ConnectionFault;
extern const ExTag InvalidHandle;
extern const ExTag UnableToStartSshSession;
extern const ExTag SshAuthorizationFailed;
extern const ExTag SshInvalidCredentials;
extern const ExTag SshConnectionFault;
extern const ExTag UnableToSendEof;
extern const ExTag StreamRead;
extern const ExTag StreamWrite;
extern const ExTag SudoNotFound;
extern const ExTag SudoNotAllowed;
extern const ExTag CantTakeFileOwnership;
extern const ExTag UnableToOpenScoutFile;
extern const ExTag FailedToExecuteScout;
extern const ExTag CantCreateAgentDirectory;
extern const ExTag CantRequestAgentStatus;
extern const ExTag DumpStatusError;
extern const ExTag CantRetrieveDump;
extern const ExTag CantRetrieveDumpFile;
extern const ExTag FileWrite;
extern const ExTag CantRetrieveContentList;
extern const ExTag CantRetrieveContentFile;
extern const ExTag UnableToRemoveRemoteFile;
extern const ExTag NotEnoughSpace;
extern const ExTag AgentNotFound;
extern const ExTag ParseFailed;
extern const ExTag UnableToCreateSession;
extern const ExTag AssertionFailed;
extern const ExTag tError_XmlInternal;
extern const ExTag tError_SaveFile;
extern const ExTag tError_ParseFile;
extern const ExTag tError_WrongInputFile;
extern const ExTag tError_EmptyDoc;
extern const ExTag tError_WrongDoc;
extern const ExTag NoSuchAttribute;
extern const ExTag tError_XPath_CantEvaluate;
extern const ExTag tError_XPath_TypesMismatch;
extern const ExTag CantRenameFile;
extern const ExTag CantStatFS;
extern const ExTag CantCreateTempFile;
// A relative agent directory whose base, the login's home, is unknown.
extern const ExTag CantFindHomeDirectory;
// The source host showed another key than the pinned one.
extern const ExTag HostKeyMismatch;
// The pinned key (KVA_HOST_KEY or the session's file) cannot be used.
extern const ExTag BadHostKeyPin;
// A size in the content list that is no number (the conversion's text follows).
extern const ExTag BadContentListNumber;
// A content archive whose bytes are not the listed ones: not kept, not
// removed on the source host.
extern const ExTag ContentFileMismatch;
// A remote file that could not be written (the remote error follows).
extern const ExTag CantWriteRemoteFile;
// Refusal of a content list entry that would leave the content directory.
extern const ExTag UnsafeContentFileName;
// A link where vantrel, as root, expected a file or a directory of its own.
extern const ExTag LinkNotFollowed;
// The source host refused a channel, a terminal or to run a command (what
// follows): not a lost connection, and not tried again.
extern const ExTag CommandRefused;
// sudo on the source host runs only on a terminal, and the command could
// not run on one (what stood in the way follows).
extern const ExTag SudoNeedsTerminal;
// A private key file that cannot be used for the login (its exit code is
// that of refused credentials).
extern const ExTag SshKeyUnusable;
// A second run on a session that another run holds.
extern const ExTag SessionBusy;
// Content names that would land on a session file or on each other.
extern const ExTag ContentNamesCollide;
// A local directory that cannot be opened or made.
extern const ExTag CantOpenDirectory;

}  // namespace velmo

// Builds an exception of the given tag at the current source position.
#define VELMO_EXC(tag) ::velmo::Exc<&tag>(__PRETTY_FUNCTION__, __FILE__, __LINE__)
// The same, carrying a copy of an inner exception.
#define VELMO_EXC_INNER(tag, inner) ::velmo::Exc<&tag>((inner), __PRETTY_FUNCTION__, __FILE__, __LINE__)

#endif
