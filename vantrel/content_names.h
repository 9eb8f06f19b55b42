// The names of a content list, checked before anything is written: none
// may leave the content directory, and none may land on a file of the
// session, on another archive's partial download, on another archive, or on
// another archive's directory.
#ifndef VANTREL_CONTENT_NAMES_H
#define VANTREL_CONTENT_NAMES_H

#include <string>
#include <vector>

#include "commons/formats.h"
#include "commons/local_files.h"

namespace velmo {

// Refuses a content name that would leave the content directory
// (Exc<&UnsafeContentFileName>).
void checkContentFileName(const std::string& name);
// Refuses, with Exc<&ContentNamesCollide> naming them, content names that
// would land on a file of the session, on another archive's partial
// download, on each other, or on each other's directories.
void checkContentNamesApart(const std::vector<DumpFile>& records, const Directory& contentDir,
                            const Directory& sessionDir);

}  // namespace velmo

#endif
