#ifndef VANTREL_COMMONS_CHECKSUM_H
#define VANTREL_COMMONS_CHECKSUM_H

#include <istream>
#include <string>

namespace velmo {

// MD5 of everything the stream yields, as 32 lower-case hex digits; reads in
// 4096-byte blocks; throws Exc<&StreamRead> on a read error.
std::string countMd5Sum(std::istream& in);

}  // namespace velmo

#endif
