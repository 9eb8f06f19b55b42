#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <dirent.h>
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

void writeFile(const std::string& name, const std::string& text) {
    std::ofstream out(name.c_str(), std::ios::binary);
    out << text;
}

std::string readFile(const std::string& name) {
    std::ifstream in(name.c_str(), std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = readdir(d))
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    closedir(d);
    return names;
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
    TempDir scratch;
    const std::string dir = scratch.path;
    const std::string name = dir + "/broken.xml";
    writeFile(name, "<a>\n<b></c>\n</a>\n");
    tXmlDocument doc;
    try {
        doc.readFromFile(name.c_str());
        FAIL() << "parsed";
    } catch (const Exc<&tError_ParseFile>& e) {
        const std::string head = "The XML file " + name + " was not parsed successfully with the following errors:\n";
        const std::string text = e.what();
        ASSERT_EQ(head, text.substr(0, head.size()));
        const std::string errors = text.substr(head.size());
        // Every piece of every message: location, message, source line, caret.
        EXPECT_NE(std::string::npos, errors.find(name + ":2: parser error : Opening and ending tag mismatch: b"))
            << errors;
        EXPECT_NE(std::string::npos, errors.find("<b></c>\n")) << errors;
        EXPECT_NE(std::string::npos, errors.find("^\n")) << errors;
        EXPECT_EQ('\n', errors.back());
    }
    // The failed parse replaced the document, and the collector is gone.
    EXPECT_EQ(nullptr, doc.getDoc());
    EXPECT_EQ(nullptr, xmlGenericErrorContext);

    try {
        tXmlDocument fromText(std::string("<a><b></a>"));
        FAIL() << "parsed";
    } catch (const Exc<&tError_ParseFile>& e) {
        const std::string text = e.what();
        EXPECT_EQ(0u, text.find("The XML file - was not parsed successfully with the following errors:\nEntity: line 1: "))
            << text;
    }
}

TEST(XmlDocument, InputChecks) {
    TempDir scratch;
    const std::string dir = scratch.path;
    EXPECT_EQ("tError_WrongInputFile: The XML file does not exist or is not a regular file. Check the file '" + dir + "'",
              failureOf([&] { tXmlDocument d(dir.c_str()); }));
    EXPECT_EQ("tError_WrongInputFile: The XML file does not exist or is not a regular file. Check the file '" + dir +
                  "/missing.xml'",
              failureOf([&] { tXmlDocument d((dir + "/missing.xml").c_str()); }));
    EXPECT_EQ("AssertionFailed: Assertion failed: filename != NULL",
              failureOf([] { tXmlDocument().readFromFile(nullptr); }));
    EXPECT_EQ("AssertionFailed: Assertion failed: *filename != 0", failureOf([] { tXmlDocument().readFromFile(""); }));
    EXPECT_EQ("AssertionFailed: Assertion failed: content.size()",
              failureOf([] { tXmlDocument d{std::string()}; }));

    // A link to a regular file is followed.
    writeFile(dir + "/real.xml", "<real/>");
    ASSERT_EQ(0, symlink((dir + "/real.xml").c_str(), (dir + "/link.xml").c_str()));
    tXmlQmvDocument linked((dir + "/link.xml").c_str());
    EXPECT_EQ(1, linked.initFileDoc("real"));

    // "-" is standard input, with no file check.
    writeFile(dir + "/stdin.xml", "<from-stdin x=\"1\"/>");
    int saved = dup(0);
    int in = open((dir + "/stdin.xml").c_str(), O_RDONLY);
    dup2(in, 0);
    close(in);
    std::string failure = failureOf([] {
        tXmlQmvDocument d("-");
        d.initFileDoc("from-stdin");
    });
    dup2(saved, 0);
    close(saved);
    EXPECT_EQ("no failure", failure);
}

