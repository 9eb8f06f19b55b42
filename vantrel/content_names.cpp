#include "vantrel/content_names.h"

#include <regex>
#include <set>

#include "commons/commons.h"
#include "commons/exceptions.h"
#include "commons/formats.h"

namespace velmo {

void checkContentFileName(const std::string& name) {
    bool unsafe = name.empty() || name[0] == '/';
    std::string::size_type start = 0;
    while (!unsafe && start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string component = name.substr(start, end - start);
        if (component == ".." || (component.empty() && end == name.size())) unsafe = true;
        start = end + 1;
    }
    if (unsafe || name.find('\0') != std::string::npos) throw VELMO_EXC(UnsafeContentFileName) % name;
}

namespace {

// The name's components without empty ones and "." ("a//./b" is "a/b").
std::string normalName(const std::string& name) {
    std::string normal;
    std::string::size_type start = 0;
    while (start <= name.size()) {
        std::string::size_type end = name.find('/', start);
        if (end == std::string::npos) end = name.size();
        const std::string part = name.substr(start, end - start);
        if (!part.empty() && part != ".") normal += (normal.empty() ? "" : "/") + part;
        start = end + 1;
    }
    return normal;
}

// Names of the session directory's own files, with the forms they take
// while they are written (six random characters) or moved aside (".N").
bool isSessionFileName(const std::string& name) {
    static const std::regex own(
        "(migration\\.(status|result|log)|transfer\\.result|scout-result\\.xml|agent-deployment\\.status|"
        "dump\\.xml|dump-name|migration-result-name|dumping-status\\.xml|host-key|archives)"
        "([A-Za-z0-9]{6}|\\.[0-9]+|\\.busy-[0-9]+)?");
    return std::regex_match(name, own);
}

}  // namespace

void checkContentNamesApart(const std::vector<DumpFile>& records, const Directory& contentDir,
                            const Directory& sessionDir) {
    std::set<std::string> files, directories, colliding;
    for (const DumpFile& record : records) {
        const std::string name = normalName(record.name);
        const Directory holder = contentDir.existingBelow(getPath(name));
        if (holder.isOpen() && holder.sameAs(sessionDir) && isSessionFileName(getFileNameFromPath(name)))
            colliding.insert(record.name);
        if (!files.insert(name).second || directories.count(name)) colliding.insert(record.name);
        for (std::string::size_type at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
            directories.insert(name.substr(0, at));
            if (files.count(name.substr(0, at))) colliding.insert(record.name);
        }
    }
    // A name that another one's partial download would take.
    for (const std::string& name : files)
        if (files.count(name + ".part")) colliding.insert(name + ".part");
    if (colliding.empty()) return;
    std::string list;
    for (const std::string& name : colliding) list += (list.empty() ? "'" : ", '") + name + "'";
    throw VELMO_EXC(ContentNamesCollide) % list;
}

}  // namespace velmo
