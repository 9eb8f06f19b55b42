#include "vantrel/content_receiver.h"

#include <algorithm>
#include <cctype>

#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/exceptions.h"

namespace velmo {

namespace {

log4cpp::Category& receiverLog = log4cpp::Category::getInstance("p.Action");

// What one stream has asked for at most and not received yet: with one
// stream, plenty of small archives at once; with several, what keeps its link
// busy for two round trips, little enough that the others get their share of
// a large archive.
const std::size_t kMostOnWay = 64;
const int64_t kEnoughOnWay = 32 << 20;
const int64_t kLeastAhead = 512 << 10;
const int64_t kMostAhead = 16 << 20;
// The smallest piece that a large archive is cut into at its end.
const int64_t kLeastPiece = 1 << 20;

// Whether two hexadecimal sums are one, whatever the case of their digits.
bool sameSum(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

std::string orNone(const std::string& sum) { return sum.empty() ? "(none)" : sum; }

}  // namespace

struct ContentReceiver::State {
    std::unique_ptr<ArchiveWriter> writer;
    int64_t next = 0;      // the first byte not asked for yet
    int requests = 0;      // asked for and not through, handed back ones included
    bool opening = false;  // a stream makes its writer
    bool proving = false;  // its writer was handed out to be proven
    bool done = false;
    bool again = false;    // went on from a part that did not prove: comes from its first byte
};

ContentReceiver::ContentReceiver(std::vector<Archive> archives, int streams, int64_t rangeSize,
                                 const std::string& host, Events events, double roundTripMs)
    : rangeSize_(rangeSize), host_(host), events_(std::move(events)), roundTripMs_(roundTripMs),
      frames_(static_cast<std::size_t>(streams)), archives_(std::move(archives)), states_(archives_.size()),
      left_(archives_.size()), onWay_(static_cast<std::size_t>(streams)),
      bytesOnWay_(static_cast<std::size_t>(streams)), paces_(static_cast<std::size_t>(streams)) {
    for (const Archive& archive : archives_) unasked_ += std::max<int64_t>(0, archive.record->size - archive.from);
}

ContentReceiver::~ContentReceiver() = default;

ContentReceiver::Take ContentReceiver::take(Unit& unit) {
    if (!handedBack_.empty()) {
        unit = handedBack_.front();
        handedBack_.pop_front();
        return Take::unit;
    }
    for (; nextArchive_ < archives_.size(); ++nextArchive_) {
        const std::size_t i = nextArchive_;
        State& state = states_[i];
        const int64_t size = archives_[i].record->size;
        if (state.done || state.proving || (state.writer && state.next >= size)) continue;
        if (state.opening) return Take::busy;
        if (!state.writer) {
            unit.archive = i;
            return Take::opening;
        }
        const bool split = rangeSize_ > 0 && state.writer->takesRanges();
        const int64_t length = std::max<int64_t>(0, split ? std::min(pieceSize(), size - state.next) : size - state.next);
        unit = Unit{i, state.next, length, 0};
        state.next += length;
        unasked_ -= length;
        ++state.requests;
        if (state.next >= size) ++nextArchive_;
        return Take::unit;
    }
    return Take::nothing;
}

void ContentReceiver::open(std::size_t i) {
    MutexLock hold(mutex_);
    const Archive archive = archives_[i];
    hold.unlock();
    std::unique_ptr<ArchiveWriter> writer;
    try {
        writer.reset(new ArchiveWriter(archive.dir, getFileNameFromPath(archive.record->name), archive.record->size,
                                       archive.from));
    } catch (...) {
        hold.lock();
        states_[i].opening = false;
        throw;
    }
    hold.lock();
    states_[i].writer = std::move(writer);
    states_[i].next = archive.from;
    states_[i].opening = false;
}

int64_t ContentReceiver::pieceSize() const {
    // Guided self-scheduling: a share of what is left, so that the last
    // pieces are small and no stream is left alone with a long one.
    const int64_t share = unasked_ / (2 * static_cast<int64_t>(onWay_.size()));
    return std::min(rangeSize_, std::max(std::min(kLeastPiece, rangeSize_), share));
}

int64_t ContentReceiver::enoughOnWay(int s) const {
    if (rangeSize_ == 0) return kEnoughOnWay;
    const double twoTrips = 2 * paces_[s].bytesPerMs * std::max(1.0, roundTripMs_);
    return std::min(kMostAhead, std::max(kLeastAhead, static_cast<int64_t>(twoTrips)));
}

void ContentReceiver::paced(int s, int64_t bytes) {
    Pace& pace = paces_[s];
    pace.since += bytes;
    const auto now = std::chrono::steady_clock::now();
    const double elapsedMs = std::chrono::duration<double, std::milli>(now - pace.mark).count();
    if (elapsedMs < std::max(10.0, roundTripMs_)) return;
    pace.bytesPerMs = static_cast<double>(pace.since) / elapsedMs;
    pace.since = 0;
    pace.mark = now;
}

bool ContentReceiver::doneFirst(int s) const {
    if (rangeSize_ == 0 || bytesOnWay_[s] <= 0) return true;
    int64_t endgame = 0;
    for (std::size_t o = 0; o < onWay_.size(); ++o) endgame += enoughOnWay(static_cast<int>(o));
    if (unasked_ > endgame) return true;
    const auto doneIn = [this](std::size_t o) REQUIRES(mutex_) {
        return paces_[o].bytesPerMs > 0 ? static_cast<double>(bytesOnWay_[o]) / paces_[o].bytesPerMs : 1e18;
    };
    const double mine = doneIn(static_cast<std::size_t>(s));
    for (std::size_t o = 0; o < onWay_.size(); ++o)
        if (static_cast<int>(o) != s && bytesOnWay_[o] > 0 && doneIn(o) < mine) return false;
    return true;
}

std::string ContentReceiver::nextRequests(int s) {
    std::string requests;
    std::vector<std::size_t> started;
    for (;;) {
        MutexLock hold(mutex_);
        Unit unit;
        Take taken = Take::nothing;
        while (onWay_[s].size() < kMostOnWay && bytesOnWay_[s] < enoughOnWay(s) && doneFirst(s)) {
            taken = take(unit);
            if (taken != Take::unit) break;
            onWay_[s].push_back(unit);
            bytesOnWay_[s] += unit.length;
            requests += std::to_string(unit.offset) + " " + std::to_string(unit.length) + " " +
                        archives_[unit.archive].record->name + '\0';
        }
        if (taken != Take::opening) break;
        // Its writer is made without the lock; the others skip it meanwhile.
        states_[unit.archive].opening = true;
        hold.unlock();
        open(unit.archive);
        started.push_back(unit.archive);
    }
    if (events_.started)
        for (const std::size_t i : started) events_.started(i);
    return requests;
}

bool ContentReceiver::anythingToAsk() const {
    MutexLock hold(mutex_);
    if (!handedBack_.empty()) return true;
    for (std::size_t i = nextArchive_; i < archives_.size(); ++i)
        if (!states_[i].done && !states_[i].proving && !(states_[i].writer && states_[i].next >= archives_[i].record->size))
            return true;
    return false;
}

bool ContentReceiver::finished() const {
    MutexLock hold(mutex_);
    return left_ == 0;
}

bool ContentReceiver::waiting(int s) const {
    MutexLock hold(mutex_);
    return !onWay_[s].empty();
}

void ContentReceiver::received(int s, const char* bytes, std::size_t length) {
    for (const SenderEvent& e : frames_[s].feed(bytes, length)) event(s, e);
}

void ContentReceiver::event(int s, const SenderEvent& e) {
    MutexLock hold(mutex_);
    if (onWay_[s].empty()) fail(archives_.size() - 1, "the source host sent more than was asked for");
    const Unit unit = onWay_[s].front();
    const std::size_t i = unit.archive;
    const DumpFile& record = *archives_[i].record;
    ArchiveWriter* const writer = states_[i].writer.get();
    switch (e.kind) {
        case SenderEvent::opened:
            if (e.size > record.size) {
                // More than listed: none of it is taken.
                hold.unlock();
                writer->drop();
                throw VELMO_EXC(ContentFileMismatch) % record.name % record.size % orNone(record.md5sum) %
                    ("more than " + std::to_string(record.size)) % "(not computed)";
            }
            break;
        case SenderEvent::data: {
            if (unit.got + static_cast<int64_t>(e.length) > unit.length)
                fail(i, "the source host sent more than was asked for");
            // The unit is this stream's until it ends: its writer stays.
            hold.unlock();
            try {
                writer->write(unit.offset + unit.got, e.bytes, e.length);
            } catch (const ExTraceable&) {
                writer->drop();  // a full disk: nothing of it is kept
                throw;
            }
            hold.lock();
            onWay_[s].front().got += static_cast<int64_t>(e.length);
            bytesOnWay_[s] -= static_cast<int64_t>(e.length);
            paced(s, static_cast<int64_t>(e.length));
            hold.unlock();
            if (events_.received) events_.received(s, static_cast<int64_t>(e.length));
            break;
        }
        case SenderEvent::ended: {
            bytesOnWay_[s] -= unit.length - unit.got;
            onWay_[s].pop_front();
            std::unique_ptr<ArchiveWriter> whole = ended(unit);
            hold.unlock();
            if (whole) prove(i, std::move(whole));
            break;
        }
        case SenderEvent::failed:
            fail(i, archives_[i].remote + ": " + e.text);
        case SenderEvent::garbled:
            fail(i, "the source host sent what is no archive (" + e.text + ")");
    }
}

std::unique_ptr<ArchiveWriter> ContentReceiver::ended(Unit unit) {
    State& state = states_[unit.archive];
    --state.requests;
    if (state.requests != 0 || !state.writer || state.next < archives_[unit.archive].record->size) return nullptr;
    state.proving = true;
    return std::move(state.writer);
}

void ContentReceiver::prove(std::size_t i, std::unique_ptr<ArchiveWriter> writer) {
    MutexLock hold(mutex_);
    const DumpFile& record = *archives_[i].record;
    const bool continued = archives_[i].from > 0 && !states_[i].again;
    hold.unlock();
    // The sum waits for the summing thread; the rename gives the name.
    const std::string sum = writer->sum();
    const int64_t held = writer->held();
    const bool proven = writer->whole() == record.size && (record.md5sum.empty() || sameSum(sum, record.md5sum));
    if (proven) {
        writer->finish();
    } else {
        writer->drop();
    }
    writer.reset();
    hold.lock();
    State& state = states_[i];
    state.proving = false;
    if (proven) {
        // The archive takes its name only once it is whole and proven.
        state.done = true;
        --left_;
        hold.unlock();
        if (events_.arrived) events_.arrived(i);
        return;
    }
    if (continued) {
        // What the part held is no part of the archive: it comes once more,
        // from its first byte.
        receiverLog.warnStream() << "The continued archive " << record.name << " failed its check; fetching it again";
        archives_[i].from = 0;
        state.again = true;
        state.next = 0;
        unasked_ += record.size;
        nextArchive_ = std::min(nextArchive_, i);
        return;
    }
    throw VELMO_EXC(ContentFileMismatch) % record.name % record.size % orNone(record.md5sum) % held % sum;
}

void ContentReceiver::fail(std::size_t i, const std::string& why) {
    throw VELMO_EXC(CantRetrieveContentFile) % archives_[i].remote % host_ % archives_[i].dir.pathOf(
        getFileNameFromPath(archives_[i].record->name)) % why;
}

void ContentReceiver::lost(int s) {
    std::vector<std::pair<std::size_t, std::unique_ptr<ArchiveWriter>>> whole;
    {
        MutexLock hold(mutex_);
        // Handed out again in their order, ahead of anything new; they count
        // as asked for, so that no archive is finished before they are through.
        for (auto unit = onWay_[s].rbegin(); unit != onWay_[s].rend(); ++unit) {
            if (unit->got == unit->length) {
                std::unique_ptr<ArchiveWriter> writer = ended(*unit);
                if (writer) whole.emplace_back(unit->archive, std::move(writer));
                continue;
            }
            handedBack_.push_front(Unit{unit->archive, unit->offset + unit->got, unit->length - unit->got, 0});
        }
        onWay_[s].clear();
        bytesOnWay_[s] = 0;
        paces_[s] = Pace();
    }
    frames_[s] = SenderFrames();
    for (auto& archive : whole) prove(archive.first, std::move(archive.second));
}

void ContentReceiver::senderGone(int s, const std::string& why) {
    MutexLock hold(mutex_);
    fail(onWay_[s].empty() ? archives_.size() - 1 : onWay_[s].front().archive, why);
}

int64_t ContentReceiver::held(std::size_t i) const {
    MutexLock hold(mutex_);
    if (states_[i].done || states_[i].proving) return archives_[i].record->size;
    return states_[i].writer ? states_[i].writer->held() : archives_[i].from;
}

const std::string& ContentReceiver::name(std::size_t i) const {
    MutexLock hold(mutex_);
    return archives_[i].record->name;
}

int64_t ContentReceiver::size(std::size_t i) const {
    MutexLock hold(mutex_);
    return archives_[i].record->size;
}

std::size_t ContentReceiver::current() const {
    MutexLock hold(mutex_);
    for (std::size_t i = 0; i < archives_.size(); ++i)
        if (states_[i].writer || states_[i].proving) return i;
    return std::min(nextArchive_, archives_.empty() ? 0 : archives_.size() - 1);
}

}  // namespace velmo
