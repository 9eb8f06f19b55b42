// Sources and sinks of the bytes that remote commands take and give.
#ifndef VANTREL_COMMONS_BYTE_CHANNELS_H
#define VANTREL_COMMONS_BYTE_CHANNELS_H

#include <cstddef>
#include <istream>
#include <ostream>
#include <string>

#include "commons/local_files.h"

namespace velmo {

// Source of bytes: more than 0 is a chunk, 0 the end of input, -1 an error,
// later that nothing is there yet but more will come: asked again once the
// command's channel has news, or the loop's wait is over.
class IOReadChannel {
public:
    static const int later = -2;
    virtual ~IOReadChannel();
    virtual int read(char* buffer, unsigned size) = 0;
    // Starts again from the first byte, for a command that runs once more;
    // false when this source cannot.
    virtual bool rewind() { return false; }
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
    bool rewind() override;

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

// No input at all.
class EmptyInput : public IOReadChannel {
public:
    int read(char*, unsigned) override { return 0; }
    bool rewind() override { return true; }
};

// Writes the whole chunk, calling to again for what it did not take; checks
// the termination flag first; Exc<&StreamWrite> on an error of to.
void pump_write(IOWriteChannel& to, const char* data, int length);

}  // namespace velmo

#endif
