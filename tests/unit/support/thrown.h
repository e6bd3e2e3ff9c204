// What a piece of code threw, as one line a test can compare with the line
// it wants; gtest then prints both.
#ifndef MAILTEND_TESTS_THROWN_H
#define MAILTEND_TESTS_THROWN_H

#include <functional>
#include <string>

namespace testsupport {

// "SystemError: MESSAGE (CODE)" for any zarnet::SystemError, with the bare
// message and the errno; "KIND: WHAT" where KIND is the exact type, one of
// exception, logic_error, invalid_argument, runtime_error (any other type
// gives its mangled name); "non-exception" for anything else thrown;
// "nothing" when fn returned.
std::string thrown(const std::function<void()> &fn);

} // namespace testsupport

#endif
