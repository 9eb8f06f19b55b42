#include "vantrel/dump_options.h"

#include "commons/log.h"

namespace velmo {

namespace {

void logToDebugLog(const ExTraceable& e) {
    if (theDebugLog) theDebugLog->log(e);
}

void collectList(tXmlDocument& doc, const char* expression, std::string& target) {
    tXPathExpr expr(doc.getDoc(), reinterpret_cast<const xmlChar*>(expression));
    xmlNodeSet* nodes = expr.getNodeSet();
    if (nodes == nullptr || nodes->nodeNr == 0) return;
    tPeriodSeparatedListOperator op(target);
    foreach_xmlnode(expr, op, &logToDebugLog);
}

bool selects(tXmlDocument& doc, const char* expression) {
    tXPathExpr expr(doc.getDoc(), reinterpret_cast<const xmlChar*>(expression));
    xmlNodeSet* nodes = expr.getNodeSet();
    return nodes != nullptr && nodes->nodeNr > 0;
}

std::string stringValue(tXmlDocument& doc, const char* expression) {
    const std::string wrapped = std::string("string(") + expression + ")";
    xmlXPathContextPtr ctx = xmlXPathNewContext(doc.getDoc());
    if (ctx == nullptr) return std::string();
    xmlXPathObjectPtr result = xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(wrapped.c_str()), ctx);
    std::string value;
    if (result != nullptr && result->type == XPATH_STRING && result->stringval != nullptr)
        value = reinterpret_cast<const char*>(result->stringval);
    xmlXPathFreeObject(result);
    xmlXPathFreeContext(ctx);
    return value;
}

void appendList(std::string& target, const std::string& more) {
    if (more.empty()) return;
    if (!target.empty()) target += ",";
    target += more;
}

}  // namespace

void tPeriodSeparatedListOperator::act(xmlNode* node) const {
    xmlChar* content = xmlNodeGetContent(node);
    if (content == nullptr) return;
    std::string name(reinterpret_cast<const char*>(content));
    xmlFree(content);
    if (name.empty()) return;
    if (count_ > 0) target_ += ",";
    target_ += name;
    ++count_;
}

void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compression, bool& server, bool& adminInfo,
                              bool& noLicense) {
    tVantrelXmlDocument doc(path.c_str());

    collectList(doc, "//domain/name/text()", domains);
    collectList(doc, "//client/name/text()", clients);
    collectList(doc, "//reseller/name/text()", resellers);

    server = selects(doc, "//server");
    noLicense = selects(doc, "//server/license");
    adminInfo = selects(doc, "//admin-info");

    const std::string filterValue = stringValue(doc, "/*/parameters/@filter");
    if (filterValue == "only-mail")
        filter = static_cast<opt_backup_filter>(1);
    else if (filterValue == "only-phosting")
        filter = static_cast<opt_backup_filter>(2);

    const std::string compressionValue = stringValue(doc, "/*/parameters/@compression-level");
    if (compressionValue == "do-not-compress")
        compression = static_cast<opt_backup_compress>(2);
    else if (compressionValue == "standard")
        compression = static_cast<opt_backup_compress>(1);
}

void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compression, bool& server, bool& adminInfo,
                                  bool& noLicense) {
    appendList(domains, cfg.domains);
    appendList(clients, cfg.clients);
    appendList(resellers, cfg.resellers);
    if (static_cast<int>(cfg.filter) != 0) filter = cfg.filter;
    if (static_cast<int>(cfg.compression) != 0) compression = cfg.compression;
    // These three come from the command line only.
    server = cfg.server;
    adminInfo = cfg.adminInfo;
    noLicense = cfg.noLicense;
}

void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput) {
    std::string domains, clients, resellers;
    opt_backup_filter filter = static_cast<opt_backup_filter>(0);
    opt_backup_compress compression = static_cast<opt_backup_compress>(0);
    bool server = false, adminInfo = false, noLicense = false;

    if (!cfg.selectedObjectsFile.empty())
        parseSelectedObjectsFile(cfg.selectedObjectsFile, domains, clients, resellers, filter, compression,
                                 server, adminInfo, noLicense);
    getSelectedObjectsFromConfig(cfg, domains, clients, resellers, filter, compression, server, adminInfo,
                                 noLicense);

    std::string separator;
    const std::pair<const std::string*, const char*> lists[] = {
        {&domains, "--dump-domains=-"}, {&clients, "--dump-clients=-"}, {&resellers, "--dump-resellers=-"}};
    for (const auto& list : lists) {
        if (list.first->empty()) continue;
        arguments.push_back(list.second);
        standardInput += separator + *list.first;
        separator = "\n";
    }

    if (static_cast<int>(filter) == 1) arguments.push_back("--only-mail");
    if (static_cast<int>(filter) == 2) arguments.push_back("--only-hosting");
    if (static_cast<int>(compression) == 2) arguments.push_back("--no-compress");
    arguments.push_back("--include-app-distrib");
    if (server) arguments.push_back("--server");
    if (adminInfo) arguments.push_back("--admin-info");
    if (noLicense) arguments.push_back("--no-license");
}

}  // namespace velmo
