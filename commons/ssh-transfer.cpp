#include "commons/ssh-transfer.h"

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/stop.h"

namespace velmo {

Ssh::~Ssh() {
    // The library frees the channels with the session: the commands still
    // here let go of theirs first, without waiting for the peer, and end
    // as lost.
    if (session_ && !table_.empty()) session_->setBlocking(false);
    for (RemoteCommand* command : table_) {
        command->channel_.reset();
        command->ssh_ = nullptr;
        command->lost_ = true;
        command->phase_ = RemoteCommand::Phase::ended;
    }
    session_.reset();
    socket_.reset();
}

int Ssh::exec(const std::string& command, IOReadChannel& in, IOWriteChannel& out, IOWriteChannel& err,
              const ExecOptions& how) {
    RemoteCommand remote(command, in, out, err, how);
    start(remote);
    stoppable([&] { ChannelLoop({this}).run([&remote] { return remote.ended(); }); });
    if (remote.lost()) throw VELMO_EXC(SshConnectionFault);
    if (!remote.refusal().empty()) throw VELMO_EXC(CommandRefused) % remote.refusal();
    return remote.status();
}

}  // namespace velmo
