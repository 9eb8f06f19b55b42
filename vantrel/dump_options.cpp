#include "vantrel/dump_options.h"

#include "commons/xml_parse.h"

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

void parseSelectedObjectsFile(const std::string& path, DumpSelection& selection) {
    // Any root element will do: the names are looked for anywhere.
    tXmlDocument doc(path.c_str());

    collectList(doc, "//domain/name/text()", selection.domains);
    collectList(doc, "//client/name/text()", selection.clients);
    collectList(doc, "//reseller/name/text()", selection.resellers);

    const std::string filterValue = stringValue(doc, "/*/parameters/@filter");
    if (filterValue == "only-mail")
        selection.filter = OPT_BACKUP_FILTER_ONLY_MAIL;
    else if (filterValue == "only-phosting")
        selection.filter = OPT_BACKUP_FILTER_ONLY_HOSTING;

    const std::string compressionValue = stringValue(doc, "/*/parameters/@compression-level");
    if (compressionValue == "do-not-compress")
        selection.compression = OPT_BACKUP_COMPRESS_NONE;
    else if (compressionValue == "standard")
        selection.compression = OPT_BACKUP_COMPRESS_STANDARD;
}

void getSelectedObjectsFromConfig(const config& cfg, DumpSelection& selection) {
    appendList(selection.domains, cfg.domains);
    appendList(selection.clients, cfg.clients);
    appendList(selection.resellers, cfg.resellers);
    if (cfg.filter != OPT_BACKUP_FILTER_NONE) selection.filter = cfg.filter;
    if (cfg.compression != OPT_BACKUP_COMPRESS_NOT_SET) selection.compression = cfg.compression;
    selection.server = cfg.server;
    selection.adminInfo = cfg.adminInfo;
    selection.noLicense = cfg.noLicense;
}

namespace {

// The filter and the compression of a selection as the agent's switches.
void addFilterAndCompression(const DumpSelection& selection, std::vector<std::string>& arguments) {
    if (selection.filter == OPT_BACKUP_FILTER_ONLY_MAIL) arguments.push_back("--only-mail");
    if (selection.filter == OPT_BACKUP_FILTER_ONLY_HOSTING) arguments.push_back("--only-hosting");
    if (selection.compression == OPT_BACKUP_COMPRESS_NONE) arguments.push_back("--no-compress");
}

// The switches that only the command line gives.
void addCommandLineSwitches(const DumpSelection& selection, std::vector<std::string>& arguments) {
    if (selection.server) arguments.push_back("--server");
    if (selection.adminInfo) arguments.push_back("--admin-info");
    if (selection.noLicense) arguments.push_back("--no-license");
}

}  // namespace

void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput) {
    DumpSelection selection;
    if (!cfg.selectedObjectsFile.empty()) parseSelectedObjectsFile(cfg.selectedObjectsFile, selection);
    getSelectedObjectsFromConfig(cfg, selection);

    std::string separator;
    const std::pair<const std::string*, const char*> lists[] = {{&selection.domains, "--dump-domains=-"},
                                                                {&selection.clients, "--dump-clients=-"},
                                                                {&selection.resellers, "--dump-resellers=-"}};
    for (const auto& list : lists) {
        if (list.first->empty()) continue;
        arguments.push_back(list.second);
        standardInput += separator + *list.first;
        separator = "\n";
    }
    addFilterAndCompression(selection, arguments);
    arguments.push_back("--include-app-distrib");
    addCommandLineSwitches(selection, arguments);
}

void prepareDumpArguments(const config& cfg, std::vector<std::string>& arguments, std::string& standardInput) {
    if (cfg.contentTransport == "rsync") {
        // The port as given: 0 when none was, which the agent takes for 22.
        standardInput += cfg.host + "\n" + cfg.login + "\n" + cfg.password + "\n" + std::to_string(cfg.port) + "\n";
        arguments.push_back("--content-transport=rsync");
    }
    arguments.push_back("--migration-mode");
    if (cfg.action != ACTION_DUMP_ALL) return prepareDumpOptions(cfg, arguments, standardInput);
    // Everything is dumped; the command line's switches go along, in the
    // words --dump-selected uses for them.
    arguments.push_back("--dump-all");
    DumpSelection selection;
    getSelectedObjectsFromConfig(cfg, selection);
    addFilterAndCompression(selection, arguments);
    addCommandLineSwitches(selection, arguments);
}

}  // namespace velmo
