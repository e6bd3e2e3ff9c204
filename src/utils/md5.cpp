#include "utils/md5.h"

#include <md5.h>

#include <cstdint>

namespace zarnet {

std::string md5Hex(const void *data, std::size_t size)
{
    char hex[MD5_DIGEST_STRING_LENGTH];
    return MD5Data(static_cast<const std::uint8_t *>(data), size, hex);
}

std::string md5Hex(const std::string &data)
{
    return md5Hex(data.data(), data.size());
}

} // namespace zarnet
