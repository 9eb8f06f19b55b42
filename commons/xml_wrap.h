// Documents with a known root element, and the node and attribute operations
// every XML file of vantrel is built and read with.
#ifndef VANTREL_COMMONS_XML_WRAP_H
#define VANTREL_COMMONS_XML_WRAP_H

#include <string>

#include "commons/xml_parse.h"

namespace velmo {

class tXmlQmvDocument : public tXmlDocument {
public:
    tXmlQmvDocument() : root_(nullptr) {}
    explicit tXmlQmvDocument(const char* fileName) : tXmlDocument(fileName), root_(nullptr) {}
    explicit tXmlQmvDocument(const std::string& content) : tXmlDocument(content), root_(nullptr) {}

    // Makes a new element named rootName the root; returns 1.
    int initNewDoc(const char* rootName);
    // Takes the document's root and checks its name; throws
    // Exc<&tError_EmptyDoc> or Exc<&tError_WrongDoc>. Returns 1.
    int initFileDoc(const char* rootName);

    xmlNode* getRoot() const { return root_; }

    xmlNode* newChild(xmlNode* parent, const std::string& name);
    // Appends an element holding text (escaped on output). Here and in
    // addAttribute, a byte that is not part of an XML 1.0 character in UTF-8
    // (control bytes, broken UTF-8) is stored as the four characters \xHH.
    xmlNode* newTextChild(xmlNode* parent, const std::string& name, const std::string& text);
    // Creates or replaces an attribute.
    void addAttribute(xmlNode* node, const std::string& name, const std::string& value);
    // Throws Exc<&NoSuchAttribute> when the attribute is absent.
    std::string getAttribute(xmlNode* node, const std::string& name) const;
    // Text of the node's children with entities substituted; "" for an element
    // without children.
    std::string getNodeText(xmlNode* node) const;

protected:
    xmlNode* root_;
};

}  // namespace velmo

#endif
