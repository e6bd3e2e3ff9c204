#include "utils/Traceback.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace zarnet {

Traceback::Traceback(int skip) : count_(0), skip_(skip), symbols_(nullptr)
{
    const int n = ::backtrace(frames_, max_frames);
    count_ = n > 0 ? n : 0;
    if (skip_ > count_)
        skip_ = count_;
    if (skip_ < 0)
        skip_ = 0;
}

// Copies share no symbol array: each resolves its own on print.
Traceback::Traceback(const Traceback &other)
    : count_(other.count_), skip_(other.skip_), symbols_(nullptr)
{
    std::memcpy(frames_, other.frames_, sizeof frames_);
}

Traceback &Traceback::operator=(const Traceback &other)
{
    if (this != &other) {
        std::free(symbols_);
        symbols_ = nullptr;
        count_ = other.count_;
        skip_ = other.skip_;
        std::memcpy(frames_, other.frames_, sizeof frames_);
    }
    return *this;
}

Traceback::~Traceback()
{
    std::free(symbols_);
}

static std::string demangleFrame(const char *text)
{
    std::string line(text);
    const std::string::size_type open = line.find('(');
    if (open == std::string::npos)
        return line;
    const std::string::size_type plus = line.find('+', open + 1);
    if (plus == std::string::npos)
        return line;
    const std::string mangled = line.substr(open + 1, plus - open - 1);
    int status = 0;
    char *name = abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status);
    if (status == 0 && name != nullptr)
        line.replace(open + 1, mangled.size(), name);
    std::free(name);
    return line;
}

void Traceback::print(std::ostream &os) const
{
    if (symbols_ == nullptr && count_ > 0)
        symbols_ = ::backtrace_symbols(frames_, count_);
    if (symbols_ != nullptr) {
        os << "Traceback:" << std::endl;
        for (int i = skip_; i < count_; ++i)
            os << '\t' << demangleFrame(symbols_[i]) << std::endl;
    } else {
        os << "Traceback addresses:" << std::endl;
        for (int i = skip_; i < count_; ++i)
            os << '\t' << frames_[i] << std::endl;
    }
}

std::ostream &operator<<(std::ostream &os, const Traceback &tb)
{
    tb.print(os);
    return os;
}

} // namespace zarnet
