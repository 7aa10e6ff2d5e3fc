// Looks at the caller's memory without touching it in a way that could
// fault: lets the library refuse a read-only buffer it would write to
// instead of crashing in it.
#pragma once

namespace zvxfer::plat {

// False when the byte at `address` cannot be written (a string literal in
// read-only memory); true when it can, and whenever the platform cannot
// tell.  The byte keeps its value.
bool ByteWritable(char *address);

} // namespace zvxfer::plat
