#include "LogRecorder.h"
#include "core/QuorvaneError.h"
#include "core/Scheduler.h"
#include "linux/DesktopDriver.h"
#include "platform/PasteTextInjector.h"
#include "platform/PlatformKitFactory.h"
#include "platform/PushToTalkHotkey.h"
#include "platform/linux/CompositorKeyBindings.h"
#include "platform/linux/SwayFrontmostApp.h"
#include "platform/linux/wayland/WaylandTextBackend.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QTest>
#include <cstdio>

namespace {

const QByteArray userText = QByteArrayLiteral("copied by the user");
// Not a whole image, but bytes no text conversion survives: NUL, high bytes, a PNG signature.
const QByteArray userImage = QByteArray("\x89PNG\r\n\x1a\n\0\xff\xfe quorvane", 20);

// Another client's clipboard with text and an image, as a process of its own: reading our own
// offer would wait on our own event loop.
int offerClipboard(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    WaylandTextBackend backend({}, {});
    backend.writeClipboard(
        {{{QStringLiteral("text/plain;charset=utf-8"), userText}, {QStringLiteral("image/png"), userImage}}});
    std::puts(backend.services().clipboardControl ? "ready" : "no clipboard control");
    std::fflush(stdout);
    return app.exec();
}

QByteArray paste(const QString &type, bool primary = false) {
    QStringList arguments{QStringLiteral("--no-newline"), QStringLiteral("--type"), type};
    if (primary)
        arguments << QStringLiteral("--primary");
    const ToolRun run = runTool(QStringLiteral("wl-paste"), arguments);
    return run.exitCode == 0 ? run.output : QByteArray("<unreadable>");
}

QByteArray pastePrimary() {
    return paste(QStringLiteral("text/plain;charset=utf-8"), true);
}

// The reason an injection failed, empty when it did not.
QString injectionFailure(PasteTextInjector &injector, const QString &text) {
    try {
        injector.inject(text);
    } catch (const QuorvaneError &error) {
        return error.text();
    }
    return {};
}

// An X server of its own, standing in for the XWayland a GNOME session runs beside Mutter.
struct StandInXWayland {
    StandInXWayland() {
        server.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"),
                                              QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        if (server.waitForReadyRead(5000))
            display = QStringLiteral(":") + QString::fromLatin1(server.readLine().trimmed());
    }
    ~StandInXWayland() {
        server.terminate();
        server.waitForFinished(2000);
    }
    QByteArray clipboard() {
        const QByteArray saved = qgetenv("DISPLAY");
        qputenv("DISPLAY", display.toLocal8Bit());
        const ToolRun run = runTool(QStringLiteral("xclip"), {"-selection", "clipboard", "-o", "-t", "UTF8_STRING"});
        qputenv("DISPLAY", saved);
        return run.exitCode == 0 ? run.output : QByteArray("<unreadable>");
    }
    QProcess server;
    QString display;
};

} // namespace

class WaylandDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") || qEnvironmentVariableIsEmpty("SWAYSOCK"))
            QSKIP("needs the session of scripts/headless-wayland");
    }

    // The kit follows the session, not DISPLAY, and names what the compositor lacks.
    void kitUsesTheWaylandBackends_data() {
        QTest::addColumn<QByteArray>("variable");
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("found");
        QTest::addColumn<QString>("gap");
        QTest::newRow("all there, XWayland's DISPLAY beside")
            << QByteArray("DISPLAY") << QByteArray(":0")
            << "clipboard control yes, virtual keyboard yes, window tree yes"
            << "";
        QTest::newRow("not under sway") << QByteArray("SWAYSOCK") << QByteArray()
                                        << "clipboard control yes, virtual keyboard yes, window tree no"
                                        << "no sway IPC socket or Hyprland request socket";
        QTest::newRow("compositor gone") << QByteArray("WAYLAND_DISPLAY") << QByteArray("wayland-none")
                                         << "clipboard control no"
                                         << "could not be reached";
    }
    void kitUsesTheWaylandBackends() {
        QFETCH(QByteArray, variable);
        QFETCH(QByteArray, value);
        QFETCH(QString, found);
        QFETCH(QString, gap);
        const QByteArray saved = qgetenv(variable.constData());
        qputenv(variable.constData(), value);
        LogRecorder log;
        const PlatformKit kit = makePlatformKit();
        qputenv(variable.constData(), saved);

        const QStringList info = log.lines.filter(QStringLiteral("INFO Wayland session: "));
        QCOMPARE(info.size(), 1);
        QVERIFY2(info.constFirst().contains(found), qPrintable(info.constFirst()));
        QCOMPARE(kit.sessionGaps.isEmpty(), gap.isEmpty());
        if (!gap.isEmpty()) {
            QVERIFY2(kit.sessionGaps.constFirst().contains(gap), qPrintable(kit.sessionGaps.constFirst()));
            QVERIFY(log.lines.contains(QStringLiteral("WARN ") + kit.sessionGaps.constFirst()));
        }
    }

    void keyCommandDrivesItsMode_data() {
        QTest::addColumn<bool>("running");
        QTest::addColumn<QList<QStringList>>("invocations");
        QTest::addColumn<int>("lastStatus");
        // What the last invocation says on stderr.
        QTest::addColumn<QString>("says");
        QTest::addColumn<QStringList>("events");
        using Calls = QList<QStringList>;
        QTest::newRow("each mode its own") << true << Calls{{"press", "edit"}, {"release", "edit"}} << 0 << ""
                                           << QStringList{"edit press", "edit release"};
        QTest::newRow("dictate when no mode is named")
            << true << Calls{{"press"}, {"release"}} << 0 << "" << QStringList{"dictate press", "dictate release"};
        QTest::newRow("a repeated press is not a second one")
            << true << Calls{{"press", "prompt"}, {"press", "prompt"}, {"release", "prompt"}} << 0 << ""
            << QStringList{"prompt press", "prompt release"};
        QTest::newRow("app not running") << false << Calls{{"press"}} << 1 << "not running" << QStringList{};
        QTest::newRow("unknown mode") << true << Calls{{"press", "shout"}} << 2 << "not a mode" << QStringList{};
        QTest::newRow("unknown action") << true << Calls{{"tap", "edit"}} << 2 << "neither press nor release"
                                        << QStringList{};
    }
    void keyCommandDrivesItsMode() {
        QFETCH(bool, running);
        QFETCH(QList<QStringList>, invocations);
        QFETCH(int, lastStatus);
        QFETCH(QString, says);
        QFETCH(QStringList, events);

        QStringList seen;
        LogRecorder log;
        std::vector<std::unique_ptr<PushToTalkHotkey>> hotkeys;
        if (running)
            for (const PipelineMode mode :
                 {PipelineMode::dictation, PipelineMode::editSelection, PipelineMode::developerPrompt}) {
                auto hotkey = std::make_unique<PushToTalkHotkey>(PushToTalkKey::rightOption,
                                                                 std::make_shared<CompositorKeyBindingBackend>(mode));
                const QString word = CompositorKeyBindings::modeWord(mode);
                hotkey->onPress = [&seen, word] { seen << word + " press"; };
                hotkey->onRelease = [&seen, word] { seen << word + " release"; };
                QVERIFY(hotkey->start());
                hotkeys.push_back(std::move(hotkey));
            }
        // No thread of ours watches keys here, and the log must not claim one does.
        const QStringList armed = log.lines.filter(QStringLiteral("Hotkey armed"));
        QCOMPARE(armed.size(), running ? 3 : 0);
        for (const QString &line : armed)
            QVERIFY2(line.contains(QStringLiteral("key binding calls Quorvane")), qPrintable(line));

        int status = -1;
        QByteArray stderrText;
        for (const QStringList &arguments : invocations) {
            // Our own event loop answers the call, so it keeps turning while the command runs.
            QProcess command;
            command.start(QUORVANE_BINARY, QStringList{"key"} + arguments);
            QVERIFY(QTest::qWaitFor([&] { return command.state() == QProcess::NotRunning; }, 10000));
            status = command.exitCode();
            stderrText = command.readAllStandardError();
        }
        QCOMPARE(status, lastStatus);
        QVERIFY2(stderrText.contains(says.toUtf8()), stderrText.constData());
        QTRY_COMPARE_WITH_TIMEOUT(seen, events, 2000);
    }

    void pasteReachesTheWindowAndTheClipboardComesBack() {
        QProcess owner;
        owner.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--offer-clipboard")});
        QVERIFY(owner.waitForReadyRead(5000));
        QCOMPARE(owner.readLine().trimmed(), QByteArray("ready"));
        QCOMPARE(paste(QStringLiteral("image/png")), userImage);

        TargetWindow target(QStringLiteral("wayland"));
        QVERIFY(target.ready);
        auto sway = std::make_shared<SwayFrontmostApp>(qEnvironmentVariable("SWAYSOCK"));
        QVERIFY(target.command(QStringLiteral("focus line")) == "ok");
        QTRY_COMPARE_WITH_TIMEOUT(sway->frontmostApp().processID, std::optional<qint32>(target.processID()), 5000);

        auto backend = std::make_shared<WaylandTextBackend>([sway] { return sway->focusedApplicationID(); },
                                                            [sway] { return sway->frontmostApp().processID; });
        const SessionType::WaylandServices services = backend->services();
        QVERIFY(services.clipboardControl && services.virtualKeyboard);
        PasteTextInjector injector(backend);

        const QString dictated = QStringLiteral("Typed into a Wayland window.");
        injector.inject(dictated);
        QTRY_COMPARE_WITH_TIMEOUT(target.text(QStringLiteral("line")), dictated, 3000);
        // Every format the user had comes back once the window has read our text.
        QTRY_COMPARE_WITH_TIMEOUT(paste(QStringLiteral("image/png")), userImage, 3000);
        QCOMPARE(paste(QStringLiteral("text/plain;charset=utf-8")), userText);

        // A password field is found through AT-SPI here too, and nothing is pasted into it.
        QVERIFY(target.command(QStringLiteral("focus password")) == "ok");
        QTRY_VERIFY_WITH_TIMEOUT(
            [&] {
                try {
                    injector.inject(QStringLiteral("secret"));
                } catch (const QuorvaneError &error) {
                    return error.errorCase() == QuorvaneError::Case::secureTextSelected;
                }
                return false;
            }(),
            3000);
        QCOMPARE(target.text(QStringLiteral("password")), QString());
        owner.kill();
        owner.waitForFinished();
    }

    // Shift+Insert in an xterm-like pastes the primary selection: the text is put there too, and
    // what the user had selected comes back with the clipboard.
    void xtermLikesGetThePrimarySelectionToo_data() {
        QTest::addColumn<QString>("destination");
        QTest::addColumn<bool>("takesPrimary");
        QTest::newRow("xterm-like") << "xterm" << true;
        QTest::newRow("any other window") << "" << false;
    }
    void xtermLikesGetThePrimarySelectionToo() {
        QFETCH(QString, destination);
        QFETCH(bool, takesPrimary);
        const QByteArray selected = QByteArrayLiteral("selected by the user");
        QCOMPARE(
            runTool(QStringLiteral("wl-copy"), {QStringLiteral("--primary"), QString::fromUtf8(selected)}).exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(pastePrimary(), selected, 3000);

        TargetWindow target(QStringLiteral("wayland"));
        QVERIFY(target.ready);
        QVERIFY(target.command(QStringLiteral("focus line")) == "ok");
        auto sway = std::make_shared<SwayFrontmostApp>(qEnvironmentVariable("SWAYSOCK"));
        QTRY_COMPARE_WITH_TIMEOUT(sway->frontmostApp().processID, std::optional<qint32>(target.processID()), 5000);
        // The Qt window stands in for the terminal: it pastes on Shift+Insert as well.
        auto backend = std::make_shared<WaylandTextBackend>([destination] { return destination; },
                                                            [sway] { return sway->frontmostApp().processID; });
        ManualScheduler clock;
        PasteTextInjector injector(backend, clock);

        const QString dictated = QStringLiteral("ls -la ~/projects");
        injector.inject(dictated);
        QTRY_COMPARE_WITH_TIMEOUT(target.text(QStringLiteral("line")), dictated, 3000);
        QCOMPARE(pastePrimary(), takesPrimary ? dictated.toUtf8() : selected);
        clock.advance(PasteTextInjector::restoreDelayMs);
        QCOMPARE(pastePrimary(), selected);
    }

    // As on GNOME: no clipboard control and no virtual keyboard. The text still reaches the
    // clipboard through XWayland where there is one, and the failure says what is missing.
    void withoutClipboardControlTheTextGoesThroughXWayland_data() {
        QTest::addColumn<bool>("xwayland");
        QTest::addColumn<QString>("failure");
        QTest::newRow("XWayland beside") << true << "Could not insert text: could not synthesise the paste keystroke";
        QTest::newRow("no XWayland") << false << "Could not insert text: could not write to the pasteboard";
    }
    void withoutClipboardControlTheTextGoesThroughXWayland() {
        QFETCH(bool, xwayland);
        QFETCH(QString, failure);
        std::optional<StandInXWayland> x11;
        if (xwayland) {
            x11.emplace();
            QVERIFY(!x11->display.isEmpty());
        }
        auto backend = std::make_shared<WaylandTextBackend>(nullptr, nullptr, WaylandTextBackend::Ignored{true, true},
                                                            x11 ? x11->display : QString());
        const SessionType::WaylandServices services = backend->services();
        QVERIFY(services.connected && !services.clipboardControl && !services.virtualKeyboard);
        QCOMPARE(services.x11Clipboard, xwayland);
        ManualScheduler clock;
        PasteTextInjector injector(backend, clock);

        const QString dictated = QStringLiteral("Café au lait, s\u2019il vous pla\u00EEt.");
        QCOMPARE(injectionFailure(injector, dictated), failure);
        if (x11)
            QCOMPARE(x11->clipboard(), dictated.toUtf8());
        // Nothing was pasted, so nothing is put back over the text left for the user.
        clock.advance(PasteTextInjector::restoreDelayMs);
        if (x11)
            QCOMPARE(x11->clipboard(), dictated.toUtf8());
    }
};

int main(int argc, char **argv) {
    if (argc >= 2 && qstrcmp(argv[1], "--offer-clipboard") == 0)
        return offerClipboard(argc, argv);
    // The kit wires desktop services only for a GUI application; offscreen keeps Qt off the session.
    QGuiApplication app(argc, argv);
    WaylandDesktopTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_wayland_desktop.moc"
