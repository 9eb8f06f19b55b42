// The XML document wrapper over libxml2: one shared document, parsing with the
// library's messages collected into the exception a failed parse throws, XPath
// evaluation and iteration over a node set.
#ifndef VANTREL_COMMONS_XML_PARSE_H
#define VANTREL_COMMONS_XML_PARSE_H

#include <map>
#include <memory>
#include <string>

#include <libxml/entities.h>
#include <libxml/tree.h>
#include <libxml/xpath.h>

#include "commons/exceptions.h"
#include "commons/local_files.h"

namespace velmo {

// Releases a string the library allocated.
void qmvFreeXmlChar(unsigned char* text);

// Shared owner of a library string (attribute values, node texts); null when
// the library returned none.
typedef std::shared_ptr<xmlChar> tXmlCharHolder;
tXmlCharHolder makeXmlCharHolder(xmlChar* text);

// True when the held attribute string is not null.
bool is_xml_attr_set(const tXmlCharHolder& holder);

// The library's generic error function while a parse runs: formats one piece of
// a message and appends it to the std::string given as context.
extern "C" void libxmlErrorHandler(void* context, const char* format, ...);

// Collects the library's error text for the duration of one parse: registered
// as the generic error function on construction, unregistered on destruction.
class tXmlParseErrors {
public:
    tXmlParseErrors();
    ~tXmlParseErrors();
    tXmlParseErrors(const tXmlParseErrors&) = delete;
    tXmlParseErrors& operator=(const tXmlParseErrors&) = delete;

    const std::string& text() const { return text_; }

private:
    std::string text_;
};

// Measures, without expanding anything, the text that entity references
// stand for in a document: each entity is measured once, and sums stop
// growing just above limit, so that a short document that refers to a large
// entity many times, or to itself, is measured, and refused, at no cost.
class EntityMeasure {
public:
    EntityMeasure(xmlDoc* doc, size_t limit);
    // Length of the text of a node list (and of the elements and attributes
    // within it) with every reference expanded.
    size_t text(const xmlNode* list);
    // What the references among a node list's elements and attributes stand
    // for in all.
    size_t references(const xmlNode* list);

private:
    size_t add(size_t a, size_t b) const;
    size_t replacement(const xmlNode* reference);

    xmlDoc* doc_;
    size_t limit_;
    std::map<const xmlEntity*, size_t> lengths_;
};

// Holds one shared libxml2 document; copies share it.
class tXmlDocument {
public:
    // A fresh empty document.
    tXmlDocument();
    // The parsed file; "-" reads standard input.
    explicit tXmlDocument(const char* fileName);
    // The parsed text.
    explicit tXmlDocument(const std::string& content);
    virtual ~tXmlDocument();

    // Writes the document with the library's defaults; "-" is standard output.
    // Throws Exc<&tError_SaveFile>.
    virtual void saveToFile(const char* fileName);
    virtual void saveToFile(const std::string& fileName);

    // Writes a temporary file beside the target, hands it to kvaadm and renames
    // it over the target (a link there is replaced, never written through).
    // The target stays as it was when any step fails.
    void saveToFileAtomically(const std::string& fileName);
    void saveToFileAtomically(const Directory& dir, const std::string& name);

    void createNewDoc();
    // Replaces the held document with the parsed file; returns 1.
    int readFromFile(const char* fileName);

    // The held document; null after a failed parse.
    xmlDoc* getDoc() const { return doc_.get(); }

protected:
    // Parses text in memory into the held document.
    void readFromMemory(const std::string& content);

private:
    void adopt(xmlDoc* doc);
    void parsed(xmlDoc* doc, const std::string& name, const tXmlParseErrors& errors);

    std::shared_ptr<xmlDoc> doc_;
};

// One evaluated XPath expression; copies share the context, the result and the
// expression text.
class tXPathExpr {
public:
    tXPathExpr(xmlDoc* doc, const xmlChar* expr, xmlNode* contextNode = nullptr);

    // Evaluates expr against doc, with contextNode as the context node when it
    // is not null; returns 1.
    int evalExpression(xmlDoc* doc, const xmlChar* expr, xmlNode* contextNode);

    // The result's node set (may be null); throws
    // Exc<&tError_XPath_TypesMismatch> when the result is not a node set.
    xmlNodeSet* getNodeSet() const;

    std::string getExpression() const;
    xmlDoc* getDoc() const { return doc_; }

private:
    std::shared_ptr<xmlXPathContext> xpathCtx_;
    std::shared_ptr<xmlXPathObject> xpathObj_;
    std::shared_ptr<xmlChar> expr_;
    xmlDoc* doc_;
};

}  // namespace velmo

#endif
