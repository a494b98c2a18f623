#include "platform/linux/X11HotkeyBackend.h"

#include <QProcess>
#include <QTest>
#include <mutex>

using Events = QList<QPair<int, quint64>>;

namespace {

// Presses and releases keys by keycode through XTest, as a real keyboard would reach the server.
void xdotool(const QStringList &arguments) {
    QCOMPARE(QProcess::execute(QStringLiteral("xdotool"), arguments), 0);
}

class Recorder {
public:
    HotkeyBackend::Events events() {
        return {[this](int code, quint64 flags) {
                    std::lock_guard lock(m_lock);
                    m_keys << qMakePair(code, flags);
                },
                [this] {
                    std::lock_guard lock(m_lock);
                    ++m_disabled;
                }};
    }
    Events keys() {
        std::lock_guard lock(m_lock);
        return m_keys;
    }
    int disabled() {
        std::lock_guard lock(m_lock);
        return m_disabled;
    }

private:
    std::mutex m_lock;
    Events m_keys;
    int m_disabled = 0;
};

// Right Super pressed and released after a test's keys: once its release is seen, everything
// before it has been delivered too.
const QStringList marker = {QStringLiteral("keydown"), QStringLiteral("134"), QStringLiteral("keyup"),
                            QStringLiteral("134")};

Events untilMarker(Recorder &recorder) {
    const QPair<int, quint64> release(134, 0);
    if (!QTest::qWaitFor([&] { return recorder.keys().contains(release); }))
        return {{-1, 0}};
    Events keys = recorder.keys();
    keys.resize(keys.lastIndexOf(release) - 1);
    return keys;
}

} // namespace

class X11HotkeyDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() {
        // Presses keys: only on the throwaway display, never in the user's session.
        if (qEnvironmentVariableIsEmpty("QUORVANE_DESKTOP") || qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs the X display of scripts/headless-desktop");
    }

    void modeKeysAreReportedWithTheFlagsOfTheKeysDown_data() {
        QTest::addColumn<QStringList>("keys");
        QTest::addColumn<Events>("expected");
        QTest::newRow("right alt") << QStringList{"keydown", "108", "keyup", "108"} << Events{{108, 1}, {108, 0}};
        QTest::newRow("left alt and ordinary keys are not mode keys")
            << QStringList{"keydown", "64", "key", "38", "keyup", "64", "keydown", "37", "keyup", "37"} << Events{};
        QTest::newRow("right ctrl held across right alt")
            << QStringList{"keydown", "105", "keydown", "108", "keyup", "105", "keyup", "108"}
            << Events{{105, 4}, {108, 5}, {105, 1}, {108, 0}};
    }
    void modeKeysAreReportedWithTheFlagsOfTheKeysDown() {
        QFETCH(QStringList, keys);
        Recorder recorder;
        X11HotkeyBackend backend;
        QVERIFY(backend.start(recorder.events()));
        xdotool(keys + marker);
        QTEST(untilMarker(recorder), "expected");
    }

    void liveFlagsFollowTheKeyboard_data() {
        QTest::addColumn<QStringList>("held");
        QTest::addColumn<quint64>("expected");
        QTest::newRow("nothing") << QStringList{} << quint64(0);
        QTest::newRow("left alt") << QStringList{"64"} << quint64(0);
        QTest::newRow("right alt and right ctrl") << QStringList{"108", "105"} << quint64(5);
        QTest::newRow("right super") << QStringList{"134"} << quint64(2);
    }
    void liveFlagsFollowTheKeyboard() {
        QFETCH(QStringList, held);
        QFETCH(quint64, expected);
        X11HotkeyBackend backend;
        QStringList down, up;
        for (const QString &key : held) {
            down << QStringLiteral("keydown") << key;
            up << QStringLiteral("keyup") << key;
        }
        if (!down.isEmpty())
            xdotool(down);
        const quint64 live = backend.liveFlags();
        if (!up.isEmpty())
            xdotool(up);
        QCOMPARE(live, expected);
        QTRY_COMPARE(backend.liveFlags(), quint64(0));
    }

    void aBrokenConnectionIsReportedAndReenableReconnects_data() {
        QTest::addColumn<bool>("fromEventThread");
        QTest::newRow("re-enabled at once, from the event thread") << true;
        QTest::newRow("re-enabled later, from another thread") << false;
    }
    void aBrokenConnectionIsReportedAndReenableReconnects() {
        QFETCH(bool, fromEventThread);
        Recorder recorder;
        X11HotkeyBackend backend;
        HotkeyBackend::Events events = recorder.events();
        if (fromEventThread)
            events.sourceDisabled = [&backend, disabled = events.sourceDisabled] {
                disabled();
                backend.reenable();
            };
        QVERIFY(backend.start(events));
        backend.breakConnection();
        QTRY_COMPARE(recorder.disabled(), 1);
        if (!fromEventThread)
            backend.reenable();
        // The new connection hears keys from some moment after reenable(); press until it does.
        const auto heard = [&] {
            QProcess::execute(QStringLiteral("xdotool"), {"keydown", "108", "keyup", "108"});
            return recorder.keys().contains(qMakePair(108, quint64(0)));
        };
        QTRY_VERIFY(heard());
        QCOMPARE(recorder.disabled(), 1);
    }

    void aStoppedBackendHearsNothing() {
        Recorder stopped, listening;
        X11HotkeyBackend first, second;
        QVERIFY(first.start(stopped.events()));
        QVERIFY(second.start(listening.events()));
        first.stop();
        xdotool(QStringList{"keydown", "108", "keyup", "108"} + marker);
        QCOMPARE(untilMarker(listening), (Events{{108, 1}, {108, 0}}));
        QCOMPARE(stopped.keys(), Events{});
    }

    void withoutADisplayStartFailsAndSaysWhy() {
        const QByteArray display = qgetenv("DISPLAY");
        qputenv("DISPLAY", ":4242");
        X11HotkeyBackend backend;
        const bool started = backend.start({});
        qputenv("DISPLAY", display);
        QVERIFY(!started);
        QVERIFY(backend.unavailableMessage().contains(QStringLiteral("X display")));
    }
};

QTEST_GUILESS_MAIN(X11HotkeyDesktopTest)
#include "tst_x11_hotkey_desktop.moc"
