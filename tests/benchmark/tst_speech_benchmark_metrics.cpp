#include "benchmark/SpeechBenchmarkMetrics.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTest>

using namespace SpeechBenchmarkMetrics;

Q_DECLARE_METATYPE(SpeechBenchmarkMetrics::EditCounts)

namespace {

// The alignment as a whole table, written as plainly as possible.
EditCounts fullTable(const QStringList &reference, const QStringList &hypothesis) {
    const qsizetype rows = reference.size() + 1;
    const qsizetype columns = hypothesis.size() + 1;
    QList<QList<EditCounts>> table(rows, QList<EditCounts>(columns));
    for (qsizetype j = 0; j < columns; ++j)
        table[0][j] = EditCounts{0, j, 0};
    for (qsizetype i = 0; i < rows; ++i)
        table[i][0] = EditCounts{0, 0, i};
    for (qsizetype i = 1; i < rows; ++i) {
        for (qsizetype j = 1; j < columns; ++j) {
            if (reference[i - 1] == hypothesis[j - 1]) {
                table[i][j] = table[i - 1][j - 1];
                continue;
            }
            EditCounts substitution = table[i - 1][j - 1];
            EditCounts deletion = table[i - 1][j];
            EditCounts insertion = table[i][j - 1];
            ++substitution.substitutions;
            ++deletion.deletions;
            ++insertion.insertions;
            if (insertion.total() < substitution.total() && insertion.total() < deletion.total())
                table[i][j] = insertion;
            else if (deletion.total() < substitution.total())
                table[i][j] = deletion;
            else
                table[i][j] = substitution;
        }
    }
    return table[rows - 1][columns - 1];
}

} // namespace

class SpeechBenchmarkMetricsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void normalization_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("normalized");
        QTest::newRow("curly apostrophe and full stop") << "Don’t stop."
                                                        << "don't stop";
        QTest::newRow("left quote too") << "‘Hello’ there"
                                        << "hello there";
        QTest::newRow("quoted word") << "'Hello'"
                                     << "hello";
        QTest::newRow("hyphens split") << "rock-n-roll"
                                       << "rock n roll";
        QTest::newRow("lone apostrophe vanishes") << "a ' b ''"
                                                  << "a b";
        QTest::newRow("inner apostrophes kept") << "''rock'n'roll''"
                                                << "rock'n'roll";
        QTest::newRow("accents and width") << "Café ＡＢＣ"
                                           << "cafe abc";
        QTest::newRow("digits kept as digits") << "I have 3 cats"
                                               << "i have 3 cats";
        QTest::newRow("double quotes are punctuation") << "“quoted”"
                                                       << "quoted";
        QTest::newRow("cyrillic") << "Ёлка, ЁЖ!"
                                  << "елка еж";
        // The voiced mark of で is a combining mark, so diacritic folding removes it.
        QTest::newRow("cjk run is one token") << "日本語です。はい"
                                              << "日本語てす はい";
        QTest::newRow("combining marks stay in the token") << "n\u0303o"
                                                           << "no";
        QTest::newRow("only punctuation") << " ?! — "
                                          << "";
        QTest::newRow("emoji separates") << "hi🙂there"
                                         << "hi there";
        QTest::newRow("crlf") << "one\r\ntwo"
                              << "one two";
    }
    void normalization() {
        QFETCH(QString, text);
        QTEST(normalize(text), "normalized");
    }

    void alignmentTieBreaks_data() {
        QTest::addColumn<QStringList>("reference");
        QTest::addColumn<QStringList>("hypothesis");
        QTest::addColumn<EditCounts>("counts");
        QTest::newRow("substitution beats deletion")
            << QStringList{"a", "b"} << QStringList{"c"} << EditCounts{1, 0, 1};
        QTest::newRow("substitution beats insertion")
            << QStringList{"a"} << QStringList{"b", "c"} << EditCounts{1, 1, 0};
        QTest::newRow("empty reference") << QStringList{} << QStringList{"x", "y"} << EditCounts{0, 2, 0};
        QTest::newRow("empty hypothesis") << QStringList{"x", "y", "z"} << QStringList{} << EditCounts{0, 0, 3};
        QTest::newRow("both empty") << QStringList{} << QStringList{} << EditCounts{};
        QTest::newRow("pure insertion in the middle")
            << QStringList{"a", "c"} << QStringList{"a", "b", "c"} << EditCounts{0, 1, 0};
        QTest::newRow("pure deletion at the end")
            << QStringList{"a", "b", "c"} << QStringList{"a", "b"} << EditCounts{0, 0, 1};
        QTest::newRow("shifted sequence")
            << QStringList{"x", "a", "b", "c"} << QStringList{"a", "b", "c", "y"} << EditCounts{0, 1, 1};
        QTest::newRow("case-sensitive tokens") << QStringList{"A"} << QStringList{"a"} << EditCounts{1, 0, 0};
    }
    void alignmentTieBreaks() {
        QFETCH(QStringList, reference);
        QFETCH(QStringList, hypothesis);
        QTEST(editCounts(reference, hypothesis), "counts");
    }

    // The banded alignment must agree with the plain full table, tie-breaks included.
    void alignmentMatchesTheFullTable() {
        QRandomGenerator random(7);
        for (int round = 0; round < 400; ++round) {
            const int alphabet = 2 + random.bounded(4);
            auto sequence = [&](int length) {
                QStringList tokens;
                for (int k = 0; k < length; ++k)
                    tokens.append(QString::number(random.bounded(alphabet)));
                return tokens;
            };
            const QStringList reference = sequence(random.bounded(round < 300 ? 12 : 150));
            QStringList hypothesis = random.bounded(2) ? sequence(random.bounded(round < 300 ? 12 : 150)) : reference;
            for (int edits = random.bounded(40); edits > 0 && !hypothesis.isEmpty(); --edits)
                hypothesis[random.bounded(hypothesis.size())] = QString::number(random.bounded(alphabet));
            QCOMPARE(editCounts(reference, hypothesis), fullTable(reference, hypothesis));
        }
    }

    void clipScores() {
        const Score numbers = score(QStringLiteral("I have 3 cats"), QStringLiteral("I have three cats"));
        QCOMPARE(numbers.referenceWords, 4);
        QCOMPARE(numbers.wordEdits, (EditCounts{1, 0, 0}));
        QCOMPARE(numbers.wordErrorRate, 0.25);

        const Score same = score(QStringLiteral("Don’t stop"), QStringLiteral("don't stop."));
        QCOMPARE(same.wordEdits.total(), 0);
        QCOMPARE(same.characterEdits.total(), 0);

        const Score spaces = score(QStringLiteral("ab c"), QStringLiteral("abc"));
        QCOMPARE(spaces.wordEdits, (EditCounts{1, 0, 1}));
        QCOMPARE(spaces.characterEdits.total(), 0);
        QCOMPARE(spaces.referenceCharacters, 3);
        QCOMPARE(spaces.characterErrorRate, 0.0);

        const Score emptyReference = score(QString(), QStringLiteral("hello"));
        QCOMPARE(emptyReference.wordEdits, (EditCounts{0, 1, 0}));
        QCOMPARE(emptyReference.wordErrorRate, 1.0);
        QCOMPARE(emptyReference.characterErrorRate, 1.0);
        QCOMPARE(score(QStringLiteral("?"), QString()).wordErrorRate, 0.0);

        // Characters are user-perceived: a flag is one character, not two code points.
        const Score flags = score(QStringLiteral("go 🇩🇪x"), QStringLiteral("go 🇫🇷x"));
        QCOMPARE(flags.normalizedReference, QStringLiteral("go x"));
        const Score graphemes = score(QStringLiteral("e\u0301a"), QStringLiteral("eb"));
        QCOMPARE(graphemes.referenceCharacters, 2);
        QCOMPARE(graphemes.characterEdits, (EditCounts{1, 0, 0}));
    }

    void aggregateIsMicroAveraged() {
        const Score longClip = score(QStringLiteral("one two three four five six seven eight nine ten"),
                                     QStringLiteral("one two three four five six seven eight nine tan"));
        const Score shortClip = score(QStringLiteral("hello"), QStringLiteral("yellow"));
        const Score total = aggregate({longClip, shortClip});
        QCOMPARE(total.referenceWords, 11);
        QCOMPARE(total.wordEdits, (EditCounts{2, 0, 0}));
        QCOMPARE(total.wordErrorRate, 2.0 / 11.0);
        QCOMPARE(total.referenceCharacters, longClip.referenceCharacters + shortClip.referenceCharacters);
        QCOMPARE(total.characterEdits.total(), longClip.characterEdits.total() + shortClip.characterEdits.total());
        QVERIFY(total.normalizedReference.isEmpty());
        QCOMPARE(aggregate({}), Score());
    }

    void jsonKeysRoundTrip() {
        const Score clip = score(QStringLiteral("a b"), QStringLiteral("c"));
        const QJsonObject json = clip.toJson();
        QCOMPARE(json.keys(), (QStringList{"characterEdits", "characterErrorRate", "hypothesisCharacters",
                                           "hypothesisWords", "normalizedHypothesis", "normalizedReference",
                                           "referenceCharacters", "referenceWords", "wordEdits", "wordErrorRate"}));
        QCOMPARE(json.value("wordEdits").toObject().keys(), (QStringList{"deletions", "insertions", "substitutions"}));
        QCOMPARE(Score::fromJson(QJsonDocument::fromJson(QJsonDocument(json).toJson()).object()), clip);
        QJsonObject broken = json;
        broken.remove(QStringLiteral("wordEdits"));
        QCOMPARE(Score::fromJson(broken), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(SpeechBenchmarkMetricsTest)
#include "tst_speech_benchmark_metrics.moc"
