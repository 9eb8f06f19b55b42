#include "vantrel/retrieve_content.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#include <boost/format.hpp>
#include <boost/lexical_cast.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/checksum.h"
#include "commons/commons.h"
#include "commons/local_files.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "vantrel/content_receiver.h"
#include "vantrel/remote_programs.h"
#include "vantrel/terminal.h"

namespace velmo {

namespace {

log4cpp::Category& contentLog = log4cpp::Category::getInstance("p.Action");

std::string decimal(int64_t value) { return boost::lexical_cast<std::string>(value); }

// How often archives that arrived are removed on the source host while the
// transfer goes on, and how long the last removal may take when a stop
// request or a failure ends the transfer.
const std::chrono::seconds kRemovalInterval(10);
const std::chrono::seconds kLastRemoval(10);
// How often the status file is saved while bytes come (it is saved as each
// archive starts and arrives too).
const std::chrono::seconds kStatusInterval(1);
// The pieces of a large archive when several streams share it.
const int64_t kRangeSize = 8 << 20;
// Streams a transfer uses at most unless KVA_STREAMS says otherwise, and the
// data each of them should have at least.
const int kDefaultStreams = 4;
const int kMostStreams = 16;
const int64_t kStreamShare = 8 << 20;
// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;

// MD5 of a plain file under name in dir (never through a link), or an empty
// text when there is none.
std::string md5OfFile(const Directory& dir, const std::string& name) {
    if (!dir.isOpen()) return std::string();
    Fd file = dir.openRegular(name);
    if (!file) return std::string();
    Md5 sum;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const ssize_t n = ::read(file.get(), buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw VELMO_EXC(StreamRead);
        if (n == 0) return sum.hex();
        sum.update(buffer.data(), static_cast<std::size_t>(n));
    }
}

// The streams KVA_STREAMS asks for (1 to 16), or 0 when it does not.
int streamsAskedFor(bool warn) {
    const char* text = std::getenv("KVA_STREAMS");
    if (text == nullptr) return 0;
    char* end = nullptr;
    const long wanted = std::strtol(text, &end, 10);
    if (*text != '\0' && *end == '\0' && wanted >= 1 && wanted <= kMostStreams) return static_cast<int>(wanted);
    if (warn) contentLog.warnStream() << "Ignoring KVA_STREAMS='" << text << "': not a number from 1 to " << kMostStreams;
    return 0;
}

// How many streams carry bytes: KVA_STREAMS when set, else one per share of
// the data, at most four.
int streamsFor(int64_t bytes) {
    if (const int asked = streamsAskedFor(true)) return asked;
    return static_cast<int>(std::max<int64_t>(1, std::min<int64_t>(kDefaultStreams, bytes / kStreamShare)));
}

// Gives a stream's sender the requests its receiver hands out as the channel
// takes them, and the end of its input once nothing is left for it. A sender
// starts before the list is known: until its stream has a receiver, it waits.
// The receiver is shared by the threads of the streams, under mutex.
class Requests : public IOReadChannel {
public:
    Requests(ContentReceiver* const& receiver, std::mutex& mutex, int stream)
        : receiver_(receiver), mutex_(mutex), stream_(stream) {}
    int read(char* buffer, unsigned size) override {
        std::lock_guard<std::mutex> hold(mutex_);
        if (receiver_ == nullptr) return later;
        if (pending_.empty()) pending_ = receiver_->nextRequests(stream_);
        if (pending_.empty()) return receiver_->waiting(stream_) || receiver_->anythingToAsk() ? later : 0;
        const std::size_t n = std::min<std::size_t>(size, pending_.size());
        std::memcpy(buffer, pending_.data(), n);
        pending_.erase(0, n);
        return static_cast<int>(n);
    }

private:
    ContentReceiver* const& receiver_;
    std::mutex& mutex_;
    int stream_;
    std::string pending_;
};

// Hands what a stream's sender says to the receiver; what it says before its
// stream has one (nothing, unless the account's shell prints something) is
// handed over with the receiver.
class Answers : public IOWriteChannel {
public:
    Answers(ContentReceiver* const& receiver, std::mutex& mutex, int stream)
        : receiver_(receiver), mutex_(mutex), stream_(stream) {}
    int write(const char* data, unsigned size) override {
        std::lock_guard<std::mutex> hold(mutex_);
        if (receiver_ == nullptr)
            early_.append(data, size);
        else
            receiver_->received(stream_, data, size);
        return static_cast<int>(size);
    }
    // Under mutex, once the stream has its receiver.
    void handOver() {
        if (!early_.empty()) receiver_->received(stream_, early_.data(), early_.size());
        early_.clear();
    }

private:
    ContentReceiver* const& receiver_;
    std::mutex& mutex_;
    int stream_;
    std::string early_;
};

// The names, each ended by a NUL.
std::string nulEnded(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += name + '\0';
    return text;
}

// Names, each ended by a NUL, as a command's input; with more, the input
// waits for the rest (end).
class TextInput : public IOReadChannel {
public:
    explicit TextInput(std::string text, bool more = false) : text_(std::move(text)), more_(more) {}
    void end(const std::string& rest) {
        text_ += rest;
        more_ = false;
    }
    bool more() const { return more_; }
    int read(char* buffer, unsigned size) override {
        if (at_ == text_.size() && more_) return later;
        const std::size_t n = std::min<std::size_t>(size, text_.size() - at_);
        std::memcpy(buffer, text_.data() + at_, n);
        at_ += n;
        return static_cast<int>(n);
    }

private:
    std::string text_;
    std::size_t at_ = 0;
    bool more_;
};

}  // namespace

// ------------------------------------------------------------- progress

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize,
                                                           int32_t files)
    : status_(status), start_(std::time(nullptr)), totalSize_(totalSize), transferred_(0), filesLeft_(files) {}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    if (bytes <= 0) return;
    transferred_ += bytes;
    const std::time_t now = std::time(nullptr);
    status_.setTransferSpeed(decimal(now != start_ ? transferred_ / static_cast<int64_t>(now - start_) : 0));
}

