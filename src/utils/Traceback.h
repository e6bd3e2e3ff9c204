// A call stack captured where the object is built.
//
// No exception class of this program derives from it; the top-level
// handlers print it when a caught exception also is a Traceback. Symbol
// texts are resolved on first print and released with the object.
#ifndef MAILTEND_UTILS_TRACEBACK_H
#define MAILTEND_UTILS_TRACEBACK_H

#include <ostream>

namespace zarnet {

class Traceback {
public:
    explicit Traceback(int skip = 0);
    Traceback(const Traceback &other);
    Traceback &operator=(const Traceback &other);
    virtual ~Traceback();

    void print(std::ostream &os) const;

    static const int max_frames = 11;

private:
    void *frames_[max_frames];
    int count_;
    int skip_;
    mutable char **symbols_;
};

std::ostream &operator<<(std::ostream &os, const Traceback &tb);

} // namespace zarnet

#endif
