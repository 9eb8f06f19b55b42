#include "vantrel/retrieve_content.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
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
#include "vantrel/remote_programs.h"
#include "vantrel/terminal.h"

namespace velmo {

namespace {

log4cpp::Category& contentLog = log4cpp::Category::getInstance("p.Action");

std::string decimal(int64_t value) { return boost::lexical_cast<std::string>(value); }

// value - amount, wrapping around instead of overflowing.
int64_t minus(int64_t value, int64_t amount) {
    return static_cast<int64_t>(static_cast<uint64_t>(value) - static_cast<uint64_t>(amount));
}

// Longest block the sender announces, and longest line of its framing.
const int64_t kMaxBlock = 16 << 20;
const std::size_t kMaxHeader = 4096;
// How often archives that arrived are removed on the source host while the
// stream goes on.
const std::chrono::seconds kRemovalInterval(10);
// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;

// The length of a plain file of its own under name in dir, or -1.
off_t sizeOfFile(const Directory& dir, const std::string& name) {
    struct stat st;
    if (!dir.isOpen() || !dir.lstat(name, st) || !S_ISREG(st.st_mode) || st.st_nlink != 1) return -1;
    return st.st_size;
}

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

// Whether two hexadecimal sums are one, whatever the case of their digits.
bool sameSum(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

}  // namespace

// ------------------------------------------------------------- progress

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status, int64_t totalSize,
                                                           int32_t files)
    : status_(status), start_(std::time(nullptr)), transferred_(0), sizeLeft_(totalSize), filesLeft_(files),
      currentFileLeft_(0) {}

void FileRetrievalProgressUpdater::startFile(int64_t size, int64_t already) {
    currentFileLeft_ = minus(size, already);
    if (already == 0) return;
    sizeLeft_ = minus(sizeLeft_, already);
    status_.setTransferSizeLeft(decimal(sizeLeft_));
    status_.setTransferCurrentFileSizeLeft(decimal(currentFileLeft_));
}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    if (bytes <= 0) return;
    // The sizes come from the agent's list: a hostile one may put them next
    // to the ends of the range, where signed arithmetic would overflow.
    sizeLeft_ = minus(sizeLeft_, bytes);
    currentFileLeft_ = minus(currentFileLeft_, bytes);
    transferred_ = minus(transferred_, -static_cast<int64_t>(bytes));
    std::time_t now = std::time(nullptr);
    int64_t speed = now != start_ ? transferred_ / static_cast<int64_t>(now - start_) : 0;
    status_.setTransferSpeed(decimal(speed));
    status_.setTransferSizeLeft(decimal(sizeLeft_));
    status_.setTransferCurrentFileSizeLeft(decimal(currentFileLeft_));
}

// ------------------------------------------------------------- transfer

// One run over the content list: which archives are here already, which come
// and from where on, the stream that brings them, their proof, and their
// removal on the source host.
class ContentTransfer : public IOWriteChannel {
public:
    ContentTransfer(RetrieveContentAction& action, FileRetrievalProgressUpdater& updater, unsigned uid,
                    unsigned gid)
        : action_(action), updater_(updater), uid_(uid), gid_(gid) {}
    ~ContentTransfer() override { abandonArchive(false); }

    void run(const std::vector<DumpFile>& records);
    // The framed output of the sender, or the raw bytes of one archive.
    int write(const char* data, unsigned size) override;

private:
    struct Item {
        const DumpFile* record;
        std::string local;
        std::string remote;
        bool skip;
        int64_t from;  // bytes of the archive already here, in <local>.part
        std::string leaf;  // the last component of the name
        Directory dir;  // the content directory's level that holds it, once made
    };

    std::string part(const Item& item) const { return item.leaf + ".part"; }
    void plan(const std::vector<DumpFile>& records);
    // Announces every archive up to index in the migration status, or index
    // once more when it comes again.
    void reach(std::size_t index);
    void start(std::size_t index);
    void finish(std::size_t index);
    // Fetches the queued archives; false when the source host cannot run
    // the sender.
    bool stream();
    void fetchOneByOne();
    void header(const std::string& line);
    void openArchive(std::size_t index);
    void archiveData(const char* data, std::size_t length);
    void closeArchive();
    [[noreturn]] void failArchive(std::size_t index, const std::string& why);
    // Closes the archive in hand after a failure: what arrived is kept for
    // the next run when it can be proven then, else removed.
    void abandonArchive(bool keep);
    bool removeArrived();