void FileRetrievalProgressUpdater::setLeft(int64_t sizeLeft, int64_t currentFileLeft) {
    status_.setTransferSizeLeft(decimal(sizeLeft));
    status_.setTransferCurrentFileSizeLeft(decimal(currentFileLeft));
}

void FileRetrievalProgressUpdater::fileDone() {
    status_.setTransferFilesLeft(decimal(--filesLeft_));
}

// ------------------------------------------------------------- transfer

// One run over the content list: which archives are here already and which
// come (from where on), the streams that bring them (ContentReceiver takes
// what they send), the migration status, and the removal on the source host
// of what arrived. The streams get ready while the source host makes the
// list: the other streams' connections log in once the first one did, and
// every connection starts its sender, which waits for its requests.
//
// The first stream and the removal share the run's connection, serviced by
// this thread, which also starts and ends every sender; the other streams'
// connections are serviced each by a thread of its own while its sender runs
// (a connection decrypts on one core). What the threads share (the receiver,
// the status, the archives that arrived) is guarded by mutex_.
class ContentTransfer {
public:
    ContentTransfer(RetrieveContentAction& action, uid_t uid, gid_t gid) : action_(action), uid_(uid), gid_(gid) {}
    // The logins still waiting for the first one end.
    ~ContentTransfer();
    // Makes the streams that the content may need, their connections on
    // their way.
    void prepare();
    // The run's connection is made (again): the others log in, and the first
    // stream's sender starts on it.
    void firstConnected();
    void run(const std::vector<DumpFile>& records, FileRetrievalProgressUpdater& updater);

private:
    struct Stream;
    class StreamThreads;

    std::vector<ContentReceiver::Archive> plan(const std::vector<DumpFile>& records);
    void fetch(std::vector<ContentReceiver::Archive> archives);
    // Starts, ends and services what the streams and the removal need, until
    // a stream or the status needs the next step; false once everything
    // arrived.
    bool step(ContentReceiver& receiver);
    // The first count streams take their part of the transfer; the others
    // end.
    void openStreams(ContentReceiver* receiver, std::size_t count);
    // The connection that a stream has now, if any.
    static std::vector<Ssh*> connected(const Stream& stream);
    // Whether a stream needs keepSending: a login or a pause over, a sender
    // that ended, or work for a stream without a sender. Each of these is
    // acted upon: a condition that stayed true would keep the loop from
    // servicing the first connection.
    static bool anyStreamDue(const std::vector<std::unique_ptr<Stream>>& streams, const ContentReceiver& receiver);
    // Sleeps until a login may have ended, a stream's thread may be over or
    // the first stream that waits to connect again (when there is work) may
    // try, a tenth of a second at most.
    static void waitForFirst(const std::vector<std::unique_ptr<Stream>>& streams, bool work);
    // Services the connection of a stream but the first while its sender
    // runs, on a thread of its own.
    static void serve(Stream& stream);
    // Streams but the first log in on threads of their own, while the others
    // work; a stream takes its connection once its login is over. With
    // early, the login waits for the first one's and starts the sender.
    void startLogin(Stream& stream, bool early = false);
    // A sender for a stream, one of share that use the link.
    void startSender(Stream& stream, Ssh& ssh, int share);
    // Spare streams whose logins are over end.
    void closeSpare();
    bool loggedIn(Stream& stream);
    // A connection could not be made again: the next try waits its pause.
    void notConnected(Stream& stream, const ExTraceable& e);
    // Another try for stream after why, when its tries allow it.
    void tryAgain(Stream& stream, const std::string& why);
    // Settles what a sender that ended means, connects a stream that lost
    // its connection again when its pause is over, and starts a sender on a
    // stream that has work and none.
    void keepSending(Stream& stream, ContentReceiver& receiver);
    // A stream's connection went away: what it had on its way is handed out
    // again (what came of it is kept), and it waits to connect again.
    void lose(Stream& stream, ContentReceiver& receiver, std::string why);
    void reconnect(Stream& stream);
    // The removal on the source host runs on the first stream's connection.
    void keepRemoving(Stream& first, const ContentReceiver& receiver);
    // Everything is asked for: the last removal gets ready (once), when no
    // removal is on its way.
    bool lastRemovalDue(const Stream& first, const ContentReceiver& receiver) const;
    // The senders see the end of their input and leave.
    void endSenders();
    void saveStatus(const ContentReceiver& receiver);
    // An archive here, proven, that is to be removed on the source host.
    void arrive(const std::string& name, const Directory& dir, const std::string& leaf);
    // Starts a removal of what arrived on the source host unless one is on
    // its way; reports what the last one left. With more, it starts even
    // with nothing to remove yet and waits for the names that arrive last
    // (lastNames): it is under way when the transfer ends.
    bool startRemoval(Ssh& ssh, bool more = false);
    void lastNames();
    void endRemoval();
    // The removals still due once everything arrived, on a connection made
    // again when need be; what cannot be removed stays for the next run.
    void removeTheRest();
    // The removals still due, in one last exchange that a stop request does
    // not cut short, bounded in time.
    void lastRemoval() noexcept;

