#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRect>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct ToolRun {
    int exitCode = -1;
    QByteArray output;
};

ToolRun runTool(const QString &program, const QStringList &arguments, int timeoutMs = 10000) {
    QProcess process;
    process.start(program, arguments);
    ToolRun run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.output = process.readAllStandardOutput();
    return run;
}

// The first visible window with this exact title, or empty.
QString windowNamed(const QString &title) {
    const ToolRun run =
        runTool(QStringLiteral("xdotool"), {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                            QStringLiteral("--name"), QLatin1Char('^') + title + QLatin1Char('$')});
    return QString::fromLatin1(run.output).section(QLatin1Char('\n'), 0, 0).trimmed();
}

QString awaitWindow(const QString &title, int timeoutMs) {
    QString id;
    (void)QTest::qWaitFor([&] { return !(id = windowNamed(title)).isEmpty(); }, timeoutMs);
    return id;
}

QRect geometry(const QString &window) {
    const QString out =
        QString::fromLatin1(runTool(QStringLiteral("xwininfo"), {QStringLiteral("-id"), window}).output);
    const auto field = [&](const char *name) {
        const int at = out.indexOf(QLatin1String(name));
        return at < 0 ? -1 : out.mid(at + int(qstrlen(name))).section(QLatin1Char('\n'), 0, 0).trimmed().toInt();
    };
    return {field("Absolute upper-left X:"), field("Absolute upper-left Y:"), field("Width:"), field("Height:")};
}

QString activeWindow() {
    return QString::fromLatin1(runTool(QStringLiteral("xdotool"), {QStringLiteral("getactivewindow")}).output)
        .trimmed();
}

QImage screenshot(const QString &path, const QString &window = QStringLiteral("root")) {
    runTool(QStringLiteral("import"), {QStringLiteral("-window"), window, path});
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

QJsonObject savedConfig(const QString &home) {
    QFile file(home + QStringLiteral("/config.json"));
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
}

// The real application on the test display, in a data folder the test owns.
class App {
public:
    explicit App(const QString &home) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        environment.insert(QStringLiteral("QUORVANE_HOME"), home);
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(QUORVANE_BINARY), {});
        m_process.waitForStarted();
    }
    ~App() {
        m_process.terminate();
        if (!m_process.waitForFinished(3000))
            m_process.kill();
        m_process.waitForFinished();
    }
    bool running() const { return m_process.state() == QProcess::Running; }

private:
    QProcess m_process;
};

// A Qt window with a line edit to dictate into; "focus line" and "text" over stdin.
class Target {
public:
    Target() {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        m_process.setProcessEnvironment(environment);
        m_process.start(QStringLiteral(QUORVANE_TARGET_WINDOW), {});
        ready = m_process.waitForStarted() && answer() == "ready";
    }
    ~Target() {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(2000))
            m_process.kill();
    }
    QByteArray command(const QByteArray &line) {
        m_process.readAll();
        m_process.write(line + '\n');
        return answer();
    }
    bool ready = false;

private:
    QByteArray answer() {
        QElapsedTimer waited;
        waited.start();
        while (!m_process.canReadLine() && waited.elapsed() < 5000)
            m_process.waitForReadyRead(20);
        return m_process.readLine().trimmed();
    }
    QProcess m_process;
};

