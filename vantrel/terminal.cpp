#include "vantrel/terminal.h"

#include <unistd.h>

#include <iostream>
#include <string>

namespace velmo {

namespace {

bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

// The text without its trailing line feeds; later lines indented by indent.
std::string oneBlock(std::string text, const std::string& indent) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    for (std::string::size_type at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1))
        text.insert(at + 1, indent);
    return text;
}

}  // namespace

void showRefusal(const ExTraceable& e) {
    if (!stderrIsTerminal()) return;
    std::cerr << oneBlock(e.what(), "  ") << "\nSee --help.\n";
    std::cerr.flush();
}

void showCauses(const ExTraceable& e) {
    if (!stderrIsTerminal()) return;
    const std::string outer = e.what();
    if (outer.empty() || outer.back() != '\n') std::cerr << '\n';
    const auto* wrapper = dynamic_cast<const ExTaggedIncludable*>(&e);
    for (const ExTraceable* cause = wrapper ? wrapper->inner() : nullptr; cause != nullptr;) {
        std::cerr << "  caused by: " << oneBlock(cause->what(), "    ") << '\n';
        wrapper = dynamic_cast<const ExTaggedIncludable*>(cause);
        cause = wrapper ? wrapper->inner() : nullptr;
    }
    std::cerr.flush();
}

}  // namespace velmo
