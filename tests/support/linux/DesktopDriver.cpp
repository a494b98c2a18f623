#include "DesktopDriver.h"

#include "repository/AgentHandoffScriptBuilder.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPoint>
#include <QTest>

ToolRun runTool(const QString &program, const QStringList &arguments, int timeoutMs) {
    QProcess process;
    process.start(program, arguments);
    QElapsedTimer waited;
    waited.start();
    while (!process.waitForFinished(5) && waited.elapsed() < timeoutMs)
        QCoreApplication::processEvents();
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput()};
}

qint64 activeProcess() {
    return runTool("xdotool", {"getactivewindow", "getwindowpid"}).output.trimmed().toLongLong();
}

bool awaitActive(qint64 pid) {
    return QTest::qWaitFor([pid] { return activeProcess() == pid; }, 5000);
}

QList<std::pair<QByteArray, QByteArray>> clipboardFormats() {
    static const QList<QByteArray> bookkeeping = {"TARGETS", "TIMESTAMP", "MULTIPLE", "SAVE_TARGETS", "DELETE"};
    QList<std::pair<QByteArray, QByteArray>> formats;
    const ToolRun targets = runTool("xclip", {"-selection", "clipboard", "-o", "-t", "TARGETS"});
    for (const QByteArray &target : targets.output.split('\n')) {
        if (target.isEmpty() || bookkeeping.contains(target))
            continue;
        const ToolRun bytes = runTool("xclip", {"-selection", "clipboard", "-o", "-t", QString::fromUtf8(target)});
        formats.append({target, bytes.exitCode == 0 ? bytes.output : QByteArray("<unreadable>")});
    }
    std::sort(formats.begin(), formats.end());
    return formats;
}

QString windowNamed(const QString &title) {
    const ToolRun run = runTool("xdotool", {"search", "--onlyvisible", "--name", '^' + title + '$'});
    return QString::fromLatin1(run.output).section('\n', 0, 0).trimmed();
}

QString awaitWindow(const QString &title, int timeoutMs) {
    QString id;
    (void)QTest::qWaitFor([&] { return !(id = windowNamed(title)).isEmpty(); }, timeoutMs);
    return id;
}

QRect windowGeometry(const QString &window) {
    const QString out = QString::fromLatin1(runTool("xwininfo", {"-id", window}).output);
    const auto field = [&](const QString &name) {
        const qsizetype at = out.indexOf(name);
        return at < 0 ? -1 : out.mid(at + name.size()).section('\n', 0, 0).trimmed().toInt();
    };
    return {field("Absolute upper-left X:"), field("Absolute upper-left Y:"), field("Width:"), field("Height:")};
}

TrayHost::TrayHost() {
    m_process.start("trayer", {"--edge", "top", "--align", "right", "--widthtype", "request", "--height", "28",
                               "--SetDockType", "true"});
    ready = m_process.waitForStarted() &&
            QTest::qWaitFor([&] { return !(m_panel = windowNamed("panel")).isEmpty(); }, 5000);
}

TrayHost::~TrayHost() {
    m_process.terminate();
    if (!m_process.waitForFinished(2000))
        m_process.kill();
}

bool TrayHost::menuOpen() {
    return !windowNamed("Quorvane Menu").isEmpty();
}

bool TrayHost::openMenu() {
    // The panel grows from nothing to the icon's size once the icon docks.
    QRect tray;
    if (!QTest::qWaitFor([&] { return (tray = windowGeometry(m_panel)).width() >= 16; }, 20000))
        return false;
    const QPoint icon = tray.center();
    // An icon that docked before the app was free to answer can miss a click: click again then.
    for (int attempt = 0; attempt < 3; ++attempt) {
        runTool("xdotool", {"mousemove", QString::number(icon.x()), QString::number(icon.y()), "click", "1"});
        if (QTest::qWaitFor(menuOpen, 8000))
            return true;
    }
    return false;
}

TargetWindow::TargetWindow(const QString &platform) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_QPA_PLATFORM", platform);
    // The headless desktop enables assistive technology; this spares Qt the bus round trip.
    environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    m_process.setProcessEnvironment(environment);
    m_process.start(QUORVANE_TARGET_WINDOW, QStringList{});
    ready = m_process.waitForStarted() && answer() == "ready";
}

TargetWindow::~TargetWindow() {
    m_process.closeWriteChannel();
    if (!m_process.waitForFinished(2000))
        m_process.kill();
}

QByteArray TargetWindow::command(const QString &line) {
    // Answers left over from a command that timed out belong to no one.
    m_process.readAll();
    m_process.write(line.toUtf8() + '\n');
    return answer();
}

