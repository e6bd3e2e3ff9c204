// What a piece of code threw, as one line to compare with the wanted one.
#pragma once
#include <functional>
#include <string>

namespace testsupport {

// "SystemError: MESSAGE (CODE)" with the bare message; "KIND: WHAT" where KIND
// is exception, logic_error, invalid_argument, runtime_error or else the mangled
// type name; "non-exception"; "nothing" when fn returned.
std::string thrown(const std::function<void()> &fn);

} // namespace testsupport