    RetrieveContentAction& action_;
    FileRetrievalProgressUpdater& updater_;
    unsigned uid_;
    unsigned gid_;
    std::vector<Item> items_;
    std::size_t announced_ = 0;  // items started in the status so far
    std::vector<std::size_t> queue_;
    std::size_t next_ = 0;  // position in queue_ of the archive the sender is on
    std::vector<std::size_t> again_;  // resumed archives that failed their proof
    std::vector<std::string> arrived_;  // names of proven archives
    // The archive in hand.
    int fd_ = -1;
    std::size_t current_ = 0;
    int64_t received_ = 0;
    // Summed on a thread of its own, so that a core the transfer leaves idle
    // does the work.
    std::unique_ptr<BackgroundMd5> md5_;
    // What a person at a terminal sees.
    ProgressLine progress_;
    int64_t toFetch_ = 0;
    int64_t fetched_ = 0;
    // The sender's framing.
    bool raw_ = false;
    bool started_ = false;
    std::string line_;
    int64_t blockLeft_ = 0;
};

void ContentTransfer::run(const std::vector<DumpFile>& records) {
    plan(records);
    try {
        for (std::size_t i = 0; i < items_.size(); ++i) {
            if (items_[i].skip) continue;
            queue_.push_back(i);
            toFetch_ += items_[i].record->size - items_[i].from;
        }
        if (!queue_.empty()) {
            if (!stream()) fetchOneByOne();
            if (!again_.empty()) {
                // Resumed archives that did not prove whole come once more,
                // from their first byte.
                contentLog.warnStream() << again_.size() << " resumed archive(s) failed their check; fetching them again";
                queue_.swap(again_);
                again_.clear();
                next_ = 0;
                if (!stream()) fetchOneByOne();
                if (!again_.empty()) throw std::logic_error("a whole download counts as resumed");
            }
        }
        reach(items_.size());
        removeArrived();
    } catch (...) {
        abandonArchive(true);
        try {
            removeArrived();
        } catch (...) {
            // Best effort: the failure that got us here is the one to report.
        }
        throw;
    }
}

void ContentTransfer::plan(const std::vector<DumpFile>& records) {
    for (const DumpFile& record : records) {
        checkProgramTerminated();
        Item item{&record, action_.contentDir_.pathOf(record.name), action_.agentDir() + "/" + record.name, false, 0,
                  getFileNameFromPath(record.name), Directory()};
        item.skip = action_.checkMD5(record);
        // A partial archive can only be trusted when its sum will prove the
        // whole at the end; one longer than the archive is no part of it.
        const off_t partial = sizeOfFile(action_.contentDir_.existingBelow(getPath(record.name)), part(item));
        if (!item.skip && !record.md5sum.empty() && partial > 0 && partial <= record.size) {
            item.from = partial;
            contentLog.infoStream() << "Continuing " << record.name << " from byte " << partial << " of " << record.size;
        }
        items_.push_back(item);
    }
}

void ContentTransfer::reach(std::size_t index) {
    while (announced_ < index && announced_ < items_.size()) {
        const std::size_t skipped = announced_;
        start(skipped);
        finish(skipped);
    }
    if (index < items_.size() && announced_ >= index) start(index);
}

void ContentTransfer::start(std::size_t index) {
    Item& item = items_[index];
    MigrationStatus& status = *action_.status;
    status.setCurrentFile(item.record->name, decimal(item.record->size));
    // A resumed archive counts only what is left of it.
    updater_.startFile(item.record->size, item.from);
    status.saveFile();
    // Levels of the name are made as kvaadm's; a link there is never followed.
    item.dir = action_.contentDir_.below(getPath(item.record->name), uid_, gid_, 0755);
    announced_ = std::max(announced_, index + 1);
}

void ContentTransfer::finish(std::size_t) {
    --updater_.filesLeft();
    action_.status->setTransferFilesLeft(decimal(updater_.filesLeft()));
    action_.status->saveFile();
}

bool ContentTransfer::stream() {
    std::string requests;
    for (std::size_t index : queue_) {
        const Item& item = items_[index];
        requests += decimal(item.from) + " " + item.record->name + '\0';
    }
    raw_ = false;
    started_ = false;
    line_.clear();
    blockLeft_ = 0;
    reach(queue_[next_]);

    std::istringstream in(requests);
    IOStreamReadChannel input(in);
    Ssh* ssh = action_.getSsh();
    ssh->setPeriodic(kRemovalInterval, [this] { return removeArrived(); });
    CommandResult sent;
    try {
        sent = action_.run(CommandOptions(action_.agentDir()).quietOutput().quietInput(),
                           commandLine({"perl", "-e", remote::content_sender}), input, *this);
    } catch (...) {
        ssh->clearPeriodic();
        throw;
    }
    ssh->clearPeriodic();
    if (next_ == queue_.size()) return true;
    if (!started_ && sent.status == kCommandNotFound) {
        contentLog.infoStream() << "No perl on the source host: the archives come one by one";
        return false;
    }
    failArchive(queue_[next_], sent.status == 0 ? "the source host ended the transfer early" : sent.errors);
}

