// Text and attribute values the tool writes into its XML files may carry
// messages from a hostile host. Whatever the bytes, the saved file reads back,
// and once each \xHH is turned back into its byte the text is the original.
#include <cassert>
#include <cctype>
#include <string>

#include <sys/mman.h>

#include "commons/exceptions.h"
#include "commons/xml_wrap.h"

namespace {

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escaped = text.compare(i, 2, "\\x") == 0 && i + 3 < text.size() && std::isxdigit(text[i + 2]) &&
                             std::isxdigit(text[i + 3]);
        out += escaped ? static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16)) : text[i];
        i += escaped ? 3 : 0;
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("vantrel-fuzz", 0));
    const std::string text(reinterpret_cast<const char*>(data), size);
    velmo::tXmlQmvDocument out;
    out.initNewDoc("r");
    out.addAttribute(out.newTextChild(out.getRoot(), "t", text), "a", text);
    out.saveToFile(path);
    velmo::tXmlQmvDocument in(path.c_str());
    in.initFileDoc("r");
    xmlNode* back = in.getRoot()->children;
    assert(back != nullptr && "the element is kept");
    for (const std::string& value : {in.getAttribute(back, "a"), in.getNodeText(back)}) {
        // A text that holds "\x" and two hex digits already reads back ambiguously; it is still whole.
        assert((text.find("\\x") == std::string::npos ? unescape(value) == text : value.size() >= text.size()) &&
               "the text reads back");
    }
    return 0;
}
