// bench-ssh-get: one Ssh::get of a remote file into a local file, the way the
// content download runs, for timing against OpenSSH's own client.
//
//   bench-ssh-get --host H --port P --login L [--md5] REMOTE LOCAL
//   bench-ssh-get --host H --port P --login L --methods
//
// The password comes from KVA_PASSWORD. The first form prints
// "bytes <n> status <s>", with --md5 the file's MD5 sum, computed as the
// bytes arrive as --get-content does, after it; the second prints the cipher
// and the MAC that the
// library negotiated, "cipher <name> mac <name>", so that the other client
// can be told to use the same ones.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>

#include <libssh2.h>

#include <fstream>

#include "commons/checksum.h"
#include "commons/exceptions.h"
#include "commons/ssh-transfer.h"

namespace {

class ByteCounter : public velmo::Ssh::Counter {
public:
    void operator()(int bytes) override { total += bytes; }
    std::int64_t total = 0;
};

// Writes a file and sums what it writes.
class SummingFile : public velmo::IOWriteChannel {
public:
    explicit SummingFile(const std::string& path) : file_(path.c_str(), std::ios::binary | std::ios::trunc) {}
    int write(const char* data, unsigned size) override {
        sum.update(data, size);
        return file_.write(data, size) ? static_cast<int>(size) : -1;
    }
    velmo::BackgroundMd5 sum;

private:
    std::ofstream file_;
};

int usage() {
    std::cerr << "usage: bench-ssh-get --host H --port P --login L ([--md5] REMOTE LOCAL | --methods)\n";
    return 2;
}

const char* method(LIBSSH2_SESSION* session, int type) {
    const char* name = libssh2_session_methods(session, type);
    return name ? name : "?";
}

}  // namespace

int main(int argc, char** argv) {
    std::string host, login, remote, local;
    unsigned short port = 22;
    bool methods = false;
    bool md5 = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--md5") {
            md5 = true;
        } else if (arg == "--methods") {
            methods = true;
        } else if ((arg == "--host" || arg == "--port" || arg == "--login") && i + 1 < argc) {
            const std::string value = argv[++i];
            if (arg == "--host")
                host = value;
            else if (arg == "--login")
                login = value;
            else
                port = static_cast<unsigned short>(std::atoi(value.c_str()));
        } else if (remote.empty()) {
            remote = arg;
        } else if (local.empty()) {
            local = arg;
        } else {
            return usage();
        }
    }
    const char* password = std::getenv("KVA_PASSWORD");
    if (host.empty() || login.empty() || password == nullptr || (!methods && local.empty()))
        return usage();

    try {
        if (methods) {
            // The handshake alone settles the methods.
            velmo::Socket socket(host, port);
            velmo::libssh2pp::Session session(socket.fd(), false, false);
            std::cout << "cipher " << method(session.get(), LIBSSH2_METHOD_CRYPT_SC) << " mac "
                      << method(session.get(), LIBSSH2_METHOD_MAC_SC) << std::endl;
            return 0;
        }
        velmo::Ssh ssh(host, login, password, false, port);
        std::ostringstream err;
        velmo::IOStreamWriteChannel errors(err);
        velmo::EmptyInput input;
        ByteCounter counter;
        velmo::ExecOptions how;
        how.logOutput = how.logInput = false;
        how.counter = &counter;
        const std::string command = "cat '" + remote + "'";
        int status;
        if (md5) {
            SummingFile file(local);
            status = ssh.exec(command, input, file, errors, how);
            std::cout << "bytes " << counter.total << " status " << status << " md5 " << file.sum.hex() << std::endl;
        } else {
            std::ofstream file(local.c_str(), std::ios::binary | std::ios::trunc);
            velmo::IOStreamWriteChannel output(file);
            status = ssh.exec(command, input, output, errors, how);
            std::cout << "bytes " << counter.total << " status " << status << std::endl;
        }
        if (status != 0)
            std::cerr << err.str();
        return status == 0 ? 0 : 1;
    } catch (const velmo::ExTraceable& e) {
        std::cerr << "bench-ssh-get: " << e.what() << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "bench-ssh-get: " << e.what() << std::endl;
    }
    return 1;
}