    RetrieveContentAction& action_;
    FileRetrievalProgressUpdater* updater_ = nullptr;
    uid_t uid_;
    gid_t gid_;
    std::vector<const DumpFile*> fetched_;   // the archives that come, in list order
    std::vector<Directory> fetchedTo_;       // and the levels they land in
    std::vector<std::string> arrived_;       // names of proven archives not removed yet
    std::map<std::string, std::pair<Directory, std::string>> here_;  // where they are: level, last component
    std::vector<std::string> removing_;      // names the removal on its way takes
    std::unique_ptr<TextInput> removalNames_;
    bool lastReady_ = false;  // a removal was started to wait for the last names
    std::unique_ptr<ActionCommand> removal_;
    std::unique_ptr<PeriodicTask> removalTask_;
    BoundedText removalOutput_{1 << 20};
    ProgressLine progress_;
    std::mutex mutex_;
    std::vector<std::unique_ptr<Stream>> streams_;
    std::vector<std::unique_ptr<Stream>> spare_;  // made for content that did not need them
    std::shared_future<void> gate_;  // the first login is over: the others go on
    bool gateOpen_ = false;
    bool statusDue_ = true;  // an archive started or arrived, or bytes came a while after the last save
    std::chrono::steady_clock::time_point statusSaved_;
    std::size_t shown_ = 0;  // the archive the terminal's line names
    int64_t toFetch_ = 0;
    int64_t fetchedBytes_ = 0;
    int streamCount_ = 1;
};

struct ContentTransfer::Stream {
    Stream(std::mutex& mutex, int index) : index(index), input(receiver, mutex, index), output(receiver, mutex, index) {}
    std::string name() const { return "Stream " + std::to_string(index + 1) + " of the content"; }
    int index;
    Ssh* ssh = nullptr;        // null while it waits to connect again
    std::unique_ptr<Ssh> own;  // streams but the first have a connection of their own
    ContentReceiver* receiver = nullptr;  // once the list is known, under the mutex
    Requests input;
    Answers output;
    std::unique_ptr<ActionCommand> sender;
    std::chrono::steady_clock::time_point retryAt;
    std::future<std::unique_ptr<Ssh>> login;  // on its way
    bool everConnected = false;
    bool unused = false;  // its first login failed, or its tries: the others do without it
    Reconnects tries;     // after its connection was lost
    std::unique_ptr<ExTraceable> loss;  // the first loss of a streak, which fails the run if it lasts
    std::future<void> thread;  // services the connection while the sender runs (streams but the first)
    std::atomic<bool> stop{false};  // asks the thread to leave

