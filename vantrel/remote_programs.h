// The programs vantrel runs on the source host. Each is a file of
// vantrel/remote/, which says what it does, compiled into the binary as its
// text: the source host gets it inline on a command line, nothing is
// installed there.
#ifndef VANTREL_REMOTE_PROGRAMS_H
#define VANTREL_REMOTE_PROGRAMS_H

namespace velmo {
namespace remote {

extern const char content_sender[];
extern const char agent_unpacker[];
extern const char archive_remover[];
extern const char watchdog[];

}  // namespace remote
}  // namespace velmo

#endif
