#include "core/Async.h"
#include "platform/linux/wayland/WaylandHandoffTerminal.h"

#include <QDir>
#include <QTest>

Q_DECLARE_METATYPE(std::optional<CompositorWindows>)

class WaylandHandoffTerminalTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // Only a window that appeared since the terminal was asked for one can be the agent's: an older
    // window of the same terminal process must not take the paste.
    void tellsTheNewWindow_data() {
        QTest::addColumn<std::optional<CompositorWindows>>("atOpen");
        QTest::addColumn<std::optional<CompositorWindows>>("now");
        QTest::addColumn<bool>("inFront");
        const CompositorWindows before{{"4", "7"}, "7"};
        QTest::newRow("the new window") << std::optional(before)
                                        << std::optional(CompositorWindows{{"4", "7", "9"}, "9"}) << true;
        QTest::newRow("an older window") << std::optional(before)
                                         << std::optional(CompositorWindows{{"4", "7", "9"}, "4"}) << false;
        QTest::newRow("nothing focused") << std::optional(before)
                                         << std::optional(CompositorWindows{{"4", "7", "9"}, ""}) << false;
        QTest::newRow("no list when the terminal opened")
            << std::optional<CompositorWindows>() << std::optional(CompositorWindows{{"9"}, "9"}) << false;
        QTest::newRow("no list now") << std::optional(before) << std::optional<CompositorWindows>() << false;
    }
    void tellsTheNewWindow() {
        QFETCH(std::optional<CompositorWindows>, atOpen);
        QFETCH(std::optional<CompositorWindows>, now);
        std::optional<CompositorWindows> listed = atOpen;
        // A terminal that runs nothing: the window list is what this test is about.
        WaylandHandoffTerminal terminal([&] { return listed; }, {},
                                        TerminalEmulator{QStringLiteral("/bin/true"), {}, true});
        QCOMPARE(syncWait(terminal.open(QDir::tempPath() + QStringLiteral("/launch-1.command"))).outcome,
                 TerminalOpening::Outcome::opened);
        listed = now;
        QTEST(terminal.agentWindowInFront(FrontmostApp{}), "inFront");
    }
};

QTEST_GUILESS_MAIN(WaylandHandoffTerminalTest)
#include "tst_wayland_handoff_terminal.moc"
