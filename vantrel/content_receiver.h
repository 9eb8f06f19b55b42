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
#include "commons/mutex.h"
#include "vantrel/archive_writer.h"
#include "vantrel/content_frames.h"

namespace velmo {

// Hands out what each stream asks its sender for next, and takes what the
// senders answer, archive by archive: an archive is written by one
// ArchiveWriter and takes its name once its size and sum are proven. A large
// archive goes in byte ranges over several streams. Connections are not its
// business, so that tests can drive it with bytes of their own.
//
// Threads: each stream is serviced by one thread at a time (nextRequests,
// received), and any thread may ask the rest. The schedule is guarded by
// mutex_; no archive is opened, written, summed or renamed under it, and the
// events are called without it.
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
    // an empty text (also while another stream opens the next archive).
    std::string nextRequests(int s) EXCLUDES(mutex_);
    // What the sender of stream s sent. A failed or garbled answer throws
    // Exc<&CantRetrieveContentFile>, an archive unlike its listing
    // Exc<&ContentFileMismatch> (its part removed).
    void received(int s, const char* bytes, std::size_t length) EXCLUDES(mutex_);
    // Stream s broke (and nothing services it): what it had on its way is
    // handed out again from where its bytes end; they are kept.
    void lost(int s) EXCLUDES(mutex_);
    // The sender of stream s left with requests unanswered, for why:
    // Exc<&CantRetrieveContentFile> naming the archive it was on.
    [[noreturn]] void senderGone(int s, const std::string& why) EXCLUDES(mutex_);

    bool finished() const EXCLUDES(mutex_);
    // Whether stream s waits for an answer, and whether anything is left to
    // hand out.
    bool waiting(int s) const EXCLUDES(mutex_);
    bool anythingToAsk() const EXCLUDES(mutex_);
    // Bytes here of archive i (a part it went on from included), and the
    // archive that is first in the list among those on their way.
    int64_t held(std::size_t i) const EXCLUDES(mutex_);
    std::size_t current() const EXCLUDES(mutex_);
    // Archive i's name in the list, and its size.
    const std::string& name(std::size_t i) const EXCLUDES(mutex_);
    int64_t size(std::size_t i) const EXCLUDES(mutex_);

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

    // The next unit to ask for. opening: archive i (unit.archive) is to be
    // opened by the caller first; busy: another stream opens the next one.
    enum class Take { unit, opening, busy, nothing };
    Take take(Unit& unit) REQUIRES(mutex_);
    // Makes the writer of archive i, which take() marked as opening,
    // without the lock.
    void open(std::size_t i) EXCLUDES(mutex_);
    // How much of an archive the next piece takes, and how much stream s
    // keeps on its way: what it brings in two round trips.
    int64_t pieceSize() const REQUIRES(mutex_);
    int64_t enoughOnWay(int s) const REQUIRES(mutex_);
    // Whether stream s may take more: near the end (what is not asked for
    // yet fits in what the streams keep on their way) only the stream that
    // will be through with its work first does, so that they end together.
    bool doneFirst(int s) const REQUIRES(mutex_);
    void paced(int s, int64_t bytes) REQUIRES(mutex_);
    void event(int s, const SenderEvent& event) EXCLUDES(mutex_);
    // A unit is through; when it was the last of its archive, the archive's
    // writer is handed to the caller, who proves it (prove) without the lock.
    std::unique_ptr<ArchiveWriter> ended(Unit unit) REQUIRES(mutex_);
    void prove(std::size_t i, std::unique_ptr<ArchiveWriter> writer) EXCLUDES(mutex_);
    [[noreturn]] void fail(std::size_t i, const std::string& why) REQUIRES(mutex_);

    // Unchanged after construction.
    const int64_t rangeSize_;
    const std::string host_;
    const Events events_;
    const double roundTripMs_;

    // Each stream's parser belongs to the thread that services the stream.
    std::vector<SenderFrames> frames_;

    // State below is protected by mutex_.
    mutable Mutex mutex_;
    std::vector<Archive> archives_ GUARDED_BY(mutex_);
    std::vector<State> states_ GUARDED_BY(mutex_);
    std::size_t left_ GUARDED_BY(mutex_);
    std::size_t nextArchive_ GUARDED_BY(mutex_) = 0;
    std::deque<Unit> handedBack_ GUARDED_BY(mutex_);
    std::vector<std::deque<Unit>> onWay_ GUARDED_BY(mutex_);
    std::vector<int64_t> bytesOnWay_ GUARDED_BY(mutex_);
    std::vector<Pace> paces_ GUARDED_BY(mutex_);
    int64_t unasked_ GUARDED_BY(mutex_) = 0;  // bytes not asked for yet, in all
};

}  // namespace velmo

#endif