QString TargetWindow::text(const QString &field) {
    return QJsonDocument::fromJson(command("text")).object().value(field).toString();
}

bool TargetWindow::focus(const QString &field) {
    return command("focus " + field) == "ok" && awaitActive(processID());
}

QByteArray TargetWindow::answer() {
    QElapsedTimer waited;
    waited.start();
    while (!m_process.canReadLine() && waited.elapsed() < 5000) {
        QCoreApplication::processEvents();
        m_process.waitForReadyRead(1);
    }
    return m_process.readLine().trimmed();
}

DictationApp::DictationApp(const QUrl &whisperServer, const AppSetup &setup) {
    QJsonObject config{{"asr", "whisperServer"},
                       {"whisperEndpoint", whisperServer.toString()},
                       {"formatter", "none"},
                       {"retainHistory", true},
                       {"retainAudio", true},
                       {"didCompleteOnboarding", true},
                       // This desktop's speakers play straight into its microphone: a cue
                       // would be in every recording the tests compare with what was spoken.
                       {"playSounds", false}};
    if (!setup.ollama.isEmpty()) {
        config.insert("formatter", "ollama");
        config.insert("ollamaEndpoint", setup.ollama.toString());
        config.insert("ollamaModel", "llama3.2:latest");
    }
    for (auto key = setup.config.begin(); key != setup.config.end(); ++key)
        config.insert(key.key(), key.value());
    QFile file(QDir(m_home.path()).filePath("config.json"));
    if (file.open(QIODevice::WriteOnly))
        file.write(QJsonDocument(config).toJson());
    file.close();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QUORVANE_HOME", m_home.path());
    environment.insert("QT_QPA_PLATFORM", "xcb");
    for (auto variable = setup.environment.begin(); variable != setup.environment.end(); ++variable)
        environment.insert(variable.key(), variable.value());
    m_process.setProcessEnvironment(environment);
    // Away from any source checkout, which the app would take for the user's repository.
    m_process.setWorkingDirectory(m_home.path());
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.start(QUORVANE_BINARY, QStringList{});
}

DictationApp::~DictationApp() {
    stop();
}

void DictationApp::stop() {
    m_process.terminate();
    if (!m_process.waitForFinished(5000))
        m_process.kill();
    m_process.waitForFinished();
}

void DictationApp::restart() {
    stop();
    m_process.start(QUORVANE_BINARY, QStringList{});
}

bool DictationApp::awaitReady() {
    return awaitLine("Hotkey armed", 0, 15000) && awaitLine("Microphone ready", 0, 15000);
}

QStringList DictationApp::log() const {
    QFile file(QDir(m_home.path()).filePath("quorvane.log"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = QString::fromUtf8(file.readAll()).split('\n');
    // A line still being written is not a line yet.
    lines.removeLast();
    return lines;
}

std::optional<QString> DictationApp::awaitLine(const QString &needle, qsizetype from, int timeoutMs) const {
    std::optional<QString> found;
    (void)QTest::qWaitFor(
        [&] {
            const QStringList lines = log();
            for (qsizetype i = from; i < lines.size() && !found; ++i)
                if (lines[i].contains(needle))
                    found = lines[i];
            return found.has_value();
        },
        timeoutMs);
    return found;
}

bool holdKeyAndSpeak(const DictationApp &app, int keycode, const QString &startedLine, qsizetype from,
                     const QString &wavPath) {
    const QString key = QString::number(keycode);
    if (runTool("xdotool", {"keydown", key}).exitCode != 0)
        return false;
    bool played = false;
    if (app.awaitLine(startedLine, from)) {
        QProcess player;
        play(player, wavPath);
        played = player.waitForFinished(10000) && player.exitCode() == 0;
        QTest::qWait(300);
    }
    return runTool("xdotool", {"keyup", key}).exitCode == 0 && played;
}

bool speak(const QString &text, const QString &wavPath) {
    return runTool("espeak-ng", {"-w", wavPath, text}).exitCode == 0;
}

void play(QProcess &player, const QString &wavPath) {
    player.start("paplay", {"-d", "quorvane_null", wavPath});
}

QByteArray standInAgent(const QString &banner, const QString &record) {
    return "#!/bin/sh\n(/bin/sleep 20; kill $$ 2>/dev/null) &\nprintf '%s\\n> ' " +
           AgentHandoffScriptBuilder::quote(banner).toUtf8() +
           "\nIFS= read -r line\n{ pwd; printf '%s\\n' \"$line\"; } > " +
           AgentHandoffScriptBuilder::quote(record).toUtf8() + "\n/bin/sleep 2\n";
}
