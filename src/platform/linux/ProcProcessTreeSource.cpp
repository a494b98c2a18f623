#include "platform/linux/ProcProcessTreeSource.h"

#include "core/OffThread.h"

#include <QDir>
#include <QFile>
#include <unistd.h>

namespace {

QByteArray readSmallFile(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return {};
    // /proc files report size 0, so read until the end rather than by size.
    return file.readAll();
}

} // namespace

std::optional<qint32> ProcProcessTreeSource::parentFromStat(const QByteArray &stat) {
    // "pid (comm) state ppid …": comm may hold spaces and parentheses, so parse from the last ')'.
    const qsizetype close = stat.lastIndexOf(')');
    if (close < 0)
        return std::nullopt;
    const QList<QByteArray> fields = stat.mid(close + 1).simplified().split(' ');
    if (fields.size() < 2)
        return std::nullopt;
    bool ok = false;
    const qint32 parent = fields.at(1).toInt(&ok);
    return ok ? std::optional<qint32>(parent) : std::nullopt;
}

std::optional<QString> ProcProcessTreeSource::readCommandLine(const QString &procRoot, qint32 processID) {
    const QString directory = procRoot + QLatin1Char('/') + QString::number(processID);
    QFile file(directory + QStringLiteral("/cmdline"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    while (bytes.endsWith('\0'))
        bytes.chop(1);
    if (bytes.isEmpty()) {
        // Kernel threads have no command line; show their name the way ps does.
        const QByteArray stat = readSmallFile(directory + QStringLiteral("/stat"));
        const qsizetype open = stat.indexOf('(');
        const qsizetype close = stat.lastIndexOf(')');
        if (open < 0 || close <= open)
            return QString();
        return QLatin1Char('[') + QString::fromUtf8(stat.mid(open + 1, close - open - 1)) + QLatin1Char(']');
    }
    bytes.replace('\0', ' ');
    return QString::fromUtf8(bytes);
}

QList<ProcessRow> ProcProcessTreeSource::readProcessRows(const QString &procRoot) {
    QList<ProcessRow> rows;
    const QStringList entries = QDir(procRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool ok = false;
        const qint32 id = entry.toInt(&ok);
        if (!ok)
            continue;
        // A process may exit between the listing and the reads: it is simply left out.
        const auto parent =
            parentFromStat(readSmallFile(procRoot + QLatin1Char('/') + entry + QStringLiteral("/stat")));
        if (!parent)
            continue;
        rows.append({id, *parent, readCommandLine(procRoot, id).value_or(QString())});
    }
    return rows;
}

std::optional<QString> ProcProcessTreeSource::readWorkingDirectory(const QString &procRoot, qint32 processID) {
    const QByteArray link =
        QFile::encodeName(procRoot + QLatin1Char('/') + QString::number(processID) + QStringLiteral("/cwd"));
    QByteArray target(4096, '\0');
    const ssize_t length = ::readlink(link.constData(), target.data(), static_cast<size_t>(target.size()));
    if (length <= 0 || length >= target.size())
        return std::nullopt;
    target.truncate(length);
    // The kernel marks a directory removed after the process entered it; there is no repository there.
    if (target.endsWith(" (deleted)") && !QFile::exists(QFile::decodeName(target)))
        return std::nullopt;
    return QFile::decodeName(target);
}

QCoro::Task<QList<ProcessRow>> ProcProcessTreeSource::processRows() {
    const QString procRoot = m_procRoot;
    co_return co_await runOffThread<QList<ProcessRow>>([procRoot] { return readProcessRows(procRoot); });
}

QCoro::Task<QHash<qint32, QString>> ProcProcessTreeSource::workingDirectories(QList<qint32> processIDs) {
    const QString procRoot = m_procRoot;
    co_return co_await runOffThread<QHash<qint32, QString>>([procRoot, processIDs = std::move(processIDs)] {
        QHash<qint32, QString> directories;
        for (qint32 id : processIDs) {
            if (const auto directory = readWorkingDirectory(procRoot, id))
                directories.insert(id, *directory);
        }
        return directories;
    });
}

QCoro::Task<std::optional<QString>> ProcProcessTreeSource::commandLine(qint32 processID) {
    // One small read: cheap enough to do in place, and it keeps polling loops free of thread hops.
    co_return readCommandLine(m_procRoot, processID);
}
