#include "core/Log.h"
#include "core/Scheduler.h"
#include "speech/Learner.h"

#include <QFile>
#include <QJsonDocument>
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

static QString describe(const QList<Learner::Token> &tokens) {
    QStringList parts;
    for (const Learner::Token &token : tokens)
        parts.append(token.word + (token.endsSentence ? QStringLiteral("|") : QString()));
    return parts.join(QLatin1Char(' '));
}

class TestLearner : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    QString path() const { return m_home.filePath(QStringLiteral("learned.json")); }

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }
    void init() { QFile::remove(path()); }

    void tokenize_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("tokens");
        QTest::newRow("sentence marks") << "Hello, world. Next one? Yes! end"
                                        << "Hello world| Next one| Yes| end";
        QTest::newRow("joiners between word characters") << "pi is 3.14, real-time snake_case don't"
                                                         << "pi is 3.14 real-time snake_case don't";
        QTest::newRow("joiners at the edges end words") << "-dash- 'quoted' end.-"
                                                        << "dash quoted end|";
        QTest::newRow("final word unmarked") << "trailing"
                                             << "trailing";
        QTest::newRow("other punctuation splits") << "a/b(c)d;e"
                                                  << "a b c d e";
        QTest::newRow("non-Latin letters") << "Grüße 東京 Ωmega."
                                           << "Grüße 東京 Ωmega|";
    }
    void tokenize() {
        QFETCH(QString, text);
        QFETCH(QString, tokens);
        QCOMPARE(describe(Learner::tokenize(text)), tokens);
    }

    void ingest_data() {
        QTest::addColumn<QStringList>("texts");
        QTest::addColumn<QString>("model");
        QTest::addColumn<int>("utterances");
        QTest::newRow("Alice at the Kubernetes meetup")
            << QStringList{"I met Alice at the Kubernetes meetup. Alice said hi."}
            << "alice=Alice:2:P kubernetes=Kubernetes:1:P meetup=meetup:1:- met=met:1:-" << 1;
        QTest::newRow("short, common and numeric words are never learned")
            << QStringList{"Ok we are at it, the 2024 plan is 3.14 or 42 and THE Yes."} << "plan=plan:1:-" << 1;
        QTest::newRow("capital after ! or ? starts a sentence")
            << QStringList{"Wow! Zebra ran? Quokka did, then Yak-Herding."}
            << "quokka=Quokka:1:- ran=ran:1:- wow=Wow:1:- yak-herding=Yak-Herding:1:P zebra=Zebra:1:-" << 1;
        QTest::newRow("accumulates across texts, adopts the name's spelling")
            << QStringList{"kubectl rollout", "then kubectl again", "we ran Kubectl"}
            << "kubectl=Kubectl:3:P ran=ran:1:- rollout=rollout:1:-" << 3;
        QTest::newRow("decomposed capital counts as upper case")
            << QStringList{QStringLiteral("ask E\u0301mile and \u00e9mile")}
            << QStringLiteral("e\u0301mile=E\u0301mile:1:P \u00e9mile=\u00e9mile:1:-") << 1;
        QTest::newRow("empty and punctuation-only texts change nothing")
            << QStringList{"", "   ", "... !? --"} << "" << 0;
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
        QTest::addColumn<int>("termCount");
        QTest::addColumn<int>("limit"); // -1: none
        QTest::addColumn<int>("expected");
        QTest::newRow("limit above the ceiling") << 100 << 200 << 80;
        QTest::newRow("limit 5") << 100 << 5 << 5;
        QTest::newRow("no limit") << 100 << -1 << 80;
        QTest::newRow("fewer terms than the limit") << 3 << 5 << 3;
        QTest::newRow("limit 0") << 10 << 0 << 0;
    }
    void offering() {
        QFETCH(int, termCount);
        QFETCH(int, limit);
        QFETCH(int, expected);
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        for (int i = 0; i < termCount; ++i) {
            const QString word = QStringLiteral("term%1x").arg(i, 3, 10, QLatin1Char('0'));
            learner.ingest(word + QLatin1Char(' ') + word);
        }
        const QStringList terms = learner.learnedTerms(limit < 0 ? std::nullopt : std::optional<int>(limit));
        QCOMPARE(terms.size(), expected);
    }

    void offeringOrder() {
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        learner.ingest("zulu zulu yankee yankee xray xray xray once");
        learner.ingest("we know Bravo"); // a name seen once is offered
        learner.ingest("alpha alpha");
        QCOMPARE(learner.learnedTerms(), (QStringList{"xray", "alpha", "yankee", "zulu", "Bravo"}));
        QCOMPARE(learner.learnedCount(), 6);
    }

    void debouncedSave() {
        ManualScheduler scheduler;
        {
            Learner learner(path(), scheduler);
            learner.ingest("first Quorvane");
            scheduler.advance(500);
            learner.ingest("second Quorvane");
            learner.ingest("third Quorvane");
            QCOMPARE(scheduler.pendingCount(), 1u);
            scheduler.advance(499);
            learner.flush();
            QVERIFY(!QFile::exists(path()));
            scheduler.advance(1);
            learner.flush();
            QVERIFY(QFile::exists(path()));
            QCOMPARE(QFileInfo(path()).permissions() & 0x7077, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
            // After the write the next ingest schedules a new one.
            learner.ingest("fourth Quorvane");
            QCOMPARE(scheduler.pendingCount(), 1u);
        }
        // The destructor wrote the pending save.
        ManualScheduler other;
        Learner reloaded(path(), other);
        QCOMPARE(reloaded.model().utterances, 4);
        QCOMPARE(reloaded.model().terms.value("quorvane").count, 4);
        QCOMPARE(reloaded.model().terms.value("quorvane").properNoun, true);
    }

    void unreadableFile_data() {
        QTest::addColumn<QByteArray>("contents");
        QTest::newRow("not JSON") << QByteArray("{\"terms\": {");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("term of the wrong type")
            << QByteArray(R"({"terms":{"x":{"surface":1,"count":2,"properNoun":false}},"utterances":1})");
        QTest::newRow("fractional count")
            << QByteArray(R"({"terms":{"x":{"surface":"x","count":2.5,"properNoun":false}},"utterances":1})");
        QTest::newRow("missing utterances") << QByteArray(R"({"terms":{}})");
        QTest::newRow("empty file") << QByteArray();
    }
    void unreadableFile() {
        QFETCH(QByteArray, contents);
        QFile file(path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(contents);
        file.close();
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        QVERIFY(learner.model() == Learner::Model{});
    }

    void forget() {
        ManualScheduler scheduler;
        Learner learner(path(), scheduler);
        learner.ingest("Kubernetes Kubernetes");
        scheduler.advance(1000);
        QStringList lines;
        Log::setObserver([&](const QString &level, const QString &message) { lines.append(level + " " + message); });
        learner.clear();
        Log::setObserver({});
        QCOMPARE(lines, QStringList{"INFO Learned vocabulary cleared by the user."});
        QVERIFY(learner.learnedTerms().isEmpty());
        scheduler.advance(1000);
        learner.flush();
        ManualScheduler other;
        QVERIFY(Learner(path(), other).model() == Learner::Model{});
    }
};

QTEST_GUILESS_MAIN(TestLearner)
#include "tst_learner.moc"