    bool loggingIn() const { return login.valid(); }
    bool loginOver() const { return loggingIn() && login.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    bool serving() const { return thread.valid(); }
    bool servingOver() const { return serving() && thread.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
};

// Asks the streams' threads to leave and waits for them, whatever ended the
// transfer: nothing they use goes away under them; after a stop request the
// logins on their way end too. Then the streams end, senders and
// connections: nothing reads the receiver any more.
class ContentTransfer::StreamThreads {
public:
    StreamThreads(std::vector<std::unique_ptr<Stream>>& streams, RetrieveContentAction& action)
        : streams_(streams), action_(action) {}
    ~StreamThreads() {
        action_.interruptLogins();
        for (const auto& stream : streams_) stream->stop = true;
        for (const auto& stream : streams_) {
            if (!stream->serving()) continue;
            try {
                stream->thread.get();
            } catch (...) {
                // The transfer ends with what ended it first.
            }
        }
        streams_.clear();
    }

private:
    std::vector<std::unique_ptr<Stream>>& streams_;
    RetrieveContentAction& action_;
};

ContentTransfer::~ContentTransfer() {
    action_.closeGate();
    action_.interruptLogins();
}

void ContentTransfer::prepare() {
    const int asked = streamsAskedFor(false);
    const int most = asked > 0 ? asked : kDefaultStreams;
    streamCount_ = most;
    gate_ = action_.firstLogin_.get_future().share();
    for (int i = 0; i < most; ++i) {
        streams_.emplace_back(new Stream(mutex_, i));
        if (i > 0) startLogin(*streams_.back(), true);
    }
}

void ContentTransfer::firstConnected() {
    Ssh* ssh = action_.getSsh();
    // The senders' directory is known before another thread needs it.
    action_.agentDir();
    if (!gateOpen_) action_.firstLogin_.set_value();
    gateOpen_ = true;
    Stream& first = *streams_.front();
    if (first.ssh == ssh && first.sender && !first.sender->ended()) return;
    first.sender.reset();
    first.ssh = ssh;
    first.everConnected = true;
    startSender(first, *ssh, streamCount_);
}

void ContentTransfer::run(const std::vector<DumpFile>& records, FileRetrievalProgressUpdater& updater) {
    updater_ = &updater;
    try {
        std::vector<ContentReceiver::Archive> archives = plan(records);
        if (archives.empty())
            openStreams(nullptr, 0);
        else
            fetch(std::move(archives));
        removeTheRest();
    } catch (...) {
        lastRemoval();
        throw;
    }
}

std::vector<ContentReceiver::Archive> ContentTransfer::plan(const std::vector<DumpFile>& records) {
    // The totals go out before the sums of what is here: a rerun with much
    // here already shows its progress through them.
    MigrationStatus& status = *action_.status;
    std::vector<ContentReceiver::Archive> archives;
    std::chrono::steady_clock::time_point saved;  // the first archive shows at once
    for (const DumpFile& record : records) {
        checkProgramTerminated();
        status.setCurrentFile(record.name, decimal(record.size));
        if (std::chrono::steady_clock::now() - saved > std::chrono::milliseconds(200)) {
            status.saveFile();
            saved = std::chrono::steady_clock::now();
        }
        const Directory dir = action_.contentDir_.existingBelow(getPath(record.name));
        const std::string leaf = getFileNameFromPath(record.name);
        if (action_.checkMD5(record)) {
            // Here already; removed on the source host when the run that
            // brought it could not.
            if (ArchiveWriter::removalDue(dir, leaf)) arrive(record.name, dir, leaf);
            updater_->fileDone();
            continue;
        }
        // A partial archive can only be trusted when its sum will prove the
        // whole at the end; one longer than the archive is no part of it.
        const int64_t partial = ArchiveWriter::resumable(dir, leaf);
        int64_t from = 0;
        if (!record.md5sum.empty() && partial > 0 && partial <= record.size) {
            from = partial;
            contentLog.infoStream() << "Continuing " << record.name << " from byte " << from << " of " << record.size;
        }
        fetchedTo_.push_back(action_.contentDir_.below(getPath(record.name), uid_, gid_, 0755));
        archives.push_back(ContentReceiver::Archive{&record, action_.agentDir() + "/" + record.name, fetchedTo_.back(),
                                                    from});
        fetched_.push_back(&record);
        toFetch_ += std::max<int64_t>(0, record.size - from);
    }
    return archives;
}

void ContentTransfer::fetch(std::vector<ContentReceiver::Archive> archives) {
    const int count = std::min<int>(streamsFor(toFetch_), static_cast<int>(streams_.size()));
    streamCount_ = count;
    // The status is saved as an archive starts and as it arrives, the
    // terminal's line as bytes come.
    ContentReceiver::Events events;
    events.started = [this](std::size_t) { statusDue_ = true; };
    events.received = [this](int s, int64_t bytes) {
        streams_[s]->tries.progressed();
        streams_[s]->loss.reset();
        (*updater_)(static_cast<int>(bytes));
        fetchedBytes_ += bytes;
        // While bytes come, the status follows them about once a second.
        if (std::chrono::steady_clock::now() - statusSaved_ >= kStatusInterval) statusDue_ = true;
        progress_.update(fetched_[shown_]->name, fetchedBytes_, toFetch_);
    };
    events.arrived = [this](std::size_t i) {
        arrive(fetched_[i]->name, fetchedTo_[i], getFileNameFromPath(fetched_[i]->name));
        updater_->fileDone();
        statusDue_ = true;
    };
    ContentReceiver receiver(std::move(archives), count, count > 1 ? kRangeSize : 0, action_.cfg->host, events,
                             action_.getSsh()->roundTripMs());
    StreamThreads threads(streams_, action_);
    openStreams(&receiver, count);
    while (step(receiver)) {
    }
    {
        std::lock_guard<std::mutex> hold(mutex_);
        saveStatus(receiver);
        // What arrived last is removed while the senders leave.
        lastNames();
        if (streams_.front()->ssh) startRemoval(*streams_.front()->ssh);
    }
    endSenders();
    removalTask_.reset();
}

bool ContentTransfer::step(ContentReceiver& receiver) {
    checkProgramTerminated();
    bool waiting = false;
    closeSpare();
    {
        std::lock_guard<std::mutex> hold(mutex_);
        if (receiver.finished()) return false;
        for (const auto& stream : streams_) keepSending(*stream, receiver);
        keepRemoving(*streams_.front(), receiver);
        if (statusDue_) {
            statusDue_ = false;
            statusSaved_ = std::chrono::steady_clock::now();
            shown_ = receiver.current();
            saveStatus(receiver);
        }
        for (const auto& stream : streams_) waiting |= (!stream->unused && !stream->ssh) || stream->serving();
    }
    // The first connection is serviced until a stream needs a step of this
    // loop; streams that wait to connect wait meanwhile.
    const auto due = [&] {
        std::lock_guard<std::mutex> hold(mutex_);
        return receiver.finished() || statusDue_ || anyStreamDue(streams_, receiver) ||
               lastRemovalDue(*streams_.front(), receiver);
    };
    ChannelLoop(connected(*streams_.front())).run(due, waiting ? 20 : 5000);
    // Nothing left to service: the next login or try is waited for.
    if (!due()) {
        std::unique_lock<std::mutex> hold(mutex_);
        const bool work = receiver.anythingToAsk();
        hold.unlock();
        waitForFirst(streams_, work);
    }
    return true;
}

void ContentTransfer::endSenders() {
    Stream& first = *streams_.front();
    ChannelLoop(connected(first)).run([&first] { return !first.sender || first.sender->ended(); });
    for (const auto& stream : streams_)
        if (stream->serving()) stream->thread.get();
}

std::vector<Ssh*> ContentTransfer::connected(const Stream& stream) {
    return stream.ssh ? std::vector<Ssh*>{stream.ssh} : std::vector<Ssh*>();
}

bool ContentTransfer::anyStreamDue(const std::vector<std::unique_ptr<Stream>>& streams,
                                   const ContentReceiver& receiver) {
    const auto now = std::chrono::steady_clock::now();
    for (const auto& stream : streams) {
        if (stream->unused) continue;
        if (stream->serving()) {
            if (stream->servingOver()) return true;
        } else if (stream->loggingIn()) {
            if (stream->loginOver()) return true;
        } else if (!stream->ssh) {
            // Connected again only for work.
            if (now >= stream->retryAt && receiver.anythingToAsk()) return true;
        } else if (stream->sender ? stream->sender->ended()
                                  : receiver.waiting(stream->index) || receiver.anythingToAsk()) {
            return true;
        }
    }
    return false;
}

void ContentTransfer::waitForFirst(const std::vector<std::unique_ptr<Stream>>& streams, bool work) {
    auto next = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
    for (const auto& stream : streams) {
        if (stream->loggingIn() || stream->serving())
            next = std::min(next, std::chrono::steady_clock::now() + std::chrono::milliseconds(20));
        else if (!stream->unused && !stream->ssh && work)
            next = std::min(next, stream->retryAt);
    }
    Reconnects::wait(std::chrono::duration_cast<std::chrono::milliseconds>(next - std::chrono::steady_clock::now()));
}

void ContentTransfer::serve(Stream& stream) {
    // Answers wake it; the wait is bounded so that it sees a request to leave.
    ChannelLoop({stream.ssh}).run([&stream] { return stream.stop || stream.sender->ended(); }, 100);
}

void ContentTransfer::startLogin(Stream& stream, bool early) {
    const std::shared_future<void> first = gate_;
    const int share = streamCount_;
    stream.login = std::async(std::launch::async, [this, &stream, first, early, share] {
        // Until the first login is through, nothing says that the host and
        // the credentials are right; and a connection that waits unlogged
        // takes a place of the host's few (MaxStartups).
        if (early) {
            try {
                first.get();
            } catch (const std::future_error&) {
                throw VELMO_EXC(SshConnectionFault);
            }
        }
        // A stream that the content turns out not to need gives up its turn
        // for a login slot: other runs may wait for one.
        std::unique_ptr<Ssh> ssh = action_.loginAside(stream.tries, [&stream] { return stream.stop.load(); });
        if (early) {
            // The sender is ready when the list is: its channel is opened
            // and its command started here.
            startSender(stream, *ssh, share);
            const ActionCommand& sender = *stream.sender;
            ChannelLoop({ssh.get()}).run([&sender] { return sender.started(); }, 100);
        }
        return ssh;
    });
}

void ContentTransfer::startSender(Stream& stream, Ssh& ssh, int share) {
    const CommandOptions how =
        CommandOptions(action_.agentDir()).quietOutput().quietInput().sharingLinkWith(share).inNoHurry();
    stream.sender.reset(new ActionCommand(action_.commandContext(), how, commandLine(perlRunning(remote::content_sender)),
                                          stream.input, stream.output));
    stream.sender->start(ssh);
}

bool ContentTransfer::loggedIn(Stream& stream) {
    try {
        stream.own = stream.login.get();
        stream.ssh = stream.own.get();
        if (stream.everConnected) contentLog.infoStream() << stream.name() << " connected again";
        stream.everConnected = true;
        return true;
    } catch (const ExTraceable& e) {
        checkProgramTerminated();
        if (stream.everConnected) {
            notConnected(stream, e);
        } else {
            // A host that takes no more connections (sshd's MaxStartups, say)
            // is served by fewer streams.
            contentLog.warnStream() << stream.name() << " not opened, going on without it: " << e.what();
            stream.unused = true;
        }
        return false;
    }
}

void ContentTransfer::notConnected(Stream& stream, const ExTraceable& e) {
    if (!isConnectionFailure(e)) e.raise();
    if (!stream.loss) stream.loss.reset(e.clone());
    tryAgain(stream, std::string("not connected again: ") + e.what());
}

void ContentTransfer::tryAgain(Stream& stream, const std::string& why) {
    std::chrono::milliseconds pause;
    if (stream.tries.again(stream.name(), why, pause)) {
        stream.retryAt = std::chrono::steady_clock::now() + pause;
    } else if (stream.index == 0) {
        stream.loss->raise();
    } else {
        // The first stream carries on, or fails the run when it cannot.
        contentLog.warnStream() << stream.name() << " is given up; the others go on";
        stream.unused = true;
    }
}

void ContentTransfer::openStreams(ContentReceiver* receiver, std::size_t count) {
    // A first connection made again after the list, or a sender that ended.
    if (count > 0) firstConnected();
    {
        std::lock_guard<std::mutex> hold(mutex_);
        while (streams_.size() > count) {
            spare_.push_back(std::move(streams_.back()));
            streams_.pop_back();
            spare_.back()->stop = true;
        }
        for (const auto& stream : streams_) {
            stream->receiver = receiver;
            stream->output.handOver();
        }
    }
    if (count > 0 && streams_.front()->sender) streams_.front()->sender->shareLink(streamCount_);
    closeSpare();
    if (receiver)
        contentLog.infoStream() << "Fetching " << toFetch_ << " bytes of " << fetched_.size() << " archive(s) over "
                                << count << " stream(s)";
}

void ContentTransfer::closeSpare() {
    // The connection goes first: it lets go of the sender's channel without
    // waiting for the peer. The first stream's connection is the run's and
    // stays; its sender is closed.
    for (auto& stream : spare_) {
        if (stream->loggingIn() && !stream->loginOver()) continue;
        stream->login = {};
        stream->own.reset();
        stream->sender.reset();
    }
}

void ContentTransfer::keepSending(Stream& stream, ContentReceiver& receiver) {
    if (stream.unused || (stream.loggingIn() && (!stream.loginOver() || !loggedIn(stream)))) return;
    if (stream.serving()) {
        if (!stream.servingOver()) return;
        stream.thread.get();  // what ended the thread, if anything, ends the transfer
    }
    if (stream.sender && !stream.sender->ended()) {
        // Started while the list was made.
        if (stream.index > 0 && !stream.serving()) {
            stream.sender->shareLink(streamCount_);
            stream.thread = std::async(std::launch::async, [&stream] { serve(stream); });
        }
        return;
    }
    if (stream.sender && stream.sender->lost()) return lose(stream, receiver, stream.ssh->whyLost());
    if (stream.sender) {
        const CommandResult sent = stream.sender->result();
        stream.sender.reset();
        if (receiver.waiting(stream.index))
            receiver.senderGone(stream.index, sent.status == kCommandNotFound ? "the source host has no perl to send it"
                                              : sent.status == 0              ? "the source host ended the transfer early"
                                                                              : sent.errors);
    }
    if (!receiver.waiting(stream.index) && !receiver.anythingToAsk()) return;
    if (!stream.ssh && std::chrono::steady_clock::now() >= stream.retryAt) reconnect(stream);
    if (!stream.ssh) return;
    startSender(stream, *stream.ssh, streamCount_);
    if (stream.index > 0) stream.thread = std::async(std::launch::async, [&stream] { serve(stream); });
}

void ContentTransfer::lose(Stream& stream, ContentReceiver& receiver, std::string why) {
    const int64_t held = receiver.held(receiver.current());
    receiver.lost(stream.index);
    stream.sender.reset();
    if (stream.index == 0) removalTask_.reset();
    stream.ssh = nullptr;
    stream.own.reset();
    if (!stream.loss) stream.loss.reset(VELMO_EXC(SshConnectionFault).clone());
    tryAgain(stream, "lost (" + why + "); the bytes that arrived are kept (" + std::to_string(held) + " of " +
                         fetched_[receiver.current()]->name + ")");
}

void ContentTransfer::reconnect(Stream& stream) {
    if (stream.index != 0) return startLogin(stream);
    // The first stream's connection is the action's, which the removal
    // shares: it is made here.
    try {
        stream.ssh = action_.getSsh(stream.tries);
        contentLog.infoStream() << stream.name() << " connected again";
    } catch (const ExTraceable& e) {
        checkProgramTerminated();
        notConnected(stream, e);
    }
}

bool ContentTransfer::lastRemovalDue(const Stream& first, const ContentReceiver& receiver) const {
    return !lastReady_ && first.ssh && !receiver.anythingToAsk() && (!removal_ || removal_->ended());
}

void ContentTransfer::keepRemoving(Stream& first, const ContentReceiver& receiver) {
    if (removal_ && removal_->ended()) endRemoval();
    if (lastRemovalDue(first, receiver)) {
        lastReady_ = true;
        startRemoval(*first.ssh, true);
    }
    if (!removalTask_ && first.ssh)
        removalTask_.reset(new PeriodicTask(*first.ssh, kRemovalInterval, [this, &first] {
            std::lock_guard<std::mutex> hold(mutex_);
            return first.ssh == nullptr || startRemoval(*first.ssh);
        }));
}

void ContentTransfer::arrive(const std::string& name, const Directory& dir, const std::string& leaf) {
    arrived_.push_back(name);
    here_[name] = std::make_pair(dir, leaf);
}

void ContentTransfer::saveStatus(const ContentReceiver& receiver) {
    int64_t held = 0;
    for (std::size_t i = 0; i < fetched_.size(); ++i) held += receiver.held(i);
    const std::size_t current = receiver.current();
    MigrationStatus& status = *action_.status;
    if (current < fetched_.size()) status.setCurrentFile(fetched_[current]->name, decimal(fetched_[current]->size));
    // The size left counts the archives that come, as they come; the ones
    // here already stay in it.
    const int64_t currentLeft = current < fetched_.size() ? fetched_[current]->size - receiver.held(current) : 0;
    updater_->setLeft(updater_->totalSize() - held, currentLeft);
    status.saveFile();
}

// ------------------------------------------------------------- removal

bool ContentTransfer::startRemoval(Ssh& ssh, bool more) {
    if (removal_ && !removal_->ended()) return true;
    endRemoval();
    if ((arrived_.empty() && !more) || ssh.lost()) return true;
    const std::string names = nulEnded(arrived_);
    removing_.swap(arrived_);
    arrived_.clear();
    removalNames_.reset(new TextInput(names, more));
    removalOutput_ = BoundedText(1 << 20);
    // Removed as root, following no link out of the agent directory
    // (remote/archive-remover.pl).
    removal_.reset(new ActionCommand(action_.commandContext(), CommandOptions(action_.agentDir()).asRoot().quietInput(),
                                     commandLine(perlRunning(remote::archive_remover)), *removalNames_,
                                     removalOutput_));
    removal_->start(ssh);
    return true;
}

void ContentTransfer::lastNames() {
    if (!removal_ || !removalNames_->more()) return;
    const std::string names = nulEnded(arrived_);
    removalNames_->end(names);
    removing_.insert(removing_.end(), arrived_.begin(), arrived_.end());
    arrived_.clear();
}

// What a removal left: each failure goes to the debug log, nothing stops the
// run.
void ContentTransfer::endRemoval() {
    if (!removal_ || !removal_->ended()) return;
    if (removal_->lost()) {
        // Removed again on the next connection: nothing is lost by trying twice.
        arrived_.insert(arrived_.end(), removing_.begin(), removing_.end());
        removing_.clear();
        removal_.reset();
        return;
    }
    const std::string& host = action_.cfg->host;
    const std::string first = action_.agentDir() + "/" + (removing_.empty() ? std::string() : removing_.front());
    try {
        const CommandResult removed = removal_->result();
        if (removed.status == kCommandNotFound) {
            contentLog.warnStream() << "No perl on the source host: the archives that arrived stay there until the "
                                       "agent is removed";
        } else {
            std::map<std::string, std::string> failed;
            std::istringstream failures(removalOutput_.str());
            std::string name, error;
            while (std::getline(failures, name, '\0') && std::getline(failures, error, '\0')) {
                debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % (action_.agentDir() + "/" + name) % host % error);
                failed[name] = error;
            }
            // What is gone there (or was never there) needs no removal any more.
            for (const std::string& removed : removing_) {
                const auto at = here_.find(removed);
                const auto why = failed.find(removed);
                if (at != here_.end() && (why == failed.end() || why->second.find("No such file") != std::string::npos))
                    ArchiveWriter::removed(at->second.first, at->second.second);
            }
            if (removed.status != 0) debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % first % host % removed.errors);
        }
    } catch (const ExTraceable& e) {
        debugLog(e);
    } catch (const std::exception& e) {
        debugLog((boost::format("Unable to remove remote file '%1%' from '%2%': %3%") % first % host % e.what()).str());
    }
    removal_.reset();
    removing_.clear();
}

