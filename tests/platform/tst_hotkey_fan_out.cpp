#include "ScriptedHotkeyBackend.h"
#include "platform/HotkeyFanOut.h"

#include <QTest>
#include <atomic>

namespace {

struct Heard {
    std::atomic<int> keys{0};
    std::atomic<int> disabled{0};
    std::atomic<bool> stopped{false};
    std::atomic<int> afterStop{0};

    HotkeyBackend::Events events() {
        HotkeyBackend::Events events;
        events.keyChanged = [this](int, quint64) {
            ++keys;
            if (stopped)
                ++afterStop;
        };
        events.sourceDisabled = [this] { ++disabled; };
        return events;
    }
};

} // namespace

class TestHotkeyFanOut : public QObject {
    Q_OBJECT

private slots:
    // Every started tap hears every key; the shared watcher runs exactly while any tap does.
    void tapsShareOneWatcher() {
        auto keyboard = std::make_shared<ScriptedHotkeyBackend>();
        auto fanOut = std::make_shared<HotkeyFanOut>(keyboard);
        const std::shared_ptr<HotkeyBackend> dictation = fanOut->tap(), edit = fanOut->tap();
        Heard heardDictation, heardEdit;
        QVERIFY(dictation->start(heardDictation.events()));
        QVERIFY(edit->start(heardEdit.events()));
        QCOMPARE(keyboard->starts.load(), 1);

        keyboard->change(108, 1);
        keyboard->disableSource();
        QCOMPARE(heardDictation.keys.load(), 1);
        QCOMPARE(heardEdit.keys.load(), 1);
        QCOMPARE(heardEdit.disabled.load(), 1);
        edit->reenable();
        QCOMPARE(keyboard->reenables.load(), 1);
        QCOMPARE(edit->liveFlags(), quint64(1));

        dictation->stop();
        keyboard->change(108, 0);
        QCOMPARE(heardDictation.keys.load(), 1);
        QCOMPARE(heardEdit.keys.load(), 2);
        QVERIFY(keyboard->isRunning());
        edit->stop();
        QVERIFY(!keyboard->isRunning());

        // Started again after all stopped, as when the keys are re-armed.
        QVERIFY(dictation->start(heardDictation.events()));
        QCOMPARE(keyboard->starts.load(), 2);
        QCOMPARE(keyboard->startsWhileRunning.load(), 0);
    }

    // A refusal keeps nobody listening, and a later start gets its chance.
    void refusedStartIsTriedAgain() {
        auto keyboard = std::make_shared<ScriptedHotkeyBackend>();
        auto fanOut = std::make_shared<HotkeyFanOut>(keyboard);
        const std::shared_ptr<HotkeyBackend> tap = fanOut->tap();
        Heard heard;
        keyboard->refuseStart = true;
        QVERIFY(!tap->start(heard.events()));
        QCOMPARE(tap->unavailableMessage(), "scripted refusal");
        keyboard->refuseStart = false;
        QVERIFY(tap->start(heard.events()));
        keyboard->change(108, 1);
        QCOMPARE(heard.keys.load(), 1);
    }

    // Once stop() returns, nothing reaches the tap, however the event thread is placed; the last tap
    // gone stops the watcher.
    void nothingAfterStopReturns() {
        auto keyboard = std::make_shared<ScriptedHotkeyBackend>();
        auto fanOut = std::make_shared<HotkeyFanOut>(keyboard);
        std::shared_ptr<HotkeyBackend> tap = fanOut->tap();
        Heard heard;
        QVERIFY(tap->start(heard.events()));
        std::atomic<bool> typing{true};
        std::thread keys([&] {
            for (int i = 0; typing; ++i)
                keyboard->change(108, quint64(i % 2));
        });
        QTRY_VERIFY(heard.keys > 100);
        tap->stop();
        heard.stopped = true;
        QTest::qWait(20);
        typing = false;
        keys.join();
        QCOMPARE(heard.afterStop.load(), 0);

        QVERIFY(tap->start(heard.events()));
        tap.reset();
        fanOut.reset();
        QVERIFY(!keyboard->isRunning());
    }
};

QTEST_GUILESS_MAIN(TestHotkeyFanOut)
#include "tst_hotkey_fan_out.moc"
