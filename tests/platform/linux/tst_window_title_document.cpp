#include "platform/linux/WindowTitleDocument.h"

#include <QTest>

class TestWindowTitleDocument : public QObject {
    Q_OBJECT

private slots:
    void findsPathInTitle_data() {
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("expected"); // empty: no path
        QTest::newRow("gedit") << "notes.txt (~/src/app) - gedit"
                               << "/home/me/src/app/notes.txt";
        QTest::newRow("gedit, unsaved changes") << "*notes.txt (~/src/app) - gedit"
                                                << "/home/me/src/app/notes.txt";
        QTest::newRow("gedit, spaces and parentheses in the name") << "draft (v2).md (/srv/my docs) - gedit"
                                                                   << "/srv/my docs/draft (v2).md";
        QTest::newRow("vim, modified") << "main.cpp + (~/src/app/src) - VIM"
                                       << "/home/me/src/app/src/main.cpp";
        QTest::newRow("gvim with a server number") << "main.cpp (/work/app) - GVIM1"
                                                   << "/work/app/main.cpp";
        QTest::newRow("neovim") << "main.cpp (~/src/app) - Nvim"
                                << "/home/me/src/app/main.cpp";
        QTest::newRow("code showing the path") << "/home/me/src/app/main.cpp - app - Visual Studio Code"
                                               << "/home/me/src/app/main.cpp";
        QTest::newRow("code on macOS separators, unsaved")
            << QString::fromUtf8("● ~/src/app/main.cpp — app — Visual Studio Code") << "/home/me/src/app/main.cpp";
        QTest::newRow("code showing only names") << "main.cpp - app - Visual Studio Code"
                                                 << "";
        QTest::newRow("terminal shell") << "me@laptop: ~/src/app"
                                        << "/home/me/src/app";
        QTest::newRow("terminal at home") << "me@laptop: ~"
                                          << "/home/me";
        QTest::newRow("home-like folder of another user") << "notes.txt (~bob/src) - gedit"
                                                          << "";
        QTest::newRow("browser") << "Pull request #12 - Mozilla Firefox"
                                 << "";
        QTest::newRow("a file in a relative folder") << "notes.txt (src/app) - gedit"
                                                     << "";
    }
    void findsPathInTitle() {
        QFETCH(QString, title);
        QTEST(WindowTitleDocument::path(title, "/home/me").value_or(QString()), "expected");
    }
};

QTEST_GUILESS_MAIN(TestWindowTitleDocument)
#include "tst_window_title_document.moc"
