#include "platform/linux/TerminalEmulators.h"

#include <QTest>

class TestTerminalEmulators : public QObject {
    Q_OBJECT

private slots:
    // The desktop's default wins only when we can read its screen; otherwise a terminal we can read
    // beats it, and an unreadable one is the last resort.
    void choosesTerminal_data() {
        QTest::addColumn<QStringList>("installed");
        QTest::addColumn<QString>("defaultTarget");
        QTest::addColumn<QStringList>("expected");
        const QString fallback = "/usr/bin/x-terminal-emulator";
        QTest::newRow("default readable")
            << QStringList{fallback, "/usr/bin/gnome-terminal", "/usr/bin/lxterminal"} << "/usr/bin/lxterminal"
            << QStringList{"/usr/bin/lxterminal", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("debian's gnome wrapper")
            << QStringList{fallback, "/usr/bin/konsole", "/usr/bin/gnome-terminal"} << "/usr/bin/gnome-terminal.wrapper"
            << QStringList{"/usr/bin/gnome-terminal", "--", "/bin/sh", "launch-1.command"};
        QTest::newRow("default is xterm")
            << QStringList{fallback, "/usr/bin/xterm", "/usr/bin/xfce4-terminal"} << "/usr/bin/lxterm"
            << QStringList{"/usr/bin/xfce4-terminal", "-x", "/bin/sh", "launch-1.command"};
        QTest::newRow("default outside the fixed paths")
            << QStringList{fallback, "/usr/bin/konsole"} << "/usr/local/bin/lxterminal"
            << QStringList{"/usr/bin/konsole", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("nothing readable") << QStringList{"/usr/bin/xterm", fallback} << "/usr/bin/lxterm"
                                          << QStringList{fallback, "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("only xterm") << QStringList{"/usr/bin/xterm"} << ""
                                    << QStringList{"/usr/bin/xterm", "-e", "/bin/sh", "launch-1.command"};
        QTest::newRow("no terminal") << QStringList{} << "" << QStringList{};
    }
    void choosesTerminal() {
        QFETCH(QStringList, installed);
        QFETCH(QString, defaultTarget);
        const auto chosen = TerminalEmulators::choose(
            [&](const QString &path) { return installed.contains(path); },
            [&](const QString &path) { return path.endsWith("x-terminal-emulator") ? defaultTarget : path; });
        QStringList command;
        if (chosen)
            command = QStringList{chosen->program} + chosen->arguments("launch-1.command");
        QTEST(command, "expected");
    }
};

QTEST_GUILESS_MAIN(TestTerminalEmulators)
#include "tst_terminal_emulators.moc"
