// Message-catalogue "modules": loading one reads a text file of
// "number<TAB>text" lines (UTF-8); strings are looked up by number.  File
// names are matched without regard to case when the exact name is missing,
// as on the system the catalogue names come from.
#pragma once
#include <cstddef>
#include <cstdint>

namespace zvxfer::plat {

struct Module; // opaque
using ModuleHandle = Module *;

// Load a catalogue; nullptr when it cannot be read.
ModuleHandle LoadModule(const char *path);
void FreeModule(ModuleHandle module);

// Copy the text of `number` into buffer (cut to size-1, NUL-terminated).
// Returns the number of bytes copied, 0 when the module is null or has no
// such number.
int LoadString(ModuleHandle module, uint32_t number, char *buffer, std::size_t size);

} // namespace zvxfer::plat
