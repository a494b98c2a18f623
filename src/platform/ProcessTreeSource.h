#pragma once

#include <QCoro/QCoroTask>
#include <QHash>
#include <QList>
#include <QString>
#include <optional>

// One running process as the process table lists it.
struct ProcessRow {
    qint32 processID = 0;
    qint32 parentProcessID = 0;
    QString command; // the full command line

    bool operator==(const ProcessRow &) const = default;
};

// A process joined with its current working directory; the directory is empty when it could not
// be read (another user's process, say), and such a process still links its children to their
// ancestors.
struct ProcessWorkingDirectory {
    qint32 processID = 0;
    qint32 parentProcessID = 0;
    QString command;
    QString workingDirectory;

    bool operator==(const ProcessWorkingDirectory &) const = default;
};

// The operating system's process table. Implementations never block the calling thread.
class ProcessTreeSource {
public:
    virtual ~ProcessTreeSource() = default;
    virtual QCoro::Task<QList<ProcessRow>> processRows() = 0;
    // The working directories of those of `processIDs` whose directory can be read.
    virtual QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32> processIDs) = 0;
    // The command line of one process; absent when it does not exist (any more).
    virtual QCoro::Task<std::optional<QString>> commandLine(qint32 processID) = 0;
};
