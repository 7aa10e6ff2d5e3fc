// The engine's local files: checks before a file is read or written, the
// input file read through the engine's fixed buffer (text mode turns each
// LF into CR LF), the output file written through its fixed buffer, and
// closing both.  Files are platform handles, never stdio streams.  Output
// files live beneath the port's receive folder and are created there
// without following a symlink; a file is only made permanent once the
// exchange says it is complete.
#include <cstdio>
#include <cstring>
#include <string>

#include "core/core.h"
#include "kermit/engine.h"
#include "platform/file.h"
#include "platform/path.h"

namespace zvxfer::kermit {

namespace {

constexpr int kBinaryRead = 4080; // bytes one binary read asks for
constexpr int kLineLimit = 4079;  // a text-mode fill stops once it holds this many
constexpr std::size_t kComponentMax = 255;
constexpr std::size_t kPathMax = kPathSize - 1;

const char *Shown(const char *name) {
    return name != nullptr ? name : "";
}

} // namespace

bool KermitEngine::receivePath(const char *name, char *out) {
    out[0] = '\0';
    const char *folder =
        record && record->Port && record->Port->ReceiveFolder ? record->Port->ReceiveFolder : "";
    const std::size_t folderLength = std::strlen(folder);
    if (folderLength > kPathMax) return false;
    // An empty folder text is the current folder.
    if (folder[0] != '\0' && !plat::FileStat(folder).isDirectory) {
        std::memcpy(out, folder, folderLength + 1);
        return true;
    }
    // The name joins the text after the folder's last separator, so both
    // count against one component.
    const char *slash = plat::LastSeparator(folder);
    const std::size_t tail = slash != nullptr ? folderLength - (slash + 1 - folder) : folderLength;
    if (tail >= kComponentMax) return false;
    std::size_t room = kComponentMax - tail;
    if (room > kPathMax - folderLength) room = kPathMax - folderLength;
    const std::size_t nameLength = std::strlen(Shown(name));
    std::size_t taken = nameLength < room ? nameLength : room;
    // A cut name never ends inside a UTF-8 sequence.
    if (taken < nameLength)
        while (taken > 0 && (static_cast<unsigned char>(name[taken]) & 0xC0) == 0x80) --taken;
    if (taken == 0) return false;
    std::memcpy(out, folder, folderLength);
    std::memcpy(out + folderLength, name, taken);
    out[folderLength + taken] = '\0';
    return true;
}

long KermitEngine::zchki(const char *name) {
    if (name == nullptr) return -1;
    const plat::FileFacts facts = plat::FileStat(name);
    if (!facts.exists) return -1;
    errorNumber = 0;
    if (plat::FileAccessible(name, plat::FileAccess::Read)) {
        if (facts.isRegular) return static_cast<long>(facts.size);
        trace("zchki %s is a directory\n", name);
        return -2;
    }
    errorNumber = plat::LastError();
    trace("zchki access %s errno = %d\n", name, errorNumber);
    return -1;
}

// The check looks where the file will be written: in the receive folder.
int KermitEngine::zchko(const char *name) {
    if (name == nullptr || name[0] == '\0') return -1;
    if (std::strcmp(name, "/dev/null") == 0) return 0;
    char path[kPathSize];
    if (!receivePath(name, path)) return -1;
    const long x = zchki(path);
    if (x == -2) return -1;

    char tested[kPathSize];
    std::memcpy(tested, path, sizeof tested);
    if (x < 0) {
        // Missing or unreadable: whether the folder takes a new file.
        char *slash = plat::LastSeparator(tested);
        if (slash == nullptr)
            std::snprintf(tested, sizeof tested, ".");
        else
            slash[slash == tested ? 1 : 0] = '\0';
    }
    errorNumber = 0;
    const bool writable = plat::FileAccessible(tested, plat::FileAccess::Write);
    if (!writable) errorNumber = plat::LastError();
    trace("zchko(%s) x = %d errno = %d\n", tested, writable ? 0 : -1, errorNumber);
    return writable ? 0 : -1;
}

int KermitEngine::zopeni(const char *name) {
    if (inputFile != XFER_INVALID_FILE) zclosi();
    // Only a regular file is opened: opening a pipe or a device could wait
    // for ever.
    const long size = zchki(name);
    XferFile file = XFER_INVALID_FILE;
    if (size >= 0) {
        errorNumber = 0;
        file = plat::FileOpenShared(name);
        if (file == XFER_INVALID_FILE) errorNumber = plat::LastError();
    }
    trace("zopeni %s: %d\n", Shown(name), file != XFER_INVALID_FILE ? 0 : errorNumber);
    if (size < 0) return static_cast<int>(size);

    bufferCount = 0;
    bufferPos = readBuffer;
    stageCount = stagePos = 0;
    inputFailed = false;
    fileSize = size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);
    // The position counts the current file's bytes, as on the receiving
    // side, so that it goes with the file's size.
    if (record) {
        record->FileSize = fileSize;
        record->FilePos = 0;
    }
    if (file == XFER_INVALID_FILE) return -1;
    inputFile = file;
    return 0;
}

