// MD5 digests, for naming lock files after the files they protect.
//
// Not for anything that needs collision resistance: the digest only has to be
// the same for the same name in every panel tool that shares the lock
// directory. Nothing here fails or throws (except std::bad_alloc from the
// string results).
#ifndef MAILTEND_UTILS_MD5_H
#define MAILTEND_UTILS_MD5_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zarnet {

class Md5 {
public:
    using Digest = std::array<std::uint8_t, 16>;

    Md5();
    void update(const void *data, std::size_t size);
    // Ends the computation; the object must be reset() before it is fed again.
    Digest finish();
    void reset();

private:
    void block(const std::uint8_t *p);

    std::uint32_t state_[4];
    std::uint64_t length_; // bytes fed so far
    std::uint8_t buffer_[64];
};

// Lower-case hexadecimal digest of the bytes.
std::string md5Hex(const void *data, std::size_t size);
std::string md5Hex(const std::string &data);

} // namespace zarnet

#endif
