#pragma once

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <optional>

// One finished run of an outside program (always a fixed absolute path).
struct ProgramOutput {
    int exitCode = 0;
    QByteArray standardOutput;
};

// Runs `program` on a worker thread with no input and stderr discarded, waiting at most `timeoutMs`
// for it to finish. Absent when it could not start, crashed or ran too long (it is then killed).
// Blocking waits on a worker keep the caller's event loop free without awaiting process signals.
QCoro::Task<std::optional<ProgramOutput>> runProgram(QString program, QStringList arguments, QString workingDirectory,
                                                     std::optional<QProcessEnvironment> environment, int timeoutMs);
