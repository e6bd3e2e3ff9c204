#include "support/bytes.h"

namespace testsupport {

std::string pattern(std::size_t n, unsigned mul, unsigned add)
{
    std::string s(n, '\0');
    for (std::size_t i = 0; i < n; ++i)
        s[i] = static_cast<char>((i * mul + add) % 251);
    return s;
}

std::string sameBytes(const std::string &got, const std::string &want)
{
    if (got == want)
        return "equal";
    std::size_t i = 0;
    while (i < got.size() && i < want.size() && got[i] == want[i])
        ++i;
    return "got " + std::to_string(got.size()) + " bytes, want " + std::to_string(want.size()) +
           ", first difference at " + std::to_string(i);
}

} // namespace testsupport
