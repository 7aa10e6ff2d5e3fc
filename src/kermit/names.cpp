// Names between the two systems: the name a local file travels under (no
// folder, a portable set of characters, one dot), the local name for a name
// that arrived, and the numbered backup that moves an older file of that
// name aside before a received one takes its place.
#include <cstdio>
#include <cstring>

#include "kermit/engine.h"
#include "platform/file.h"
#include "platform/path.h"

namespace zvxfer::kermit {

namespace {

constexpr std::size_t kComponentMax = 255;
constexpr std::size_t kPathMax = kPathSize - 1;
constexpr int kBackupsMax = 999;

// Bytes of 128 and above count as blanks when a received name is trimmed.
bool IsBlank(char c) {
    return static_cast<signed char>(c) < 33;
}

int Digits(int n) {
    int count = 1;
    while (n >= 10) n /= 10, ++count;
    return count;
}

} // namespace

// `out` holds `max` bytes with its terminator.
void KermitEngine::zltor(const char *name, char *out, int max) {
    const char *whole = name != nullptr ? name : "";
    trace("zltor %s: maxlen = %d, literal = %d\n", whole, max, 0);
    if (out == nullptr || max <= 0) return;

    // Without its folder, unless it ends with a separator.
    const char *last = plat::LastSeparator(whole);
    const char *np = last != nullptr && last[1] != '\0' ? last + 1 : whole;
    trace("zltor np %s\n", np);

    char converted[kPathSize];
    const int limit = max < kPathSize - 1 ? max : kPathSize - 1;
    int n = 0, lastDot = -1;
    for (; np[n] != '\0' && n < limit; ++n) {
        const auto c = static_cast<unsigned char>(np[n]);
        char to = static_cast<char>(c);
        if (c == '~')
            to = '-';
        else if (c == '#' || c == '*' || c == '?' || c < 32 || c >= 128)
            to = 'X';
        else if (c == ' ')
            to = '_';
        else if (c == '.')
            to = '_', lastDot = n;
        converted[n] = to;
    }
    if (lastDot >= 0) converted[lastDot] = '.';
    converted[n] = '\0';

    // A name never starts with a dot on the other side.
    std::snprintf(out, static_cast<std::size_t>(max), "%s%s", converted[0] == '.' ? "X" : "",
                  converted);
    trace("zltor result: %s\n", out);
}

// `out` holds `max` bytes with its terminator; it may be `name` itself.
int KermitEngine::zlocal(const char *name, char *out, int backup, int max) {
    if (out == nullptr || max <= 0) return -1;
    const char *p = name != nullptr ? name : "";
    while (*p != '\0' && IsBlank(*p)) ++p;

    char local[kNameSize];
    const int limit = max - 1 < kNameSize - 1 ? max - 1 : kNameSize - 1;
    int n = 0;
    for (; p[n] != '\0' && n < limit; ++n) local[n] = p[n];
    while (n > 0 && IsBlank(local[n - 1])) --n;
    local[n] = '\0';

    bool upper = false, lower = false;
    for (int i = 0; i < n; ++i) {
        upper = upper || (local[i] >= 'A' && local[i] <= 'Z');
        lower = lower || (local[i] >= 'a' && local[i] <= 'z');
    }
    if (n == 0) std::snprintf(local, sizeof local, "NONAME");
    // A name all in capitals comes from a system without lower case.
    if (upper && !lower)
        for (int i = 0; i < n; ++i)
            if (local[i] >= 'A' && local[i] <= 'Z') local[i] = static_cast<char>(local[i] + 32);

    std::snprintf(out, static_cast<std::size_t>(max), "%s", local);
    if (backup && zbackup(out) < 0) return -1;
    return 0;
}

// Moves an older file of the name in the receive folder to the first free
// "<name>.~<n>~".  A folder of that name is never moved: the file cannot be
// written there, and opening it fails later.
int KermitEngine::zbackup(const char *name) {
    if (name == nullptr || name[0] == '\0') return -1;
    char path[kPathSize];
    if (!receivePath(name, path)) return -1;
    const plat::EntryKind kind = plat::FileEntryKind(path);
    if (kind == plat::EntryKind::Missing || kind == plat::EntryKind::Directory) return 0;
    const std::size_t length = std::strlen(path);
    trace("zbackup A %s: %d\n", path, static_cast<int>(length));

    // The base is the name without an earlier backup suffix; the name's
    // first character is never taken for the suffix's dot.
    const char *slash = plat::LastSeparator(path);
    const std::size_t nameStart = slash != nullptr ? static_cast<std::size_t>(slash + 1 - path) : 0;
    char base[kPathSize];
    std::memcpy(base, path, length + 1);
    std::size_t baseLength = length;
    if (length > nameStart && base[length - 1] == '~') {
        std::size_t i = length - 1;
        while (i > nameStart && base[i - 1] >= '0' && base[i - 1] <= '9') --i;
        if (i >= nameStart + 3 && base[i - 1] == '~' && base[i - 2] == '.') baseLength = i - 2;
    }
    base[baseLength] = '\0';
    trace("zbackup B %s\n", base);

    char candidate[kPathSize];
    bool found = false;
    for (int n = 1; n <= kBackupsMax && !found; ++n) {
        const std::size_t suffix = static_cast<std::size_t>(Digits(n)) + 3;
        std::size_t keep = baseLength;
        if (keep + suffix > kPathMax) keep = kPathMax - suffix;
        if (keep <= nameStart) return -1; // the folder leaves no room for a name
        if (keep - nameStart + suffix > kComponentMax) keep = nameStart + kComponentMax - suffix;
        std::snprintf(candidate, sizeof candidate, "%.*s.~%d~", static_cast<int>(keep), base, n);
        found = plat::FileEntryKind(candidate) == plat::EntryKind::Missing;
    }
    if (!found) {
        trace("zbackup failed: all numbers used\n");
        return -1;
    }
    errorNumber = 0;
    if (!plat::FileRename(path, candidate)) {
        errorNumber = plat::LastError();
        trace("zbackup failed: link(%s): %d\n", candidate, errorNumber);
        return -1;
    }
    trace("zbackup %s: OK\n", candidate);
    return 0;
}

} // namespace zvxfer::kermit
