// Local utilities of the destination side: free space, temporary files,
// directory creation, path splitting, the kvaadm account, secret masking.
#ifndef VANTREL_COMMONS_COMMONS_H
#define VANTREL_COMMONS_COMMONS_H

#include <cstdint>
#include <string>
#include <vector>
#include <sys/types.h>

#include <boost/filesystem/path.hpp>

namespace velmo {

// Bytes available to unprivileged users on the file system holding path;
// throws Exc<&CantStatFS>.
uint64_t getFreeSpace(const std::string& path);

// Fills buffer with the zero-terminated mkstemp template for dir and prefix.
void initTempName(std::vector<char>& buffer, const std::string& dir, const std::string& prefix);
// Creates a new empty file from the template and returns its name; throws
// Exc<&CantCreateTempFile>.
std::string QMV_getTempFileName(const std::string& dir, const std::string& prefix);

// True when path names (after following links) a regular file.
bool check_input_file(const char* path, bool);

// Creates path and its missing parents with the given owner and mode; results
// of mkdir and chown are not checked.
void make_dir(char* path, unsigned uid, unsigned gid, unsigned mode);
void make_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode);
void make_dir(const boost::filesystem::path& path, unsigned uid, unsigned gid, unsigned mode);
// make_dir under the file-creation mask 022.
void make_content_dir(const std::string& path, unsigned uid, unsigned gid, unsigned mode);

std::string getFileNameFromPath(const std::string& path);
std::string getPath(const std::string& path);

// The name of the product's administrative system account.
extern const char* const KVA_ADMIN_USER;
// User id of a system account; 0 (and a debug-log line) when it is unknown.
uid_t get_user_id(const std::string& user);
// User id and primary group id of kvaadm; 0 for what cannot be looked up.
void getAdminIds(uid_t& uid, gid_t& gid);

// Passwords known to the run. Every log line that might carry one goes through
// maskSecrets, which replaces each occurrence by "********".
void addSecret(const std::string& secret);
std::string maskSecrets(const std::string& text);

}  // namespace velmo

#endif
