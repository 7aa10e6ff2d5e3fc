// Debugger output and fatal exit.
#pragma once

namespace zvxfer::plat {

// Hand a text to the debugger output: the host's sink (ZvSetDebugOutput),
// else the file named by ZVXFER_DEBUG ("stderr" allowed), else nothing.
void OutputDebugString(const char *text);

// True when a text handed to OutputDebugString would go anywhere, so that
// a caller may skip formatting lines nobody reads.
bool DebugOutputWanted();

// Print the text to stderr and abort the process.
[[noreturn]] void FatalAppExit(const char *text);

} // namespace zvxfer::plat
