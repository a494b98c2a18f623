#include "LogRecorder.h"
#include "core/Scheduler.h"
#include "platform/PasteTextInjector.h"
#include "platform/linux/X11TextBackend.h"

#include <QClipboard>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <csignal>

namespace {

using Case = QuorvaneError::Case;

struct ToolRun {
    int exitCode = -1;
    QByteArray output;
};

ToolRun runTool(const QString &program, const QStringList &arguments) {
    QProcess process;
    process.start(program, arguments);
    // Serve our own clipboard while the tool may be reading it.
    QElapsedTimer waited;
    waited.start();
    while (!process.waitForFinished(10) && waited.elapsed() < 5000)
        QCoreApplication::processEvents();
    if (process.state() != QProcess::NotRunning)
        return {};
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput()};
}

// What the desktop says is the active window's process.
qint64 activeProcess() {
    return runTool("xdotool", {"getactivewindow", "getwindowpid"}).output.trimmed().toLongLong();
}

QByteArray clipboardAs(const QString &target) {
    const ToolRun run = runTool("xclip", {"-selection", "clipboard", "-o", "-t", target});
    return run.exitCode == 0 ? run.output : QByteArray("<empty>");
}

// A PNG signature followed by bytes that are not text, so a lossy copy cannot pass.
const QByteArray pngBytes("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff\xfe\x00\x01", 20);

// The target window of the desktop tests, one command and one answer line at a time.
class TargetWindow {
public:
    TargetWindow() {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("QT_QPA_PLATFORM", "xcb");
        // The headless desktop enables assistive technology; this spares Qt the bus round trip.
        environment.insert("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
        m_process.setProcessEnvironment(environment);
        m_process.start(QUORVANE_TARGET_WINDOW, QStringList{});
        ready = m_process.waitForStarted() && answer() == "ready";
    }
    ~TargetWindow() {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(2000))
            m_process.kill();
    }

    QByteArray command(const QString &line) {
        // Answers left over from a command that timed out belong to no one.
        m_process.readAll();
        m_process.write(line.toUtf8() + '\n');
        return answer();
    }
    QString text(const QString &field) {
        return QJsonDocument::fromJson(command("text")).object().value(field).toString();
    }
    // Gives `field` the focus and waits until the desktop agrees that the window is in front.
    bool focus(const QString &field) {
        if (command("focus " + field) != "ok")
            return false;
        QElapsedTimer waited;
        waited.start();
        while (activeProcess() != processID() && waited.elapsed() < 3000)
            QTest::qWait(20);
        return activeProcess() == processID();
    }
    qint64 processID() const { return m_process.processId(); }

    bool ready = false;

private:
    QByteArray answer() {
        QElapsedTimer waited;
        waited.start();
        // Our clipboard is served from this thread: the window may be waiting for it to paste.
        while (!m_process.canReadLine() && waited.elapsed() < 5000) {
            QCoreApplication::processEvents();
            m_process.waitForReadyRead(10);
        }
        return m_process.readLine().trimmed();
    }

    QProcess m_process;
};

std::optional<Case> failureOf(const std::function<void()> &action) {
    try {
        action();
    } catch (const QuorvaneError &error) {
        return error.errorCase();
    }
    return std::nullopt;
}

} // namespace

