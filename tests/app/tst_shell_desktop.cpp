#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "linux/DesktopDriver.h"

#include <QDir>
#include <QImage>
#include <QJsonDocument>
#include <QTest>
#include <memory>

namespace {

const QString onboarding = QStringLiteral("Welcome to Quorvane");
const QString overlay = QStringLiteral("Quorvane Recording");
const QRgb overlayBackground = qRgb(0x1e, 0x1f, 0x22);

QImage screenshot(const QString &path, const QString &window = QStringLiteral("root")) {
    runTool("import", {"-window", window, path});
    return QImage(path);
}

// Pixels in `area` that differ clearly from `background`.
int pixelsUnlike(const QImage &image, const QRect &area, QRgb background) {
    int count = 0;
    const QRect inside = area.intersected(image.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y)
        for (int x = inside.left(); x <= inside.right(); ++x) {
            const QRgb pixel = image.pixel(x, y);
            if (std::abs(qRed(pixel) - qRed(background)) + std::abs(qGreen(pixel) - qGreen(background)) +
                    std::abs(qBlue(pixel) - qBlue(background)) >
                60)
                ++count;
        }
    return count;
}

int distinctColours(const QImage &image) {
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            colours.insert(image.pixel(x, y));
    return int(colours.size());
}

} // namespace

class ShellDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() {
        // Starts windows and presses keys: only on the throwaway display, never in the user's session.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP") || qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs the X display of scripts/headless-desktop");
        // Screenshots stay for a person to look at when asked for.
        m_shots = qEnvironmentVariable("QUORVANE_SCREENSHOTS", m_scratch.path());
        QDir().mkpath(m_shots);
        m_tray = std::make_unique<TrayHost>();
        QVERIFY(m_tray->ready);
    }

    // The first start of a fresh data folder greets with the setup checks; closing the window ends
    // that, and the next start of the same folder goes straight to the tray.
    void onboardingOnlyOnTheFirstStart() {
        DictationApp app(m_whisper.url(),
                         {.ollama = {}, .config = {{"didCompleteOnboarding", false}}, .environment = {}});
        const QString window = awaitWindow(onboarding, 20000);
        QVERIFY2(!window.isEmpty(), "no onboarding window");
        // Long enough for the engine and microphone checks to settle on this desktop.
        QTest::qWait(1500);
        const QImage shot = screenshot(m_shots + "/onboarding.png", window);
        QVERIFY(shot.width() >= 500 && shot.height() >= 300);
        QVERIFY2(distinctColours(shot) > 8, "the window is blank");

        // Generous limits: under the sanitizers the app is several times slower, and a key sent
        // while the window manager is still busy activating may land nowhere, so it is sent again.
        for (int attempt = 0; attempt < 3 && !windowNamed(onboarding).isEmpty(); ++attempt) {
            runTool("xdotool", {"windowactivate", "--sync", window});
            runTool("xdotool", {"key", "alt+F4"});
            (void)QTest::qWaitFor([&] { return windowNamed(onboarding).isEmpty(); }, 10000);
        }
        QVERIFY(windowNamed(onboarding).isEmpty());
        QTRY_VERIFY_WITH_TIMEOUT(
            QJsonDocument::fromJson(readFileBytes(app.home() + "/config.json"))["didCompleteOnboarding"].toBool(),
            30000);
        QVERIFY(app.running());

        app.restart();
        QTRY_COMPARE_WITH_TIMEOUT(app.log().filter(" started").size(), 2, 20000);
        // Onboarding would have opened by now.
        QTest::qWait(3000);
        QVERIFY(app.running());
        QVERIFY(windowNamed(onboarding).isEmpty());
    }

    // A click on the tray icon opens the menu with the state line and the settings.
    void trayMenuOpens() {
        DictationApp app(m_whisper.url());
        QVERIFY(app.awaitReady());
        QVERIFY2(m_tray->openMenu(), "the menu did not open");
        const QRect area = windowGeometry(windowNamed("Quorvane Menu"));
        QVERIFY2(area.height() > 300 && area.width() > 150,
                 qPrintable(QStringLiteral("%1x%2").arg(area.width()).arg(area.height())));
        const QImage root = screenshot(m_shots + "/menu-desktop.png");
        root.copy(area.adjusted(-8, -8, 8, 8)).save(m_shots + "/menu.png");
        // Text on a plain menu background: many rows of dark pixels on light, not an empty frame.
        QVERIFY2(pixelsUnlike(root, area, root.pixel(area.left() + 2, area.bottom() - 2)) > 2000,
                 "the menu has no entries");
        // A menu that has not yet grabbed the keyboard misses the key; it is sent again then.
        for (int attempt = 0; attempt < 3 && TrayHost::menuOpen(); ++attempt) {
            runTool("xdotool", {"key", "Escape"});
            (void)QTest::qWaitFor([] { return !TrayHost::menuOpen(); }, 5000);
        }
        QVERIFY(!TrayHost::menuOpen());
    }

    // Holding the key while speech plays: the overlay shows, its meter rises with the voice, and the
    // window being dictated into keeps the focus throughout.
    void overlayWhileRecording() {
        const QString clip = m_scratch.filePath("speech.wav");
        QVERIFY(speak("Testing the meter, one two three, four five six seven, the quick brown fox jumps.", clip));
        DictationApp app(m_whisper.url());
        QVERIFY(app.awaitReady());
        TargetWindow target;
        QVERIFY(target.ready);
        QVERIFY(target.focus("line"));

        runTool("xdotool", {"keydown", "108"});
        const QString window = awaitWindow(overlay, 20000);
        QVERIFY2(!window.isEmpty(), "no overlay while recording");
        const QRect meter(12, 32, 236, 28);
        // The window can be mapped before its first paint (slow builds): every pixel then differs.
        int quiet = meter.width() * meter.height();
        QTRY_VERIFY_WITH_TIMEOUT((quiet = pixelsUnlike(screenshot(m_scratch.filePath("quiet.png"), window), meter,
                                                       overlayBackground)) < meter.width() * meter.height() / 2,
                                 10000);
        QProcess player;
        play(player, clip);
        int loudest = 0;
        QImage loudestShot;
        QList<qint64> focusDuring;
        for (int i = 0; i < 8; ++i) {
            QTest::qWait(300);
            const QImage shot = screenshot(m_scratch.filePath(QStringLiteral("overlay-%1.png").arg(i)), window);
            const int lit = pixelsUnlike(shot, meter, overlayBackground);
            if (lit > loudest) {
                loudest = lit;
                loudestShot = shot;
            }
            focusDuring << activeProcess();
        }
        runTool("xdotool", {"keyup", "108"});
        player.waitForFinished(10000);
        loudestShot.save(m_shots + "/overlay.png");

        QVERIFY2(loudest > quiet * 2 && loudest > 400,
                 qPrintable(QStringLiteral("meter pixels: quiet %1, loudest %2").arg(quiet).arg(loudest)));
        QCOMPARE(focusDuring, QList<qint64>(focusDuring.size(), target.processID()));
        // The overlay goes once the run is over, and the focus never moved.
        QTRY_VERIFY_WITH_TIMEOUT(windowNamed(overlay).isEmpty(), 30000);
        QCOMPARE(activeProcess(), target.processID());
    }

private:
    QTemporaryDir m_scratch;
    QString m_shots;
    FakeWhisperServer m_whisper;
    std::unique_ptr<TrayHost> m_tray;
};

QTEST_MAIN(ShellDesktopTest)
#include "tst_shell_desktop.moc"
