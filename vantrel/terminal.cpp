#include "vantrel/terminal.h"

#include <unistd.h>

#include <cstdio>
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

// Bytes as the largest unit that keeps the number above 1, one decimal.
std::string bytes(double n) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (n >= 1024 && unit < 4) {
        n /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", n, units[unit]);
    return text;
}

}  // namespace

ProgressLine::ProgressLine()
    : shown_(stderrIsTerminal()), drawn_(false), start_(std::chrono::steady_clock::now()), last_() {}

ProgressLine::~ProgressLine() {
    if (drawn_) std::cerr << '\n' << std::flush;
}

void ProgressLine::update(const std::string& item, int64_t done, int64_t total) {
    if (!shown_) return;
    const auto now = std::chrono::steady_clock::now();
    if (drawn_ && now - last_ < std::chrono::milliseconds(200) && done < total) return;
    last_ = now;
    drawn_ = true;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? done / seconds : 0;
    std::string name = item.size() > 40 ? "..." + item.substr(item.size() - 37) : item;
    char line[160];
    std::snprintf(line, sizeof line, "%-40s %10s / %-10s %3d%% %10s/s", name.c_str(), bytes(done).c_str(),
                  bytes(total).c_str(), total > 0 ? static_cast<int>(100 * done / total) : 100,
                  bytes(rate).c_str());
    std::cerr << '\r' << line;
    if (rate > 0 && total > done) {
        const long left = static_cast<long>((total - done) / rate);
        std::cerr << ' ' << left / 60 << ':' << (left % 60 < 10 ? "0" : "") << left % 60 << " left";
    }
    std::cerr << "\x1b[K" << std::flush;
}

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