void ContentTransfer::fetchOneByOne() {
    raw_ = true;
    for (; next_ < queue_.size(); ++next_) {
        const std::size_t index = queue_[next_];
        const Item& item = items_[index];
        reach(index);
        openArchive(index);
        // The shell's own check that the name leads to a file of the agent
        // directory, not through a link out of it.
        const std::string script =
            "d=$(cd -P -- \"$(dirname -- \"$2\")\" && pwd -P) && [ ! -L \"$2\" ] && "
            "case \"$d/\" in \"$(pwd -P)\"/*) ;; *) false ;; esac || "
            "{ echo \"$2: it leads outside the agent directory\" >&2; exit 1; }; exec tail -c \"+$1\" -- \"$2\"";
        std::istringstream none;
        IOStreamReadChannel input(none);
        const CommandResult sent = action_.run(CommandOptions(action_.agentDir()).quietOutput().quietInput(),
                                               commandLine({"sh", "-c", script, "sh", decimal(item.from + 1),
                                                            item.record->name}),
                                               input, *this);
        if (sent.status != 0) failArchive(index, sent.errors);
        closeArchive();
    }
}

int ContentTransfer::write(const char* data, unsigned size) {
    if (raw_) {
        archiveData(data, size);
        return static_cast<int>(size);
    }
    const char* at = data;
    const char* end = data + size;
    while (at < end) {
        if (blockLeft_ > 0) {
            const std::size_t n = static_cast<std::size_t>(std::min<int64_t>(blockLeft_, end - at));
            archiveData(at, n);
            at += n;
            blockLeft_ -= static_cast<int64_t>(n);
            continue;
        }
        const char* lineEnd = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        line_.append(at, lineEnd ? lineEnd : end);
        if (line_.size() > kMaxHeader) failArchive(queue_[next_], "the source host sent what is no archive");
        if (!lineEnd) break;
        at = lineEnd + 1;
        const std::string line = line_;
        line_.clear();
        header(line);
    }
    return static_cast<int>(size);
}

void ContentTransfer::header(const std::string& line) {
    started_ = true;
    if (next_ >= queue_.size()) failArchive(queue_.back(), "the source host sent more than was asked for");
    const std::size_t index = queue_[next_];
    if (line.compare(0, 2, "S ") == 0 && fd_ < 0) {
        openArchive(index);
    } else if (line.compare(0, 2, "D ") == 0 && fd_ >= 0) {
        try {
            blockLeft_ = boost::lexical_cast<int64_t>(line.substr(2));
        } catch (const boost::bad_lexical_cast&) {
            blockLeft_ = -1;
        }
        if (blockLeft_ <= 0 || blockLeft_ > kMaxBlock) failArchive(index, "the source host sent what is no archive");
    } else if (line == "E" && fd_ >= 0) {
        closeArchive();
        if (++next_ < queue_.size()) reach(queue_[next_]);
    } else if (line.compare(0, 2, "E ") == 0) {
        failArchive(index, items_[index].remote + ": " + line.substr(2));
    } else {
        failArchive(index, "the source host sent what is no archive");
    }
}

void ContentTransfer::openArchive(std::size_t index) {
    Item& item = items_[index];
    current_ = index;
    fd_ = item.dir.openOwn(part(item), O_RDWR | (item.from > 0 ? 0 : O_TRUNC), 0640).release();
    md5_.reset(new BackgroundMd5());
    received_ = 0;
    // The part that is here already counts into the sum; read it once.
    std::vector<char> buffer(1 << 16);
    while (received_ < item.from) {
        const ssize_t n = ::read(fd_, buffer.data(), static_cast<std::size_t>(std::min<int64_t>(buffer.size(), item.from - received_)));
        if (n <= 0) break;
        md5_->update(buffer.data(), static_cast<std::size_t>(n));
        received_ += n;
    }
    if (received_ != item.from || ::lseek(fd_, received_, SEEK_SET) != received_) {
        // What was asked for no longer fits the part: the proof will fail
        // and the archive come again from its start.
        contentLog.warnStream() << "The part of " << item.local << " changed while it was resumed";
    }
}

