#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>
#include <optional>

// Moving bytes through pipes and sockets shared with other processes, none of which may hold us up
// for long: every wait has a deadline, and a reader that went away never raises SIGPIPE.
namespace FdTransfer {

using Clock = std::chrono::steady_clock;

// Milliseconds left until `deadline`, never negative.
int remainingMs(Clock::time_point deadline);

// A connected Unix stream socket (close-on-exec) to `path`, or -1.
int connectLocal(const QString &path);

// Reads exactly `size` bytes; nullopt when the deadline passes first or the other end closes early.
std::optional<QByteArray> readExactly(int fd, qsizetype size, Clock::time_point deadline);

// Reads until the other end closes. nullopt when the deadline passes first, on an error, or when
// more than `maxBytes` arrive.
std::optional<QByteArray> readToEnd(int fd, Clock::time_point deadline, qsizetype maxBytes);

// Writes all of `data` unless the deadline passes first or the reader is gone.
bool writeAll(int fd, const QByteArray &data, Clock::time_point deadline);

// The same for a reader that may take its time: each wait for room may last `stallMs`. Closes `fd`.
bool writeAllAndClose(int fd, const QByteArray &data, int stallMs);

} // namespace FdTransfer
