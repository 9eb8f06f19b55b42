// The product configuration reader over arbitrary file content. Besides the
// sanitizers' findings, the table it builds is compared with a small model of
// the line rules: the last definition of a name wins, the value ends at "#",
// blanks around it are dropped, rejected lines change nothing.
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "tests/fuzz/fuzz_support.h"
#include "utils/read_configuration.h"

namespace {

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

bool nameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The reader handles a line as a C string: a NUL byte ends it early.
std::map<std::string, std::string> model(const std::string& text) {
    std::map<std::string, std::string> table;
    std::string::size_type from = 0;
    while (from < text.size()) {
        std::string::size_type end = text.find('\n', from);
        std::string line = text.substr(from, end == std::string::npos ? std::string::npos : end + 1 - from);
        from = end == std::string::npos ? text.size() : end + 1;
        line = line.substr(0, line.find('\0'));

        size_t p = 0;
        while (p < line.size() && blank(line[p])) ++p;
        if (p == line.size() || line[p] == '#') continue;
        const size_t nameStart = p;
        while (p < line.size() && nameChar(line[p])) ++p;
        if (p == line.size() || !blank(line[p])) continue;
        const std::string name = line.substr(nameStart, p - nameStart);
        ++p;
        while (p < line.size() && blank(line[p])) ++p;
        if (p == line.size() || line[p] == '#') continue;
        std::string value = line.substr(p, line.find('#', p) - p);
        while (!value.empty() && blank(value.back())) value.pop_back();
        table[name] = value;
    }
    return table;
}

void quiet(int, const char*) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile file;
    static bool ready = (conf_set_log_function(quiet), true);
    (void)ready;

    const std::string& path = file.set(data, size);
    conf_data* table = static_cast<conf_data*>(std::calloc(1, sizeof(conf_data)));
    FUZZ_CHECK(table != nullptr, "table allocation");
    FUZZ_CHECK(conf_read_file_r(path.c_str(), table) == 0, "a readable file is read");

    const std::map<std::string, std::string> expected = model(std::string(reinterpret_cast<const char*>(data), size));
    FUZZ_CHECK(table->finalized == 1, "the table is sorted after reading");
    FUZZ_CHECK(table->nmemb == expected.size(), "one entry per distinct accepted name");
    FUZZ_CHECK(table->nmemb <= table->size, "entries fit the capacity");
    for (unsigned i = 0; i < table->nmemb; ++i) {
        const conf_entry& entry = table->data[i];
        if (i > 0) FUZZ_CHECK(std::strcmp(table->data[i - 1].name, entry.name) < 0, "names sorted and distinct");
        std::map<std::string, std::string>::const_iterator it = expected.find(entry.name);
        FUZZ_CHECK(it != expected.end(), "every stored name was accepted by the rules");
        FUZZ_CHECK(it->second == entry.value, "the stored value is the last definition's");
        FUZZ_CHECK(conf_get_r(entry.name, table) == entry.value, "lookup finds the stored entry");
    }
    conf_free_r(table);
    return 0;
}
