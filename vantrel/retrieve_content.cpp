#include "vantrel/retrieve_content.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <boost/lexical_cast.hpp>
#include <log4cpp/Category.hh>

#include "commons/agent_spec.h"
#include "commons/commons.h"
#include "commons/session.h"
#include "vantrel/content_names.h"
#include "vantrel/content_plan.h"
#include "vantrel/content_progress.h"
#include "vantrel/content_receiver.h"
#include "vantrel/content_streams.h"
#include "vantrel/source_removal.h"

namespace velmo {

namespace {

log4cpp::Category& contentLog = log4cpp::Category::getInstance("p.Action");

// The pieces of a large archive when several streams share it.
const int64_t kRangeSize = 8 << 20;
// How long the first connection's loop waits for its sockets at most while
// other streams wait to connect or work on threads of their own.
const long kBusyWaitMs = 20;

}  // namespace

// Brings the archives of a plan over the streams: each step starts, ends and
// services what the streams and the removal need, and saves the status when
// it is due, until everything arrived. It runs on the transfer's thread and
// holds no lock; the receiver, the progress and the removal guard what the
// streams' threads share with them.
class ContentTransfer {
public:
    ContentTransfer(RetrieveContentAction& action, FileRetrievalProgressUpdater& progress, SourceRemoval& removal,
                    ContentStreams& streams)
        : action_(action), progress_(progress), removal_(removal), streams_(streams) {}
    void fetch(std::vector<ContentReceiver::Archive> archives, int64_t toFetch);

private:
    // False once everything arrived.
    bool step(ContentReceiver& receiver);
    void saveStatus(const ContentReceiver& receiver);

    RetrieveContentAction& action_;
    FileRetrievalProgressUpdater& progress_;
    SourceRemoval& removal_;
    ContentStreams& streams_;
    std::vector<const DumpFile*> fetched_;  // the archives that come, in list order
    std::vector<Directory> fetchedTo_;      // and the levels they land in
    std::atomic<int64_t> fetchedBytes_{0};
    std::atomic<std::size_t> shown_{0};  // the archive that the terminal's line names
};

void ContentTransfer::fetch(std::vector<ContentReceiver::Archive> archives, int64_t toFetch) {
    for (const ContentReceiver::Archive& archive : archives) {
        fetched_.push_back(archive.record);
        fetchedTo_.push_back(archive.dir);
    }
    const int count = streams_.neededFor(toFetch);
    // Streams' threads call these: the progress, the removal and the
    // streams guard what they touch.
    ContentReceiver::Events events;
    events.started = [this](std::size_t) { progress_.changed(); };
    events.received = [this, toFetch](int s, int64_t bytes) {
        streams_.progressed(s);
        progress_(static_cast<int>(bytes));
        progress_.show(fetched_[shown_]->name, fetchedBytes_ += bytes, toFetch);
    };
    events.arrived = [this](std::size_t i) {
        removal_.arrive(fetched_[i]->name, fetchedTo_[i], getFileNameFromPath(fetched_[i]->name));
        progress_.fileDone();
    };
    ContentReceiver receiver(std::move(archives), count, count > 1 ? kRangeSize : 0, action_.commandContext().host,
                             events, action_.getSsh()->roundTripMs());
    // Whatever ends the transfer, nothing of the streams reaches the
    // receiver once it goes.
    struct Stopped {
        ~Stopped() { streams.stop(); }
        ContentStreams& streams;
    } stopped{streams_};
    streams_.open(&receiver, static_cast<std::size_t>(count));
    contentLog.infoStream() << "Fetching " << toFetch << " bytes of " << fetched_.size() << " archive(s) over " << count
                            << " stream(s)";
    while (step(receiver)) {
    }
    saveStatus(receiver);
    // What arrived last is removed while the senders leave.
    removal_.everythingArrived(streams_.first());
    streams_.endSenders();
    removal_.endPeriodic();
}

bool ContentTransfer::step(ContentReceiver& receiver) {
    checkProgramTerminated();
    streams_.closeSpare();
    if (receiver.finished()) return false;
    streams_.keepSending(receiver);
    removal_.keepRemoving(streams_.first(), !receiver.anythingToAsk());
    if (progress_.due()) saveStatus(receiver);
    // The first connection is serviced until a stream or the status needs
    // the next step; streams that wait to connect wait meanwhile.
    const auto due = [&] {
        return receiver.finished() || progress_.due() || streams_.anyDue(receiver) ||
               removal_.lastDue(streams_.first(), !receiver.anythingToAsk());
    };
    Ssh* first = streams_.first();
    ChannelLoop(first ? std::vector<Ssh*>{first} : std::vector<Ssh*>())
        .run(due, streams_.anyBusy() ? kBusyWaitMs : ChannelLoop::kLongestWaitMs);
    // Nothing left to service: the next login or try is waited for.
    if (!due()) streams_.waitForNext(receiver.anythingToAsk());
    return true;
}

void ContentTransfer::saveStatus(const ContentReceiver& receiver) {
    int64_t held = 0;
    for (std::size_t i = 0; i < fetched_.size(); ++i) held += receiver.held(i);
    const std::size_t current = receiver.current();
    if (current >= fetched_.size()) return progress_.save(std::string(), 0, 0, held);
    shown_ = current;
    progress_.save(fetched_[current]->name, fetched_[current]->size, fetched_[current]->size - receiver.held(current),
                   held);
}

// ------------------------------------------------------------- action

bool RetrieveContentAction::checkMD5(const DumpFile& file) { return hereAlready(file, contentDir_); }

void RetrieveContentAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw VELMO_EXC_INNER(CantRetrieveDump, e);
    }
}

