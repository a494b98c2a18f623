#include "app/AppShell.h"
#include "benchmark/SpeechBenchmark.h"
#include "core/Async.h"
#include "core/CommandLine.h"
#include "pipeline/Verify.h"
#include "platform/ApplicationPresence.h"

#include <QApplication>
#include <QCoreApplication>
#include <memory>

namespace {

// The commands run without any GUI object: a plain core application and its event loop.
int runCommand(int argc, char **argv, const Command &command) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quorvane"));
    auto task = [&]() -> QCoro::Task<int> {
        if (command.kind == Command::Kind::transcribe)
            co_return co_await Verify::run(command.wavPath, command.locale);
        co_return co_await SpeechBenchmark::run(command.commandArguments);
    };
    return syncWait(task());
}

int runApplication(int argc, char **argv) {
    static std::unique_ptr<QApplication> application; // lives as long as the process
    application = std::make_unique<QApplication>(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quorvane"));
    QApplication::setQuitOnLastWindowClosed(false);
    ApplicationPresence::configure();
    static std::unique_ptr<AppShell> shell;
    shell = std::make_unique<AppShell>();
    shell->start();
    QApplication::exec();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const Command command = Command::parse(arguments);
    if (command.kind == Command::Kind::application)
        return runApplication(argc, argv);
    return runCommand(argc, argv, command);
}
