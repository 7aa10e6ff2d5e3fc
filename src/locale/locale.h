// Message texts by number, the language choice, registration of the message
// catalogue, and the debug log.
#pragma once
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "locale/messages.h"
#include "platform/module.h"

namespace zvxfer {

// Text of a numbered message (at most 255 characters); the library's
// numbers are named in `messages.h`.  Valid until three
// lookups of other numbers have been made; never null.
const char *MessageText(int32_t number);

// Copy of a message text into `buffer`, for callers that must hold it across
// further lookups (the copy is made under the cache lock).
void MessageTextCopy(int32_t number, char *buffer, std::size_t size);

// Time-stamped trace line to the debugger output.
void DebugLog(uintptr_t context, const char *format, ...) __attribute__((format(printf, 2, 3)));
void DebugLogV(uintptr_t context, const char *format, va_list args);

// Language selection (exposed for tests).
int32_t ReadRegistryString(const char *keyPath, const char *valueName, char *buffer,
                           std::size_t size, uint32_t rootFlags);
const char *LanguageCodeFromLangId(uint16_t langId);
int32_t GetUILanguageCode(const char *keyPath, char *out, std::size_t size);
int32_t MakeLocalizedName(char *out, const char *name, const char *dottedCode, std::size_t size);
// The catalogue in the user's language when one can be named and loaded,
// else the catalogue `name` itself; nullptr when neither loads.
plat::ModuleHandle LoadLocalizedLibrary(const char *name);

// Root flags of ReadRegistryString; none: current user first, then local
// machine.
constexpr uint32_t kRegCurrentUserOnly = 0x1;
constexpr uint32_t kRegLocalMachineOnly = 0x2;
constexpr uint32_t kRegLocalMachineFirst = 0x4;

// Put the text cache back in its start state: every slot number 0 with an
// empty text, slot index 0 (tests).
void ResetMessageCache();

constexpr int32_t kErrorFunctionFailed = 1627;
constexpr const char *kLocaleKey = "Software\\Marrowind\\Tessera\\15.00\\Locale";
constexpr const char *kComponentKey =
    "CLSID\\{5B3E91A4-7C20-4E6D-9A1F-2D84C07E6B13}\\InprocServer32";

} // namespace zvxfer
