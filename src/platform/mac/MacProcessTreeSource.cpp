#include "platform/mac/MacProcessTreeSource.h"

#include "core/ProgramRun.h"
#include "core/Text.h"
#include "platform/ProcessListing.h"

namespace {

// Standard output of a finished run; absent when the program could not run or ran too long.
// lsof exits with 1 when some processes could not be examined, so the status is left to the caller.
QCoro::Task<std::optional<QString>> output(QString program, QStringList arguments, bool requireSuccess) {
    const std::optional<ProgramOutput> run = co_await runProgram(program, arguments, QString(), std::nullopt, 5'000);
    if (!run || (requireSuccess && run->exitCode != 0))
        co_return std::nullopt;
    co_return QString::fromUtf8(run->standardOutput);
}

} // namespace

QCoro::Task<QList<ProcessRow>> MacProcessTreeSource::processRows() {
    const auto text =
        co_await output(QStringLiteral("/bin/ps"),
                        {QStringLiteral("-axww"), QStringLiteral("-o"), QStringLiteral("pid=,ppid=,command=")}, true);
    co_return text ? ProcessListing::parseProcessRows(*text) : QList<ProcessRow>{};
}

QCoro::Task<QHash<qint32, QString>> MacProcessTreeSource::workingDirectories(QList<qint32> processIDs) {
    if (processIDs.isEmpty())
        co_return QHash<qint32, QString>{};
    QStringList ids;
    for (qint32 id : processIDs)
        ids << QString::number(id);
    // -a: both conditions; -d cwd: only the working directory; -F tn: machine-readable type and name.
    const auto text =
        co_await output(QStringLiteral("/usr/sbin/lsof"),
                        {QStringLiteral("-a"), QStringLiteral("-d"), QStringLiteral("cwd"), QStringLiteral("-F"),
                         QStringLiteral("tn"), QStringLiteral("-p"), ids.join(QLatin1Char(','))},
                        false);
    co_return text ? ProcessListing::parseWorkingDirectories(*text) : QHash<qint32, QString>{};
}

QCoro::Task<std::optional<QString>> MacProcessTreeSource::commandLine(qint32 processID) {
    const auto text = co_await output(
        QStringLiteral("/bin/ps"),
        {QStringLiteral("-p"), QString::number(processID), QStringLiteral("-o"), QStringLiteral("args=")}, true);
    if (!text || Text::trimmed(*text).isEmpty())
        co_return std::nullopt;
    co_return Text::trimmed(*text);
}
