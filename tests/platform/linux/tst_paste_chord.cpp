#include "platform/linux/PasteChord.h"

#include <QTest>

Q_DECLARE_METATYPE(PasteChord)

class PasteChordTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void chordFollowsTheDestination_data() {
        QTest::addColumn<QString>("applicationClass");
        QTest::addColumn<QString>("instance");
        QTest::addColumn<PasteChord>("chord");
        QTest::newRow("editor") << "Gedit"
                                << "gedit" << PasteChord::ctrlV;
        QTest::newRow("unknown") << ""
                                 << "" << PasteChord::ctrlV;
        QTest::newRow("X11 terminal by class, any case") << "Gnome-terminal"
                                                         << "" << PasteChord::ctrlShiftV;
        QTest::newRow("terminal known only by instance") << "Unknown"
                                                         << "konsole" << PasteChord::ctrlShiftV;
        QTest::newRow("Wayland app_id") << "org.gnome.Terminal"
                                        << "org.gnome.Terminal" << PasteChord::ctrlShiftV;
        QTest::newRow("foot on Wayland") << "foot"
                                         << "foot" << PasteChord::ctrlShiftV;
        QTest::newRow("xterm pastes PRIMARY") << "XTerm"
                                              << "xterm" << PasteChord::shiftInsert;
    }
    void chordFollowsTheDestination() {
        QFETCH(QString, applicationClass);
        QFETCH(QString, instance);
        QTEST(pasteChordFor(applicationClass, instance), "chord");
    }
};

QTEST_GUILESS_MAIN(PasteChordTest)
#include "tst_paste_chord.moc"
