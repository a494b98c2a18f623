#include "app/DesktopSession.h"

#include "core/Log.h"

#include <QByteArray>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace DesktopSession {

namespace {

// Qt's messages while the platform plugin loads, kept until we know whether it loaded: on failure
// they would bury our one line under plugin diagnostics.
struct HeldMessage {
    QtMsgType type;
    QByteArray file;
    int line;
    QByteArray function;
    QByteArray category;
    QString message;
};
std::vector<HeldMessage> held;
QtMessageHandler previousHandler = nullptr;

[[noreturn]] void explainAndExit(const QString &reason) {
    const QString line = QStringLiteral("Quorvane needs a desktop session: ") + reason +
                         QStringLiteral(". Start it from your graphical desktop (quorvane transcribe and quorvane "
                                        "benchmark run without one).");
    Log::error(line);
    Log::flush();
    std::fputs((line + QLatin1Char('\n')).toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
    // Qt is half constructed here; unwinding or static destructors could crash on it.
    std::_Exit(noDesktopStatus);
}

void holdMessage(QtMsgType type, const QMessageLogContext &context, const QString &message) {
    if (type == QtFatalMsg) {
        const QString display = qEnvironmentVariable("DISPLAY");
        explainAndExit(display.isEmpty()
                           ? QStringLiteral("no display could be opened")
                           : QStringLiteral("the display ") + display + QStringLiteral(" could not be opened"));
    }
    held.push_back({type, context.file, context.line, context.function, context.category, message});
}

} // namespace

std::unique_ptr<QApplication> open(int &argc, char **argv) {
#ifdef Q_OS_LINUX
    const bool defaultPlatform = qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
    if (defaultPlatform && qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        explainAndExit(QStringLiteral("neither DISPLAY nor WAYLAND_DISPLAY is set"));
#endif
    previousHandler = qInstallMessageHandler(holdMessage);
    auto application = std::make_unique<QApplication>(argc, argv);
    qInstallMessageHandler(previousHandler);
    for (const HeldMessage &message : held) {
        const QMessageLogContext context(message.file.constData(), message.line, message.function.constData(),
                                         message.category.constData());
        previousHandler(message.type, context, message.message);
    }
    held.clear();
    return application;
}

} // namespace DesktopSession
