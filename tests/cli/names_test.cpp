// The program's own wildcard matching: '*' and '?' only, whole names, no
// leading dot matched by a wildcard.
#include <gtest/gtest.h>

#include "names.h"

namespace zvxfer::cli {
namespace {

struct Match {
    const char *pattern;
    const char *name;
    bool matches;
};

TEST(MatchesPattern, StarAndQuestionMarkOnlyOverTheWholeName) {
    const Match cases[] = {
        {"*.txt", "a.txt", true},
        {"*.txt", "a.txt.bak", false},
        {"*", "", true},
        {"?", "", false},
        {"?", "ab", false},
        {"a?c", "abc", true},
        {"a*b*c", "axxbyyc", true},
        {"a*b*c", "axxbyyb", false},
        {"a*bc", "abcbc", true}, // the first "bc" is not the end: back-track
        {"*ab", "aab", true},    // the star gives back one character
        {"a**", "a", true},
        {"b*.txt", "b*.txt", true},
        {"a[1].txt", "a1.txt", false}, // '[' is no class
        {"a[1].txt", "a[1].txt", true},
        {"*.txt", ".hidden.txt", false}, // no wildcard matches a leading dot
        {"?hidden", ".hidden", false},
        {".*", ".hidden", true},
        {"x*", "X1", false}, // names compare case by case
    };
    for (const Match &c : cases)
        EXPECT_EQ(MatchesPattern(c.pattern, c.name), c.matches) << c.pattern << " / " << c.name;
}

} // namespace
} // namespace zvxfer::cli