int KermitEngine::zopeno(const char *name) {
    if (outputFile != XFER_INVALID_FILE) zcloso(1);
    char path[kPathSize];
    errorNumber = 0;
    XferFile file = XFER_INVALID_FILE;
    bool isNew = false;
    std::string base, rest;
    if (name != nullptr && receivePath(name, path)) {
        isNew = plat::FileEntryKind(path) == plat::EntryKind::Missing;
        if (XferReceivePlace(record, path, base, rest))
            file = plat::FileCreateBeneath(base.c_str(), rest.c_str());
        if (file == XFER_INVALID_FILE) errorNumber = plat::LastError();
    } else {
        std::snprintf(path, sizeof path, "%s", Shown(name));
    }
    trace("zopeno %s: %d\n", path, file != XFER_INVALID_FILE ? 0 : errorNumber);
    if (file == XFER_INVALID_FILE) return -1;
    outputFile = file;
    outputIsNew = isNew;
    writeCount = 0;
    std::memcpy(outputPath, path, sizeof outputPath);
    return 0;
}

// Reads ahead into the staging buffer; -1 at the end of the file, -2 when
// the read failed.
static int StagedByte(KermitEngine &e) {
    if (e.stagePos >= e.stageCount) {
        const long got = plat::FileRead(e.inputFile, e.textStage, sizeof e.textStage);
        if (got < 0) return -2;
        e.stageCount = static_cast<int32_t>(got);
        e.stagePos = 0;
        if (got == 0) return -1;
    }
    return e.textStage[e.stagePos++];
}

int KermitEngine::zfill() {
    if (inputFile == XFER_INVALID_FILE) return -1;
    int n = 0;
    bool readFailed = false;
    if (textmode) {
        // One line at a time.
        while (n < kLineLimit) {
            const int c = StagedByte(*this);
            if (c < 0) {
                readFailed = c == -2;
                break;
            }
            if (c == '\n') {
                if (crlocal) readBuffer[n++] = '\r';
                readBuffer[n++] = '\n';
                break;
            }
            readBuffer[n++] = static_cast<uint8_t>(c);
        }
    } else {
        const long got = plat::FileRead(inputFile, readBuffer, kBinaryRead);
        readFailed = got < 0;
        n = got > 0 ? static_cast<int>(got) : 0;
    }
    if (readFailed) {
        // The file cannot be read to its end.  It ends here like at its
        // end, but closing it then fails, so the exchange ends with an
        // error and the other side removes what it has instead of keeping
        // a short file.
        errorNumber = plat::LastError();
        trace("zfill read error %d\n", errorNumber);
        inputFailed = true;
    }
    if (record) record->FilePos += n;
    readBuffer[n] = 0;
    if (n == 0) return -1;
    bufferPos = readBuffer + 1;
    bufferCount = n - 1;
    return readBuffer[0];
}

// Hands the gathered output bytes to the file; -1 when the write failed.
static int FlushOutput(KermitEngine &e) {
    if (e.writeCount == 0) return 0;
    const long wrote = plat::FileWrite(e.outputFile, e.writeBuffer, e.writeCount);
    e.writeCount = 0;
    if (wrote < 0) {
        e.errorNumber = plat::LastError();
        return -1;
    }
    return 0;
}

int KermitEngine::zputcFlushing(uint8_t c) {
    if (outputFile == XFER_INVALID_FILE) return -1;
    if (writeCount == static_cast<int32_t>(sizeof writeBuffer) && FlushOutput(*this) < 0) return -1;
    writeBuffer[writeCount++] = c;
    if (record) ++record->FilePos;
    return 0;
}

int KermitEngine::zclosi() {
    if (inputFile == XFER_INVALID_FILE) return 0;
    const bool closed = plat::FileClose(inputFile);
    const bool whole = !inputFailed;
    inputFile = XFER_INVALID_FILE;
    inputFailed = false;
    bufferCount = 0;
    stageCount = stagePos = 0;
    return closed && whole ? 0 : -1;
}

// A kept file is written out and made permanent; a discarded one (or one
// whose last bytes could not be written) is closed and removed, and an
// older file it was to replace stays as it was.
int KermitEngine::zcloso(int discard) {
    if (outputFile == XFER_INVALID_FILE) return 0;
    int result = 0;
    bool drop = discard != 0 && keep == 0;
    if (!drop && (FlushOutput(*this) < 0 || !plat::FileCommit(outputFile))) {
        result = -1;
        drop = true;
    }
    writeCount = 0;
    if (!plat::FileClose(outputFile)) result = -1;
    outputFile = XFER_INVALID_FILE;
    trace("zcloso(%s) cx = %d keep = %d\n", outputPath, discard, keep);
    if (drop && outputIsNew) plat::FileRemove(outputPath);
    outputIsNew = false;
    return result;
}

void KermitEngine::closeLeftovers() {
    if (inputFile != XFER_INVALID_FILE) zclosi();
    if (outputFile != XFER_INVALID_FILE) zcloso(1);
}

} // namespace zvxfer::kermit
