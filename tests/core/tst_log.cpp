#include "core/Log.h"
#include "core/Paths.h"
#include "core/RotatingLogWriter.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

class LogTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineFormat_data() {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("line");
        QTest::newRow("plain") << "Hotkey armed"
                               << "09:05:07.042 [INFO] Hotkey armed\n";
        QTest::newRow("two lines") << "first\nsecond"
                                   << "09:05:07.042 [INFO] first second\n";
        QTest::newRow("white space around breaks") << "first  \r\n\n\t second"
                                                   << "09:05:07.042 [INFO] first second\n";
        QTest::newRow("unicode separators") << "a\u2028b\u0085c"
                                            << "09:05:07.042 [INFO] a b c\n";
        QTest::newRow("inner spaces kept") << "a  b"
                                           << "09:05:07.042 [INFO] a  b\n";
    }
    void lineFormat() {
        QFETCH(QString, message);
        QTEST(Log::formatLine(QTime(9, 5, 7, 42), QStringLiteral("INFO"), message), "line");
    }

    void writesToTheDataDirectory() {
        QTemporaryDir home;
        qputenv("QUORVANE_HOME", home.path().toUtf8());
        Log::warn(QStringLiteral("Something\nhappened"));
        Log::flush();
        QFile file(Paths::file(QStringLiteral("quorvane.log")));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray content = file.readAll();
        QVERIFY2(content.endsWith(" [WARN] Something happened\n"), content.constData());
        QCOMPARE(QFile::permissions(file.fileName()) & (QFileDevice::ReadGroup | QFileDevice::ReadOther), 0);
    }

    void rotationKeepsTheLiveFileAndTwoBackups() {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("quorvane.log"));
        RotatingLogWriter writer(path, 100, 2);
        for (int i = 0; i < 50; ++i)
            writer.append(QByteArray::number(i).rightJustified(39, '.') + '\n'); // 40 bytes: two per file
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files, QDir::Name),
                 (QStringList{"quorvane.log", "quorvane.log.1", "quorvane.log.2"}));
        auto read = [](const QString &name) {
            QFile file(name);
            return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        };
        // Newest lines live, the two files before them in backups 1 and 2.
        QVERIFY(read(path).startsWith(QByteArray("48").rightJustified(39, '.')));
        QVERIFY(read(path + ".1").startsWith(QByteArray("46").rightJustified(39, '.')));
        QVERIFY(read(path + ".2").startsWith(QByteArray("44").rightJustified(39, '.')));
        for (const QString &name : {path, path + ".1", path + ".2"})
            QVERIFY(QFileInfo(name).size() <= 100);
    }

    void oversizedEntryStillWritten() {
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("x.log"));
        RotatingLogWriter writer(path, 10, 2);
        writer.append(QByteArray(25, 'a'));
        writer.append(QByteArray(25, 'b'));
        QCOMPARE(QFileInfo(path).size(), 25);
        QCOMPARE(QFileInfo(path + ".1").size(), 25);
    }
};

QTEST_GUILESS_MAIN(LogTest)
#include "tst_log.moc"
