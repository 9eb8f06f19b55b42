// The agent's dump arguments and standard-input text, built from the
// selected-objects document and the command line.
#ifndef VANTREL_DUMP_OPTIONS_H
#define VANTREL_DUMP_OPTIONS_H

#include <string>
#include <vector>

#include "commons/xml_parse.h"
#include "vantrel/options.h"

namespace velmo {

// Reads the object lists, the filter and the compression of a selected-objects
// document.
void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compression, bool& server, bool& adminInfo,
                              bool& noLicense);

void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compression, bool& server, bool& adminInfo,
                                  bool& noLicense);

void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput);

}  // namespace velmo

#endif