std::unique_ptr<AgentFileList> RetrieveContentAction::listContent(ContentStreams& streams) {
    boost::shared_ptr<Agent> agent = theAgentsFactory().getAgent(cfg->agentName);
    CommandResult listed;
    // The streams get ready while the source host makes the list.
    streams.prepare();
    reconnecting("The content list", [&] {
        streams.firstConnected();
        listed = run(CommandOptions(agentDir()).asRoot().endingWithRun(),
                     commandLine({agent->getEffectiveInterpreter(), agentDir() + "/" + agent->getEntryPoint(),
                                  "--get-content-list"}));
    });
    reconnects().progressed();
    if (listed.status != 0) throw VELMO_EXC(CantRetrieveContentList) % listed.errors;
    return getFileList(listed.output);
}

void RetrieveContentAction::retrieve() {
    uid_t uid;
    gid_t gid;
    getAdminIds(uid, gid);

    status->setAgentParams(cfg->host);
    status->setTransferDump();
    status->saveFile();

    SourceRemoval removal(*this);
    ContentStreams streams(*this, removal);
    std::unique_ptr<AgentFileList> list = listContent(streams);
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
    status->setTransferTotals(boost::lexical_cast<std::string>(records.size()), boost::lexical_cast<std::string>(total));

    FileRetrievalProgressUpdater progress(*status, static_cast<int64_t>(total), static_cast<int32_t>(records.size()));
    status->saveFile();
    try {
        ContentPlan plan = planContent(records, contentDir_, agentDir(), uid, gid, progress);
        for (const ContentPlan::Here& here : plan.toRemove) removal.arrive(here.name, here.dir, here.leaf);
        if (plan.archives.empty())
            streams.open(nullptr, 0);
        else
            ContentTransfer(*this, progress, removal, streams).fetch(std::move(plan.archives), plan.toFetch);
        removal.removeTheRest();
    } catch (...) {
        removal.lastRemoval();
        throw;
    }

    writeNameFile(session_names::DUMP_NAME, contentPath + "/dump.xml");
    writeNameFile(session_names::RESULT_NAME, contentPath + "/migration.result");
}

}  // namespace velmo
