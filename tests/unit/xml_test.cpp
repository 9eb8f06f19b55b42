#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <libxml/xmlerror.h>

#include "commons/xml_wrap.h"

using namespace velmo;

namespace {

// A scratch directory, removed with everything in it at the end of the test.
struct TempDir {
    TempDir() {
        char name[] = "/tmp/xml_test.XXXXXX";
        if (mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp");
        path = name;
    }
    ~TempDir() { boost::filesystem::remove_all(path); }
    std::string path;
};

void writeFile(const std::string& name, const std::string& text) { std::ofstream(name.c_str()) << text; }

std::string readFile(const std::string& name) {
    std::stringstream text;
    text << std::ifstream(name.c_str()).rdbuf();
    return text.str();
}

template <class F> std::string failureOf(F f) {
    try {
        f();
    } catch (const ExTraceable& e) {
        return e.code() + ": " + e.what();
    }
    return "no failure";
}

}  // namespace

TEST(XmlDocument, MalformedInputCarriesTheLibraryMessages) {
    TempDir dir;
    const std::string name = dir.path + "/broken.xml";
    writeFile(name, "<a>\n<b></c>\n</a>\n");
    tXmlDocument doc;
    const std::string text = failureOf([&] { doc.readFromFile(name.c_str()); });
    const std::string head =
        "tError_ParseFile: The XML file " + name + " was not parsed successfully with the following errors:\n";
    ASSERT_EQ(head, text.substr(0, head.size()));
    // Every piece of every message: location and message, source line, caret.
    EXPECT_EQ(head.size(), text.find(name + ":2: parser error : Opening and ending tag mismatch: b")) << text;
    EXPECT_NE(std::string::npos, text.find("<b></c>\n")) << text;
    EXPECT_NE(std::string::npos, text.find("^\n")) << text;
    EXPECT_EQ('\n', text.back());
    // The failed parse replaced the document, and the collector is gone.
    EXPECT_EQ(nullptr, doc.getDoc());
    EXPECT_EQ(nullptr, xmlGenericErrorContext);

    EXPECT_EQ(0u, failureOf([] { tXmlDocument d(std::string("<a><b></a>")); })
                      .find("tError_ParseFile: The XML file - was not parsed successfully with the following "
                            "errors:\nEntity: line 1: "));
}

TEST(XmlDocument, InputChecks) {
    TempDir dir;
    const std::string wrong = "tError_WrongInputFile: The XML file does not exist or is not a regular file. Check the file '";
    EXPECT_EQ(wrong + dir.path + "'", failureOf([&] { tXmlDocument d(dir.path.c_str()); }));
    EXPECT_EQ(wrong + dir.path + "/none'", failureOf([&] { tXmlDocument d((dir.path + "/none").c_str()); }));
    EXPECT_EQ("AssertionFailed: Assertion failed: content.size()", failureOf([] { tXmlDocument d{std::string()}; }));

    // "-" is standard input, with no file check.
    writeFile(dir.path + "/in.xml", "<from-stdin/>");
    int saved = dup(0), in = open((dir.path + "/in.xml").c_str(), O_RDONLY);
    dup2(in, 0);
    std::string failure = failureOf([] { tXmlQmvDocument("-").initFileDoc("from-stdin"); });
    dup2(saved, 0);
    close(in);
    close(saved);
    EXPECT_EQ("no failure", failure);
}

TEST(XmlDocument, RootsNodesAndText) {
    tXmlQmvDocument wrong(std::string("<agents-list/>"));
    EXPECT_EQ("tError_WrongDoc: The document has the wrong type, root node is <agents-list>, but <migration-status> "
              "was expected",
              failureOf([&] { wrong.initFileDoc("migration-status"); }));
    EXPECT_EQ("tError_EmptyDoc: The document is empty. Can not find root element <contentlist>",
              failureOf([] { tXmlQmvDocument().initFileDoc("contentlist"); }));

    tXmlQmvDocument doc;
    doc.initNewDoc("top");
    xmlNode* a = doc.newChild(doc.getRoot(), "a");
    doc.addAttribute(a, "k", "first");
    doc.addAttribute(a, "k", "second");
    xmlNode* t = doc.newTextChild(doc.getRoot(), "t", "x < y & z");
    EXPECT_EQ("second", doc.getAttribute(a, "k"));
    EXPECT_EQ("NoSuchAttribute: Node a does not have attribute nope", failureOf([&] { doc.getAttribute(a, "nope"); }));
    EXPECT_EQ("", doc.getNodeText(a));
    EXPECT_EQ("x < y & z", doc.getNodeText(t));
    XmlNode node(doc.getDoc(), t);
    EXPECT_EQ(doc.getRoot(), node.getParent().node);
    EXPECT_EQ("NoParentNode: No parent node on requested XML element", failureOf([&] { node.getParent().getParent(); }));

    tXmlQmvDocument ent(std::string("<r>a&amp;b&#47;c<!-- note --></r>"));
    ent.initFileDoc("r");
    EXPECT_EQ("a&b/c", ent.getNodeText(ent.getRoot()));
}

namespace {

struct Collect : tXmlOperator {
    explicit Collect(std::vector<std::string>& s) : seen(s) {}
    void act(xmlNode* node) const override {
        tXmlCharHolder n = makeXmlCharHolder(xmlGetProp(node, BAD_CAST "n"));
        seen.push_back(reinterpret_cast<const char*>(n.get()));
        if (seen.back() == "2") throw VELMO_EXC(tError_XmlInternal) % "second";
        if (seen.back() == "boom") throw std::logic_error("not ours");
    }
    std::vector<std::string>& seen;
};

std::vector<std::string> reported;
void report(const ExTraceable& e) { reported.push_back(e.what()); }
void quiet(void*, const char*, ...) {}

}  // namespace

TEST(XmlDocument, XPathAndIteration) {
    tXmlQmvDocument doc(std::string("<l><i n=\"1\"/><x/><i n=\"2\"/><i n=\"3\"/><i n=\"boom\"/></l>"));
    std::vector<std::string> seen;
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc.getDoc(), BAD_CAST "/l/i[position() < 4]"), Collect(seen), report));
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), seen);
    EXPECT_EQ((std::vector<std::string>{"second"}), reported);
    // Failures outside the family stop the walk.
    EXPECT_THROW(foreach_xmlnode(tXPathExpr(doc.getDoc(), BAD_CAST "//i[@n='boom']"), Collect(seen), report),
                 std::logic_error);

    EXPECT_EQ("tError_XPath_TypesMismatch: The result of expression 'count(/l/i)' is not a 'nodeset' type",
              failureOf([&] { tXPathExpr(doc.getDoc(), BAD_CAST "count(/l/i)").getNodeSet(); }));
    xmlSetGenericErrorFunc(nullptr, quiet);
    std::string failure = failureOf([&] { tXPathExpr bad(doc.getDoc(), BAD_CAST "/l/[["); });
    xmlSetGenericErrorFunc(nullptr, nullptr);
    EXPECT_EQ("tError_XPath_CantEvaluate: The XML document is invalid for XPath exception.\n"
              "Can not evaluate result of expression '/l/[['",
              failure);
}

