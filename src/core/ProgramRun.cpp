#include "core/ProgramRun.h"

#include "core/OffThread.h"

#include <QProcess>

QCoro::Task<std::optional<ProgramOutput>> runProgram(QString program, QStringList arguments, QString workingDirectory,
                                                     std::optional<QProcessEnvironment> environment, int timeoutMs) {
    co_return co_await runOffThread<std::optional<ProgramOutput>>(
        [program, arguments, workingDirectory, environment, timeoutMs]() -> std::optional<ProgramOutput> {
            QProcess process;
            process.setProgram(program);
            process.setArguments(arguments);
            if (!workingDirectory.isEmpty())
                process.setWorkingDirectory(workingDirectory);
            if (environment)
                process.setProcessEnvironment(*environment);
            process.setStandardInputFile(QProcess::nullDevice());
            process.setStandardErrorFile(QProcess::nullDevice());
            process.start(QIODevice::ReadOnly);
            if (!process.waitForStarted(timeoutMs))
                return std::nullopt;
            if (!process.waitForFinished(timeoutMs) || process.exitStatus() != QProcess::NormalExit) {
                process.kill();
                process.waitForFinished(1000);
                return std::nullopt;
            }
            return ProgramOutput{process.exitCode(), process.readAllStandardOutput()};
        });
}
