// sh_quote against a small POSIX shell word reader (no shell is run): the
// quoted word reads back as exactly the original bytes, and two quoted words
// joined by a blank read back as two words. Bytes a shell line cannot carry
// (NUL) are outside the property.
#include <string>
#include <vector>

#include "commons/sh_quoting.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

// Splits a simple command line into words by the token rules of the POSIX
// shell, with quote removal. False when the line holds anything that would be
// expanded or read as an operator, a comment or an unfinished quote.
bool readWords(const std::string& line, std::vector<std::string>& words) {
    words.clear();
    std::string word;
    bool inWord = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        const bool wordStart = !inWord;
        switch (c) {
            case ' ':
            case '\t':
                if (inWord) words.push_back(word);
                word.clear();
                inWord = false;
                continue;
            case '\n':
            case '|':
            case '&':
            case ';':
            case '<':
            case '>':
            case '(':
            case ')':
                return false;  // command separator or operator
            case '$':
            case '`':
                return false;  // parameter, command or arithmetic expansion
            case '*':
            case '?':
            case '[':
                return false;  // pathname expansion
            case '#':
            case '~':
                if (wordStart) return false;  // comment, tilde expansion
                word += c;
                break;
            case '\\':
                if (++i == line.size()) return false;
                if (line[i] != '\n') word += line[i];  // backslash-newline joins lines
                break;
            case '\'': {
                const size_t close = line.find('\'', i + 1);
                if (close == std::string::npos) return false;
                word.append(line, i + 1, close - i - 1);
                i = close;
                break;
            }
            case '"':
                for (++i;; ++i) {
                    if (i == line.size()) return false;
                    const char d = line[i];
                    if (d == '"') break;
                    if (d == '$' || d == '`') return false;
                    if (d == '\\' && i + 1 < line.size() &&
                        (line[i + 1] == '$' || line[i + 1] == '`' || line[i + 1] == '"' || line[i + 1] == '\\' ||
                         line[i + 1] == '\n')) {
                        if (line[++i] != '\n') word += line[i];
                        continue;
                    }
                    word += d;
                }
                break;
            default:
                word += c;
                break;
        }
        inWord = true;
    }
    if (inWord) words.push_back(word);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (input.find('\0') != std::string::npos) return 0;

    std::vector<std::string> words;
    const std::string quoted = velmo::sh_quote(input);
    FUZZ_CHECK(readWords(quoted, words), "a quoted word is free of expansions and operators");
    if (input.empty()) {
        FUZZ_CHECK(words.empty(), "an empty word stays empty");
        return 0;
    }
    FUZZ_CHECK(words.size() == 1 && words[0] == input, "a quoted word reads back as itself");

    // The first byte picks where the input is cut into two words.
    const size_t cut = 1 + data[0] % size;
    const std::string first = input.substr(0, cut), second = input.substr(cut);
    if (second.empty()) return 0;
    FUZZ_CHECK(readWords(velmo::sh_quote(first) + " " + velmo::sh_quote(second), words),
               "two quoted words form a plain command line");
    FUZZ_CHECK(words.size() == 2 && words[0] == first && words[1] == second, "two quoted words stay two words");
    return 0;
}
