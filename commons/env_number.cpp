#include "commons/env_number.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>

#include <log4cpp/Category.hh>

namespace velmo {

long envNumber(const char* name, long least, long most, long fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr) return fallback;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (*text != '\0' && *end == '\0' && errno == 0 && value >= least && value <= most) return value;
    static std::mutex mutex;
    static std::set<std::string> told;
    std::lock_guard<std::mutex> hold(mutex);
    if (told.insert(name).second)
        log4cpp::Category::getInstance("p.Action").warnStream()
            << "Ignoring " << name << "='" << text << "': not a whole number from " << least << " to " << most;
    return fallback;
}

}  // namespace velmo