const QRgb overlayBackground = qRgb(0x1e, 0x1f, 0x22);

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
        m_trayer.start(QStringLiteral("trayer"),
                       {QStringLiteral("--edge"), QStringLiteral("top"), QStringLiteral("--align"),
                        QStringLiteral("right"), QStringLiteral("--widthtype"), QStringLiteral("request"),
                        QStringLiteral("--height"), QStringLiteral("28"), QStringLiteral("--SetDockType"),
                        QStringLiteral("true")});
        QVERIFY(m_trayer.waitForStarted());
        QVERIFY(!awaitWindow(QStringLiteral("panel"), 5000).isEmpty());
    }

    void cleanupTestCase() {
        m_trayer.terminate();
        m_trayer.waitForFinished(2000);
    }

    // The first start of a fresh data folder greets with the setup checks; closing the window ends
    // that, and the next start of the same folder goes straight to the tray.
    void onboardingOnlyOnTheFirstStart() {
        {
            App app(m_home.path());
            const QString window = awaitWindow(QStringLiteral("Welcome to Quorvane"), 20000);
            QVERIFY2(!window.isEmpty(), "no onboarding window");
            // Long enough for the engine and microphone checks to settle on this desktop.
            QTest::qWait(1500);
            const QImage shot = screenshot(m_shots + QStringLiteral("/onboarding.png"), window);
            QVERIFY(shot.width() >= 500 && shot.height() >= 300);
            QVERIFY2(distinctColours(shot) > 8, "the window is blank");

            runTool(QStringLiteral("xdotool"), {QStringLiteral("windowactivate"), QStringLiteral("--sync"), window});
            runTool(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("alt+F4")});
            // Generous limits: under the sanitizers the app is several times slower.
            QTRY_VERIFY_WITH_TIMEOUT(windowNamed(QStringLiteral("Welcome to Quorvane")).isEmpty(), 30000);
            QTRY_VERIFY_WITH_TIMEOUT(savedConfig(m_home.path()).value("didCompleteOnboarding").toBool(), 30000);
            QVERIFY(app.running());
        }
        App again(m_home.path());
        const auto starts = [&] {
            QFile log(m_home.filePath(QStringLiteral("quorvane.log")));
            return log.open(QIODevice::ReadOnly) ? int(log.readAll().count(" started")) : 0;
        };
        QTRY_COMPARE_WITH_TIMEOUT(starts(), 2, 20000);
        // Onboarding would have opened by now.
        QTest::qWait(3000);
        QVERIFY(again.running());
        QVERIFY(windowNamed(QStringLiteral("Welcome to Quorvane")).isEmpty());
    }

    // A click on the tray icon opens the menu with the state line and the settings.
    void trayMenuOpens() {
        App app(m_home.path());
        const QString panel = awaitWindow(QStringLiteral("panel"), 5000);
        // The icon docks into the tray once the application is up.
        QRect tray;
        QVERIFY(QTest::qWaitFor(
            [&] {
                tray = geometry(panel);
                return tray.width() >= 16;
            },
            20000));
        QVERIFY(QTest::qWaitFor([&] { return logHas(QStringLiteral("Hotkey armed")); }, 30000));
        QTest::qWait(1000);
        const QPoint icon = tray.center();
        runTool(QStringLiteral("xdotool"), {QStringLiteral("mousemove"), QString::number(icon.x()),
                                            QString::number(icon.y()), QStringLiteral("click"), QStringLiteral("1")});
        const QString menu = awaitWindow(QStringLiteral("Quorvane Menu"), 20000);
        QVERIFY2(!menu.isEmpty(), "the menu did not open");
        const QRect area = geometry(menu);
        QVERIFY2(area.height() > 300 && area.width() > 150,
                 qPrintable(QStringLiteral("%1x%2").arg(area.width()).arg(area.height())));
        const QImage root = screenshot(m_shots + QStringLiteral("/menu-desktop.png"));
        const QImage shot = root.copy(area.adjusted(-8, -8, 8, 8).united(tray));
        shot.save(m_shots + QStringLiteral("/menu.png"));
        // Text on a plain menu background: many rows of dark pixels on light, not an empty frame.
        QVERIFY2(pixelsUnlike(root, area, root.pixel(area.left() + 2, area.bottom() - 2)) > 2000,
                 "the menu has no entries");
        runTool(QStringLiteral("xdotool"), {QStringLiteral("key"), QStringLiteral("Escape")});
        QTRY_VERIFY_WITH_TIMEOUT(windowNamed(QStringLiteral("Quorvane Menu")).isEmpty(), 3000);
    }

    // Holding the key while speech plays: the overlay shows, its meter rises with the voice, and the
    // window being dictated into keeps the focus throughout.
    void overlayWhileRecording() {
        const QString clip = m_scratch.filePath(QStringLiteral("speech.wav"));
        QCOMPARE(runTool(QStringLiteral("espeak-ng"), {QStringLiteral("-w"), clip,
                                                       QStringLiteral("Testing the meter, one two three, four five six "
                                                                      "seven, the quick brown fox jumps.")})
                     .exitCode,
                 0);
        App app(m_home.path());
        QVERIFY(!awaitWindow(QStringLiteral("panel"), 5000).isEmpty());
        // The microphone is warm and the keys armed well before the first key.
        QVERIFY(QTest::qWaitFor(
            [&] { return logHas(QStringLiteral("Hotkey armed")) && logHas(QStringLiteral("Microphone ready")); },
            30000));
        QTest::qWait(2000);
        Target target;
        QVERIFY(target.ready);
        QCOMPARE(target.command("focus line"), QByteArray("ok"));
        QString focused;
        QVERIFY(QTest::qWaitFor([&] { return !(focused = activeWindow()).isEmpty(); }, 3000));

        runTool(QStringLiteral("xdotool"), {QStringLiteral("keydown"), QStringLiteral("108")});
        const QString overlay = awaitWindow(QStringLiteral("Quorvane Recording"), 20000);
        QVERIFY2(!overlay.isEmpty(), "no overlay while recording");
        const QRect meter(12, 32, 236, 28);
        const int quiet = pixelsUnlike(screenshot(m_scratch.filePath(QStringLiteral("quiet.png")), overlay), meter,
                                       overlayBackground);
        QProcess player;
        player.start(QStringLiteral("paplay"), {QStringLiteral("-d"), QStringLiteral("quorvane_null"), clip});
        int loudest = 0;
        QImage loudestShot;
        QStringList focusDuring;
        for (int i = 0; i < 8; ++i) {
            QTest::qWait(300);
            const QImage shot = screenshot(m_scratch.filePath(QStringLiteral("overlay-%1.png").arg(i)), overlay);
            const int lit = pixelsUnlike(shot, meter, overlayBackground);
            if (lit > loudest) {
                loudest = lit;
                loudestShot = shot;
            }
            focusDuring << activeWindow();
        }
        runTool(QStringLiteral("xdotool"), {QStringLiteral("keyup"), QStringLiteral("108")});
        player.waitForFinished(10000);
        loudestShot.save(m_shots + QStringLiteral("/overlay.png"));

        QVERIFY2(loudest > quiet * 2 && loudest > 400,
                 qPrintable(QStringLiteral("meter pixels: quiet %1, loudest %2").arg(quiet).arg(loudest)));
        QCOMPARE(focusDuring, QStringList(focusDuring.size(), focused));
        // The overlay goes once the run is over, and the focus never moved.
        QTRY_VERIFY_WITH_TIMEOUT(windowNamed(QStringLiteral("Quorvane Recording")).isEmpty(), 30000);
        QCOMPARE(activeWindow(), focused);
    }

private:
    bool logHas(const QString &text) const {
        QFile log(m_home.filePath(QStringLiteral("quorvane.log")));
        if (!log.open(QIODevice::ReadOnly))
            return false;
        // Only what the latest start wrote: the data folder is shared by the tests.
        const QString lines = QString::fromUtf8(log.readAll());
        const qsizetype start = lines.lastIndexOf(QStringLiteral(" started"));
        return start >= 0 && lines.indexOf(text, start) >= 0;
    }

    QTemporaryDir m_scratch;
    QTemporaryDir m_home;
    QString m_shots;
    QProcess m_trayer;
};

QTEST_MAIN(ShellDesktopTest)
#include "tst_shell_desktop.moc"
