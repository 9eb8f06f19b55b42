#include "commons/byte_channels.h"

#include <algorithm>

#include "commons/exceptions.h"
#include "commons/stop.h"

namespace velmo {

IOReadChannel::~IOReadChannel() {}
IOWriteChannel::~IOWriteChannel() {}

int IOStreamReadChannel::read(char* buffer, unsigned size) {
    if (in_.eof())
        return 0;
    in_.read(buffer, size);
    return static_cast<int>(in_.gcount());
}

bool IOStreamReadChannel::rewind() {
    in_.clear();
    in_.seekg(0);
    return !in_.fail();
}

int IOStreamWriteChannel::write(const char* data, unsigned size) {
    out_.write(data, size);
    if (out_.bad() || out_.fail())
        return -1;
    return static_cast<int>(size);
}

int BoundedText::write(const char* data, unsigned size) {
    const std::size_t toHead = std::min<std::size_t>(size, half_ - head_.size());
    head_.append(data, toHead);
    tail_.append(data + toHead, size - toHead);
    if (tail_.size() > half_) {
        leftOut_ += tail_.size() - half_;
        tail_.erase(0, tail_.size() - half_);
    }
    return static_cast<int>(size);
}

std::string BoundedText::str() const {
    if (leftOut_ == 0) return head_ + tail_;
    return head_ + "\n[... " + std::to_string(leftOut_) + " bytes left out ...]\n" + tail_;
}

int NewFileWriter::write(const char* data, unsigned size) {
    file_.write(data, size);
    return static_cast<int>(size);
}

std::ostream& operator<<(std::ostream& out, const memchunk_log& chunk) {
    for (std::size_t i = 0; i < chunk.length; ++i)
        out << chunk.data[i];
    return out;
}

void pump_write(IOWriteChannel& to, const char* data, int length) {
    checkProgramTerminated();
    while (length > 0) {
        const int written = to.write(data, static_cast<unsigned>(length));
        if (written < 0)
            throw VELMO_EXC(StreamWrite);
        data += written;
        length -= written;
    }
}

}  // namespace velmo
