// Descriptor helpers of the fd line: writes that never raise SIGPIPE and
// the tests that tell a lost line from one with nothing to say.
#pragma once
#include <cstddef>

namespace zvxfer::plat {

// Write to a descriptor without ever raising SIGPIPE in the process: a
// socket gets MSG_NOSIGNAL, anything else is written with SIGPIPE blocked
// in the calling thread and a SIGPIPE the write caused is taken back.
// Returns what write(2) returns, with errno set the same way.
long WriteNoSignal(int fd, const void *data, std::size_t length, bool isSocket);

// Errors that mean the other end is gone rather than "try again".
bool LineGone(int err);

// True when poll reports a hang-up or an error on fd right now.
bool HungUp(int fd);

} // namespace zvxfer::plat
