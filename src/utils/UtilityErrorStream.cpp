#include "utils/UtilityErrorStream.h"

#include <iostream>

namespace zarnet {

UtilityErrorStreamBuf::~UtilityErrorStreamBuf()
{
    sync();
}

int UtilityErrorStreamBuf::sync()
{
    std::cerr.flush();
    if (!pending_.empty()) {
        std::cout << pending_;
        pending_.clear();
    }
    std::cout.flush();
    return 0;
}

UtilityErrorStreamBuf::int_type UtilityErrorStreamBuf::overflow(int_type c)
{
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    const char ch = traits_type::to_char_type(c);
    std::cerr.put(ch);
    pending_.push_back(ch);
    return c;
}

// The buffer member is built before the ostream base is told about it; the
// base only stores the pointer, so handing it over uninitialised is safe.
UtilityErrorStream::UtilityErrorStream() : std::ostream(&buf_) {}

// std::cout and std::cerr must outlive uerr, whose destructor copies the
// last unfinished line: the iostreams initialiser guarantees that.
static std::ios_base::Init iostreams_guard;
UtilityErrorStream uerr;

} // namespace zarnet
