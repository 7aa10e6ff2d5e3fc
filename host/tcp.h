// TCP connections as lines: connect to HOST:PORT with Nagle off, so that
// protocol blocks go out at once.
#pragma once
#include <string>

namespace zvxfer::host {

// Connect to `host` (name or address) and `port`; returns the connected fd
// or -1 with a reason in `error`.
int TcpConnect(const std::string &host, const std::string &port, std::string *error = nullptr);

// Connect to "HOST:PORT" (IPv6 addresses in brackets: "[::1]:2300").
int TcpConnect(const std::string &hostPort, std::string *error = nullptr);

} // namespace zvxfer::host
