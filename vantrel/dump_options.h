// What a dump takes: the objects selected in the selected-objects document
// and on the command line, and the agent's arguments and standard input that
// say so.
#ifndef VANTREL_DUMP_OPTIONS_H
#define VANTREL_DUMP_OPTIONS_H

#include <string>
#include <vector>

#include "vantrel/options.h"

namespace velmo {

// The selection of a dump.
struct DumpSelection {
    std::string domains;    // names separated by commas
    std::string clients;
    std::string resellers;
    opt_backup_filter filter = OPT_BACKUP_FILTER_NONE;
    opt_backup_compress compression = OPT_BACKUP_COMPRESS_NOT_SET;
    bool server = false;    // these three come from the command line only
    bool adminInfo = false;
    bool noLicense = false;
};

// Adds the object lists, the filter and the compression of a selected-objects
// document (its root may have any name) to selection; throws the errors of
// the XML wrapper for a file that cannot be read or parsed.
void parseSelectedObjectsFile(const std::string& path, DumpSelection& selection);
// Adds the command line's lists after those of the document; its filter and
// compression, when given, win; server, admin-info and no-license are its own.
void getSelectedObjectsFromConfig(const config& cfg, DumpSelection& selection);
// The agent's arguments of --dump-selected: the lists (which go on standard
// input, one line each) and the switches of the selection.
void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput);
// Everything the agent is given for a dump action: the rsync transport's
// lines, "--migration-mode", and either the selection or "--dump-all" with
// the command line's switches.
void prepareDumpArguments(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput);

}  // namespace velmo

#endif