TEST(XmlDocument, RootChecks) {
    tXmlQmvDocument wrong(std::string("<agents-list><agent/></agents-list>"));
    try {
        wrong.initFileDoc("migration-status");
        FAIL();
    } catch (const Exc<&tError_WrongDoc>& e) {
        EXPECT_STREQ("The document has the wrong type, root node is <agents-list>, but <migration-status> was expected",
                     e.what());
    }
    // The root that was found is kept.
    ASSERT_NE(nullptr, wrong.getRoot());
    EXPECT_STREQ("agents-list", reinterpret_cast<const char*>(wrong.getRoot()->name));

    tXmlQmvDocument empty;
    EXPECT_EQ("tError_EmptyDoc: The document is empty. Can not find root element <contentlist>",
              failureOf([&] { empty.initFileDoc("contentlist"); }));
}

TEST(XmlDocument, NodesAttributesAndText) {
    tXmlQmvDocument doc;
    doc.initNewDoc("top");
    xmlNode* a = doc.newChild(doc.getRoot(), "a");
    doc.addAttribute(a, "k", "first");
    doc.addAttribute(a, "k", "second <&\">");
    xmlNode* t = doc.newTextChild(doc.getRoot(), "t", "x < y & \"z\"");
    xmlNode* e = doc.newChild(doc.getRoot(), "empty");

    EXPECT_EQ("second <&\">", doc.getAttribute(a, "k"));
    EXPECT_EQ("NoSuchAttribute: Node a does not have attribute nope", failureOf([&] { doc.getAttribute(a, "nope"); }));
    EXPECT_EQ("x < y & \"z\"", doc.getNodeText(t));
    EXPECT_EQ("", doc.getNodeText(e));

    // Text and attributes come back the same after a round trip through text.
    xmlChar* raw = nullptr;
    int size = 0;
    xmlDocDumpMemory(doc.getDoc(), &raw, &size);
    tXmlCharHolder dumped = makeXmlCharHolder(raw);
    tXmlQmvDocument back(std::string(reinterpret_cast<char*>(dumped.get()), size));
    back.initFileDoc("top");
    xmlNode* first = xmlFirstElementChild(back.getRoot());
    EXPECT_EQ("second <&\">", back.getAttribute(first, "k"));
    EXPECT_EQ("x < y & \"z\"", back.getNodeText(xmlNextElementSibling(first)));

    // Entity references are substituted.
    tXmlQmvDocument ent(std::string("<r>a&amp;b&#47;c<!-- note --></r>"));
    ent.initFileDoc("r");
    EXPECT_EQ("a&b/c", ent.getNodeText(ent.getRoot()));

    XmlNode node(doc.getDoc(), t);
    EXPECT_EQ(doc.getRoot(), node.getParent().node);
    EXPECT_EQ("NoParentNode: No parent node on requested XML element",
              failureOf([&] { node.getParent().getParent(); }));
}

namespace {

class Collect : public tXmlOperator {
public:
    explicit Collect(std::vector<std::string>& seen) : seen_(seen) {}
    void act(xmlNode* node) const override {
        tXmlCharHolder n = makeXmlCharHolder(xmlGetProp(node, BAD_CAST "n"));
        seen_.push_back(reinterpret_cast<const char*>(n.get()));
        if (seen_.back() == "2") throw VELMO_EXC(tError_XmlInternal) % "second";
        if (seen_.back() == "boom") throw std::logic_error("not ours");
    }

private:
    std::vector<std::string>& seen_;
};

std::vector<std::string> reported;
void report(const ExTraceable& e) { reported.push_back(e.what()); }

void quiet(void*, const char*, ...) {}

}  // namespace

