#include "vantrel/dump_options.h"


namespace velmo {

namespace {

void appendList(std::string& target, const std::string& more) {
    if (more.empty()) return;
    if (!target.empty()) target += ",";
    target += more;
}

// Joins the texts of the matched nodes with ",", leaving out empty ones.
void collectList(tXmlDocument& doc, const char* expression, std::string& target) {
    tXPathExpr expr(doc.getDoc(), reinterpret_cast<const xmlChar*>(expression));
    xmlNodeSet* nodes = expr.getNodeSet();
    for (int i = 0; nodes != nullptr && i < nodes->nodeNr; ++i) {
        xmlChar* content = xmlNodeGetContent(nodes->nodeTab[i]);
        if (content == nullptr) continue;
        appendList(target, reinterpret_cast<const char*>(content));
        xmlFree(content);
    }
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

}  // namespace

void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compression, bool& server, bool& adminInfo,
                              bool& noLicense) {
    // Any root element will do: the names are looked for anywhere.
    tXmlDocument doc(path.c_str());

    collectList(doc, "//domain/name/text()", domains);
    collectList(doc, "//client/name/text()", clients);
    collectList(doc, "//reseller/name/text()", resellers);

    server = selects(doc, "//server");
    noLicense = selects(doc, "//server/license");
    adminInfo = selects(doc, "//admin-info");

    const std::string filterValue = stringValue(doc, "/*/parameters/@filter");
    if (filterValue == "only-mail")
        filter = OPT_BACKUP_FILTER_ONLY_MAIL;
    else if (filterValue == "only-phosting")
        filter = OPT_BACKUP_FILTER_ONLY_HOSTING;

    const std::string compressionValue = stringValue(doc, "/*/parameters/@compression-level");
    if (compressionValue == "do-not-compress")
        compression = OPT_BACKUP_COMPRESS_NONE;
    else if (compressionValue == "standard")
        compression = OPT_BACKUP_COMPRESS_STANDARD;
}

void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compression, bool& server, bool& adminInfo,
                                  bool& noLicense) {
    appendList(domains, cfg.domains);
    appendList(clients, cfg.clients);
    appendList(resellers, cfg.resellers);
    if (cfg.filter != OPT_BACKUP_FILTER_NONE) filter = cfg.filter;
    if (cfg.compression != OPT_BACKUP_COMPRESS_NOT_SET) compression = cfg.compression;
    // These three come from the command line only.
    server = cfg.server;
    adminInfo = cfg.adminInfo;
    noLicense = cfg.noLicense;
}

void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput) {
    std::string domains, clients, resellers;
    opt_backup_filter filter = OPT_BACKUP_FILTER_NONE;
    opt_backup_compress compression = OPT_BACKUP_COMPRESS_NOT_SET;
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

    if (filter == OPT_BACKUP_FILTER_ONLY_MAIL) arguments.push_back("--only-mail");
    if (filter == OPT_BACKUP_FILTER_ONLY_HOSTING) arguments.push_back("--only-hosting");
    if (compression == OPT_BACKUP_COMPRESS_NONE) arguments.push_back("--no-compress");
    arguments.push_back("--include-app-distrib");
    if (server) arguments.push_back("--server");
    if (adminInfo) arguments.push_back("--admin-info");
    if (noLicense) arguments.push_back("--no-license");
}

}  // namespace velmo