TEST(XmlDocument, AtomicSave) {
    TempDir dir;
    const std::string target = dir.path + "/status.xml";
    writeFile(target, "old");
    tXmlQmvDocument doc;
    doc.initNewDoc("fresh");
    doc.saveToFileAtomically(target);
    EXPECT_EQ("<?xml version=\"1.0\"?>\n<fresh/>\n", readFile(target));
    struct stat st;
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);

    // No room for the temporary name (the target's name plus six characters
    // is longer than a file name may be): the old target stays.
    const std::string longTarget = dir.path + "/" + std::string(250, 'n');
    writeFile(longTarget, "old");
    EXPECT_EQ(0u, failureOf([&] { doc.saveToFileAtomically(longTarget); }).find("CantCreateTempFile: "));
    EXPECT_EQ("old", readFile(longTarget));

    // The rename cannot replace a non-empty directory.
    const std::string busy = dir.path + "/busy";
    boost::filesystem::create_directories(busy + "/inside");
    std::string failure = failureOf([&] { doc.saveToFileAtomically(busy); });
    EXPECT_EQ(0u, failure.find("CantRenameFile: Cannot rename " + busy)) << failure;
    EXPECT_NE(std::string::npos, failure.find(" to " + busy + ": Is a directory")) << failure;
    EXPECT_TRUE(boost::filesystem::is_directory(busy + "/inside"));
}
