#include "LogRecorder.h"
#include "platform/PresentingNotifier.h"

#include <QCoreApplication>
#include <QTest>
#include <QThread>
#include <thread>

class TestPresentingNotifier : public QObject {
    Q_OBJECT

private slots:
    // Logged at once from the caller's thread, shown later on the main thread, and never by a
    // notifier that is gone.
    void logsThenPresentsOnMainThread() {
        LogRecorder log;
        auto notifier = std::make_shared<PresentingNotifier>();
        QStringList shown;
        notifier->present = [&](const QString &title, const QString &body) {
            QCOMPARE(QThread::currentThread(), QCoreApplication::instance()->thread());
            shown << title + ": " + body;
        };
        std::thread([&] { notifier->notify("Paste failed", "The text is on the clipboard."); }).join();
        QCOMPARE(log.lines, QStringList{"WARN [Paste failed] The text is on the clipboard."});
        QVERIFY(shown.isEmpty());
        QCoreApplication::sendPostedEvents();
        QCOMPARE(shown, QStringList{"Paste failed: The text is on the clipboard."});

        notifier->notify("Late", "never shown");
        notifier.reset();
        QCoreApplication::sendPostedEvents();
        QCOMPARE(shown.size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestPresentingNotifier)
#include "tst_presenting_notifier.moc"
