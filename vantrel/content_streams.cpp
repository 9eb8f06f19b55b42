#include "vantrel/content_streams.h"

#include <algorithm>
#include <cstring>

#include <log4cpp/Category.hh>

#include "commons/env_number.h"
#include "commons/exceptions.h"
#include "vantrel/remote_programs.h"
#include "vantrel/source_removal.h"

namespace velmo {

namespace {

log4cpp::Category& streamLog = log4cpp::Category::getInstance("p.Action");

// Streams a transfer uses at most unless KVA_STREAMS says otherwise, and the
// data each of them should have at least.
const int kDefaultStreams = 4;
const int kMostStreams = 16;
const int64_t kStreamShare = 8 << 20;
// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;
// How long a stream's thread waits for its connection at most before it
// looks whether it is to leave.
const long kStreamWaitMs = 100;
// How long the transfer's thread sleeps at most while it waits for a login,
// a stream's thread or a pause, and how soon it looks again while a login
// or a stream's thread is on its way.
const std::chrono::milliseconds kLongestSleep(100);
const std::chrono::milliseconds kBusySleep(20);

}  // namespace

// ---------------------------------------------------------------- pipes

void StreamPipe::connect(ContentReceiver* receiver) {
    MutexLock hold(mutex_);
    receiver_ = receiver;
    if (receiver_ && !early_.empty()) receiver_->received(stream_, early_.data(), early_.size());
    early_.clear();
}

int StreamPipe::Requests::read(char* buffer, unsigned size) {
    if (pending_.empty()) {
        MutexLock hold(pipe_.mutex_);
        ContentReceiver* receiver = pipe_.receiver_;
        if (receiver == nullptr) return later;
        pending_ = receiver->nextRequests(pipe_.stream_);
        if (pending_.empty()) return receiver->waiting(pipe_.stream_) || receiver->anythingToAsk() ? later : 0;
    }
    const std::size_t n = std::min<std::size_t>(size, pending_.size());
    std::memcpy(buffer, pending_.data(), n);
    pending_.erase(0, n);
    return static_cast<int>(n);
}

int StreamPipe::Answers::write(const char* data, unsigned size) {
    MutexLock hold(pipe_.mutex_);
    if (pipe_.receiver_ == nullptr)
        pipe_.early_.append(data, size);
    else
        pipe_.receiver_->received(pipe_.stream_, data, size);
    return static_cast<int>(size);
}

// ---------------------------------------------------------------- streams

struct ContentStreams::Stream {
    explicit Stream(int index) : index(index), pipe(index) {}
    std::string name() const { return "Stream " + std::to_string(index + 1) + " of the content"; }

    const int index;
    StreamPipe pipe;
    Ssh* ssh = nullptr;        // null while it waits to connect again
    std::unique_ptr<Ssh> own;  // streams but the first have a connection of their own
    std::unique_ptr<ActionCommand> sender;
    std::chrono::steady_clock::time_point retryAt;
    std::future<std::unique_ptr<Ssh>> login;  // on its way
    bool everConnected = false;
    bool unused = false;  // its first login failed, or its tries: the others do without it
    Reconnects tries;     // after its connection was lost
    std::unique_ptr<ExTraceable> loss;  // the first loss of a streak, which fails the run if it lasts
    std::future<void> thread;  // services the connection while the sender runs (streams but the first)
    std::atomic<bool> stop{false};        // asks the thread to leave, and a login to give up its turn
    std::atomic<bool> progressed{false};  // bytes came since the transfer's thread last looked

