#pragma once

#include "platform/ProcessTreeSource.h"

// A process table a test edits as it goes: processes start and exit between two reads.
class FakeProcessTable final : public ProcessTreeSource {
public:
    QList<ProcessRow> rows;

    // Copies: QCoro 0.8 moves from an lvalue given to co_return.
    QCoro::Task<QList<ProcessRow>> processRows() override { co_return QList<ProcessRow>(rows); }
    QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32>) override {
        co_return QHash<qint32, QString>{};
    }
    QCoro::Task<std::optional<QString>> commandLine(qint32 processID) override {
        for (const ProcessRow &row : rows)
            if (row.processID == processID)
                co_return std::optional<QString>(row.command);
        co_return std::nullopt;
    }
    void remove(qint32 processID) {
        rows.removeIf([processID](const ProcessRow &row) { return row.processID == processID; });
    }
};
