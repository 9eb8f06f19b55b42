// What a source host's login shell prints before a command's own output.
// Start-up files that print on every command (banners, echo, fortune) are
// common on hosting servers; their text must never reach a document, a
// parser or an archive. So each command line prints a marker of its own,
// new for each command, right before the command runs, and everything before
// that marker is dropped.
#ifndef VANTREL_COMMONS_SHELL_NOISE_H
#define VANTREL_COMMONS_SHELL_NOISE_H

#include <cstddef>
#include <string>

namespace velmo {

// A marker for one command: a word that every shell echoes as it is, and that
// no start-up file prints by chance.
std::string newCommandMarker();

// Finds the end of the marker's line in a command's standard output, however
// the output is cut into chunks.
class ShellNoise {
public:
    explicit ShellNoise(std::string marker) : marker_(std::move(marker)) {}
    // How many bytes at the start of data still belong before the command's
    // own output: size while its marker line has not ended.
    std::size_t skip(const char* data, std::size_t size);
    // The marker line has ended: what follows is the command's.
    bool passed() const { return passed_; }
    // What came before the marker, its first bytes only, and how much.
    const std::string& start() const { return start_; }
    unsigned long long dropped() const { return dropped_; }

private:
    std::string marker_;
    std::string recent_;  // the last bytes seen, where a marker may begin
    std::string start_;
    unsigned long long dropped_ = 0;
    bool found_ = false;  // the marker came; its line ends at the next line feed
    bool passed_ = false;
};

}  // namespace velmo

#endif
