#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "app/OnboardingWindow.h"
#include "app/SetupChecks.h"
#include "core/Async.h"
#include "platform/SessionType.h"

#include <QPushButton>
#include <QTest>

using Facts = SetupChecks::Facts;
using Status = SetupChecks::Status;
using Action = SetupChecks::Action;

Q_DECLARE_METATYPE(SetupChecks::Facts)

namespace {

// A desktop where everything works; each row spoils one thing.
Facts working() {
    Facts facts;
    facts.sessionType = QStringLiteral("x11");
    facts.trayHost = true;
    facts.assistiveTechnology = true;
    facts.engine = SetupChecks::Engine::ready;
    facts.whisperServerFound = false;
    facts.peakLevel = 0.05f;
    facts.listenedLongEnough = true;
    return facts;
}

template <typename Edit> Facts workingBut(Edit edit) {
    Facts facts = working();
    edit(facts);
    return facts;
}

std::optional<SetupChecks::Check> find(const QList<SetupChecks::Check> &checks, const QString &title) {
    for (const SetupChecks::Check &check : checks)
        if (check.title == title)
            return check;
    return std::nullopt;
}

} // namespace

class SetupChecksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void eachCheckSaysWhatToDo_data() {
        QTest::addColumn<bool>("mac");
        QTest::addColumn<Facts>("facts");
        QTest::addColumn<QString>("check");
        QTest::addColumn<Status>("status");
        QTest::addColumn<Action>("action");
        // A word of the step the user is told to take.
        QTest::addColumn<QString>("mentions");
        QTest::newRow("wayland with all it needs")
            << false << workingBut([](Facts &f) { f.sessionType = QStringLiteral("wayland"); }) << "Supported session"
            << Status::passed << Action::none << "quorvane key press dictate";
        QTest::newRow("wayland without a virtual keyboard") << false << workingBut([](Facts &f) {
            f.sessionType = QStringLiteral("wayland");
            f.sessionGaps = SessionType::waylandGaps({true, true, false, true});
        }) << "Supported session" << Status::failed << Action::none
                                                            << "left on the clipboard";
        QTest::newRow("wayland, keys through the desktop's shortcuts") << false << workingBut([](Facts &f) {
            f.sessionType = QStringLiteral("wayland");
            f.keySetup = QStringLiteral("Confirm the shortcuts when the desktop asks.");
        }) << "Supported session" << Status::passed << Action::none << "Confirm the shortcuts";
        QTest::newRow("wayland, paste through the desktop portal") << false << workingBut([](Facts &f) {
            f.sessionType = QStringLiteral("wayland");
            f.pasteSetup = QStringLiteral("Allow the keyboard when the desktop asks.");
        }) << "Supported session" << Status::passed << Action::none << "Allow the keyboard";
        QTest::newRow("wayland lacking a piece still says how the keys come") << false << workingBut([](Facts &f) {
            f.sessionType = QStringLiteral("wayland");
            f.sessionGaps = SessionType::waylandGaps({true, false, false, true});
            f.keySetup = QStringLiteral("Confirm the shortcuts when the desktop asks.");
        }) << "Supported session" << Status::failed << Action::none << "Confirm the shortcuts";
        QTest::newRow("no display") << false << workingBut([](Facts &f) { f.sessionType.clear(); })
                                    << "Supported session" << Status::failed << Action::none << "X11 or Wayland";
        QTest::newRow("silent microphone") << false << workingBut([](Facts &f) { f.peakLevel = 0.0005f; })
                                           << "Microphone" << Status::failed << Action::none << "unmute";
        QTest::newRow("still listening") << false
                                         << workingBut([](Facts &f) { f.peakLevel = 0, f.listenedLongEnough = false; })
                                         << "Microphone" << Status::checking << Action::none << "say";
        QTest::newRow("quiet now, but the last recording was usable")
            << false << workingBut([](Facts &f) { f.peakLevel = 0, f.verdict = AudioCaptureStatus::usable; })
            << "Microphone" << Status::passed << Action::none << "";
        QTest::newRow("no tray") << false << workingBut([](Facts &f) { f.trayHost = false; }) << "Tray"
                                 << Status::failed << Action::none << "trayer";
        QTest::newRow("assistive technology off")
            << false << workingBut([](Facts &f) { f.assistiveTechnology = false; }) << "Assistive technology"
            << Status::failed << Action::none << "toolkit-accessibility true";
        QTest::newRow("no accessibility bus")
            << false << workingBut([](Facts &f) { f.assistiveTechnology.reset(); }) << "Assistive technology"
            << Status::failed << Action::none << "at-spi2-core";
        QTest::newRow("engine starting") << false
                                         << workingBut([](Facts &f) { f.engine = SetupChecks::Engine::preparing; })
                                         << "Speech engine" << Status::checking << Action::none << "Starting";
        QTest::newRow("whisper server down") << false << workingBut([](Facts &f) {
            f.asr = AsrKind::whisperServer;
            f.engine = SetupChecks::Engine::failed;
            f.engineProblem = QStringLiteral("The whisper server is not running.");
        }) << "Speech engine" << Status::failed
                                             << Action::none << "Start whisper-server";
        QTest::newRow("a whisper server is offered")
            << false << workingBut([](Facts &f) { f.whisperServerFound = true; }) << "Speech engine" << Status::passed
            << Action::useWhisperServer << "port 8080";
        QTest::newRow("built-in engine failing, whisper server offered") << false << workingBut([](Facts &f) {
            f.engine = SetupChecks::Engine::failed;
            f.whisperServerFound = true;
        }) << "Speech engine" << Status::failed << Action::useWhisperServer
                                                                         << "port 8080";
        QTest::newRow("already on the whisper server") << false << workingBut([](Facts &f) {
            f.asr = AsrKind::whisperServer;
            f.whisperServerFound = true;
        }) << "Speech engine" << Status::passed << Action::none
                                                       << "";
        QTest::newRow("mac: keys not armed")
            << true << workingBut([](Facts &f) { f.hotkeysArmed = false; }) << "Accessibility permission"
            << Status::failed << Action::openAccessibilitySettings << "Privacy & Security";
        QTest::newRow("mac: microphone silent")
            << true << workingBut([](Facts &f) { f.peakLevel = 0; }) << "Microphone permission" << Status::failed
            << Action::openMicrophoneSettings << "Microphone";
        QTest::newRow("mac: accessibility not granted") << true << workingBut([](Facts &f) {
            f.accessibilityTrusted = false;
            f.hotkeysArmed = false;
        }) << "Accessibility permission" << Status::failed
                                                        << Action::openAccessibilitySettings
                                                        << "Accessibility access is required to watch the hotkey";
        QTest::newRow("mac: accessibility withdrawn while the keys are armed")
            << true << workingBut([](Facts &f) { f.accessibilityTrusted = false; }) << "Accessibility permission"
            << Status::failed << Action::openAccessibilitySettings << "Accessibility access is required";
        QTest::newRow("mac: allowed after the keys were set up") << true << workingBut([](Facts &f) {
            f.accessibilityTrusted = true;
            f.hotkeysArmed = false;
        }) << "Accessibility permission" << Status::failed << Action::none
                                                                 << "Restart it from the menu";
        QTest::newRow("mac: microphone refused, even though something was heard")
            << true << workingBut([](Facts &f) { f.microphonePermission = DesktopPermissions::State::denied; })
            << "Microphone permission" << Status::failed << Action::openMicrophoneSettings
            << "Microphone access was denied.";
        QTest::newRow("mac: microphone never asked")
            << true << workingBut([](Facts &f) { f.microphonePermission = DesktopPermissions::State::undetermined; })
            << "Microphone permission" << Status::failed << Action::requestMicrophone << "Press Allow";
        QTest::newRow("mac: microphone allowed but silent") << true << workingBut([](Facts &f) {
            f.microphonePermission = DesktopPermissions::State::granted;
            f.peakLevel = 0;
        }) << "Microphone permission" << Status::failed << Action::none
                                                            << "Sound";
        QTest::newRow("mac: microphone allowed and heard")
            << true << workingBut([](Facts &f) { f.microphonePermission = DesktopPermissions::State::granted; })
            << "Microphone permission" << Status::passed << Action::none << "";
    }
    void eachCheckSaysWhatToDo() {
        QFETCH(bool, mac);
        QFETCH(Facts, facts);
        QFETCH(QString, check);
        QFETCH(Status, status);
        QFETCH(Action, action);
        QFETCH(QString, mentions);
        const auto desktop = mac ? SetupChecks::Desktop::macOS : SetupChecks::Desktop::x11;
        const QList<SetupChecks::Check> checks = SetupChecks::evaluate(desktop, facts);
        const std::optional<SetupChecks::Check> found = find(checks, check);
        QVERIFY(found);
        QCOMPARE(found->status, status);
        QCOMPARE(found->action, action);
        QCOMPARE(found->action != Action::none, !found->actionText.isEmpty());
        QVERIFY2(found->detail.contains(mentions), qPrintable(found->detail));
        // Only the spoiled check is off; the rest of the working desktop still passes.
        for (const SetupChecks::Check &other : checks)
            if (other.title != check)
                QVERIFY2(other.status == Status::passed, qPrintable(other.title));
        // A macOS desktop has no session kind, tray or bus to check.
        QCOMPARE(find(checks, QStringLiteral("Supported session")).has_value(), !mac);
    }

    // The microphone passes as soon as it is heard, and fails only after listening long enough.
    void listening_data() {
        QTest::addColumn<float>("level");
        QTest::addColumn<qint64>("heardAfterMs");
        QTest::addColumn<Status>("status");
        QTest::addColumn<qint64>("decidedAfterMs");
        QTest::newRow("speech after a second") << 0.02f << qint64(1000) << Status::passed << qint64(1000);
        QTest::newRow("only a hiss") << 0.0005f << qint64(0) << Status::failed << SetupChecks::listenMs;
        QTest::newRow("never a sound") << 0.0f << qint64(0) << Status::failed << SetupChecks::listenMs;
    }
    void listening() {
        QFETCH(float, level);
        QFETCH(qint64, heardAfterMs);
        QFETCH(Status, status);
        QFETCH(qint64, decidedAfterMs);
        ManualScheduler clock;
        SetupChecks checks(SetupChecks::Desktop::x11, clock);
        checks.facts() = working();
        qint64 elapsed = 0;
        checks.listen(
            [&] {
                elapsed += SetupChecks::pollMs;
                return elapsed >= heardAfterMs ? level : 0.0f;
            },
            [] { return AudioCaptureStatus::unknown; });
        clock.advance(decidedAfterMs - SetupChecks::pollMs);
        QCOMPARE(find(checks.checks(), QStringLiteral("Microphone"))->status, Status::checking);
        clock.advance(SetupChecks::pollMs);
        QCOMPARE(find(checks.checks(), QStringLiteral("Microphone"))->status, status);
        QVERIFY(!checks.isListening());
        QCOMPARE(checks.allPassed(), status == Status::passed);
    }

    void whisperServerOnTheDefaultPort_data() {
        QTest::addColumn<QString>("server");
        QTest::addColumn<bool>("found");
        QTest::newRow("whisper") << "whisper" << true;
        QTest::newRow("another server on the port") << "ollama" << false;
        QTest::newRow("nothing listening") << "" << false;
    }
    void whisperServerOnTheDefaultPort() {
        QFETCH(QString, server);
        QFETCH(bool, found);
        FakeWhisperServer whisper;
        FakeOllamaServer ollama;
        const QUrl url = server == QLatin1String("whisper") ? whisper.url()
                         : server == QLatin1String("ollama")
                             ? ollama.url()
                             : QUrl(QStringLiteral("http://127.0.0.1:%1").arg(FakeHttpServer::closedPort()));
        QCOMPARE(syncWait(SetupChecks::whisperServerAnswers(url)), found);
    }

    // A failing check's button does what it says, and closing the window ends the first start.
    void windowOffersTheFix() {
        SetupChecks checks(SetupChecks::Desktop::x11);
        checks.facts() = workingBut([](Facts &f) { f.whisperServerFound = true; });
        OnboardingWindow window(checks, QStringLiteral("Right Alt"));
        QList<Action> chosen;
        int closed = 0;
        window.onAction = [&](Action action) { chosen.append(action); };
        window.onClose = [&] { ++closed; };
        window.show();
        QPushButton *offer = nullptr;
        for (QPushButton *button : window.findChildren<QPushButton *>())
            if (button->text() == QLatin1String("Use the whisper server"))
                offer = button;
        QVERIFY(offer);
        offer->click();
        QCOMPARE(chosen, QList<Action>{Action::useWhisperServer});

        // The offer goes once the facts change and the window is told.
        checks.facts().asr = AsrKind::whisperServer;
        checks.changed();
        window.refresh();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        for (QPushButton *button : window.findChildren<QPushButton *>())
            QVERIFY(button->text() != QLatin1String("Use the whisper server"));
        window.close();
        QCOMPARE(closed, 1);
    }
};

QTEST_MAIN(SetupChecksTest)
#include "tst_setup_checks.moc"