TEST(XmlDocument, XPathAndIteration) {
    tXmlQmvDocument doc(std::string("<l><i n=\"1\"/><x/><i n=\"2\"/><i n=\"3\"/></l>"));
    std::vector<std::string> seen;
    reported.clear();
    tXPathExpr items(doc.getDoc(), BAD_CAST "/l/i");
    EXPECT_EQ(1, foreach_xmlnode(items, Collect(seen), report));
    EXPECT_EQ((std::vector<std::string>{"1", "2", "3"}), seen);
    EXPECT_EQ((std::vector<std::string>{"second"}), reported);

    // Relative to a context node.
    seen.clear();
    xmlNode* second = xmlNextElementSibling(xmlNextElementSibling(xmlFirstElementChild(doc.getDoc()->children)));
    EXPECT_EQ(1, foreach_xmlnode(tXPathExpr(doc.getDoc(), BAD_CAST "following-sibling::i", second), Collect(seen),
                                 report));
    EXPECT_EQ((std::vector<std::string>{"3"}), seen);

    // Failures that are not ours stop the walk.
    tXmlQmvDocument other(std::string("<l><i n=\"boom\"/><i n=\"1\"/></l>"));
    seen.clear();
    EXPECT_THROW(foreach_xmlnode(tXPathExpr(other.getDoc(), BAD_CAST "//i"), Collect(seen), report),
                 std::logic_error);
    EXPECT_EQ(1u, seen.size());

    tXPathExpr number(doc.getDoc(), BAD_CAST "count(/l/i)");
    EXPECT_EQ("tError_XPath_TypesMismatch: The result of expression 'count(/l/i)' is not a 'nodeset' type",
              failureOf([&] { number.getNodeSet(); }));
    // A copy shares the evaluated result.
    tXPathExpr copy = items;
    ASSERT_NE(nullptr, copy.getNodeSet());
    EXPECT_EQ(3, copy.getNodeSet()->nodeNr);

    xmlSetGenericErrorFunc(nullptr, quiet);
    std::string failure = failureOf([&] { tXPathExpr bad(doc.getDoc(), BAD_CAST "/l/[["); });
    xmlSetGenericErrorFunc(nullptr, nullptr);
    EXPECT_EQ("tError_XPath_CantEvaluate: The XML document is invalid for XPath exception.\n"
              "Can not evaluate result of expression '/l/[['",
              failure);
}

TEST(XmlDocument, AtomicSave) {
    TempDir scratch;
    const std::string dir = scratch.path;
    const std::string target = dir + "/status.xml";
    writeFile(target, "old");

    tXmlQmvDocument doc;
    doc.initNewDoc("fresh");
    doc.saveToFileAtomically(target);
    EXPECT_EQ("<?xml version=\"1.0\"?>\n<fresh/>\n", readFile(target));
    struct stat st;
    ASSERT_EQ(0, stat(target.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_EQ(std::vector<std::string>{"status.xml"}, listDir(dir));

    // No room for the temporary name (the target's name plus six characters
    // exceeds the longest file name): the old target stays.
    const std::string longTarget = dir + "/" + std::string(250, 'n');
    writeFile(longTarget, "old");
    EXPECT_EQ(0u, failureOf([&] { doc.saveToFileAtomically(longTarget); }).find("CantCreateTempFile: "));
    EXPECT_EQ("old", readFile(longTarget));
    ASSERT_EQ(0, unlink(longTarget.c_str()));

    // The rename fails onto a directory; the temporary file is left beside it.
    const std::string busy = dir + "/busy";
    ASSERT_EQ(0, mkdir(busy.c_str(), 0700));
    writeFile(busy + "/inside", "x");
    std::string failure = failureOf([&] { doc.saveToFileAtomically(busy); });
    EXPECT_EQ(0u, failure.find("CantRenameFile: Cannot rename " + dir + "/busy")) << failure;
    EXPECT_NE(std::string::npos, failure.find(" to " + busy + ": Is a directory")) << failure;
    EXPECT_EQ("x", readFile(busy + "/inside"));
    EXPECT_EQ(3u, listDir(dir).size());

    // A failed save of the plain kind names the file.
    EXPECT_EQ("tError_SaveFile: Can not save the XML document to file '" + dir + "/no/such/dir.xml'",
              failureOf([&] { doc.saveToFile(dir + "/no/such/dir.xml"); }));
}