void ContentTransfer::removeTheRest() {
    try {
        action_.reconnecting("The removal on the source host", [this] {
            Ssh* ssh = action_.getSsh();
            if (removal_ && !removal_->ended()) ChannelLoop({ssh}).run([this] { return removal_->ended(); });
            endRemoval();
            if (!arrived_.empty() && startRemoval(*ssh))
                ChannelLoop({ssh}).run([this] { return !removal_ || removal_->ended(); });
            const bool lost = removal_ && removal_->lost();
            endRemoval();
            // A removal cut on its way hands its names back: they go on the
            // next connection.
            if (lost || (ssh->lost() && !arrived_.empty())) throw VELMO_EXC(SshConnectionFault);
        });
    } catch (const ExTraceable& e) {
        if (!isConnectionFailure(e)) throw;
        contentLog.warnStream() << "The archives that arrived last stay on the source host for now: " << e.what();
    }
}

void ContentTransfer::lastRemoval() noexcept {
    try {
        lastNames();
        if (!removal_ && arrived_.empty()) return;
        // The connection there is, if any: no new one is made now.
        Ssh* ssh = action_.ssh.get();
        if (ssh == nullptr || ssh->lost()) return;
        const auto until = std::chrono::steady_clock::now() + kLastRemoval;
        const auto left = [until] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        };
        if (removal_) ChannelLoop({ssh}).finish([this] { return removal_->ended(); }, left());
        endRemoval();
        if (!arrived_.empty() && startRemoval(*ssh))
            ChannelLoop({ssh}).finish([this] { return !removal_ || removal_->ended(); }, left());
        endRemoval();
    } catch (const std::exception& e) {
        contentLog.warnStream() << "The last removal on the source host failed: " << e.what();
    }
}

