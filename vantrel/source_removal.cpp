#include "vantrel/source_removal.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include <boost/format.hpp>
#include <log4cpp/Category.hh>

#include "commons/commons.h"
#include "commons/log.h"
#include "vantrel/archive_writer.h"
#include "vantrel/remote_programs.h"

namespace velmo {

namespace {

log4cpp::Category& removalLog = log4cpp::Category::getInstance("p.Action");

// How often archives that arrived are removed on the source host while the
// transfer goes on, and how long the last removal may take when a stop
// request or a failure ends the transfer.
const std::chrono::seconds kRemovalInterval(10);
const std::chrono::seconds kLastRemoval(10);
// What the remover may say about the names it could not remove.
const std::size_t kFailuresKept = 1 << 20;
// Status of a command the remote shell cannot find.
const int kCommandNotFound = 127;

// The names, each ended by a NUL.
std::string nulEnded(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += name + '\0';
    return text;
}

}  // namespace

// Names, each ended by a NUL, as the remover's input; with more, the input
// waits for the rest (end).
class RemovalNames : public IOReadChannel {
public:
    RemovalNames(std::string text, bool more) : text_(std::move(text)), more_(more) {}
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
    bool rewind() override {
        at_ = 0;
        return true;
    }

private:
    std::string text_;
    std::size_t at_ = 0;
    bool more_;
};

SourceRemoval::SourceRemoval(Action& action) : action_(action) {}

SourceRemoval::~SourceRemoval() = default;

void SourceRemoval::arrive(const std::string& name, const Directory& dir, const std::string& leaf) {
    MutexLock hold(mutex_);
    arrived_.push_back(name);
    here_[name] = std::make_pair(dir, leaf);
}

std::vector<std::string> SourceRemoval::takeArrived() {
    MutexLock hold(mutex_);
    std::vector<std::string> names;
    names.swap(arrived_);
    return names;
}

void SourceRemoval::giveBack(const std::vector<std::string>& names) {
    MutexLock hold(mutex_);
    arrived_.insert(arrived_.end(), names.begin(), names.end());
}

bool SourceRemoval::anyArrived() const {
    MutexLock hold(mutex_);
    return !arrived_.empty();
}

bool SourceRemoval::lastDue(Ssh* ssh, bool everythingAsked) const {
    return !lastReady_ && ssh && everythingAsked && (!removal_ || removal_->ended());
}

void SourceRemoval::keepRemoving(Ssh* ssh, bool everythingAsked) {
    if (removal_ && removal_->ended()) end();
    if (lastDue(ssh, everythingAsked)) {
        lastReady_ = true;
        start(*ssh, Names::more);
    }
    if (!task_ && ssh) task_.reset(new PeriodicTask(*ssh, kRemovalInterval, [this, ssh] { return start(*ssh); }));
}

void SourceRemoval::everythingArrived(Ssh* ssh) {
    lastNames();
    if (ssh) start(*ssh);
}

bool SourceRemoval::start(Ssh& ssh, Names names) {
    if (removal_ && !removal_->ended()) return true;
    end();
    if ((names == Names::all && !anyArrived()) || ssh.lost()) return true;
    removing_ = takeArrived();
    names_.reset(new RemovalNames(nulEnded(removing_), names == Names::more));
    failures_.reset(new BoundedText(kFailuresKept));
    // Removed as root, following no link out of the agent directory
    // (remote/archive-remover.pl).
    removal_.reset(new ActionCommand(action_.commandContext(),
                                     CommandOptions(action_.agentDir()).asRoot().quietInput(),
                                     commandLine(perlRunning(remote::archive_remover)), *names_, *failures_));
    removal_->start(ssh);
    return true;
}

void SourceRemoval::lastNames() {
    if (!removal_ || !names_->more()) return;
    const std::vector<std::string> last = takeArrived();
    names_->end(nulEnded(last));
    removing_.insert(removing_.end(), last.begin(), last.end());
}

void SourceRemoval::end() {
    if (!removal_ || !removal_->ended()) return;
    if (removal_->lost()) {
        // Removed again on the next connection: nothing is lost by trying twice.
        giveBack(removing_);
        removing_.clear();
        removal_.reset();
        return;
    }
    const std::string& host = action_.commandContext().host;
    const std::string first = action_.agentDir() + "/" + (removing_.empty() ? std::string() : removing_.front());
    try {
        const CommandResult removed = removal_->result();
        if (removed.status == kCommandNotFound) {
            removalLog.warnStream() << "No perl on the source host: the archives that arrived stay there until the "
                                       "agent is removed";
        } else {
            std::map<std::string, std::string> failed;
            std::istringstream failures(failures_->str());
            std::string name, error;
            while (std::getline(failures, name, '\0') && std::getline(failures, error, '\0')) {
                debugLog(VELMO_EXC(UnableToRemoveRemoteFile) % (action_.agentDir() + "/" + name) % host % error);
                failed[name] = error;
            }
            // What is gone there (or was never there) needs no removal any more.
            std::vector<std::pair<Directory, std::string>> gone;
            {
                MutexLock hold(mutex_);
                for (const std::string& name : removing_) {
                    const auto at = here_.find(name);
                    const auto why = failed.find(name);
                    if (at != here_.end() && (why == failed.end() || why->second.find("No such file") != std::string::npos))
                        gone.push_back(at->second);
                }
            }
            for (const auto& archive : gone) ArchiveWriter::removed(archive.first, archive.second);
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

void SourceRemoval::removeTheRest() {
    try {
        action_.reconnecting("The removal on the source host", [this] {
            Ssh* ssh = action_.getSsh();
            if (removal_ && !removal_->ended()) ChannelLoop({ssh}).run([this] { return removal_->ended(); });
            end();
            if (anyArrived() && start(*ssh)) ChannelLoop({ssh}).run([this] { return !removal_ || removal_->ended(); });
            const bool lost = removal_ && removal_->lost();
            end();
            // A removal cut on its way hands its names back: they go on the
            // next connection.
            if (lost || (ssh->lost() && anyArrived())) throw VELMO_EXC(SshConnectionFault);
        });
    } catch (const ExTraceable& e) {
        if (!isConnectionFailure(e)) throw;
        removalLog.warnStream() << "The archives that arrived last stay on the source host for now: " << e.what();
    }
}

void SourceRemoval::lastRemoval() noexcept {
    try {
        lastNames();
        if (!removal_ && !anyArrived()) return;
        // The connection there is, if any: no new one is made now.
        Ssh* ssh = action_.connection();
        if (ssh == nullptr || ssh->lost()) return;
        const auto until = std::chrono::steady_clock::now() + kLastRemoval;
        const auto left = [until] {
            return std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
        };
        if (removal_) ChannelLoop({ssh}).finish([this] { return removal_->ended(); }, left());
        end();
        if (anyArrived() && start(*ssh)) ChannelLoop({ssh}).finish([this] { return !removal_ || removal_->ended(); }, left());
        end();
    } catch (const std::exception& e) {
        removalLog.warnStream() << "The last removal on the source host failed: " << e.what();
    }
}

}  // namespace velmo
