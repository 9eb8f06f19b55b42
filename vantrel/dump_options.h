// The agent's dump arguments and standard-input text, built from the
// selected-objects document and the command line.
#ifndef VANTREL_DUMP_OPTIONS_H
#define VANTREL_DUMP_OPTIONS_H

#include <string>
#include <vector>

#include "commons/xml_wrap.h"
#include "vantrel/options.h"

namespace velmo {

// A selected-objects document: any root name is accepted.
class tVantrelXmlDocument : public tXmlQmvDocument {
public:
    explicit tVantrelXmlDocument(const char* fileName) : tXmlQmvDocument(fileName) {}
};

// Appends the content of each visited node to a comma-separated list,
// skipping empty names.
class tPeriodSeparatedListOperator : public tXmlOperator {
public:
    explicit tPeriodSeparatedListOperator(std::string& target) : count_(0), target_(target) {}
    void act(xmlNode* node) const override;

private:
    mutable int count_;
    std::string& target_;
};

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