void ContentTransfer::archiveData(const char* data, std::size_t length) {
    const Item& item = items_[current_];
    if (fd_ < 0) failArchive(current_, "the source host sent what is no archive");
    if (received_ + static_cast<int64_t>(length) > item.record->size) {
        // More than the list promised: none of it is written, and what came
        // before is no part of the archive either.
        const int64_t offered = received_ + static_cast<int64_t>(length);
        abandonArchive(false);
        throw VELMO_EXC(ContentFileMismatch) % item.record->name % item.record->size %
            (item.record->md5sum.empty() ? "(none)" : item.record->md5sum) % ("more than " + decimal(offered - 1)) %
            "(not computed)";
    }
    checkProgramTerminated();
    for (std::size_t done = 0; done < length;) {
        const ssize_t n = ::write(fd_, data + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            contentLog.errorStream() << "Writing " << part(item) << ": " << std::strerror(errno);
            abandonArchive(false);
            throw VELMO_EXC(StreamWrite);
        }
        done += static_cast<std::size_t>(n);
    }
    md5_->update(data, length);
    received_ += static_cast<int64_t>(length);
    updater_(static_cast<int>(length));
    fetched_ += static_cast<int64_t>(length);
    progress_.update(item.record->name, fetched_, toFetch_);
}

void ContentTransfer::closeArchive() {
    const Item& item = items_[current_];
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) {
        item.dir.remove(part(item));
        throw VELMO_EXC(StreamWrite);
    }
    const std::string sum = md5_->hex();
    const bool whole = received_ == item.record->size && (item.record->md5sum.empty() || sameSum(sum, item.record->md5sum));
    if (!whole) {
        item.dir.remove(part(item));
        if (item.from > 0) {
            again_.push_back(current_);
            items_[current_].from = 0;
            return;
        }
        throw VELMO_EXC(ContentFileMismatch) % item.record->name % item.record->size %
            (item.record->md5sum.empty() ? "(none)" : item.record->md5sum) % received_ % sum;
    }
    // The archive takes its name only once it is whole and proven; whatever
    // stood under that name (a link included) is replaced.
    if (::renameat(item.dir.fd(), part(item).c_str(), item.dir.fd(), item.leaf.c_str()) != 0) {
        const std::string why = std::strerror(errno);
        item.dir.remove(part(item));
        throw VELMO_EXC(CantRetrieveContentFile) % item.remote % action_.cfg->host % item.local % why;
    }
    arrived_.push_back(item.record->name);
    finish(current_);
}

void ContentTransfer::failArchive(std::size_t index, const std::string& why) {
    const Item& item = items_[index];
    abandonArchive(received_ > 0);
    throw VELMO_EXC(CantRetrieveContentFile) % item.remote % action_.cfg->host % item.local % why;
}

void ContentTransfer::abandonArchive(bool keep) {
    if (fd_ < 0) return;
    const Item& item = items_[current_];
    ::close(fd_);
    fd_ = -1;
    if (!keep || item.record->md5sum.empty() || !md5_) item.dir.remove(part(item));
}

// Removes the archives that arrived whole on the source host, as root, in one
// command that follows no link out of the agent directory
// (remote/archive-remover.pl). Removal is best effort: each failure goes to
// the debug log, nothing stops the run.
bool ContentTransfer::removeArrived() {
    if (arrived_.empty()) return true;
    std::string names;
    for (const std::string& name : arrived_) names += name + '\0';
    const std::string& host = action_.cfg->host;
    try {
        const CommandResult removed = action_.run(CommandOptions(action_.agentDir()).asRoot().quietInput(),
                                                  commandLine({"perl", "-e", remote::archive_remover}), names);
        if (removed.status == kCommandNotFound) {
            contentLog.warnStream() << "No perl on the source host: the archives that arrived stay there until the "
                                       "agent is removed";
        } else {
            std::istringstream failures(removed.output);
            std::string name, error;
            while (std::getline(failures, name, '\0') && std::getline(failures, error, '\0'))
                debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % (action_.agentDir() + "/" + name) % host % error);
            if (removed.status != 0)
                debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % (action_.agentDir() + "/" + arrived_.front()) % host %
                         removed.errors);
        }
    } catch (const ExTraceable& e) {
        debugLog(e);
    } catch (const std::exception& e) {
        debugLog((boost::format("Unable to remove remote file '%1%' from '%2%': %3%") % arrived_.front() % host %
                  e.what()).str());
    }
    arrived_.clear();
    return true;
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
    const CommandResult listed = run(
        CommandOptions(agentDir()).asRoot().endingWithRun(),
        commandLine({agent->getEffectiveInterpreter(), agentDir() + "/" + agent->getEntryPoint(), "--get-content-list"}));
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
    ContentTransfer(*this, updater, uid, gid).run(records);

    writeNameFile(session_names::DUMP_NAME, contentPath + "/dump.xml");
    writeNameFile(session_names::RESULT_NAME, contentPath + "/migration.result");
}

}  // namespace velmo
