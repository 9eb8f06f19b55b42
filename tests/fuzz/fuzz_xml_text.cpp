// Text and attribute values that the tool writes into its XML files (the
// result document, the migration status) may carry names from a hostile host.
// Whatever the bytes, the saved file reads back, and the text read back gives
// the original bytes once each \xHH is turned back into its byte.
#include <string>

#include "commons/exceptions.h"
#include "commons/xml_wrap.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && hexValue(text[i + 2]) >= 0 &&
            hexValue(text[i + 3]) >= 0) {
            out += static_cast<char>(hexValue(text[i + 2]) * 16 + hexValue(text[i + 3]));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string& path = file.set(nullptr, 0);

    velmo::tXmlQmvDocument out;
    out.initNewDoc("execution-result");
    xmlNode* message = out.newChild(out.getRoot(), "message");
    out.addAttribute(message, "name", text);
    out.newTextChild(message, "description", text);
    out.saveToFile(path);

    try {
        velmo::tXmlQmvDocument in(path.c_str());
        in.initFileDoc("execution-result");
        xmlNode* back = in.getRoot()->children;
        FUZZ_CHECK(back != nullptr && back->children != nullptr, "the elements are kept");
        const std::string attribute = in.getAttribute(back, "name");
        const std::string description = in.getNodeText(back->children);
        // A text that already holds "\x" followed by two hex digits reads back
        // ambiguously; it is still kept whole.
        if (text.find("\\x") == std::string::npos) {
            FUZZ_CHECK(unescape(attribute) == text, "the attribute value reads back");
            FUZZ_CHECK(unescape(description) == text, "the element text reads back");
        } else {
            FUZZ_CHECK(attribute.size() >= text.size() && description.size() >= text.size(),
                       "nothing of the text is dropped");
        }
    } catch (const velmo::ExTraceable& e) {
        std::fprintf(stderr, "%s\n", e.what());
        FUZZ_CHECK(false, "a saved document reads back");
    }
    return 0;
}