class TestX11TextBackendDesktop : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X11 desktop (DISPLAY)");
        QVERIFY(m_backend->isTrusted());
        m_window = std::make_unique<TargetWindow>();
        m_target = m_window.get();
        QVERIFY(m_window->ready);
    }

    void cleanup() {
        m_owner.kill();
        m_owner.waitForFinished();
        runTool("setxkbmap", {"us"});
        runTool("xdotool", {"keyup", "108"});
    }

    // What another program left on the clipboard is pasted over and comes back byte for byte,
    // whatever its format; an empty clipboard is empty again.
    void restoresClipboardAfterPaste_data() {
        QTest::addColumn<QString>("owner");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("text") << "xclip"
                              << "UTF8_STRING" << QByteArray("copied before — ünïcode");
        QTest::newRow("png") << "xclip"
                             << "image/png" << pngBytes;
        QTest::newRow("text and png, text") << "window"
                                            << "UTF8_STRING" << QByteArray("both formats");
        QTest::newRow("empty") << "none"
                               << "UTF8_STRING" << QByteArray("<empty>");
    }
    void restoresClipboardAfterPaste() {
        QFETCH(QString, owner);
        QFETCH(QString, target);
        QFETCH(QByteArray, bytes);
        QByteArray png;
        QTemporaryDir dir;
        if (owner == "xclip") {
            QFile file(dir.filePath("clip"));
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
            file.close();
            m_owner.start("xclip", {"-quiet", "-selection", "clipboard", "-t", target, "-i", file.fileName()});
            QVERIFY(m_owner.waitForStarted());
        } else if (owner == "window") {
            QCOMPARE(m_target->command("copy " + QString::fromUtf8(bytes)), "ok");
            png = clipboardAs("image/png");
            QVERIFY(png.startsWith("\x89PNG"));
        } else {
            QGuiApplication::clipboard()->clear();
        }
        QTRY_COMPARE(clipboardAs(target), bytes);

        QVERIFY(m_target->command("set line") == "ok" && m_target->focus("line"));
        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        injector.inject("dictated text");
        QTRY_COMPARE(m_target->text("line"), "dictated text");
        scheduler.advance(PasteTextInjector::restoreDelayMs);

        QCOMPARE(clipboardAs(target), bytes);
        if (!png.isEmpty())
            QCOMPARE(clipboardAs("image/png"), png);
    }

    // The dictated text is there in each text encoding a destination may ask for, Latin-1 only
    // where it says the same; the next copy elsewhere takes over from us.
    void dictatedTextInEveryTextTarget_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("latin1");
        QTest::newRow("latin-1") << "café crème" << true;
        QTest::newRow("beyond latin-1") << "привет – 😀" << false;
    }
    void dictatedTextInEveryTextTarget() {
        QFETCH(QString, text);
        QFETCH(bool, latin1);
        QVERIFY(m_target->command("set line") == "ok" && m_target->focus("line"));
        const qint64 before = m_backend->changeCount();
        QVERIFY(m_backend->writeText(text));
        QCOMPARE(m_backend->changeCount(), before + 1);

        const QList<QByteArray> targets = clipboardAs("TARGETS").split('\n');
        for (const char *name : {"TARGETS", "TIMESTAMP", "UTF8_STRING", "TEXT"})
            QVERIFY2(targets.contains(name), name);
        QCOMPARE(targets.contains("STRING"), latin1);
        QCOMPARE(clipboardAs("UTF8_STRING"), text.toUtf8());
        QCOMPARE(clipboardAs("TEXT"), text.toUtf8());
        QCOMPARE(clipboardAs("STRING"), latin1 ? text.toLatin1() : QByteArray("<empty>"));
        // A Qt window reads it as text, as every destination of the paste does.
        QCOMPARE(m_target->command("paste line"), "ok");
        QTRY_COMPARE(m_target->text("line"), text);

        m_owner.start("xclip", {"-quiet", "-selection", "clipboard", "-i"});
        QVERIFY(m_owner.waitForStarted());
        m_owner.write("copied after");
        m_owner.closeWriteChannel();
        QTRY_COMPARE(clipboardAs("UTF8_STRING"), "copied after");
        QCOMPARE(m_backend->changeCount(), before + 2);
    }

    // A clipboard owner that never answers costs the snapshot a bounded wait, not Qt's 5 s.
    void hungOwnerIsNotWaitedFor() {
        QProcess &owner = m_owner;
        owner.start("xclip", {"-quiet", "-selection", "clipboard", "-i"});
        QVERIFY(owner.waitForStarted());
        owner.write("stuck");
        owner.closeWriteChannel();
        QTRY_COMPARE(clipboardAs("UTF8_STRING"), "stuck");
        ::kill(pid_t(owner.processId()), SIGSTOP);
        LogRecorder log;
        QElapsedTimer elapsed;
        elapsed.start();
        const std::optional<DesktopTextBackend::ClipboardSnapshot> snapshot = m_backend->readClipboard();
        const qint64 took = elapsed.elapsed();
        ::kill(pid_t(owner.processId()), SIGCONT);
        QVERIFY(!snapshot);
        QVERIFY2(took < 1500, qPrintable(QString::number(took)));
        QCOMPARE(log.lines.filter("WARN The clipboard's owner did not answer").size(), 1);
    }

    // The chord still pastes when the push-to-talk key is held as the paste begins, and where the
    // layout has no Latin v.
    void pastesDespiteKeyboardState_data() {
        QTest::addColumn<QString>("layout");
        QTest::addColumn<bool>("holdRightAlt");
        QTest::newRow("right alt held") << "us" << true;
        QTest::newRow("russian layout") << "ru" << false;
        QTest::newRow("greek layout, right alt held") << "gr" << true;
    }
    void pastesDespiteKeyboardState() {
        QFETCH(QString, layout);
        QFETCH(bool, holdRightAlt);
        QCOMPARE(runTool("setxkbmap", {layout}).exitCode, 0);
        QVERIFY(m_target->command("set line") == "ok" && m_target->focus("line"));
        if (holdRightAlt) {
            QCOMPARE(runTool("xdotool", {"keydown", "108"}).exitCode, 0);
            // Released while the chord waits, as a user lets go of the key.
            QProcess::startDetached("sh", {"-c", "sleep 0.3; xdotool keyup 108"});
        }
        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        injector.inject("keyboard state");
        QTRY_COMPARE(m_target->text("line"), "keyboard state");
        scheduler.advance(PasteTextInjector::restoreDelayMs);
    }

    // Shift+Insert pastes PRIMARY in xterm, where Ctrl+V would type a control character.
    void pastesIntoXterm() {
        QTemporaryDir dir;
        const QString received = dir.filePath("received");
        QProcess xterm;
        xterm.start("xterm", {"-e", "sh", "-c", "read line; printf %s \"$line\" > '" + received + "'"});
        QVERIFY(xterm.waitForStarted());
        QTRY_COMPARE(activeProcess(), xterm.processId());
        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        injector.inject("into the terminal\n");
        QTRY_VERIFY(QFile::exists(received));
        QFile file(received);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), "into the terminal");
        xterm.waitForFinished(2000);
    }

    // The question sent ahead is answered as the one that waits is, once the focus has moved too.
    void focusQuestionAnsweredLater() {
        QVERIFY(m_target->command("set line") == "ok" && m_target->focus("line"));
        std::unique_ptr<FocusedElement> element;
        QTRY_VERIFY((element = m_backend->focusedElement()) != nullptr);
        const std::function<bool()> answer = element->askStillFocused();
        QVERIFY(answer());
        QVERIFY(element->stillFocused());
        QVERIFY(m_target->focus("password"));
        QTRY_VERIFY(!element->stillFocused());
        QVERIFY(!element->askStillFocused()());
    }

    // Only the password field is secure, and pasting into it is refused and leaves it empty.
    void focusedFieldRoles_data() {
        QTest::addColumn<QString>("field");
        QTest::addColumn<bool>("secure");
        QTest::newRow("line edit") << "line" << false;
        QTest::newRow("password") << "password" << true;
        QTest::newRow("text edit") << "edit" << false;
    }
    void focusedFieldRoles() {
        QFETCH(QString, field);
        QFETCH(bool, secure);
        QVERIFY(m_target->command("set " + field) == "ok" && m_target->focus(field));
        std::unique_ptr<FocusedElement> element;
        QTRY_VERIFY((element = m_backend->focusedElement()) != nullptr);
        QCOMPARE(element->processID(), m_target->processID());
        QCOMPARE(element->roles().contains("password text"), secure);
        QCOMPARE(PasteTextInjector::isSecure(element->roles()), secure);

        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        QCOMPARE(failureOf([&] { injector.inject("secret?"); }),
                 secure ? std::optional(Case::secureTextSelected) : std::nullopt);
        QTRY_COMPARE(m_target->text(field), secure ? "" : "secret?");
        scheduler.advance(PasteTextInjector::restoreDelayMs);
    }

    // Reads taken early serve the paste only while the desktop says nothing moved: a copy or the
    // owner quitting since is what comes back, and a password field focused since gets nothing.
    void earlyReadsFollowTheDesktop_data() {
        QTest::addColumn<QString>("meanwhile");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QByteArray>("restored");
        QTest::newRow("nothing") << ""
                                 << "line" << QByteArray("before");
        QTest::newRow("window copies") << "copy"
                                       << "line" << QByteArray("since");
        QTest::newRow("owner quits") << "quit"
                                     << "line" << QByteArray("<empty>");
        QTest::newRow("password focused") << "focus password"
                                          << "password" << QByteArray("before");
        QTest::newRow("other field focused") << "focus edit"
                                             << "edit" << QByteArray("before");
    }
    void earlyReadsFollowTheDesktop() {
        QFETCH(QString, meanwhile);
        QFETCH(QString, field);
        QFETCH(QByteArray, restored);
        m_owner.start("xclip", {"-quiet", "-selection", "clipboard", "-i"});
        QVERIFY(m_owner.waitForStarted());
        m_owner.write("before");
        m_owner.closeWriteChannel();
        QTRY_COMPARE(clipboardAs("UTF8_STRING"), "before");
        for (const QString &name : {"line", "password", "edit"})
            QCOMPARE(m_target->command("set " + name), "ok");
        QVERIFY(m_target->focus("line"));
        QTRY_VERIFY(m_backend->focusedElement() != nullptr);

        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        QVERIFY(m_backend->confirmsEarlyReads());
        injector.prepareInjection();
        if (meanwhile == "copy") {
            QCOMPARE(m_target->command("copy since"), "ok");
        } else if (meanwhile == "quit") {
            m_owner.kill();
            m_owner.waitForFinished();
            QTRY_COMPARE(clipboardAs("UTF8_STRING"), "<empty>");
        } else if (meanwhile.startsWith("focus ")) {
            QVERIFY(m_target->focus(meanwhile.mid(6)));
        }
        const bool secure = field == "password";
        QCOMPARE(failureOf([&] { injector.inject("early text"); }),
                 secure ? std::optional(Case::secureTextSelected) : std::nullopt);
        QTRY_COMPARE(m_target->text(field), secure ? "" : "early text");
        scheduler.advance(PasteTextInjector::restoreDelayMs);
        QCOMPARE(clipboardAs("UTF8_STRING"), restored);
    }

    // The selection is read with its range, and replacing it pastes over exactly that text.
    void readsAndReplacesSelection_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("start");
        QTest::addColumn<int>("length");
        QTest::newRow("plain") << "hello world, again" << 6 << 5;
        QTest::newRow("after accents") << "héllo wörld, again" << 6 << 5;
        QTest::newRow("multi-line") << "first line\nsecond line\nthird" << 11 << 11;
    }
    void readsAndReplacesSelection() {
        QFETCH(QString, text);
        QFETCH(int, start);
        QFETCH(int, length);
        QVERIFY(m_target->command("set edit " + QString(text).replace('\n', "\\n")) == "ok");
        QVERIFY(m_target->focus("edit"));
        QCOMPARE(m_target->command(QString("select edit %1 %2").arg(start).arg(length)), "ok");

        ManualScheduler scheduler;
        PasteTextInjector injector(m_backend, scheduler);
        SelectedTextSnapshot snapshot;
        QTRY_COMPARE((snapshot = injector.captureSelection()).text, text.mid(start, length));
        QCOMPARE(snapshot.processID, m_target->processID());
        QCOMPARE(snapshot.range, (TextSelectionRange{start, length}));

        injector.replaceSelection(snapshot, "REPLACED");
        QTRY_COMPARE(m_target->text("edit"), text.left(start) + "REPLACED" + text.mid(start + length));
        scheduler.advance(PasteTextInjector::restoreDelayMs);
    }

private:
    std::shared_ptr<X11TextBackend> m_backend = std::make_shared<X11TextBackend>();
    QProcess m_owner;
    std::unique_ptr<TargetWindow> m_window;
    TargetWindow *m_target = nullptr;
};

int main(int argc, char **argv) {
    // The clipboard and the other windows are only real on the X11 platform.
    if (!qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication app(argc, argv);
    TestX11TextBackendDesktop test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_x11_text_backend_desktop.moc"
