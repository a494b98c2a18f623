#pragma once

#include "platform/ProcessTreeSource.h"

// The process table from "/bin/ps" and the working directories from "/usr/sbin/lsof".
class MacProcessTreeSource final : public ProcessTreeSource {
public:
    QCoro::Task<QList<ProcessRow>> processRows() override;
    QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32> processIDs) override;
    QCoro::Task<std::optional<QString>> commandLine(qint32 processID) override;
};
