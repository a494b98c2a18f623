#pragma once

#include <QDateTime>
#include <QString>
#include <functional>

// The process-wide log: one line per entry in "quorvane.log" in the data directory, written on a
// private serial queue so callers on any thread never wait for the disk.
namespace Log {

void write(const QString &level, const QString &message);
inline void info(const QString &message) {
    write(QStringLiteral("INFO"), message);
}
inline void warn(const QString &message) {
    write(QStringLiteral("WARN"), message);
}
inline void error(const QString &message) {
    write(QStringLiteral("ERROR"), message);
}

// "HH:mm:ss.SSS [LEVEL] message\n" with line breaks (and the white space around them) folded.
QString formatLine(const QTime &time, const QString &level, const QString &message);

// Waits until every line written so far is on disk.
void flush();

// Sees every entry as it is written (on the calling thread). Tests use it to check log lines
// without reading the file; pass an empty function to stop.
void setObserver(std::function<void(const QString &level, const QString &message)> observer);

} // namespace Log
