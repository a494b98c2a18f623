#include "TempGitRepository.h"
#include "platform/linux/X11FocusedDocumentSource.h"
#include "platform/linux/X11FrontmostApp.h"

#include <QFileInfo>
#include <QProcess>
#include <QTest>

// A terminal whose title shows its folder names the document the repository lookup starts from.
class TestFocusedDocumentDesktop : public QObject {
    Q_OBJECT

private slots:
    void readsPathFromActiveWindowTitle() {
        if (qEnvironmentVariableIsEmpty("DISPLAY"))
            QSKIP("needs an X11 desktop (DISPLAY is unset)");
        if (!QFileInfo("/usr/bin/xterm").isExecutable())
            QSKIP("needs xterm");
        TempGitRepository repo("it's (here)");
        QVERIFY(repo.isValid());
        QProcess xterm;
        xterm.start("/usr/bin/xterm", {"-T", "me@host: " + repo.root() + "/src", "-e", "/bin/sleep", "20"});
        QVERIFY(xterm.waitForStarted());
        X11FrontmostApp frontmost;
        QTRY_VERIFY_WITH_TIMEOUT(frontmost.frontmostApp().processID == qint32(xterm.processId()), 5000);

        X11FocusedDocumentSource documents("/home/me");
        QCOMPARE(documents.focusedDocumentPath(qint32(xterm.processId())), std::optional(repo.root() + "/src"));
        // Another process's window is not read as this one's.
        QCOMPARE(documents.focusedDocumentPath(qint32(xterm.processId()) + 100000), std::nullopt);
        xterm.kill();
        xterm.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(TestFocusedDocumentDesktop)
#include "tst_focused_document_desktop.moc"
