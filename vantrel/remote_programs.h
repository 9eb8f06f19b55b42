// The programs vantrel runs on the source host. Each is a file of
// vantrel/remote/, which says what it does, compiled into the binary as its
// text (without its comments): the source host gets it inline on a command
// line, nothing is installed there.
#ifndef VANTREL_REMOTE_PROGRAMS_H
#define VANTREL_REMOTE_PROGRAMS_H

#include <string>
#include <vector>

namespace velmo {
namespace remote {

extern const char content_sender[];
extern const char agent_unpacker[];
extern const char archive_remover[];
extern const char watchdog[];
extern const char stream_relay[];

}  // namespace remote

// The words of a command line that runs program in the source host's perl,
// followed by the program's own arguments: the text travels in hexadecimal
// digits, which no shell on the way alters or needs to quote, and which any
// perl reads without a module (a base64 decoder needs MIME::Base64, not in
// perl-base, or unpack "m", which not every perl takes).
std::vector<std::string> perlRunning(const char* program);
}  // namespace velmo

#endif
