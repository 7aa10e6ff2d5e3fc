// Connecting a TCP socket for use as a line.
#include "tcp.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zvxfer::host {

int TcpConnect(const std::string &host, const std::string &port, std::string *error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *list = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &list); rc != 0) {
        if (error != nullptr) *error = host + ":" + port + ": " + gai_strerror(rc);
        return -1;
    }
    int fd = -1;
    int lastErrno = 0;
    for (addrinfo *a = list; a != nullptr && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            lastErrno = errno;
            continue;
        }
        if (connect(fd, a->ai_addr, a->ai_addrlen) != 0) {
            lastErrno = errno;
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(list);
    if (fd < 0) {
        if (error != nullptr) *error = host + ":" + port + ": " + std::strerror(lastErrno);
        return -1;
    }
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

int TcpConnect(const std::string &hostPort, std::string *error) {
    const auto colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon + 1 == hostPort.size()) {
        if (error != nullptr) *error = hostPort + ": expected HOST:PORT";
        return -1;
    }
    std::string host = hostPort.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return TcpConnect(host, hostPort.substr(colon + 1), error);
}

} // namespace zvxfer::host
