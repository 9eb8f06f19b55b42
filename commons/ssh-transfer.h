// The one authenticated connection to the source host: remote commands with
// streamed standard input, output and error, and file transfer built on them.
#ifndef VANTREL_COMMONS_SSH_TRANSFER_H
#define VANTREL_COMMONS_SSH_TRANSFER_H

#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <istream>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

#include "commons/libssh2pp.h"
#include "commons/local_files.h"
#include "commons/socket.h"

namespace velmo {

// A stop request: every transfer ends at its next chunk or wait. Stands
// outside the tagged exceptions; the driver treats it as a clean stop.
class MigrationTerminatedException : public std::runtime_error {
public:
    MigrationTerminatedException();
};

// Process-wide termination flag. terminateProgram() only stores into it, so
// it may be called from a signal handler.
extern volatile std::sig_atomic_t isProgramTerminated;
void terminateProgram();
// Throws MigrationTerminatedException once the flag is set.
void checkProgramTerminated();

// Source of bytes: more than 0 is a chunk, 0 the end of input, -1 an error.
class IOReadChannel {
public:
    virtual ~IOReadChannel();
    virtual int read(char* buffer, unsigned size) = 0;
};

// Sink of bytes: returns how many it accepted, or a negative error.
class IOWriteChannel {
public:
    virtual ~IOWriteChannel();
    virtual int write(const char* data, unsigned size) = 0;
};

// Reads an input stream; a stream that cannot be read reports end of input.
class IOStreamReadChannel : public IOReadChannel {
public:
    explicit IOStreamReadChannel(std::istream& in) : in_(in) {}
    int read(char* buffer, unsigned size) override;

private:
    std::istream& in_;
};

// Writes an output stream; -1 once the stream has failed.
class IOStreamWriteChannel : public IOWriteChannel {
public:
    explicit IOStreamWriteChannel(std::ostream& out) : out_(out) {}
    int write(const char* data, unsigned size) override;

private:
    std::ostream& out_;
};

// What a remote command says, kept within a bound however much it says: its
// first and last bytes, and how many were left out between them.
class BoundedText : public IOWriteChannel {
public:
    // Keeps at most keep bytes, half of them from the start.
    explicit BoundedText(std::size_t keep = 64 * 1024) : half_(keep / 2) {}
    int write(const char* data, unsigned size) override;
    // The start, a line that says how much was left out (if anything was),
    // and the end.
    std::string str() const;

private:
    std::size_t half_;
    std::string head_;
    std::string tail_;
    unsigned long long leftOut_ = 0;
};

// Writes a file that takes its name once it is whole; Exc<&FileWrite>.
class NewFileWriter : public IOWriteChannel {
public:
    explicit NewFileWriter(NewFile& file) : file_(file) {}
    int write(const char* data, unsigned size) override;

private:
    NewFile& file_;
};

// A block of bytes written to a log stream as it is: no escaping, no
// truncation, no line end.
struct memchunk_log {
    memchunk_log(const char* data, std::size_t length) : data(data), length(length) {}
    const char* data;
    std::size_t length;
};
std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk);

class Ssh {
public:
    // Receives the size of every chunk of standard output.
    class Counter {
    public:
        virtual ~Counter();
        virtual void operator()(int bytes) = 0;
    };
    class NullCounter : public Counter {
    public:
        void operator()(int) override {}
    };
    static NullCounter null_counter;

    // Connects and authenticates. A failed handshake is tried once more on a
    // new connection in compatibility mode; refused credentials give
    // Exc<&SshInvalidCredentials>.
    Ssh(const std::string& host, const std::string& login, const std::string& password,
        bool disableEncryption, unsigned short port);
    ~Ssh();

    Ssh(const Ssh&) = delete;
    Ssh& operator=(const Ssh&) = delete;

    // Work the execution loop does about every interval while a remote command
    // runs, at a pass between two reads; it may use this connection. The loop
    // never waits longer than the time left until the task is due. The task
    // returns false to stop being run; it is not run again while it runs.
    void setPeriodic(std::chrono::milliseconds interval, std::function<bool()> task);
    void clearPeriodic() { periodic_ = nullptr; }

    // Runs command with in as its standard input (all of it, then the end of
    // file) and passes its standard output and error to out and err as they
    // arrive. Returns the exit status; a command killed by a signal counts as
    // 255. quietOutput keeps output chunks out of the log, quietInput input
    // chunks. The connection gone gives Exc<&SshConnectionFault>.
    int exec(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
             bool quietOutput, bool quietInput, Counter& counter);
    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Counter& counter);
    int exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
             Counter& counter);

    // Reads a remote file with "cat"; returns the exit status.
    int get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter);
    int get(std::ostream& out, const std::string& remotePath);
    // The same into a local file (mode 0640, kvaadm's), which takes its name
    // only when the read succeeds: a read that fails, by status or by error,
    // leaves what stood there before. A link under that name is replaced,
    // never written through.
    int get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
            Counter& counter);
    int get(const std::string& localPath, const std::string& remotePath);

    // Writes a remote file with "cat >"; a write that fails on the remote side
    // gives Exc<&CantWriteRemoteFile> with the remote error.
    void put(std::istream& in, const std::string& remotePath);
    // The same from a local file; a file that cannot be opened throws
    // Exc<&StreamRead> before anything is sent.
    void put(const std::string& localPath, const std::string& remotePath);

private:
    void logIn(const std::string& host, const std::string& login, const std::string& password,
               bool disableEncryption, unsigned short port);
    int execChannel(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
                    bool quietOutput, bool quietInput, Counter& counter);
    // Runs the periodic task when it is due; returns the milliseconds the loop
    // may wait at most before it is due again.
    int runPeriodicTask();

    std::unique_ptr<Socket> socket_;
    std::unique_ptr<libssh2pp::Session> session_;
    std::function<bool()> periodic_;
    std::chrono::milliseconds periodicInterval_{0};
    std::chrono::steady_clock::time_point periodicDue_;
};

// Writes the whole chunk, calling to again for what it did not take; checks
// the termination flag first; Exc<&StreamWrite> on an error of to.
void pump_write(IOWriteChannel& to, const char* data, int length);

}  // namespace velmo

#endif
