#include "commons/ssh-transfer.h"

#include <fstream>

#include <log4cpp/Category.hh>

#include "commons/exceptions.h"
#include "commons/sh_quoting.h"

namespace velmo {

static log4cpp::Category& logger = log4cpp::Category::getInstance("p.Ssh");

namespace {
ExecOptions fileContent() {
    ExecOptions how;
    how.logOutput = how.logInput = false;
    return how;
}

int readRemote(Ssh& ssh, const std::string& remotePath, IOWriteChannel& out) {
    const FileRead read = fileRead(remotePath);
    EmptyInput none;
    BoundedText errors;
    return ssh.exec(read.line, none, out, errors, read.how);
}
}  // namespace

FileRead fileRead(const std::string& remotePath) {
    FileRead read;
    read.how = fileContent();
    read.how.marker = newCommandMarker();
    read.line = "sh -c " + sh_quote("echo " + read.how.marker + " && exec cat -- \"$0\"") + " " + sh_quote(remotePath);
    return read;
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
    logger.debugStream() << "Reading data from the remote file " << remotePath;
    IOStreamWriteChannel output(out);
    return readRemote(*this, remotePath, output);
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    logger.debugStream() << "Reading data to the file " << localPath;
    std::string name;
    const Directory dir = Directory::holding(localPath, name);
    // The copy takes the name only once the read succeeded: a read that
    // fails leaves what stood there before.
    NewFile file(dir, name, 0640);
    NewFileWriter output(file);
    const int status = readRemote(*this, remotePath, output);
    if (status == 0) file.commit();
    return status;
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    logger.debugStream() << "Writing file " << localPath << " to the remote host as " << remotePath;
    std::ifstream file(localPath.c_str(), std::ios::in | std::ios::binary);
    // Sending an unreadable file would truncate the remote copy to nothing.
    if (!file.is_open()) throw VELMO_EXC(StreamRead);
    IOStreamReadChannel input(file);
    BoundedText output, errors;
    if (exec("cat > " + sh_quote(remotePath), input, output, errors, fileContent()) != 0)
        throw VELMO_EXC(CantWriteRemoteFile) % remotePath % errors.str();
}

}  // namespace velmo
