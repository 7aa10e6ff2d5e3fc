// The status lines a test collects from the library: install CollectStatus
// as the transfer's status callback, clear the log between cases, and ask
// how many lines hold a text.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "zvxfer.h"

namespace zvxfer::test {

// Every line so far, as "<level> <text>".
inline std::vector<std::string> gStatusLines;
inline std::vector<std::string> &StatusLines() {
    return gStatusLines;
}

inline int32_t CollectStatus(XferRecord *, int32_t level, const char *text) {
    StatusLines().push_back(std::to_string(level) + " " + text);
    return 0;
}

// Lines holding `fragment`, of any level or of `level` only.
inline int CountStatus(const std::string &fragment, int level = -1) {
    int n = 0;
    for (const std::string &line : StatusLines())
        n += (level < 0 || line[0] == '0' + level) && line.find(fragment) != std::string::npos;
    return n;
}

} // namespace zvxfer::test
