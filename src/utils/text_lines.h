// Text split into its lines, the one way every reader of line-based files
// and program output here does it: lines end at "\n"; a last line without
// one still counts, and a last "\n" starts no further, empty line. With
// keepNewlines each line keeps its "\n", so joining them gives the text back.
#ifndef MAILTEND_UTILS_TEXT_LINES_H
#define MAILTEND_UTILS_TEXT_LINES_H

#include <string>
#include <vector>

namespace zarnet {

std::vector<std::string> splitLines(const std::string &text, bool keepNewlines = false);

} // namespace zarnet

#endif
