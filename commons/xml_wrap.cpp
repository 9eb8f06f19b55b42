#include "commons/xml_wrap.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "commons/commons.h"

namespace velmo {

namespace {

const xmlChar* xc(const std::string& text) { return reinterpret_cast<const xmlChar*>(text.c_str()); }

std::string str(const xmlChar* text) {
    return text ? std::string(reinterpret_cast<const char*>(text)) : std::string();
}

}  // namespace

XmlNode XmlNode::getParent() const {
    if (node == nullptr || node->parent == nullptr || node->parent->type != XML_ELEMENT_NODE)
        throw VELMO_EXC(NoParentNode);
    return XmlNode(doc, node->parent);
}

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
    xmlNode* node = xmlNewTextChild(parent, nullptr, xc(name), xc(text));
    if (node == nullptr) throw VELMO_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    return node;
}

void tXmlQmvDocument::addAttribute(xmlNode* node, const std::string& name, const std::string& value) {
    xmlSetProp(node, xc(name), xc(value));
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

namespace {

// Directory part and last component; a bare name has no directory part, and
// a name right under "/" keeps "/" as its directory.
void splitTarget(const std::string& target, std::string& dir, std::string& last) {
    std::string::size_type at = target.rfind('/');
    if (at == std::string::npos) {
        dir.clear();
        last = target;
    } else {
        dir = at == 0 ? std::string("/") : target.substr(0, at);
        last = target.substr(at + 1);
    }
}

}  // namespace

// Defined here rather than beside the rest of tXmlDocument: it needs the
// product's temporary files and its administrative account.
void tXmlDocument::saveToFileAtomically(const std::string& fileName) {
    std::string dir, last;
    splitTarget(fileName, dir, last);
    // Creates the file, so the name is ours until the rename.
    const std::string temp = QMV_getTempFileName(dir, last);
    saveToFile(temp);
    uid_t uid;
    gid_t gid;
    getAdminIds(uid, gid);
    if (chown(temp.c_str(), uid, gid) != 0) throw VELMO_EXC(CantTakeFileOwnership) % temp % std::strerror(errno);
    if (std::rename(temp.c_str(), fileName.c_str()) != 0)
        throw VELMO_EXC(CantRenameFile) % temp % fileName % std::strerror(errno);
}

}  // namespace velmo