// ------------------------------------------------------------- action

void checkContentFileName(const std::string& name) {
    bool unsafe = name.empty() || name[0] == '/';
    std::string::size_type start = 0;
    while (!unsafe && start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string component = name.substr(start, end - start);
        if (component == ".." || (component.empty() && end == name.size())) unsafe = true;
        start = end + 1;
    }
    if (unsafe || name.find('\0') != std::string::npos) throw VELMO_EXC(UnsafeContentFileName) % name;
}

namespace {

// The name's components without empty ones and "." ("a//./b" is "a/b").
std::string normalName(const std::string& name) {
    std::string normal;
    std::string::size_type start = 0;
    while (start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string part = name.substr(start, end - start);
        if (!part.empty() && part != ".") normal += (normal.empty() ? "" : "/") + part;
        start = end + 1;
    }
    return normal;
}

// Names of the session directory's own files, with the forms they take
// while they are written (six random characters) or moved aside (".N").
bool isSessionFileName(const std::string& name) {
    static const std::regex own(
        "(migration\\.(status|result|log)|transfer\\.result|scout-result\\.xml|agent-deployment\\.status|"
        "dump\\.xml|dump-name|migration-result-name|dumping-status\\.xml|host-key|archives)"
        "([A-Za-z0-9]{6}|\\.[0-9]+|\\.busy-[0-9]+)?");
    return std::regex_match(name, own);
}

}  // namespace

