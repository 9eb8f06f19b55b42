// The removal on the source host of the archives that arrived whole: in
// batches while the transfer goes on, the last one waiting for the names
// that arrive last, and whatever is left at the end, on a connection made
// again when need be. An archive that arrived but could not be removed keeps
// a mark (ArchiveWriter::removalDue) for the next run.
#ifndef VANTREL_SOURCE_REMOVAL_H
#define VANTREL_SOURCE_REMOVAL_H

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "commons/local_files.h"
#include "commons/mutex.h"
#include "vantrel/actions.h"

namespace velmo {

// Threads: arrive() may be called on any thread; everything else runs on the
// transfer's thread, which owns the removal command and its connection.
class RemovalNames;

class SourceRemoval {
public:
    explicit SourceRemoval(Action& action);
    ~SourceRemoval();

    // An archive here, proven, that is to be removed on the source host:
    // name as listed, its directory and last component here.
    void arrive(const std::string& name, const Directory& dir, const std::string& leaf) EXCLUDES(mutex_);

    // While the transfer goes on: a removal every few seconds on the first
    // stream's connection (ssh), and, once everything is asked for
    // (everythingAsked), the last one, which waits for the last names.
    void keepRemoving(Ssh* ssh, bool everythingAsked);
    // The periodic removal ends: the first stream's connection went away,
    // or the transfer is through.
    void endPeriodic() { task_.reset(); }
    // Whether the last removal should get ready now.
    bool lastDue(Ssh* ssh, bool everythingAsked) const;
    // Everything arrived: the last removal takes the last names, or one
    // starts with them.
    void everythingArrived(Ssh* ssh);
    // The removals still due once the transfer ended, on a connection made
    // again when need be; what cannot be removed stays for the next run.
    void removeTheRest();
    // The same after a failure or a stop, on the connection there is, in
    // one last exchange that a stop does not cut short, bounded in time.
    void lastRemoval() noexcept;

private:
    // Whether the removal, on its way with more, still takes names.
    enum class Names { all, more };
    // Starts a removal of what arrived unless one is on its way; with more,
    // also with nothing to remove yet: it waits for lastNames.
    bool start(Ssh& ssh, Names names = Names::all);
    // The removal on its way takes the names that arrived since.
    void lastNames();
    // Settles what the removal that ended left: each failure to the debug
    // log, names of a lost one back to be removed again.
    void end();
    std::vector<std::string> takeArrived() EXCLUDES(mutex_);
    void giveBack(const std::vector<std::string>& names) EXCLUDES(mutex_);
    bool anyArrived() const EXCLUDES(mutex_);

    Action& action_;

    // State below is protected by mutex_: what arrived and where it is.
    mutable Mutex mutex_;
    std::vector<std::string> arrived_ GUARDED_BY(mutex_);  // names not being removed yet
    std::map<std::string, std::pair<Directory, std::string>> here_ GUARDED_BY(mutex_);  // dir, last component

    // The removal on its way, the transfer's thread's own.
    std::vector<std::string> removing_;
    std::unique_ptr<RemovalNames> names_;
    std::unique_ptr<ActionCommand> removal_;
    std::unique_ptr<BoundedText> failures_;
    std::unique_ptr<PeriodicTask> task_;
    bool lastReady_ = false;  // a removal was started to wait for the last names
};

}  // namespace velmo

#endif
