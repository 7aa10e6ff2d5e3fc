// The engine's trace lines.  They are formatted only when the debug output
// goes somewhere: a transfer writes several lines per packet, and nobody
// reads them in an ordinary run.
#include <cstdarg>

#include "kermit/engine.h"
#include "locale/locale.h"
#include "platform/debugout.h"

namespace zvxfer::kermit {

void KermitEngine::trace(const char *format, ...) {
    if (!tracing || !plat::DebugOutputWanted()) return;
    va_list args;
    va_start(args, format);
    DebugLogV(reinterpret_cast<uintptr_t>(this), format, args);
    va_end(args);
}

} // namespace zvxfer::kermit