void checkContentNamesApart(const std::vector<DumpFile>& records, const Directory& contentDir,
                            const Directory& sessionDir) {
    std::set<std::string> files, directories, colliding;
    for (const DumpFile& record : records) {
        const std::string name = normalName(record.name);
        const Directory holder = contentDir.existingBelow(getPath(name));
        if (holder.isOpen() && holder.sameAs(sessionDir) && isSessionFileName(getFileNameFromPath(name)))
            colliding.insert(record.name);
        if (!files.insert(name).second || directories.count(name)) colliding.insert(record.name);
        for (std::string::size_type at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
            directories.insert(name.substr(0, at));
            if (files.count(name.substr(0, at))) colliding.insert(record.name);
        }
    }
    // A name that another one's partial download would take.
    for (const std::string& name : files)
        if (files.count(name + ".part")) colliding.insert(name + ".part");
    if (colliding.empty()) return;
    std::string list;
    for (const std::string& name : colliding) list += (list.empty() ? "'" : ", '") + name + "'";
    throw VELMO_EXC(ContentNamesCollide) % list;
}

bool RetrieveContentAction::checkMD5(const DumpFile& file) {
    if (file.md5sum.empty()) return false;
    const std::string leaf = getFileNameFromPath(file.name);
    if (md5OfFile(theSession->directory(), leaf) == file.md5sum) return true;
    const Directory dir = contentDir_.existingBelow(getPath(file.name));
    return !(dir.isOpen() && dir.sameAs(theSession->directory()) && leaf == file.name) &&
           md5OfFile(dir, leaf) == file.md5sum;
}

