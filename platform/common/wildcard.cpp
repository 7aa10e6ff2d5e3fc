// The Windows wildcard rules, shared by the platform layers' directory
// searches: '*' any run, '?' one character, and a trailing ".*" that also
// matches names without a dot.
#include "platform/dirsearch.h"

#include <string_view>

namespace zvxfer::plat {

namespace {

// Iterative matcher for '*' and '?' with one backtrack point: linear in
// practice and never recursive, so a hostile pattern cannot blow the stack.
bool MatchStarQuestion(std::string_view pattern, std::string_view name) {
    std::size_t p = 0, n = 0;
    std::size_t starP = std::string_view::npos, starN = 0;
    while (n < name.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == name[n])) {
            ++p;
            ++n;
        } else if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starN = n;
        } else if (starP != std::string_view::npos) {
            p = starP + 1;
            n = ++starN;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

} // namespace

bool WildcardMatch(const char *pattern, const char *name) {
    std::string_view p(pattern), n(name);
    if (MatchStarQuestion(p, n)) return true;
    // "x.*" also names "x" itself: an extension wildcard matches no extension.
    if (p.size() >= 2 && p.substr(p.size() - 2) == ".*" && n.find('.') == n.npos)
        return MatchStarQuestion(p.substr(0, p.size() - 2), n);
    return false;
}

} // namespace zvxfer::plat
