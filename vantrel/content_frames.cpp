#include "vantrel/content_frames.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace velmo {

namespace {

// A decimal number and nothing else, within limit; -1 otherwise.
int64_t number(const std::string& text, int64_t limit) {
    if (text.empty()) return -1;
    int64_t value = 0;
    for (const char c : text) {
        const int digit = c - '0';
        if (!std::isdigit(static_cast<unsigned char>(c)) || value > (limit - digit) / 10) return -1;
        value = value * 10 + digit;
    }
    return value;
}

SenderEvent garbled(const std::string& why) {
    SenderEvent event(SenderEvent::garbled);
    event.text = why;
    return event;
}

}  // namespace

std::vector<SenderEvent> SenderFrames::feed(const char* bytes, std::size_t length) {
    std::vector<SenderEvent> events;
    const char* at = bytes;
    const char* end = bytes + length;
    while (at < end && !garbled_) {
        if (blockLeft_ > 0) {
            const std::size_t n = static_cast<std::size_t>(std::min<int64_t>(blockLeft_, end - at));
            SenderEvent event(SenderEvent::data);
            event.bytes = at;
            event.length = n;
            events.push_back(event);
            at += n;
            blockLeft_ -= static_cast<int64_t>(n);
            continue;
        }
        const char* lineEnd = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        line_.append(at, lineEnd ? lineEnd : end);
        if (line_.size() > kMaxHeader) {
            garbled_ = true;
            events.push_back(garbled("a header line of more than " + std::to_string(kMaxHeader) + " bytes"));
            break;
        }
        if (!lineEnd) break;
        at = lineEnd + 1;
        const std::string line = line_;
        line_.clear();
        header(line, events);
    }
    return events;
}

void SenderFrames::header(const std::string& line, std::vector<SenderEvent>& events) {
    const std::string word = line.substr(0, 2);
    if (word == "S " && !open_) {
        SenderEvent event(SenderEvent::opened);
        event.size = number(line.substr(2), INT64_MAX);
        if (event.size >= 0) {
            open_ = true;
            events.push_back(event);
            return;
        }
    } else if (word == "D " && open_) {
        blockLeft_ = number(line.substr(2), kMaxBlock);
        if (blockLeft_ > 0) return;
    } else if (line == "E" && open_) {
        open_ = false;
        events.push_back(SenderEvent(SenderEvent::ended));
        return;
    } else if (word == "E " && line.size() > 2) {
        open_ = false;
        SenderEvent event(SenderEvent::failed);
        event.text = line.substr(2);
        events.push_back(event);
        return;
    }
    garbled_ = true;
    events.push_back(garbled("the line '" + line.substr(0, 64) + "'"));
}

}  // namespace velmo
