// The diagnostic stream of the class-based layers.
//
// Every character written to zarnet::uerr reaches standard error at once; at
// each flush (std::endl) the text written since the last flush is copied to
// standard output, so the panel, which reads only standard output, sees every
// diagnostic too. Text left without a line end is copied at process exit.
#ifndef MAILTEND_UTILS_UTILITYERRORSTREAM_H
#define MAILTEND_UTILS_UTILITYERRORSTREAM_H

#include <ostream>
#include <streambuf>
#include <string>

namespace zarnet {

class UtilityErrorStreamBuf : public std::streambuf {
public:
    UtilityErrorStreamBuf() = default;
    UtilityErrorStreamBuf(const UtilityErrorStreamBuf &) = delete;
    UtilityErrorStreamBuf &operator=(const UtilityErrorStreamBuf &) = delete;
    ~UtilityErrorStreamBuf() override;

protected:
    int sync() override;
    int_type overflow(int_type c) override;

private:
    std::string pending_;
};

class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();

private:
    UtilityErrorStreamBuf buf_;
};

extern UtilityErrorStream uerr;

} // namespace zarnet

#endif
