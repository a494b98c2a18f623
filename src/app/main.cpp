#include "app/AppShell.h"
#include "app/DesktopSession.h"
#include "benchmark/SpeechBenchmark.h"
#include "core/AppInfo.h"
#include "core/Async.h"
#include "core/CommandLine.h"
#include "core/Log.h"
#include "core/Paths.h"
#include "core/Terminal.h"
#include "pipeline/Verify.h"
#include "platform/ApplicationPresence.h"
#include "platform/PlatformKitFactory.h"

#ifdef Q_OS_LINUX
#include "platform/linux/CompositorKeyBindings.h"
#endif

#include <QApplication>
#include <QCoreApplication>
#include <csignal>
#include <memory>

namespace {

// The commands run without any GUI object: a plain core application and its event loop.
int runCommand(int argc, char **argv, const Command &command) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("Quorvane"));
    if (command.kind == Command::Kind::key) {
#ifdef Q_OS_LINUX
        // Run by a compositor key binding on every press: it only calls the running app.
        return CompositorKeyBindings::runKeyCommand(command.commandArguments);
#else
        Terminal::tell(QStringLiteral("quorvane key is for Wayland sessions; this desktop watches the keys itself."));
        return 2;
#endif
    }
    auto task = [&]() -> QCoro::Task<int> {
        if (command.kind == Command::Kind::transcribe) {
            const PlatformKit kit = makePlatformKit();
            co_return co_await Verify::run(command.wavPath, command.locale, {kit.nativeAsrEngine, kit.nativeFormatter});
        }
        co_return co_await SpeechBenchmark::run(command.commandArguments, makePlatformKit().nativeAsrEngine);
    };
    const int status = syncWait(task());
    // The log writes on its own thread; let it finish before statics go away.
    Log::flush();
    return status;
}

int runApplication(int argc, char **argv) {
    static std::unique_ptr<QApplication> application; // lives as long as the process
    application = DesktopSession::open(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quorvane"));
    Terminal::tell(QStringLiteral("Quorvane %1 is running. Settings and data: %2, log: %3")
                       .arg(AppInfo::version(), Paths::root(), Paths::file(QStringLiteral("quorvane.log"))));
    QApplication::setQuitOnLastWindowClosed(false);
    ApplicationPresence::configure();
    static std::unique_ptr<AppShell> shell;
    shell = std::make_unique<AppShell>();
    shell->start();
    QApplication::exec();
    shell.reset();
    Log::flush();
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    // Clipboard data goes to other programs through pipes; one that closes its end early must cost
    // that transfer, not the app.
    std::signal(SIGPIPE, SIG_IGN);
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    const Command command = Command::parse(arguments);
    if (command.kind == Command::Kind::application)
        return runApplication(argc, argv);
    return runCommand(argc, argv, command);
}
