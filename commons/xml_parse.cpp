#include "commons/xml_parse.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <libxml/entities.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>

#include "commons/commons.h"

// Throws Exc<&AssertionFailed> with the condition's own text.
#define XML_ASSERT(condition) \
    do { \
        if (!(condition)) throw VELMO_EXC(AssertionFailed) % #condition; \
    } while (0)

namespace velmo {

void qmvFreeXmlChar(unsigned char* text) {
    if (text != nullptr) xmlFree(text);
}

tXmlCharHolder makeXmlCharHolder(xmlChar* text) { return tXmlCharHolder(text, qmvFreeXmlChar); }

bool is_xml_attr_set(const tXmlCharHolder& holder) { return holder.get() != nullptr; }

extern "C" void libxmlErrorHandler(void* context, const char* format, ...) {
    if (context == nullptr || format == nullptr) return;
    std::string& text = *static_cast<std::string*>(context);
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length > 0) {
        std::vector<char> buffer(static_cast<size_t>(length) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
        text.append(buffer.data(), static_cast<size_t>(length));
    }
    va_end(args);
}

tXmlParseErrors::tXmlParseErrors() { xmlSetGenericErrorFunc(&text_, libxmlErrorHandler); }

tXmlParseErrors::~tXmlParseErrors() { xmlSetGenericErrorFunc(nullptr, nullptr); }

namespace {

void freeDoc(xmlDoc* doc) {
    if (doc != nullptr) xmlFreeDoc(doc);
}

// Replacement text that the entity references of one document may stand for
// in all. Far above what any document of this tool holds, far below what a
// few kilobytes of repeated or nested references make the library build when
// node texts are read (and it builds them with a cost that grows with the
// square of the result).
const size_t MAX_ENTITY_EXPANSION = 1 << 20;

}  // namespace

EntityMeasure::EntityMeasure(xmlDoc* doc, size_t limit) : doc_(doc), limit_(limit) {}

size_t EntityMeasure::add(size_t a, size_t b) const {
    return b > limit_ - std::min(a, limit_) ? limit_ + 1 : a + b;
}

size_t EntityMeasure::references(const xmlNode* list) {
    size_t total = 0;
    for (const xmlNode* node = list; node != nullptr && total <= limit_; node = node->next) {
        if (node->type == XML_ENTITY_REF_NODE) {
            total = add(total, replacement(node));
        } else if (node->type == XML_ELEMENT_NODE) {
            for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next)
                total = add(total, references(attr->children));
            total = add(total, references(node->children));
        }
    }
    return total;
}

// A reference's children lead to its entity declaration, not to copies.
size_t EntityMeasure::replacement(const xmlNode* reference) {
    const xmlEntity* entity = xmlGetDocEntity(doc_, reference->name);
    if (entity == nullptr) return reference->content != nullptr ? static_cast<size_t>(xmlStrlen(reference->content)) : 0;
    std::map<const xmlEntity*, size_t>::const_iterator known = lengths_.find(entity);
    if (known != lengths_.end()) return known->second;
    lengths_[entity] = limit_ + 1;  // a loop counts as too much
    return lengths_[entity] = text(entity->children);
}

size_t EntityMeasure::text(const xmlNode* list) {
    size_t length = 0;
    for (const xmlNode* node = list; node != nullptr && length <= limit_; node = node->next) {
        if (node->type == XML_TEXT_NODE || node->type == XML_CDATA_SECTION_NODE) {
            if (node->content != nullptr) length = add(length, static_cast<size_t>(xmlStrlen(node->content)));
        } else if (node->type == XML_ENTITY_REF_NODE) {
            length = add(length, replacement(node));
        } else if (node->type == XML_ELEMENT_NODE) {
            for (const xmlAttr* attr = node->properties; attr != nullptr; attr = attr->next)
                length = add(length, text(attr->children));
            length = add(length, text(node->children));
        }
    }
    return length;
}

namespace {
}  // namespace

tXmlDocument::tXmlDocument() { createNewDoc(); }

tXmlDocument::tXmlDocument(const char* fileName) { readFromFile(fileName); }

