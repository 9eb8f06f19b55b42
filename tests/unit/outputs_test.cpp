// What goes out: text in the XML documents the tool writes, the plain text of
// an exception, and words quoted for a remote shell.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <unistd.h>

#include <libxml/parser.h>
#include <libxml/tree.h>

#include "commons/exceptions.h"
#include "commons/sh_quoting.h"
#include "commons/xml_wrap.h"

using namespace velmo;

// Names and messages from a hostile host end up in result documents: the saved
// file reads back as the text, with the bytes XML cannot carry as \xHH.
TEST(XmlText, SavedTextAndAttributesReadBack) {
    const std::pair<std::string, std::string> cases[] = {
        {"a<b>&c\"d'e\t\n\r ]]>", "a<b>&c\"d'e\t\n\r ]]>"},
        {"\xc3\xa9t\xc3\xa9 \xe2\x82\xac \x7f", "\xc3\xa9t\xc3\xa9 \xe2\x82\xac \x7f"},
        {"\x01\x1f, latin1 \xe9, cut \xe2\x82, \xef\xbf\xbe",
         "\\x01\\x1F, latin1 \\xE9, cut \\xE2\\x82, \\xEF\\xBF\\xBE"},
    };
    char path[] = "/tmp/vantrel-xml-XXXXXX";
    ::close(::mkstemp(path));
    for (const auto& c : cases) {
        tXmlQmvDocument out;
        out.initNewDoc("r");
        out.addAttribute(out.newTextChild(out.getRoot(), "t", c.first), "a", c.first);
        out.saveToFile(std::string(path));
        xmlDoc* in = xmlReadFile(path, nullptr, XML_PARSE_NONET);
        ASSERT_NE(nullptr, in) << c.first;
        xmlNode* t = xmlDocGetRootElement(in)->children;
        xmlChar* text = xmlNodeGetContent(t);
        xmlChar* attribute = xmlGetProp(t, BAD_CAST "a");
        EXPECT_EQ(c.second, reinterpret_cast<const char*>(text));
        EXPECT_EQ(c.second, reinterpret_cast<const char*>(attribute));
        xmlFree(text);
        xmlFree(attribute);
        xmlFreeDoc(in);
    }
    ::unlink(path);
}

TEST(Exceptions, PlainTextWithAnInnerException) {
    const auto inner = VELMO_EXC(SshConnectionFault);
    const std::string text = formatPlainTextMessage(VELMO_EXC_INNER(CantRetrieveDump, inner));
    const std::string block = "(\\w+)\\[[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-[0-9a-f]{12}\\]: (.*) "
                              "\\[.*outputs_test\\.cpp:\\d+\\]\n.*PlainTextWithAnInnerException.*";
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, std::regex(block + "\nInner exception:\n" + block))) << text;
    EXPECT_EQ("CantRetrieveDump", m[1]);
    EXPECT_EQ("Error during dump retrieval", m[2]);
    EXPECT_EQ("SshConnectionFault", m[3]);
    EXPECT_EQ("Lost connection with the remote host", m[4]);
}

// Every word, quoted and given to a real shell, comes back byte for byte.
TEST(ShQuote, RoundTripThroughRealShells) {
    std::vector<std::string> words = {"", "-n", "--", "~", "~root/x", "a=b", "$(id)", "`id`", "${HOME}", "'q'",
                                      "\"dq\"", "a\\", "\\n", "*.txt", "[ab]", "x\ny\n", "\n", "#not a comment",
                                      "a&&b||c;d", "<in >out 2>&1", "\xc3\xa9t\xc3\xa9 \xe2\x82\xac", "a\tb  c", "!x"};
    std::string every;
    for (int c = 1; c < 256; ++c) {
        const std::string byte(1, static_cast<char>(c));
        words.insert(words.end(), {byte, "a" + byte + "b", byte + byte + "x" + byte});
        every += byte;
    }
    words.push_back(every);
    for (const char* shell : {"/bin/sh", "/bin/dash", "LC_ALL=C /bin/bash", "LC_ALL=C.UTF-8 /bin/bash"}) {
        std::string script;
        for (const std::string& word : words) script += "printf '%s\\0' x" + sh_quote(word) + "\n";
        char path[] = "/tmp/vantrel-quoted-XXXXXX";
        ::close(::mkstemp(path));
        std::ofstream(path, std::ios::binary) << script;
        FILE* out = ::popen((std::string(shell) + " " + path).c_str(), "r");
        std::string back;
        for (const std::string& word : words) {
            back.clear();
            for (int c; (c = std::fgetc(out)) > 0;) back += static_cast<char>(c);
            EXPECT_EQ("x" + word, back) << shell << " quoted as " << ::testing::PrintToString(sh_quote(word));
        }
        EXPECT_EQ(0, ::pclose(out)) << shell;
        ::unlink(path);
    }
}
