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
    int64_t next = 0;     // the first byte not asked for yet
    int requests = 0;     // asked for and not through, handed back ones included
    bool done = false;
    bool again = false;   // went on from a part that did not prove: comes from its first byte
};

ContentReceiver::ContentReceiver(std::vector<Archive> archives, int streams, int64_t rangeSize,
                                 const std::string& host, Events events, double roundTripMs)
    : archives_(std::move(archives)), states_(archives_.size()), rangeSize_(rangeSize), host_(host),
      events_(std::move(events)), left_(archives_.size()), onWay_(static_cast<std::size_t>(streams)),
      bytesOnWay_(static_cast<std::size_t>(streams)), frames_(static_cast<std::size_t>(streams)),
      paces_(static_cast<std::size_t>(streams)), roundTripMs_(roundTripMs) {
    for (const Archive& archive : archives_) unasked_ += std::max<int64_t>(0, archive.record->size - archive.from);
}

ContentReceiver::~ContentReceiver() = default;

bool ContentReceiver::take(Unit& unit) {
    if (!handedBack_.empty()) {
        unit = handedBack_.front();
        handedBack_.pop_front();
        return true;
    }
    for (; nextArchive_ < archives_.size(); ++nextArchive_) {
        const std::size_t i = nextArchive_;
        State& state = states_[i];
        const int64_t size = archives_[i].record->size;
        if (state.done || (state.writer && state.next >= size)) continue;
        if (!state.writer) {
            state.writer.reset(new ArchiveWriter(archives_[i].dir, getFileNameFromPath(archives_[i].record->name),
                                                 size, archives_[i].from));
            state.next = archives_[i].from;
            if (events_.started) events_.started(i);
        }
        const bool split = rangeSize_ > 0 && state.writer->takesRanges();
        const int64_t length = std::max<int64_t>(0, split ? std::min(pieceSize(), size - state.next) : size - state.next);
        unit = Unit{i, state.next, length, 0};
        state.next += length;
        unasked_ -= length;
        ++state.requests;
        if (state.next >= size) ++nextArchive_;
        return true;
    }
    return false;
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
    const auto doneIn = [this](std::size_t o) {
        return paces_[o].bytesPerMs > 0 ? static_cast<double>(bytesOnWay_[o]) / paces_[o].bytesPerMs : 1e18;
    };
    const double mine = doneIn(static_cast<std::size_t>(s));
    for (std::size_t o = 0; o < onWay_.size(); ++o)
        if (static_cast<int>(o) != s && bytesOnWay_[o] > 0 && doneIn(o) < mine) return false;
    return true;
}

std::string ContentReceiver::nextRequests(int s) {
    std::string requests;
    const int64_t enough = enoughOnWay(s);
    Unit unit;
    while (onWay_[s].size() < kMostOnWay && bytesOnWay_[s] < enough && doneFirst(s) && take(unit)) {
        onWay_[s].push_back(unit);
        bytesOnWay_[s] += unit.length;
        requests += std::to_string(unit.offset) + " " + std::to_string(unit.length) + " " +
                    archives_[unit.archive].record->name + '\0';
    }
    return requests;
}

bool ContentReceiver::anythingToAsk() const {
    if (!handedBack_.empty()) return true;
    for (std::size_t i = nextArchive_; i < archives_.size(); ++i)
        if (!states_[i].done && !(states_[i].writer && states_[i].next >= archives_[i].record->size)) return true;
    return false;
}

void ContentReceiver::received(int s, const char* bytes, std::size_t length) {
    for (const SenderEvent& e : frames_[s].feed(bytes, length)) event(s, e);
}

void ContentReceiver::event(int s, const SenderEvent& e) {
    if (onWay_[s].empty()) fail(archives_.size() - 1, "the source host sent more than was asked for");
    Unit& unit = onWay_[s].front();
    const std::size_t i = unit.archive;
    const DumpFile& record = *archives_[i].record;
    switch (e.kind) {
        case SenderEvent::opened:
            if (e.size > record.size) {
                // More than listed: none of it is taken.
                states_[i].writer->drop();
                throw VELMO_EXC(ContentFileMismatch) % record.name % record.size % orNone(record.md5sum) %
                    ("more than " + std::to_string(record.size)) % "(not computed)";
            }
            break;
        case SenderEvent::data:
            if (unit.got + static_cast<int64_t>(e.length) > unit.length)
                fail(i, "the source host sent more than was asked for");
            try {
                states_[i].writer->write(unit.offset + unit.got, e.bytes, e.length);
            } catch (const ExTraceable&) {
                states_[i].writer->drop();  // a full disk: nothing of it is kept
                throw;
            }
            unit.got += static_cast<int64_t>(e.length);
            bytesOnWay_[s] -= static_cast<int64_t>(e.length);
            paced(s, static_cast<int64_t>(e.length));
            if (events_.received) events_.received(s, static_cast<int64_t>(e.length));
            break;
        case SenderEvent::ended: {
            const Unit done = unit;
            bytesOnWay_[s] -= done.length - done.got;
            onWay_[s].pop_front();
            ended(done);
            break;
        }
        case SenderEvent::failed:
            fail(i, archives_[i].remote + ": " + e.text);
        case SenderEvent::garbled:
            fail(i, "the source host sent what is no archive (" + e.text + ")");
    }
}

void ContentReceiver::ended(Unit unit) {
    State& state = states_[unit.archive];
    --state.requests;
    if (state.requests == 0 && state.writer && state.next >= archives_[unit.archive].record->size)
        finish(unit.archive);
}

void ContentReceiver::finish(std::size_t i) {
    State& state = states_[i];
    const DumpFile& record = *archives_[i].record;
    const std::string sum = state.writer->sum();
    const int64_t held = state.writer->held();
    if (state.writer->whole() == record.size && (record.md5sum.empty() || sameSum(sum, record.md5sum))) {
        // The archive takes its name only once it is whole and proven.
        state.writer->finish();
        state.writer.reset();
        state.done = true;
        --left_;
        if (events_.arrived) events_.arrived(i);
        return;
    }
    state.writer->drop();
    state.writer.reset();
    if (archives_[i].from > 0 && !state.again) {
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
    // Handed out again in their order, ahead of anything new; they count
    // as asked for, so that no archive is finished before they are through.
    for (auto unit = onWay_[s].rbegin(); unit != onWay_[s].rend(); ++unit) {
        if (unit->got == unit->length) {
            ended(*unit);
            continue;
        }
        handedBack_.push_front(Unit{unit->archive, unit->offset + unit->got, unit->length - unit->got, 0});
    }
    onWay_[s].clear();
    bytesOnWay_[s] = 0;
    frames_[s] = SenderFrames();
    paces_[s] = Pace();
}

void ContentReceiver::senderGone(int s, const std::string& why) {
    fail(onWay_[s].empty() ? archives_.size() - 1 : onWay_[s].front().archive, why);
}

int64_t ContentReceiver::held(std::size_t i) const {
    if (states_[i].done) return archives_[i].record->size;
    return states_[i].writer ? states_[i].writer->held() : archives_[i].from;
}

bool ContentReceiver::isOnItsWay(std::size_t i) const { return states_[i].writer != nullptr; }

std::size_t ContentReceiver::current() const {
    for (std::size_t i = 0; i < archives_.size(); ++i)
        if (states_[i].writer) return i;
    return std::min(nextArchive_, archives_.empty() ? 0 : archives_.size() - 1);
}

}  // namespace velmo
