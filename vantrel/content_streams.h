// The streams of a content transfer: each a connection to the source host
// with a content sender on it (remote/content-sender.pl), which sends what
// the receiver asks for. The first stream's connection is the run's own,
// serviced by the transfer's thread; each other stream's connection is
// serviced by a thread of its own while its sender runs (libssh2 decrypts a
// connection on one core).
//
// The streams get ready while the source host makes the content list: once
// the run's connection logged in (the gate), the others log in, each on a
// thread of its own and in one of the host's login slots, so that
// credentials that fail are tried once, each checks the host key the first
// one pinned, and no connection waits unlogged; every connection starts its
// sender, which waits for its requests until the list is known.
//
// Threads and hand-overs. A Stream belongs to the transfer's thread, which
// makes every decision below, but:
// - while its `login` runs, the login thread has `tries`, makes the
//   connection and, before the list, starts the sender; both come back
//   through the future, once;
// - while its `thread` runs, that thread services `own` and `sender`, and
//   the transfer's thread touches neither until the future is ready;
// - `stop` and `progressed` are atomic, for any thread;
// - its pipe hands what the sender asks and says to the receiver under a
//   mutex of its own, held while a call reaches the receiver, so that once
//   the pipe is disconnected nothing of the stream reaches it any more (the
//   transfer's thread contends for it then only); the receiver guards its
//   own state.
// No lock is held across a login, a wait or I/O.
#ifndef VANTREL_CONTENT_STREAMS_H
#define VANTREL_CONTENT_STREAMS_H

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "commons/mutex.h"
#include "vantrel/actions.h"
#include "vantrel/content_receiver.h"
#include "vantrel/reconnects.h"

namespace velmo {

class SourceRemoval;

// What a stream's sender is asked and says, and the receiver it reaches once
// the list made one.
class StreamPipe {
public:
    explicit StreamPipe(int stream) : stream_(stream), requests_(*this), answers_(*this) {}
    // From now on the sender's words go to receiver (null: nowhere, and it
    // is asked for nothing); what it said before (nothing, unless it
    // garbled) goes first. Returns once no call of this stream reaches the
    // receiver it had.
    void connect(ContentReceiver* receiver) EXCLUDES(mutex_);
    IOReadChannel& requests() { return requests_; }
    IOWriteChannel& answers() { return answers_; }

private:
    // The requests the receiver hands out as the channel takes them, and the
    // end of the input once nothing is left for this stream; until the list
    // is known, nothing yet.
    class Requests : public IOReadChannel {
    public:
        explicit Requests(StreamPipe& pipe) : pipe_(pipe) {}
        int read(char* buffer, unsigned size) override;

    private:
        StreamPipe& pipe_;
        std::string pending_;  // the servicing thread's
    };
    class Answers : public IOWriteChannel {
    public:
        explicit Answers(StreamPipe& pipe) : pipe_(pipe) {}
        int write(const char* data, unsigned size) override;

    private:
        StreamPipe& pipe_;
    };
    const int stream_;
    Requests requests_;
    Answers answers_;
    Mutex mutex_;
    ContentReceiver* receiver_ GUARDED_BY(mutex_) = nullptr;
    std::string early_ GUARDED_BY(mutex_);
};

class ContentStreams {
public:
    ContentStreams(Action& action, SourceRemoval& removal);
    // Stops and joins the streams' threads, ends the logins on their way,
    // then the senders and connections: nothing reads the receiver any more.
    ~ContentStreams();
    ContentStreams(const ContentStreams&) = delete;
    ContentStreams& operator=(const ContentStreams&) = delete;

    // Makes the streams the content may need; their logins wait for the
    // first one.
    void prepare();
    // The run's connection is made (again): the gate opens, and the first
    // stream's sender starts on it.
    void firstConnected();
    // The first count streams take their part of the transfer; the others
    // end (or give up their turn for a login slot).
    void open(ContentReceiver* receiver, std::size_t count);

    // Settles what a sender that ended means, connects a stream that lost
    // its connection again when its pause is over, and starts a sender on a
    // stream that has work and none.
    void keepSending(ContentReceiver& receiver);
    // Whether a stream needs keepSending: a login or a pause over, a sender
    // that ended, or work for a stream without a sender. Each of these is
    // acted upon: a condition that stayed true would keep the loop from
    // servicing the first connection.
    bool anyDue(const ContentReceiver& receiver) const;
    // Whether a stream waits to connect or is serviced by its thread.
    bool anyBusy() const;
    // Sleeps until a login may have ended, a stream's thread may be over or
    // the first stream that waits to connect again (when there is work) may
    // try, a tenth of a second at most.
    void waitForNext(bool work) const;
    // The first stream's connection, if it has one.
    Ssh* first() const;
    // Bytes of stream s came: its tries start afresh (any thread).
    void progressed(int s);
    // The senders see the end of their input and leave.
    void endSenders();
    // Nothing of the streams reaches the receiver any more: their pipes are
    // disconnected and their threads joined (whatever ended the transfer).
    void stop();
    // Spare streams whose logins are over end.
    void closeSpare();
    int count() const { return count_; }
    // How many streams carry bytes: KVA_STREAMS when set, else one per 8 MiB
    // to fetch, at most four; never more than were made.
    int neededFor(int64_t bytes) const;

private:
    struct Stream;

    void startLogin(Stream& stream);
    void startSender(Stream& stream, Ssh& ssh, int share);
    bool loggedIn(Stream& stream);
    // A connection could not be made again: the next try waits its pause.
    void notConnected(Stream& stream, const ExTraceable& e);
    // Another try for stream after why, when its tries allow it.
    void tryAgain(Stream& stream, const std::string& why);
    void keepSending(Stream& stream, ContentReceiver& receiver);
    // A stream's connection went away: what it had on its way is handed out
    // again (what came of it is kept), and it waits to connect again. why is
    // a copy: the connection that says it goes here.
    void lose(Stream& stream, ContentReceiver& receiver, std::string why);
    void reconnect(Stream& stream);
    // Services the connection of a stream but the first while its sender
    // runs.
    static void serve(Stream& stream);
    void takeProgress(Stream& stream);
    // A login on a thread of its own.
    std::unique_ptr<Ssh> loginAside(Stream& stream);
    // The logins that wait for the first one end, unless it was kept.
    void closeGate();

    Action& action_;
    SourceRemoval& removal_;
    std::vector<std::unique_ptr<Stream>> streams_;
    std::vector<std::unique_ptr<Stream>> spare_;  // made for content that did not need them
    int count_ = 1;                               // streams that carry bytes
    std::promise<void> firstLogin_;               // gone unkept, it ends the others' logins
    std::shared_future<void> gate_;               // the first login is over: the others go on
    bool gateOpen_ = false;
};

}  // namespace velmo

#endif
