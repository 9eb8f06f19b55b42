#include "commons/sh_quoting.h"

namespace velmo {

namespace {

enum CharClass : unsigned char { Plain, Escape, Quote };

struct QuoteTable {
    CharClass cls[256];
    QuoteTable() {
        for (CharClass& c : cls) c = Plain;
        for (unsigned char c : {9, 32, 34, 35, 36, 38, 39, 40, 41, 42, 44, 59, 60, 62, 63, 91, 92, 96, 123, 124,
                                 125, 126})
            cls[c] = Escape;
        cls[10] = Quote;
    }
};

const QuoteTable table;

}  // namespace

std::string sh_quote(const std::string& word) {
    std::string out;
    out.reserve(word.size() + word.size() / 4);
    for (char ch : word) {
        switch (table.cls[static_cast<unsigned char>(ch)]) {
            case Escape:
                out += '\\';
                out += ch;
                break;
            case Quote:
                out += '\'';
                out += ch;
                out += '\'';
                break;
            case Plain:
                out += ch;
                break;
        }
    }
    return out;
}

}  // namespace velmo
