// The receiving side: the file named by F, its attributes, its end.
#include <climits>
#include <cstring>

#include "kermit/engine.h"
#include "platform/path.h"

namespace zvxfer::kermit {

int KermitEngine::rcvfil() {
    cx = 0;
    // The name is decoded into filnam, never past its end: a longer name
    // is cut.
    std::memset(filnam, 0, sizeof filnam);
    memorySink = reinterpret_cast<uint8_t *>(filnam);
    memorySinkRoom = kNameSize; // 260 characters and the NUL
    decode(rdlen);
    filnam[kNameSize - 1] = '\0';
    memorySink = nullptr;
    memorySinkRoom = 0;

    // Only the last part of the name counts, without a drive: the file stays
    // in the receive folder whatever folders or drives the peer names.
    const char *cut = plat::LastSeparator(filnam);
    if (cut != nullptr) std::memmove(filnam, cut + 1, std::strlen(cut + 1) + 1);
    if (plat::StartsWithDrive(filnam))
        std::memmove(filnam, filnam + 2, std::strlen(filnam + 2) + 1);

    char local[kNameSize];
    if (zlocal(filnam, local, 1, kPathSize) < 0) {
        kerror("Backup file creation failure");
        return -1;
    }
    std::memcpy(filnam, local, sizeof filnam);
    filnam[kNameSize - 1] = '\0';
    trace("rcvfil filename [%s]\n", filnam);
    if (zchko(filnam) < 0) {
        kerror("Write access denied");
        return -1;
    }
    if (zopeno(filnam) < 0) {
        kerror("Error opening output file");
        return -1;
    }
    if (record != nullptr) {
        record->FileName = filnam;
        ++record->FileCount;
        record->FileSize = 0;
        record->FilePos = 0;
    }
    return 0;
}

// Attributes follow one another as tag, tochar(length), value.  Only the
// file type and the length in bytes matter here.
int KermitEngine::rdattr(const uint8_t *s) {
    int result = 0;
    int i = 0;
    while (i + 1 < rdlen) {
        const int tag = s[i];
        int length = unchar(s[i + 1]);
        i += 2;
        if (length < 0) break; // not a length: the rest cannot be read
        if (length > rdlen - i) length = rdlen - i;
        const uint8_t *value = s + i;
        if (tag == '"') {
            char type[11];
            const int kept = length < 10 ? length : 10;
            std::memcpy(type, value, static_cast<size_t>(kept));
            type[kept] = '\0';
            if (kept > 0 && type[0] == 'A') {
                textmode = 1;
            } else if (kept > 0 && type[0] == 'B') {
                textmode = 0;
            } else if (kept == 0 || type[0] != 'I') {
                result = -1; // a type this side cannot keep
            }
        } else if (tag == '1') {
            long size = 0;
            for (int j = 0; j < length && value[j] >= '0' && value[j] <= '9'; ++j) {
                size = size * 10 + (value[j] - '0');
                if (size > INT32_MAX) size = INT32_MAX;
            }
            if (record != nullptr) record->FileSize = static_cast<int32_t>(size);
            trace("Remote file size: %d\n", static_cast<int>(size));
        }
        i += length;
    }
    return result;
}

int KermitEngine::closof() {
    if (zcloso(cx || cz ? 1 : 0) < 0) {
        kerror("Failure to close output file");
        return -1;
    }
    return 0;
}

} // namespace zvxfer::kermit
