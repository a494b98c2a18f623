#include "platform/linux/DesktopEntries.h"
#include "platform/linux/LinuxAppRules.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

void writeEntry(const QString &dataDir, const QString &relativePath, const QByteArray &body) {
    const QString path = QDir(dataDir).filePath(QStringLiteral("applications/") + relativePath);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(body);
}

} // namespace

class DesktopEntriesTest : public QObject {
    Q_OBJECT
private slots:
    void matchesWindowsToTheirApplications_data() {
        QTest::addColumn<QString>("applicationID");
        QTest::addColumn<QString>("wmInstance");
        QTest::addColumn<QString>("wmClass");
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("name");
        QTest::newRow("declared application id") << "org.gnome.Terminal"
                                                 << "gnome-terminal-server"
                                                 << "Gnome-terminal"
                                                 << "org.gnome.Terminal"
                                                 << "Terminal";
        QTest::newRow("KDE desktop file name") << "org.kde.konsole.desktop"
                                               << "konsole"
                                               << "konsole"
                                               << "org.kde.konsole"
                                               << "Konsole";
        QTest::newRow("StartupWMClass, any case") << ""
                                                  << "xterm"
                                                  << "xterm"
                                                  << "debian-xterm"
                                                  << "XTerm";
        QTest::newRow("id equal to the class") << ""
                                               << "code"
                                               << "Code"
                                               << "code"
                                               << "Visual Studio Code";
        QTest::newRow("subfolder joins with a dash") << ""
                                                     << "thing"
                                                     << "kde-thing"
                                                     << "kde-thing"
                                                     << "Thing";
        QTest::newRow("the user's own entry wins") << ""
                                                   << "slack"
                                                   << "Slack"
                                                   << "slack"
                                                   << "Slack (mine)";
        QTest::newRow("unknown") << ""
                                 << "nothing"
                                 << "Nothing"
                                 << ""
                                 << "";
    }
    void matchesWindowsToTheirApplications() {
        QFETCH(QString, applicationID);
        QFETCH(QString, wmInstance);
        QFETCH(QString, wmClass);
        QFETCH(QString, id);
        QFETCH(QString, name);
        QTemporaryDir user, system;
        writeEntry(system.path(), QStringLiteral("org.gnome.Terminal.desktop"),
                   "[Desktop Entry]\nName=Terminal\nName[de]=Terminal DE\n");
        writeEntry(system.path(), QStringLiteral("org.kde.konsole.desktop"), "[Desktop Entry]\nName=Konsole\n");
        writeEntry(system.path(), QStringLiteral("debian-xterm.desktop"),
                   "[Desktop Entry]\nName=XTerm\nStartupWMClass=XTerm\n[Desktop Action new]\nName=New\n");
        writeEntry(system.path(), QStringLiteral("code.desktop"), "[Desktop Entry]\nName=Visual Studio Code\n");
        writeEntry(system.path(), QStringLiteral("kde/thing.desktop"), "[Desktop Entry]\nName=Thing\n");
        writeEntry(system.path(), QStringLiteral("slack.desktop"), "[Desktop Entry]\nName=Slack\n");
        writeEntry(user.path(), QStringLiteral("slack.desktop"), "[Desktop Entry]\nName=Slack (mine)\n");
        writeEntry(system.path(), QStringLiteral("nameless.desktop"), "[Desktop Entry]\nExec=nothing\n");

        const DesktopEntries entries({user.path(), system.path()});
        const auto match = entries.match({applicationID, wmInstance, wmClass});
        QCOMPARE(match ? match->id : QString(), id);
        QCOMPARE(match ? match->name : QString(), name);
    }

    // The desktop's names reach the same styles as the default rules' macOS names.
    void linuxApplicationsGetTheDefaultStyles_data() {
        QTest::addColumn<QString>("identity");
        QTest::addColumn<QString>("macBundleID");
        QTest::newRow("GNOME Terminal") << "org.gnome.Terminal"
                                        << "com.apple.Terminal";
        QTest::newRow("xterm's entry") << "debian-xterm"
                                       << "com.apple.Terminal";
        QTest::newRow("Slack flatpak") << "com.slack.Slack"
                                       << "com.tinyspeck.slackmacgap";
        QTest::newRow("Thunderbird") << "org.mozilla.Thunderbird"
                                     << "com.apple.mail";
        QTest::newRow("VS Code") << "code"
                                 << "com.microsoft.VSCode";
        QTest::newRow("Signal") << "signal-desktop"
                                << "com.apple.MobileSMS";
        QTest::newRow("no rule") << "org.gnome.gedit"
                                 << "";
    }
    void linuxApplicationsGetTheDefaultStyles() {
        QFETCH(QString, identity);
        QFETCH(QString, macBundleID);
        const auto expected =
            macBundleID.isEmpty() ? std::nullopt : AppRule::styleFor(Config::defaultAppRules(), macBundleID);
        QCOMPARE(AppRule::styleFor(linuxAppRules(), identity), expected);
    }
};

QTEST_GUILESS_MAIN(DesktopEntriesTest)
#include "tst_desktop_entries.moc"
