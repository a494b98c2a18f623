#include "LogRecorder.h"
#include "ScriptedHotkeyBackend.h"
#include "platform/PushToTalkHotkey.h"

#include <QCoreApplication>
#include <QTest>
#include <memory>

namespace {

// What a Mac keyboard reports: key codes, the generic Option/Shift flags and the per-side bits.
constexpr int rightOption = 61, leftOption = 58, leftShift = 56, rightCommand = 54;
constexpr quint64 optionFlag = 0x80000, rightOptionBit = 0x40, leftOptionBit = 0x20, shiftFlag = 0x20002;
constexpr quint64 rightOptionDown = optionFlag | rightOptionBit;
constexpr quint64 rightCommandDown = 0x100010;

using KeyEvents = QList<QPair<int, quint64>>;

const QString lostKeyUp = QStringLiteral("WARN Key-up was never delivered (tap likely interrupted); recovering.");

// A started hotkey on the scripted keyboard whose callbacks are written down in order.
struct Rig {
    explicit Rig(PushToTalkKey key = PushToTalkKey::rightOption)
        : hotkey(std::make_unique<PushToTalkHotkey>(key, backend, clock)) {
        hotkey->onPress = [this] { calls << QStringLiteral("press"); };
        hotkey->onRelease = [this] { calls << QStringLiteral("release"); };
        hotkey->start();
    }
    // Hands posted callbacks to the main thread; everything posted so far has been posted.
    QStringList delivered() {
        QCoreApplication::processEvents();
        return calls;
    }

    LogRecorder log;
    ManualScheduler clock;
    std::shared_ptr<ScriptedHotkeyBackend> backend = std::make_shared<ScriptedHotkeyBackend>();
    QStringList calls;
    std::unique_ptr<PushToTalkHotkey> hotkey;
};

} // namespace

class PushToTalkHotkeyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void onlyChangesOfTheWatchedKeyAreReported_data() {
        QTest::addColumn<PushToTalkKey>("key");
        QTest::addColumn<KeyEvents>("events");
        QTest::addColumn<QStringList>("expected");
        const QStringList pressRelease{QStringLiteral("press"), QStringLiteral("release")};
        QTest::newRow("right option") << PushToTalkKey::rightOption
                                      << KeyEvents{{rightOption, rightOptionDown}, {rightOption, 0}} << pressRelease;
        QTest::newRow("left option never triggers")
            << PushToTalkKey::rightOption << KeyEvents{{leftOption, optionFlag | leftOptionBit}, {leftOption, 0}}
            << QStringList{};
        QTest::newRow("right let go while left held")
            << PushToTalkKey::rightOption
            << KeyEvents{{rightOption, rightOptionDown}, {rightOption, optionFlag | leftOptionBit}} << pressRelease;
        QTest::newRow("shift while held") << PushToTalkKey::rightOption
                                          << KeyEvents{{rightOption, rightOptionDown},
                                                       {leftShift, rightOptionDown | shiftFlag},
                                                       {leftShift, rightOptionDown},
                                                       {rightOption, 0}}
                                          << pressRelease;
        QTest::newRow("bit unchanged") << PushToTalkKey::rightOption
                                       << KeyEvents{{rightOption, rightOptionDown}, {rightOption, rightOptionDown}}
                                       << QStringList{QStringLiteral("press")};
        QTest::newRow("fn") << PushToTalkKey::fn << KeyEvents{{63, 0x800000}, {63, 0}} << pressRelease;
    }
    void onlyChangesOfTheWatchedKeyAreReported() {
        QFETCH(PushToTalkKey, key);
        QFETCH(KeyEvents, events);
        Rig rig(key);
        for (const auto &[code, flags] : events)
            rig.backend->change(code, flags);
        QTEST(rig.delivered(), "expected");
    }

    void watchdogReleasesALostKeyUpOnce_data() {
        QTest::addColumn<qint64>("liveUpAtMs");
        QTest::newRow("lost at once") << qint64(0);
        QTest::newRow("lost before the first check") << qint64(600);
        QTest::newRow("lost just after a check") << qint64(1151);
        QTest::newRow("lost after a long hold") << qint64(1500);
    }
    void watchdogReleasesALostKeyUpOnce() {
        QFETCH(qint64, liveUpAtMs);
        Rig rig;
        rig.backend->change(rightOption, rightOptionDown);
        qint64 recoveredAt = -1;
        while (rig.clock.nowMs() < 3000) {
            if (rig.clock.nowMs() == liveUpAtMs)
                rig.backend->live = 0; // the key went up but no event came
            rig.clock.advance(1);
            if (recoveredAt < 0 && rig.log.lines.contains(lostKeyUp))
                recoveredAt = rig.clock.nowMs();
        }
        QVERIFY(recoveredAt >= std::max<qint64>(900, liveUpAtMs));
        QVERIFY(recoveredAt <= std::max<qint64>(900, liveUpAtMs + 250));
        QCOMPARE(rig.log.lines.count(lostKeyUp), 1);
        QCOMPARE(rig.delivered(), (QStringList{QStringLiteral("press"), QStringLiteral("release")}));
    }

    void realKeyUpRacingTheWatchdogReleasesOnce() {
        for (int round = 0; round < 100; ++round) {
            Rig rig;
            rig.backend->change(rightOption, rightOptionDown);
            rig.backend->live = 0;
            std::thread keyUp = rig.backend->changeFromThread(rightOption, 0);
            rig.clock.advance(900);
            keyUp.join();
            QCOMPARE(rig.delivered(), (QStringList{QStringLiteral("press"), QStringLiteral("release")}));
        }
    }

    void aForgottenKeyGetsNoReleaseAndTheNextOneWorks_data() {
        QTest::addColumn<bool>("restart");
        QTest::addColumn<int>("nextCode");
        QTest::addColumn<quint64>("nextDown");
        QTest::newRow("updateKey") << false << rightCommand << rightCommandDown;
        QTest::newRow("stop and start") << true << rightOption << rightOptionDown;
    }
    void aForgottenKeyGetsNoReleaseAndTheNextOneWorks() {
        QFETCH(bool, restart);
        QFETCH(int, nextCode);
        QFETCH(quint64, nextDown);
        Rig rig;
        rig.backend->change(rightOption, rightOptionDown);
        if (restart) {
            rig.hotkey->stop();
            rig.hotkey->start();
        } else {
            rig.hotkey->updateKey(PushToTalkKey::rightCommand);
        }
        rig.backend->change(rightOption, 0);
        rig.clock.advance(2000); // no watchdog outlives the forgotten press
        QCOMPARE(rig.delivered(), QStringList{QStringLiteral("press")});
        QVERIFY(!rig.log.lines.contains(lostKeyUp));
        rig.backend->change(nextCode, nextDown);
        rig.backend->change(nextCode, 0);
        QCOMPARE(rig.delivered(),
                 (QStringList{QStringLiteral("press"), QStringLiteral("press"), QStringLiteral("release")}));
    }

    void start_data() {
        QTest::addColumn<bool>("refuse");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("armed") << false
                               << QStringLiteral("INFO Hotkey armed · hold Right Option (⌥) (scripted keyboard)");
        QTest::newRow("refused") << true << QStringLiteral("ERROR scripted refusal");
    }
    void start() {
        QFETCH(bool, refuse);
        QFETCH(QString, logLine);
        LogRecorder log;
        auto backend = std::make_shared<ScriptedHotkeyBackend>();
        backend->refuseStart = refuse;
        PushToTalkHotkey hotkey(PushToTalkKey::rightOption, backend);
        QCOMPARE(hotkey.start(), !refuse);
        QCOMPARE(log.lines, QStringList{logLine});
    }

    void startingTwiceLeavesOneRunningBackend() {
        Rig rig;
        QVERIFY(rig.hotkey->start());
        QCOMPARE(rig.backend->starts, 2);
        QCOMPARE(rig.backend->startsWhileRunning, 0);
        QVERIFY(rig.backend->isRunning());
    }

    void aDisabledSourceIsReenabled() {
        Rig rig;
        rig.backend->disableSource();
        QCOMPARE(rig.backend->reenables, 1);
        QCOMPARE(rig.log.lines.last(), QStringLiteral("WARN The system disabled our event tap; re-enabled it."));
    }

    void destroyingWithAPressInFlight_data() {
        QTest::addColumn<bool>("fromThread");
        QTest::newRow("press posted") << false;
        QTest::newRow("press racing the destruction") << true;
    }
    void destroyingWithAPressInFlight() {
        QFETCH(bool, fromThread);
        Rig rig;
        std::thread press;
        if (fromThread)
            press = rig.backend->changeFromThread(rightOption, rightOptionDown);
        else
            rig.backend->change(rightOption, rightOptionDown);
        rig.backend->live = 0;
        rig.hotkey.reset();
        if (press.joinable())
            press.join();
        rig.clock.advance(2000);
        QCOMPARE(rig.delivered(), QStringList{});
        QVERIFY(!rig.backend->isRunning());
    }
};

QTEST_GUILESS_MAIN(PushToTalkHotkeyTest)
#include "tst_push_to_talk_hotkey.moc"
