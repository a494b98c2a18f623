#include "platform/linux/FdTransfer.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace FdTransfer {

namespace {

// A socket is written with MSG_NOSIGNAL; a pipe cannot be, and fails with ENOTSOCK first.
ssize_t writeSome(int fd, const char *data, size_t size) {
    const ssize_t sent = send(fd, data, size, MSG_NOSIGNAL);
    if (sent >= 0 || errno != ENOTSOCK)
        return sent;
    return write(fd, data, size);
}

template <typename Wait> bool writeLoop(int fd, const QByteArray &data, Wait waitMs) {
    qsizetype sent = 0;
    while (sent < data.size()) {
        pollfd writable{fd, POLLOUT, 0};
        if (poll(&writable, 1, waitMs()) <= 0)
            return false;
        const ssize_t wrote = writeSome(fd, data.constData() + sent, size_t(data.size() - sent));
        if (wrote < 0 && errno != EINTR && errno != EAGAIN)
            return false;
        if (wrote > 0)
            sent += wrote;
    }
    return true;
}

} // namespace

int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? int(left) : 0;
}

int connectLocal(const QString &path) {
    const QByteArray encoded = path.toLocal8Bit();
    sockaddr_un address{};
    if (encoded.isEmpty() || size_t(encoded.size()) >= sizeof address.sun_path)
        return -1;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, encoded.constData(), size_t(encoded.size()));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::optional<QByteArray> readExactly(int fd, qsizetype size, Clock::time_point deadline) {
    QByteArray data(size, '\0');
    qsizetype got = 0;
    while (got < size) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, remainingMs(deadline)) <= 0)
            return std::nullopt;
        const ssize_t read = ::read(fd, data.data() + got, size_t(size - got));
        if (read == 0 || (read < 0 && errno != EINTR && errno != EAGAIN))
            return std::nullopt;
        if (read > 0)
            got += read;
    }
    return data;
}

std::optional<QByteArray> readToEnd(int fd, Clock::time_point deadline, qsizetype maxBytes) {
    QByteArray data;
    char buffer[65536];
    for (;;) {
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, remainingMs(deadline)) <= 0)
            return std::nullopt;
        const ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0)
            return data;
        if (got < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return std::nullopt;
        }
        if (data.size() + got > maxBytes)
            return std::nullopt;
        data.append(buffer, got);
    }
}

bool writeAll(int fd, const QByteArray &data, Clock::time_point deadline) {
    return writeLoop(fd, data, [deadline] { return remainingMs(deadline); });
}

bool writeAllAndClose(int fd, const QByteArray &data, int stallMs) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const bool written = writeLoop(fd, data, [stallMs] { return stallMs; });
    close(fd);
    return written;
}

} // namespace FdTransfer
