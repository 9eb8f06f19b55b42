#include "commons/xml_wrap.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include <libxml/xmlsave.h>

#include "commons/commons.h"

namespace velmo {

namespace {

const xmlChar* xc(const std::string& text) { return reinterpret_cast<const xmlChar*>(text.c_str()); }

std::string str(const xmlChar* text) {
    return text ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

bool continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// Length of the character that starts at text[at] when it is well-formed
// UTF-8 (shortest form, no surrogate) of a character XML 1.0 allows; else 0.
size_t xmlCharLength(const std::string& text, size_t at) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data()) + at;
    const size_t left = text.size() - at;
    const unsigned char c = p[0];
    if (c < 0x80) return c >= 0x20 || c == '\t' || c == '\n' || c == '\r' ? 1 : 0;
    if (c >= 0xC2 && c <= 0xDF) return left >= 2 && continuation(p[1]) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (left < 3 || !continuation(p[1]) || !continuation(p[2])) return 0;
        if (c == 0xE0 && p[1] < 0xA0) return 0;  // overlong
        if (c == 0xED && p[1] >= 0xA0) return 0;  // surrogate
        if (c == 0xEF && p[1] == 0xBF && (p[2] == 0xBE || p[2] == 0xBF)) return 0;  // U+FFFE, U+FFFF
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (left < 4 || !continuation(p[1]) || !continuation(p[2]) || !continuation(p[3])) return 0;
        if (c == 0xF0 && p[1] < 0x90) return 0;  // overlong
        if (c == 0xF4 && p[1] >= 0x90) return 0;  // above U+10FFFF
        return 4;
    }
    return 0;
}

// The text as an XML document can hold it. The library leaves out the whole
// text of a node or attribute when it meets a byte that is not a character of
// XML 1.0 in UTF-8 (a control byte, broken UTF-8, NUL): such a byte is written
// as the four characters \xHH instead, so that a message naming a file with
// odd bytes keeps its text.
std::string xmlText(const std::string& text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    size_t at = 0;
    while (at < text.size()) {
        const size_t length = xmlCharLength(text, at);
        if (length > 0) {
            out.append(text, at, length);
            at += length;
        } else {
            const unsigned char c = static_cast<unsigned char>(text[at++]);
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 0x0F];
        }
    }
    return out;
}

}  // namespace

int tXmlQmvDocument::initNewDoc(const char* rootName) {
    xmlNode* root = xmlNewNode(nullptr, BAD_CAST rootName);
    if (root == nullptr) throw VELMO_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    xmlDocSetRootElement(getDoc(), root);
    root_ = root;
    return 1;
}

int tXmlQmvDocument::initFileDoc(const char* rootName) {
    root_ = getDoc() ? xmlDocGetRootElement(getDoc()) : nullptr;
    if (root_ == nullptr) throw VELMO_EXC(tError_EmptyDoc) % rootName;
    if (xmlStrcmp(root_->name, BAD_CAST rootName) != 0)
        throw VELMO_EXC(tError_WrongDoc) % rootName % str(root_->name);
    return 1;
}

xmlNode* tXmlQmvDocument::newChild(xmlNode* parent, const std::string& name) {
    xmlNode* node = xmlNewDocNode(getDoc(), nullptr, xc(name), nullptr);
    if (node == nullptr) throw VELMO_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    xmlAddChild(parent, node);
    return node;
}

xmlNode* tXmlQmvDocument::newTextChild(xmlNode* parent, const std::string& name, const std::string& text) {
    xmlNode* node = xmlNewTextChild(parent, nullptr, xc(name), xc(xmlText(text)));
    if (node == nullptr) throw VELMO_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    return node;
}

void tXmlQmvDocument::addAttribute(xmlNode* node, const std::string& name, const std::string& value) {
    xmlSetProp(node, xc(name), xc(xmlText(value)));
}

std::string tXmlQmvDocument::getAttribute(xmlNode* node, const std::string& name) const {
    tXmlCharHolder value = makeXmlCharHolder(xmlGetProp(node, xc(name)));
    if (!is_xml_attr_set(value)) throw VELMO_EXC(NoSuchAttribute) % str(node ? node->name : nullptr) % name;
    return str(value.get());
}

std::string tXmlQmvDocument::getNodeText(xmlNode* node) const {
    tXmlCharHolder text = makeXmlCharHolder(xmlNodeListGetString(getDoc(), node->children, 1));
    return str(text.get());
}

// Defined here rather than beside the rest of tXmlDocument: it needs the
// product's administrative account.
void tXmlDocument::saveToFileAtomically(const Directory& dir, const std::string& name) {
    // Made exclusively and written through its descriptor, so that nothing
    // placed under the temporary name meanwhile is written through.
    NewFile file(dir, name, 0600);
    xmlSaveCtxt* save = xmlSaveToFd(file.fd(), nullptr, 0);
    if (save == nullptr) throw VELMO_EXC(tError_SaveFile) % file.path();
    const bool written = xmlSaveDoc(save, getDoc()) >= 0;
    if (xmlSaveClose(save) < 0 || !written) throw VELMO_EXC(tError_SaveFile) % file.path();
    file.commit();
}

void tXmlDocument::saveToFileAtomically(const std::string& fileName) {
    std::string name;
    const Directory dir = Directory::holding(fileName, name);
    saveToFileAtomically(dir, name);
}

}  // namespace velmo
