// Local utilities of the destination side: free space, temporary files,
// directory creation, path splitting, the kvaadm account, secret masking.
#ifndef VANTREL_COMMONS_COMMONS_H
#define VANTREL_COMMONS_COMMONS_H

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace velmo {

// Bytes available to unprivileged users on the file system holding path;
// throws Exc<&CantStatFS>.
uint64_t getFreeSpace(const std::string& path);

// Creates a new empty file named dir/prefix followed by six random characters
// and returns its name; an empty dir means DUMP_TMP_D of the configuration,
// or the product's tmp directory. Throws Exc<&CantCreateTempFile>.
std::string QMV_getTempFileName(const std::string& dir, const std::string& prefix);

// True when path names (after following links) a regular file.
bool check_input_file(const char* path, bool);

// Creates path and its missing parents with the given owner and mode (the
// file-creation mask does not narrow it), never following a link that
// another account could have placed (see Directory::make).
void make_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode);
// The same, for the directories of content archives.
void make_content_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode);

std::string getFileNameFromPath(const std::string& path);
std::string getPath(const std::string& path);

// The name of the product's administrative system account.
extern const char* const KVA_ADMIN_USER;
// User id and primary group id of kvaadm; 0 for what cannot be looked up, and
// a warning in the log the first time the account is missing.
void getAdminIds(uid_t& uid, gid_t& gid);

// Passwords known to the run. Every log line that might carry one goes through
// maskSecrets, which replaces each occurrence by "********". In a message
// for the controlling process (inMessage) a password is masked only when it
// has 6 characters or more and is no part of a name given with addPlainName
// (the login, the host), so that a short or common password does not mangle
// the text; the log masks every one.
void addSecret(const std::string& secret);
void addPlainName(const std::string& name);
std::string maskSecrets(const std::string& text, bool inMessage = false);

}  // namespace velmo

#endif
