#pragma once

#include "platform/ProcessTreeSource.h"

// The process table read straight from /proc: no outside program is run.
class ProcProcessTreeSource final : public ProcessTreeSource {
public:
    explicit ProcProcessTreeSource(QString procRoot = QStringLiteral("/proc")) : m_procRoot(std::move(procRoot)) {}

    QCoro::Task<QList<ProcessRow>> processRows() override;
    QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32> processIDs) override;
    QCoro::Task<std::optional<QString>> commandLine(qint32 processID) override;

    // Blocking forms of the above, for callers already off the main thread.
    static QList<ProcessRow> readProcessRows(const QString &procRoot);
    static std::optional<QString> readWorkingDirectory(const QString &procRoot, qint32 processID);
    static std::optional<QString> readCommandLine(const QString &procRoot, qint32 processID);
    // The parent id from the text of /proc/<pid>/stat.
    static std::optional<qint32> parentFromStat(const QByteArray &stat);

private:
    QString m_procRoot;
};
