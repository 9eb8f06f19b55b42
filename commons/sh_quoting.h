#ifndef VANTREL_COMMONS_SH_QUOTING_H
#define VANTREL_COMMONS_SH_QUOTING_H

#include <string>

namespace velmo {

// Quotes one word for a POSIX shell, or a login shell that is bash: bytes
// special to either (braces and commas too, which bash would expand) get a
// backslash, a newline is wrapped in single quotes, everything else stays as
// it is. An empty word stays empty.
std::string sh_quote(const std::string& word);

}  // namespace velmo

#endif
