// The session directory of a run, the names of the files in it, and the fixed
// paths of the installed product.
#ifndef VANTREL_COMMONS_SESSION_H
#define VANTREL_COMMONS_SESSION_H

#include <string>

namespace velmo {

class SessionFiles {
public:
    // Creates dir (and its missing parents) and dir/archives; throws
    // Exc<&UnableToCreateSession>.
    explicit SessionFiles(const std::string& dir);

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
