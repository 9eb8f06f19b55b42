// The session directory of a run, the names of the files in it, and the fixed
// paths of the installed product.
#ifndef VANTREL_COMMONS_SESSION_H
#define VANTREL_COMMONS_SESSION_H

#include <string>

#include "commons/local_files.h"

namespace velmo {

// Names of the files in the session directory.
namespace session_names {
extern const char* const STATUS;
extern const char* const RESULT;
extern const char* const CONTENT_RESULT;
extern const char* const LOG;
extern const char* const SCOUT_RESULT;
extern const char* const DEPLOYMENT_STATUS;
extern const char* const DUMP;
extern const char* const DUMP_NAME;
extern const char* const RESULT_NAME;
extern const char* const HOST_KEY;
extern const char* const ARCHIVES;
}  // namespace session_names

class SessionFiles {
public:
    // Creates dir (and its missing parents, root's and kvaadm's group, 0750)
    // and dir/archives, and holds dir open: every file of the session is
    // written relative to it. A link on the way that another account could
    // have placed is not followed. The run holds the session until it ends
    // (see busy). Throws Exc<&UnableToCreateSession>.
    explicit SessionFiles(const std::string& dir);

    // The open session directory.
    const Directory& directory() const { return directory_; }
    // Whether another run holds the session: then nothing was made or
    // written in it, and this run is to write nothing but a refusal under
    // a name of its own.
    bool busy() const { return busy_; }
    // A name under which log4cpp opens the session's log: the log itself,
    // opened here without following a link and handed to kvaadm, or, when
    // it cannot be opened, /dev/null.
    std::string logForLog4cpp();

    std::string getDir() const;
    std::string getStatusFileName() const;
    std::string getResultFileName() const;
    std::string getLogFileName() const;
    std::string getScoutResultFileName() const;
    std::string getDeploymentStatusFileName() const;
    std::string getDumpFileName() const;
    std::string getDumpingStatusFileName() const;
    std::string getCidFilesDir() const;
    // The source host's key, pinned by the first run of the migration.
    std::string getHostKeyFileName() const;

private:
    std::string dir_;
    Directory directory_;
    Fd log_;
    bool busy_ = false;
};

// The session of the run; null outside it.
extern SessionFiles* theSession;

class SessionLifetimeController {
public:
    explicit SessionLifetimeController(const std::string& dir);
    ~SessionLifetimeController();
    SessionLifetimeController(const SessionLifetimeController&) = delete;
    SessionLifetimeController& operator=(const SessionLifetimeController&) = delete;
};

namespace files {
std::string getQmvLogConfigFileName();
std::string getScoutFileName();
std::string getTmpDir();
std::string getRemoteDumpingStatusFileName();
namespace agents {
std::string getDir();
}
}  // namespace files

}  // namespace velmo

#endif
