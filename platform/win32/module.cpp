// Message catalogues as resource-only libraries: loaded as data (no code
// runs, nothing is relocated) and their STRINGTABLE read with LoadStringA.
// Names match without regard to case because the file system does.
#include "platform/win32/win.h"

#include "platform/module.h"

namespace zvxfer::plat {

namespace {

HMODULE ToHmodule(ModuleHandle module) {
    return reinterpret_cast<HMODULE>(module);
}

} // namespace

ModuleHandle LoadModule(const char *path) {
    if (path == nullptr || *path == '\0') return nullptr;
    // Data only: a catalogue has no code to run, and a file that is not a
    // library at all is refused here instead of being executed.
    HMODULE module =
        ::LoadLibraryExA(path, nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
    if (module == nullptr)
        module = ::LoadLibraryExA(path, nullptr, LOAD_LIBRARY_AS_DATAFILE); // older systems
    return reinterpret_cast<ModuleHandle>(module);
}

void FreeModule(ModuleHandle module) {
    if (module != nullptr) ::FreeLibrary(ToHmodule(module));
}

int LoadString(ModuleHandle module, uint32_t number, char *buffer, std::size_t size) {
    if (buffer == nullptr || size == 0) return 0;
    buffer[0] = '\0';
    if (module == nullptr || number > 0xFFFF) return 0;
    const int room = size > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(size);
    const int copied = ::LoadStringA(ToHmodule(module), number, buffer, room);
    if (copied <= 0) {
        buffer[0] = '\0';
        return 0;
    }
    return copied;
}

} // namespace zvxfer::plat
