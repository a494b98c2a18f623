#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QProcess>
#include <QRect>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>
#include <optional>

// Drives the real desktop from a test or a benchmark. Every wait keeps this thread's event loop
// turning, since the fake servers and any clipboard this process owns are served from it.

struct ToolRun {
    int exitCode = -1;
    QByteArray output;
};

// Runs a desktop tool (xdotool, xclip, paplay, …) to its end, for at most `timeoutMs`.
ToolRun runTool(const QString &program, const QStringList &arguments, int timeoutMs = 10000);
// The process id of the window the desktop says is active, 0 when none.
qint64 activeProcess();
// Waits until the active window belongs to `pid`.
bool awaitActive(qint64 pid);
// The first visible window titled exactly `title`, or empty; awaitWindow waits for one.
QString windowNamed(const QString &title);
QString awaitWindow(const QString &title, int timeoutMs);
// Where `window` is on the screen.
QRect windowGeometry(const QString &window);
// Every format the clipboard offers, with its bytes; Xlib's bookkeeping targets left out.
QList<std::pair<QByteArray, QByteArray>> clipboardFormats();

// A stand-in coding agent's program: shows `banner`, then records its folder and the first line it
// reads into `record`. It ends by itself so that no window outlives a test for long.
QByteArray standInAgent(const QString &banner, const QString &record);

// A system tray for the app's icon: trayer docked at the top right of the screen. Start it before
// the app, which looks for a tray once, when it starts.
class TrayHost {
public:
    TrayHost();
    ~TrayHost();
    TrayHost(const TrayHost &) = delete;
    TrayHost &operator=(const TrayHost &) = delete;

    bool ready = false;
    // Clicks the docked icon (waiting for it to dock) and waits for the app's menu to open.
    bool openMenu();
    // Whether the app's menu is open.
    static bool menuOpen();

private:
    QProcess m_process;
    QString m_panel;
};

// The window of quorvane_target_window (its header comment lists the commands).
class TargetWindow {
public:
    // `platform`: Qt's platform plugin, "xcb" or "wayland".
    explicit TargetWindow(const QString &platform = QStringLiteral("xcb"));
    ~TargetWindow();
    TargetWindow(const TargetWindow &) = delete;
    TargetWindow &operator=(const TargetWindow &) = delete;

    QByteArray command(const QString &line);
    QString text(const QString &field);
    // Gives `field` the focus and waits until the desktop agrees that the window is in front.
    bool focus(const QString &field);
    qint64 processID() const { return m_process.processId(); }

    bool ready = false;

private:
    QByteArray answer();

    QProcess m_process;
};

// What a test changes about the app it starts.
struct AppSetup {
    // An Ollama server to format with; empty leaves formatting off.
    QUrl ollama;
    // Settings written over the ones above.
    QJsonObject config;
    // Variables added to the app's environment (HOME, PATH, …).
    QHash<QString, QString> environment;
};

// The real quorvane app in a data folder of its own, pointed at a whisper server. History and
// recordings are kept.
class DictationApp {
public:
    explicit DictationApp(const QUrl &whisperServer, const AppSetup &setup = {});
    ~DictationApp();
    DictationApp(const DictationApp &) = delete;
    DictationApp &operator=(const DictationApp &) = delete;

    // Waits until the hotkey is armed and the microphone warm.
    bool awaitReady();
    // Stops the app and starts it again in the same data folder, settings as it left them.
    void restart();
    bool running() const { return m_process.state() == QProcess::Running; }
    // The log lines written so far.
    QStringList log() const;
    // The first line from index `from` on that contains `needle`, within `timeoutMs`.
    std::optional<QString> awaitLine(const QString &needle, qsizetype from, int timeoutMs = 8000) const;
    qint64 processID() const { return m_process.processId(); }
    QString home() const { return m_home.path(); }

private:
    void stop();

    QTemporaryDir m_home;
    QProcess m_process;
};

// Holds the key with X keycode `keycode` over the whole of `wavPath` and a little after it, as a
// speaker would; the clip starts once the app logs `startedLine` (from log line `from` on).
bool holdKeyAndSpeak(const DictationApp &app, int keycode, const QString &startedLine, qsizetype from,
                     const QString &wavPath);

// A spoken clip written by espeak-ng.
bool speak(const QString &text, const QString &wavPath);
// Starts playing a WAV into the virtual microphone; the caller waits for the process.
void play(QProcess &player, const QString &wavPath);
