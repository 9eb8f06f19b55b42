// Text and attribute values the tool writes into its XML files may carry names
// and messages from a hostile host. Whatever the bytes, the saved file reads
// back, and once each \xHH is turned back into its byte the text is the original.
#include <cctype>

#include "commons/exceptions.h"
#include "commons/xml_wrap.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned byte;
        if (text.compare(i, 2, "\\x") == 0 && i + 3 < text.size() && std::isxdigit(text[i + 2]) &&
            std::isxdigit(text[i + 3]) && std::sscanf(text.c_str() + i + 2, "%2x", &byte) == 1) {
            out += static_cast<char>(byte);
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size), path = memoryFile(data, 0);
    velmo::tXmlQmvDocument out;
    out.initNewDoc("r");
    out.addAttribute(out.newTextChild(out.getRoot(), "t", text), "a", text);
    out.saveToFile(path);
    try {
        velmo::tXmlQmvDocument in(path.c_str());
        in.initFileDoc("r");
        xmlNode* back = in.getRoot()->children;
        FUZZ_CHECK(back != nullptr, "the element is kept");
        for (const std::string& value : {in.getAttribute(back, "a"), in.getNodeText(back)}) {
            // A text that holds "\x" and two hex digits already reads back ambiguously; it is still whole.
            FUZZ_CHECK(text.find("\\x") == std::string::npos ? unescape(value) == text : value.size() >= text.size(),
                       "the text reads back");
        }
    } catch (const velmo::ExTraceable& e) {
        FUZZ_CHECK(false, e.what());
    }
    return 0;
}
