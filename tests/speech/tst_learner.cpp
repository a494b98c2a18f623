#include "core/Scheduler.h"
#include "speech/Learner.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// Describes a model as "key=surface:count:P|-" entries in key order, so rows can state whole models.
static QString describe(const Learner::Model &model) {
    QStringList parts;
    for (auto it = model.terms.cbegin(); it != model.terms.cend(); ++it)
        parts.append(QStringLiteral("%1=%2:%3:%4")
                         .arg(it.key(), it->surface)
                         .arg(it->count)
                         .arg(it->properNoun ? QStringLiteral("P") : QStringLiteral("-")));
    return parts.join(QLatin1Char(' '));
}

class TestLearner : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    QString path() const { return m_home.filePath(QStringLiteral("learned.json")); }

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void init() { QFile::remove(path()); }

    void ingest_data() {
        QTest::addColumn<QStringList>("texts");
        QTest::addColumn<QString>("model");
        QTest::addColumn<int>("utterances");
        QTest::newRow("Alice at the Kubernetes meetup")
            << QStringList{"I met Alice at the Kubernetes meetup. Alice said hi."}
            << "alice=Alice:2:P kubernetes=Kubernetes:1:P meetup=meetup:1:- met=met:1:-" << 1;
        QTest::newRow("sentence starts, short, common and numeric words")
            << QStringList{"Wow! Zebra ran? Quokka and THE 2024 plan, 3.14 or 42."}
            << "plan=plan:1:- quokka=Quokka:1:- ran=ran:1:- wow=Wow:1:- zebra=Zebra:1:-" << 1;
        QTest::newRow("accumulates across texts, adopts the name's spelling")
            << QStringList{"kubectl rollout", "then kubectl again", "we ran Kubectl"}
            << "kubectl=Kubectl:3:P ran=ran:1:- rollout=rollout:1:-" << 3;
        QTest::newRow("decomposed and precomposed spellings are one word")
            << QStringList{QStringLiteral("ask E\u0301mile and \u00e9mile")}
            << QStringLiteral("\u00e9mile=\u00c9mile:2:P") << 1;
        QTest::newRow("typographic apostrophes")
            << QStringList{QStringLiteral("Let\u2019s ship. We can\u2019t, that\u2019s Zed\u2019s fix and Zed's test.")}
            << QStringLiteral("fix=fix:1:- ship=ship:1:- test=test:1:- zed's=Zed\u2019s:2:P") << 1;
        QTest::newRow("empty and punctuation-only texts change nothing") << QStringList{"", "... !? --"} << "" << 0;
    }
    void ingest() {
        QFETCH(QStringList, texts);
        QFETCH(QString, model);
        QFETCH(int, utterances);
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        for (const QString &text : texts)
            learner.ingest(text);
        QCOMPARE(describe(learner.model()), model);
        QCOMPARE(learner.model().utterances, utterances);
        // No tokens, no save.
        QCOMPARE(scheduler.pendingCount(), utterances > 0 ? 1u : 0u);
    }

    void offering_data() {
        QTest::addColumn<std::optional<int>>("limit");
        QTest::addColumn<int>("expected");
        QTest::newRow("limit above the ceiling") << std::optional(200) << 80;
        QTest::newRow("limit 5") << std::optional(5) << 5;
        QTest::newRow("no limit") << std::optional<int>() << 80;
    }
    void offering() {
        QFETCH(std::optional<int>, limit);
        QFETCH(int, expected);
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        for (int i = 0; i < 100; ++i)
            learner.ingest(QStringLiteral("term%1x term%1x").arg(i, 3, 10, QLatin1Char('0')));
        QCOMPARE(learner.learnedTerms(limit).size(), expected);
    }

    void offeringOrder() {
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        learner.ingest("zulu zulu yankee yankee xray xray xray once");
        learner.ingest("we know Bravo"); // a name seen once is offered
        learner.ingest("alpha alpha");
        QCOMPARE(learner.learnedTerms(), (QStringList{"xray", "alpha", "yankee", "zulu", "Bravo"}));
    }

    void debouncedSave() {
        ManualScheduler scheduler;
        {
            Learner learner(path(), scheduler);
            learner.ingest("first Quorvane");
            scheduler.advance(500);
            learner.ingest("second Quorvane");
            QCOMPARE(scheduler.pendingCount(), 1u);
            scheduler.advance(499);
            learner.flush();
            QVERIFY(!QFile::exists(path()));
            scheduler.advance(1);
            learner.flush();
            QCOMPARE(QFileInfo(path()).permissions() & 0x7077, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
            learner.ingest("third Quorvane");
        }
        // The destructor wrote the pending save.
        ManualScheduler other;
        QCOMPARE(describe(Learner(path(), other).model()), "quorvane=Quorvane:3:P third=third:1:-");
    }

    void unreadableFileGivesEmptyModel_data() {
        QTest::addColumn<QByteArray>("contents");
        QTest::newRow("not JSON") << QByteArray("{\"terms\": {");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("fractional count")
            << QByteArray(R"({"terms":{"x":{"surface":"x","count":2.5,"properNoun":false}},"utterances":1})");
        QTest::newRow("count beyond int")
            << QByteArray(R"({"terms":{"x":{"surface":"x","count":1e300,"properNoun":false}},"utterances":1})");
    }
    void unreadableFileGivesEmptyModel() {
        QFETCH(QByteArray, contents);
        QFile file(path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(contents);
        file.close();
        ManualScheduler scheduler;
        QVERIFY(Learner(path(), scheduler).model() == Learner::Model{});
    }

    void countsStopAtTheirCeiling() {
        QFile file(path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(
            R"({"terms":{"xyzzy":{"surface":"Xyzzy","count":2147483647,"properNoun":true}},"utterances":2147483647})");
        file.close();
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        learner.ingest("say xyzzy");
        QCOMPARE(describe(learner.model()), "xyzzy=Xyzzy:2147483647:P");
        QCOMPARE(learner.model().utterances, 2147483647);
    }

    void forget() {
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        learner.ingest("Kubernetes Kubernetes");
        scheduler.advance(1000);
        learner.clear();
        QVERIFY(learner.learnedTerms().isEmpty());
        scheduler.advance(1000);
        learner.flush();
        ManualScheduler other;
        QVERIFY(Learner(path(), other).model() == Learner::Model{});
    }
};

QTEST_GUILESS_MAIN(TestLearner)
#include "tst_learner.moc"
