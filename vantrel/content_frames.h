// The framing that remote/content-sender.pl puts around the archives it
// sends, read back from whatever the source host sends. No I/O: it is fed
// bytes and says what they mean.
#ifndef VANTREL_CONTENT_FRAMES_H
#define VANTREL_CONTENT_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velmo {

// One thing the sender said about the archive it is on.
struct SenderEvent {
    enum Kind {
        opened,   // "S <size>": the file is open; size is its length there
        data,     // bytes of the archive, in order, from where it was asked
        ended,    // "E": the bytes asked for are through
        failed,   // "E <error>": the file could not be opened or read
        garbled,  // nothing the sender would send: the rest is not to be trusted
    };
    explicit SenderEvent(Kind kind) : kind(kind) {}
    Kind kind;
    int64_t size = 0;
    const char* bytes = nullptr;  // data: into what was fed
    std::size_t length = 0;
    std::string text;  // failed: the sender's error; garbled: what was wrong
};

class SenderFrames {
public:
    // The events that bytes complete, in order; data events point into
    // bytes. Once garbled, nothing more is read.
    std::vector<SenderEvent> feed(const char* bytes, std::size_t length);

    // Longest block the sender announces, and longest header line it writes.
    static const int64_t kMaxBlock = 16 << 20;
    static const std::size_t kMaxHeader = 4096;

private:
    void header(const std::string& line, std::vector<SenderEvent>& events);

    std::string line_;
    int64_t blockLeft_ = 0;
    bool open_ = false;
    bool garbled_ = false;
};

}  // namespace velmo

#endif
