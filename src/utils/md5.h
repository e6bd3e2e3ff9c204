// MD5 digests, for naming lock files after the files they protect.
//
// Not for anything that needs collision resistance: the digest only has to be
// the same for the same name in every panel tool that shares the lock
// directory. Nothing here fails or throws (except std::bad_alloc from the
// string results).
#ifndef MAILTEND_UTILS_MD5_H
#define MAILTEND_UTILS_MD5_H

#include <cstddef>
#include <string>

namespace zarnet {

// Lower-case hexadecimal digest of the bytes.
std::string md5Hex(const void *data, std::size_t size);
std::string md5Hex(const std::string &data);

} // namespace zarnet

#endif
