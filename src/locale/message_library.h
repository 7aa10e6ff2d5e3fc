// The process's message catalogue handle, shared by registration and the
// text cache (private to src/locale).
#pragma once
#include "platform/module.h"

namespace zvxfer {

bool HasMessageLibrary();
// Keep `module` as the message catalogue (the previous one must be gone).
void SetMessageLibrary(plat::ModuleHandle module);
// Forget the message catalogue and hand it to the caller to free.
plat::ModuleHandle TakeMessageLibrary();

} // namespace zvxfer