std::unique_ptr<Ssh> RetrieveContentAction::loginAside(Reconnects& tries, const std::function<bool()>& giveUp) {
    struct Listed {
        explicit Listed(RetrieveContentAction& action) : action(action) {
            std::lock_guard<std::mutex> hold(action.loginsMutex_);
            action.loggingIn_.push_back(pthread_self());
        }
        ~Listed() {
            std::lock_guard<std::mutex> hold(action.loginsMutex_);
            auto& threads = action.loggingIn_;
            threads.erase(std::find_if(threads.begin(), threads.end(),
                                       [](pthread_t t) { return pthread_equal(t, pthread_self()); }));
        }
        RetrieveContentAction& action;
    } listed(*this);
    return connect(tries, giveUp);
}

void RetrieveContentAction::closeGate() { std::promise<void>().swap(firstLogin_); }

void RetrieveContentAction::interruptLogins() {
    if (!programTerminated()) return;
    closeGate();
    for (int i = 0; i < 60; ++i) {
        {
            std::lock_guard<std::mutex> hold(loginsMutex_);
            if (loggingIn_.empty()) return;
            for (const pthread_t thread : loggingIn_) pthread_kill(thread, SIGTERM);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

void RetrieveContentAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(CantRetrieveDump, e);
    }
}

void RetrieveContentAction::retrieve() {
    uid_t uid;
    gid_t gid;
    getAdminIds(uid, gid);

    status->setAgentParams(cfg->host);
    status->setTransferDump();
    status->saveFile();

    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    CommandResult listed;
    ContentTransfer transfer(*this, uid, gid);
    transfer.prepare();
    reconnecting("The content list", [&] {
        transfer.firstConnected();
        listed = run(CommandOptions(agentDir()).asRoot().endingWithRun(),
                     commandLine({agent->getEffectiveInterpreter(), agentDir() + "/" + agent->getEntryPoint(),
                                  "--get-content-list"}));
    });
    reconnects().progressed();
    if (listed.status != 0) throw VELMO_EXC(CantRetrieveContentList) % listed.errors;

    std::unique_ptr<AgentFileList> list = getFileList(listed.output);
    const std::vector<DumpFile>& records = list->getFileList();
    const uint64_t total = list->getTotalSize();
    // Every name is checked before anything is written.
    for (const DumpFile& record : records) checkContentFileName(record.name);

    const std::string contentPath = cfg->dumpsDir.empty() ? theSession->getCidFilesDir() : cfg->dumpsDir;
    if (!cfg->noCheckSpace) {
        uint64_t available = getFreeSpace(contentPath);
        if (available < total)
            throw VELMO_EXC(NotEnoughSpace) % boost::lexical_cast<std::string>(available) %
                boost::lexical_cast<std::string>(total);
    }
    // Made where missing, as kvaadm's; a link that another account placed on
    // the way is not followed.
    contentDir_ = cfg->dumpsDir.empty() ? theSession->directory() : Directory::make(cfg->dumpsDir, uid, gid, 0755);
    checkContentNamesApart(records, contentDir_, theSession->directory());
    status->setTransferTotals(decimal(static_cast<int64_t>(records.size())), boost::lexical_cast<std::string>(total));

    FileRetrievalProgressUpdater updater(*status, static_cast<int64_t>(total), static_cast<int32_t>(records.size()));
    status->saveFile();
    transfer.run(records, updater);

    writeNameFile(session_names::DUMP_NAME, contentPath + "/dump.xml");
    writeNameFile(session_names::RESULT_NAME, contentPath + "/migration.result");
}

}  // namespace velmo
