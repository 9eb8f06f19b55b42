// The archives of one content list on their way home over any number of
// streams, each a remote/content-sender.pl on a connection of its own.
#ifndef VANTREL_CONTENT_RECEIVER_H
#define VANTREL_CONTENT_RECEIVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commons/formats.h"
#include "commons/local_files.h"
#include "vantrel/archive_writer.h"
#include "vantrel/content_frames.h"

namespace velmo {

// Hands out what each stream asks its sender for next, and takes what the
// senders answer, archive by archive: an archive is written by one
// ArchiveWriter and takes its name once its size and sum are proven. A large
// archive goes in byte ranges over several streams. Connections are not its
// business, so that tests can drive it with bytes of their own.
class ContentReceiver {
public:
    struct Archive {
        const DumpFile* record;
        std::string remote;  // its path on the source host, for messages
        Directory dir;       // where it lands, made already
        int64_t from;        // bytes of its part to go on from
    };
    struct Events {
        std::function<void(std::size_t)> started;  // its first bytes were asked for
        std::function<void(std::size_t)> arrived;  // proven and under its name
        std::function<void(int, int64_t)> received;  // bytes of any archive, by a stream
    };

    // rangeSize: the largest piece of an archive one request asks for when
    // there are several streams; the pieces shrink as the work left does,
    // so that the streams end together. roundTripMs: of the link, for how
    // much each stream keeps on its way.
    ContentReceiver(std::vector<Archive> archives, int streams, int64_t rangeSize, const std::string& host,
                    Events events, double roundTripMs = 0);
    ~ContentReceiver();

    // The next requests of stream s while it has too little on its way, or
    // an empty text.
    std::string nextRequests(int s);
    // What the sender of stream s sent. A failed or garbled answer throws
    // Exc<&CantRetrieveContentFile>, an archive unlike its listing
    // Exc<&ContentFileMismatch> (its part removed).
    void received(int s, const char* bytes, std::size_t length);
    // Stream s broke: what it had on its way is handed out again from where
    // its bytes end; they are kept.
    void lost(int s);
    // The sender of stream s left with requests unanswered, for why:
    // Exc<&CantRetrieveContentFile> naming the archive it was on.
    [[noreturn]] void senderGone(int s, const std::string& why);

    bool finished() const { return left_ == 0; }
    // Whether stream s waits for an answer, and whether anything is left to
    // hand out.
    bool waiting(int s) const { return !onWay_[s].empty(); }
    bool anythingToAsk() const;
    // Bytes here of archive i (a part it went on from included), and the
    // archive that is first in the list among those on their way.
    int64_t held(std::size_t i) const;
    std::size_t current() const;
    bool isOnItsWay(std::size_t i) const;

private:
    struct Unit {
        std::size_t archive;
        int64_t offset;
        int64_t length;
        int64_t got;
    };
    struct State;
    // What a stream brought lately, in bytes per millisecond.
    struct Pace {
        int64_t since = 0;
        std::chrono::steady_clock::time_point mark = std::chrono::steady_clock::now();
        double bytesPerMs = 0;
    };

    bool take(Unit& unit);
    // How much of an archive the next piece takes, and how much stream s
    // keeps on its way: what it brings in two round trips.
    int64_t pieceSize() const;
    int64_t enoughOnWay(int s) const;
    // Whether stream s may take more: near the end (what is not asked for
    // yet fits in what the streams keep on their way) only the stream that
    // will be through with its work first does, so that they end together.
    bool doneFirst(int s) const;
    void paced(int s, int64_t bytes);
    void event(int s, const SenderEvent& event);
    void ended(Unit unit);
    void finish(std::size_t i);
    [[noreturn]] void fail(std::size_t i, const std::string& why);

    std::vector<Archive> archives_;
    std::vector<State> states_;
    int64_t rangeSize_;
    std::string host_;
    Events events_;
    std::size_t left_;
    std::size_t nextArchive_ = 0;
    std::deque<Unit> handedBack_;
    std::vector<std::deque<Unit>> onWay_;
    std::vector<int64_t> bytesOnWay_;
    std::vector<SenderFrames> frames_;
    std::vector<Pace> paces_;
    double roundTripMs_;
    int64_t unasked_ = 0;  // bytes not asked for yet, in all
};

}  // namespace velmo

#endif
