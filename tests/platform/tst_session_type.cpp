#include "platform/SessionType.h"

#include <QTest>

using Kind = SessionType::Kind;
using Services = SessionType::WaylandServices;

Q_DECLARE_METATYPE(SessionType::Kind)
Q_DECLARE_METATYPE(SessionType::WaylandServices)

class SessionTypeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void detect_data() {
        QTest::addColumn<QString>("declared");
        QTest::addColumn<QString>("waylandDisplay");
        QTest::addColumn<QString>("display");
        QTest::addColumn<Kind>("kind");
        QTest::newRow("x11") << "x11"
                             << ""
                             << ":0" << Kind::x11;
        // XWayland's DISPLAY reaches none of the native windows.
        QTest::newRow("wayland with XWayland") << "wayland"
                                               << "wayland-0"
                                               << ":0" << Kind::wayland;
        QTest::newRow("wayland socket, undeclared") << ""
                                                    << "wayland-1"
                                                    << ":1" << Kind::wayland;
        QTest::newRow("declared in another case") << "Wayland"
                                                  << ""
                                                  << ":0" << Kind::wayland;
        QTest::newRow("X started by hand from a console") << "tty"
                                                          << ""
                                                          << ":0" << Kind::x11;
        QTest::newRow("console") << "tty"
                                 << ""
                                 << "" << Kind::none;
        QTest::newRow("nothing") << ""
                                 << ""
                                 << "" << Kind::none;
    }
    void detect() {
        QFETCH(QString, declared);
        QFETCH(QString, waylandDisplay);
        QFETCH(QString, display);
        QTEST(SessionType::detect(declared, waylandDisplay, display), "kind");
    }

    // Each missing piece is named once, with what to do; what is there is not mentioned.
    void waylandGapsNameWhatIsMissing_data() {
        QTest::addColumn<Services>("services");
        QTest::addColumn<QStringList>("named");
        QTest::newRow("everything") << Services{true, true, true, true} << QStringList{};
        QTest::newRow("no compositor") << Services{false, false, false, false} << QStringList{"could not be reached"};
        QTest::newRow("no virtual keyboard") << Services{true, true, false, true} << QStringList{"no virtual keyboard"};
        // Without the clipboard the keyboard has nothing to paste: only the clipboard is named.
        QTest::newRow("no clipboard control") << Services{true, false, true, true} << QStringList{"no XWayland"};
        QTest::newRow("no clipboard control, XWayland's clipboard instead")
            << Services{true, false, false, true, true} << QStringList{"through XWayland", "no virtual keyboard"};
        // GNOME and KDE: both through the desktop portal's remote desktop session.
        QTest::newRow("portal keyboard and clipboard")
            << Services{true, false, false, true, true, true, true} << QStringList{};
        QTest::newRow("portal keyboard, clipboard through XWayland")
            << Services{true, false, false, true, true, true, false} << QStringList{"through XWayland"};
        QTest::newRow("portal keyboard, nowhere to put the text")
            << Services{true, false, false, true, false, true, false} << QStringList{"no XWayland"};
        QTest::newRow("neither, and no window tree")
            << Services{true, false, false, false} << QStringList{"no XWayland", "no sway IPC socket or Hyprland"};
    }
    void waylandGapsNameWhatIsMissing() {
        QFETCH(Services, services);
        QFETCH(QStringList, named);
        const QStringList gaps = SessionType::waylandGaps(services);
        QCOMPARE(gaps.size(), named.size());
        for (qsizetype i = 0; i < gaps.size(); ++i)
            QVERIFY2(gaps[i].contains(named[i]), qPrintable(gaps[i]));
    }
};

QTEST_GUILESS_MAIN(SessionTypeTest)
#include "tst_session_type.moc"
