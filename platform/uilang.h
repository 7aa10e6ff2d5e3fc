// The user's interface language as a Windows language identifier (primary
// language in the low 10 bits), taken from LC_ALL, LC_MESSAGES or LANG.
#pragma once
#include <cstdint>

namespace zvxfer::plat {

// 0x0409 (English) when the environment names no language or "C"/"POSIX".
uint16_t GetUserDefaultUILanguage();

} // namespace zvxfer::plat