tXmlDocument::tXmlDocument(const std::string& content) { readFromMemory(content); }

tXmlDocument::~tXmlDocument() = default;

void tXmlDocument::adopt(xmlDoc* doc) { doc_ = std::shared_ptr<xmlDoc>(doc, freeDoc); }

void tXmlDocument::createNewDoc() {
    xmlDoc* doc = xmlNewDoc(BAD_CAST "1.0");
    if (doc == nullptr) throw VELMO_EXC(tError_XmlInternal) % "#0001: Can not create new XML document.";
    adopt(doc);
}

void tXmlDocument::parsed(xmlDoc* doc, const std::string& name, const tXmlParseErrors& errors) {
    adopt(doc);
    if (doc == nullptr) throw VELMO_EXC(tError_ParseFile) % name % errors.text();
    if (doc->intSubset != nullptr && EntityMeasure(doc, MAX_ENTITY_EXPANSION).references(doc->children) > MAX_ENTITY_EXPANSION) {
        adopt(nullptr);
        throw VELMO_EXC(tError_ParseFile) % name %
            ("Entity references expand to more than " + std::to_string(MAX_ENTITY_EXPANSION) + " bytes\n");
    }
}

int tXmlDocument::readFromFile(const char* filename) {
    XML_ASSERT(filename != NULL);
    XML_ASSERT(*filename != 0);
    const std::string name(filename);
    if (name != "-" && !check_input_file(filename, true)) throw VELMO_EXC(tError_WrongInputFile) % name;
    // The exception is built while the collector is still registered; its
    // destructor unregisters it before the text goes.
    tXmlParseErrors errors;
    parsed(xmlParseFile(filename), name, errors);
    return 1;
}

void tXmlDocument::readFromMemory(const std::string& content) {
    XML_ASSERT(content.size());
    tXmlParseErrors errors;
    parsed(xmlParseMemory(content.data(), static_cast<int>(content.size())), "-", errors);
}

void tXmlDocument::saveToFile(const char* fileName) {
    if (xmlSaveFile(fileName, doc_.get()) < 0) throw VELMO_EXC(tError_SaveFile) % (fileName ? fileName : "");
}

void tXmlDocument::saveToFile(const std::string& fileName) { saveToFile(fileName.c_str()); }

namespace {

void freeContext(xmlXPathContext* ctx) {
    if (ctx != nullptr) xmlXPathFreeContext(ctx);
}

void freeObject(xmlXPathObject* obj) {
    if (obj != nullptr) xmlXPathFreeObject(obj);
}

}  // namespace

tXPathExpr::tXPathExpr(xmlDoc* doc, const xmlChar* expr, xmlNode* contextNode)
    : expr_(xmlStrdup(expr), qmvFreeXmlChar), doc_(doc) {
    evalExpression(doc, expr_.get(), contextNode);
}

int tXPathExpr::evalExpression(xmlDoc* doc, const xmlChar* expr, xmlNode* contextNode) {
    doc_ = doc;
    xpathObj_.reset();
    xpathCtx_ = std::shared_ptr<xmlXPathContext>(xmlXPathNewContext(doc), freeContext);
    XML_ASSERT(xpathCtx_.get() != NULL);
    if (contextNode != nullptr) xpathCtx_->node = contextNode;
    xpathObj_ = std::shared_ptr<xmlXPathObject>(xmlXPathEvalExpression(expr, xpathCtx_.get()), freeObject);
    if (!xpathObj_)
        throw VELMO_EXC(tError_XPath_CantEvaluate)
            % (expr ? reinterpret_cast<const char*>(expr) : "");
    return 1;
}

xmlNodeSet* tXPathExpr::getNodeSet() const {
    if (!xpathObj_ || xpathObj_->type != XPATH_NODESET)
        throw VELMO_EXC(tError_XPath_TypesMismatch) % getExpression() % "nodeset";
    return xpathObj_->nodesetval;
}

std::string tXPathExpr::getExpression() const {
    return expr_ ? std::string(reinterpret_cast<const char*>(expr_.get())) : std::string();
}

}  // namespace velmo