    bool loggingIn() const { return login.valid(); }
    bool loginOver() const { return loggingIn() && login.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    bool serving() const { return thread.valid(); }
    bool servingOver() const { return serving() && thread.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
};

ContentStreams::ContentStreams(Action& action, SourceRemoval& removal) : action_(action), removal_(removal) {}

void ContentStreams::progressed(int s) { streams_[static_cast<std::size_t>(s)]->progressed = true; }

ContentStreams::~ContentStreams() {
    closeGate();
    stop();
    // The logins still on their way end with their streams.
    streams_.clear();
    spare_.clear();
}

void ContentStreams::stop() {
    for (const auto& stream : streams_) {
        stream->pipe.connect(nullptr);
        stream->stop = true;
    }
    for (const auto& stream : streams_) {
        if (!stream->serving()) continue;
        try {
            stream->thread.get();
        } catch (...) {
            // The transfer ends with what ended it first.
        }
    }
}

void ContentStreams::prepare() {
    const int asked = static_cast<int>(envNumber("KVA_STREAMS", 1, kMostStreams, 0));
    count_ = asked > 0 ? asked : kDefaultStreams;
    gate_ = firstLogin_.get_future().share();
    for (int i = 0; i < count_; ++i) {
        streams_.emplace_back(new Stream(i));
        if (i > 0) startLogin(*streams_.back());
    }
}

int ContentStreams::neededFor(int64_t bytes) const {
    const long asked = envNumber("KVA_STREAMS", 1, kMostStreams, 0);
    const int64_t wanted = asked > 0 ? asked : std::max<int64_t>(1, std::min<int64_t>(kDefaultStreams, bytes / kStreamShare));
    return static_cast<int>(std::min<int64_t>(wanted, static_cast<int64_t>(streams_.size())));
}

void ContentStreams::firstConnected() {
    Ssh* ssh = action_.getSsh();
    // The senders' directory is known before another thread needs it.
    action_.agentDir();
    if (!gateOpen_) firstLogin_.set_value();
    gateOpen_ = true;
    Stream& first = *streams_.front();
    if (first.ssh == ssh && first.sender && !first.sender->ended()) return;
    first.sender.reset();
    first.ssh = ssh;
    first.everConnected = true;
    startSender(first, *ssh, count_);
}

void ContentStreams::open(ContentReceiver* receiver, std::size_t count) {
    // A first connection made again after the list, or a sender that ended.
    if (count > 0) firstConnected();
    count_ = static_cast<int>(std::max<std::size_t>(1, count));
    while (streams_.size() > count) {
        spare_.push_back(std::move(streams_.back()));
        streams_.pop_back();
        spare_.back()->stop = true;
    }
    for (const auto& stream : streams_) stream->pipe.connect(receiver);
    if (count > 0 && streams_.front()->sender) streams_.front()->sender->shareLink(count_);
    closeSpare();
}

void ContentStreams::closeSpare() {
    // The connection goes first: it lets go of the sender's channel without
    // waiting for the peer.
    for (auto& stream : spare_) {
        if (stream->loggingIn() && !stream->loginOver()) continue;
        stream->login = {};
        stream->own.reset();
        stream->sender.reset();
    }
}

Ssh* ContentStreams::first() const { return streams_.empty() ? nullptr : streams_.front()->ssh; }

bool ContentStreams::anyBusy() const {
    return std::any_of(streams_.begin(), streams_.end(), [](const std::unique_ptr<Stream>& stream) {
        return (!stream->unused && !stream->ssh) || stream->serving();
    });
}

bool ContentStreams::anyDue(const ContentReceiver& receiver) const {
    const auto now = std::chrono::steady_clock::now();
    for (const auto& stream : streams_) {
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

void ContentStreams::waitForNext(bool work) const {
    auto next = std::chrono::steady_clock::now() + kLongestSleep;
    for (const auto& stream : streams_) {
        if (stream->loggingIn() || stream->serving())
            next = std::min(next, std::chrono::steady_clock::now() + kBusySleep);
        else if (!stream->unused && !stream->ssh && work)
            next = std::min(next, stream->retryAt);
    }
    Reconnects::wait(std::chrono::duration_cast<std::chrono::milliseconds>(next - std::chrono::steady_clock::now()));
}

void ContentStreams::serve(Stream& stream) {
    // Answers wake it; the wait is bounded so that it sees a request to leave.
    ChannelLoop({stream.ssh}).run([&stream] { return stream.stop || stream.sender->ended(); }, kStreamWaitMs);
}

void ContentStreams::startLogin(Stream& stream) {
    const std::shared_future<void> first = gate_;
    const int share = count_;
    stream.login = std::async(std::launch::async, [this, &stream, first, share] {
        // Until the first login is through, nothing says that the host and
        // the credentials are right; and a connection that waits unlogged
        // takes a place of the host's few (MaxStartups).
        try {
            first.get();
        } catch (const std::future_error&) {
            throw VELMO_EXC(SshConnectionFault);
        }
        std::unique_ptr<Ssh> ssh = loginAside(stream);
        // The sender is ready when the list is: its channel is opened and
        // its command started here.
        startSender(stream, *ssh, share);
        const ActionCommand& sender = *stream.sender;
        ChannelLoop({ssh.get()}).run([&sender] { return sender.started(); }, kStreamWaitMs);
        return ssh;
    });
}

void ContentStreams::startSender(Stream& stream, Ssh& ssh, int share) {
    const CommandOptions how =
        CommandOptions(action_.agentDir()).quietOutput().quietInput().sharingLinkWith(share).inNoHurry();
    stream.sender.reset(new ActionCommand(action_.commandContext(), how, commandLine(perlRunning(remote::content_sender)),
                                          stream.pipe.requests(), stream.pipe.answers()));
    stream.sender->start(ssh);
}

bool ContentStreams::loggedIn(Stream& stream) {
    try {
        stream.own = stream.login.get();
        stream.ssh = stream.own.get();
        if (stream.everConnected) streamLog.infoStream() << stream.name() << " connected again";
        stream.everConnected = true;
        return true;
    } catch (const ExTraceable& e) {
        checkProgramTerminated();
        if (stream.everConnected) {
            notConnected(stream, e);
        } else {
            // The host could not be reached again and again (its tries are
            // spent): the others go on.
            streamLog.warnStream() << stream.name() << " not opened, going on without it: " << e.what();
            stream.unused = true;
        }
        return false;
    }
}

void ContentStreams::notConnected(Stream& stream, const ExTraceable& e) {
    if (!isConnectionFailure(e)) e.raise();
    if (!stream.loss) stream.loss.reset(e.clone());
    tryAgain(stream, std::string("not connected again: ") + e.what());
}

void ContentStreams::tryAgain(Stream& stream, const std::string& why) {
    std::chrono::milliseconds pause;
    if (stream.tries.again(stream.name(), why, pause)) {
        stream.retryAt = std::chrono::steady_clock::now() + pause;
    } else if (stream.index == 0) {
        stream.loss->raise();
    } else {
        // The first stream carries on, or fails the run when it cannot.
        streamLog.warnStream() << stream.name() << " is given up; the others go on";
        stream.unused = true;
    }
}

void ContentStreams::takeProgress(Stream& stream) {
    if (!stream.progressed.exchange(false)) return;
    stream.tries.progressed();
    stream.loss.reset();
}

void ContentStreams::keepSending(ContentReceiver& receiver) {
    for (const auto& stream : streams_) keepSending(*stream, receiver);
}

void ContentStreams::keepSending(Stream& stream, ContentReceiver& receiver) {
    takeProgress(stream);
    if (stream.unused || (stream.loggingIn() && (!stream.loginOver() || !loggedIn(stream)))) return;
    if (stream.serving()) {
        if (!stream.servingOver()) return;
        stream.thread.get();  // what ended the thread, if anything, ends the transfer
    }
    if (stream.sender && !stream.sender->ended()) {
        // Started on its login thread.
        if (stream.index > 0 && !stream.serving()) {
            stream.sender->shareLink(count_);
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
    startSender(stream, *stream.ssh, count_);
    if (stream.index > 0) stream.thread = std::async(std::launch::async, [&stream] { serve(stream); });
}

void ContentStreams::lose(Stream& stream, ContentReceiver& receiver, std::string why) {
    takeProgress(stream);
    const std::size_t current = receiver.current();
    const int64_t held = receiver.held(current);
    receiver.lost(stream.index);
    stream.sender.reset();
    if (stream.index == 0) removal_.endPeriodic();
    stream.ssh = nullptr;
    stream.own.reset();
    if (!stream.loss) stream.loss.reset(VELMO_EXC(SshConnectionFault).clone());
    tryAgain(stream, "lost (" + why + "); the bytes that arrived are kept (" + std::to_string(held) + " of " +
                         receiver.name(current) + ")");
}

void ContentStreams::reconnect(Stream& stream) {
    if (stream.index != 0) return startLogin(stream);
    // The first stream's connection is the action's, which the removal
    // shares: it is made here.
    try {
        stream.ssh = action_.getSsh(stream.tries);
        streamLog.infoStream() << stream.name() << " connected again";
    } catch (const ExTraceable& e) {
        checkProgramTerminated();
        notConnected(stream, e);
    }
}

void ContentStreams::endSenders() {
    Stream& first = *streams_.front();
    ChannelLoop(first.ssh ? std::vector<Ssh*>{first.ssh} : std::vector<Ssh*>())
        .run([&first] { return !first.sender || first.sender->ended(); });
    for (const auto& stream : streams_)
        if (stream->serving()) stream->thread.get();
}

// ---------------------------------------------------------------- logins

std::unique_ptr<Ssh> ContentStreams::loginAside(Stream& stream) {
    // A stream that the content turns out not to need gives up its turn for
    // a login slot: other runs may wait for one. (A stop request ends the
    // login wherever it waits.)
    return action_.connect(stream.tries, [&stream] { return stream.stop.load(); });
}

void ContentStreams::closeGate() { std::promise<void>().swap(firstLogin_); }

}  // namespace velmo
