#include "utils/text_lines.h"

namespace zarnet {

std::vector<std::string> splitLines(const std::string &text, bool keepNewlines)
{
    std::vector<std::string> lines;
    std::string::size_type start = 0;
    while (start < text.size()) {
        std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        else if (keepNewlines)
            ++end;
        lines.push_back(text.substr(start, end - start));
        start = keepNewlines ? end : end + 1;
    }
    return lines;
}

} // namespace zarnet
