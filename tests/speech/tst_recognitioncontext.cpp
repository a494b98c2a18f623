#include "speech/ContextualAlternativeSelector.h"
#include "speech/RecognitionContextBuilder.h"

#include <QtTest>

namespace Selector = ContextualAlternativeSelector;

class TestRecognitionContext : public QObject {
    Q_OBJECT

private slots:
    void spokenVariants_data() {
        QTest::addColumn<QString>("term");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("acronym and digits")
            << "parseHTTPResponse2" << QStringList{"parseHTTPResponse2", "parse http response 2"};
        QTest::newRow("separators already read as words") << "user_id" << QStringList{"user_id"};
        QTest::newRow("white space only") << " \n\t " << QStringList{};
    }
    void spokenVariants() {
        QFETCH(QString, term);
        QFETCH(QStringList, expected);
        QCOMPARE(RecognitionContextBuilder::spokenVariants(term), expected);
    }

    void contextScore_data() {
        QTest::addColumn<QStringList>("phrases");
        QTest::addColumn<int>("expected");
        QTest::newRow("two words") << QStringList{"kubernetes operator"} << 20;
        QTest::newRow("three words, case and accents") << QStringList{"Cluster in ZURICH"} << 30;
        QTest::newRow("five words never count") << QStringList{"the staging cluster in zurich"} << 0;
        QTest::newRow("whole words only") << QStringList{"kubernetes operators", "ploy the"} << 0;
    }
    void contextScore() {
        QFETCH(QStringList, phrases);
        QFETCH(int, expected);
        const QString text = "Deploy the Kubernetes operator to the staging cluster in Zürich today";
        QCOMPARE(Selector::contextScore(text, phrases), expected);
    }

    void conservative_data() {
        QTest::addColumn<QString>("primary");
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<bool>("expected");
        QTest::newRow("10 chars, 3 edits") << "abcdefghij"
                                           << "abcdefgxyz" << true;
        QTest::newRow("10 chars, 4 edits") << "abcdefghij"
                                           << "abcdefwxyz" << false;
        // 30 % of 5 is 1; the floor of 2 applies.
        QTest::newRow("5 chars, 2 edits") << "abcde"
                                          << "abxye" << true;
        QTest::newRow("one extra word") << "turn it on"
                                        << "turn it on x" << true;
        QTest::newRow("two extra words") << "turn it on now please"
                                         << "turn it on now please a b" << false;
    }
    void conservative() {
        QFETCH(QString, primary);
        QFETCH(QString, candidate);
        QFETCH(bool, expected);
        QCOMPARE(Selector::isConservativeAlternative(primary, candidate), expected);
    }

    void choose_data() {
        QTest::addColumn<QString>("primary");
        QTest::addColumn<QStringList>("alternatives");
        QTest::addColumn<QStringList>("phrases");
        QTest::addColumn<QString>("expected");
        const QString primary = "Deploy the communities operator today";
        const QString fixed = "Deploy the Kubernetes operator today";
        QTest::newRow("two-word phrase fixes a misheard name")
            << primary << QStringList{fixed} << QStringList{"Kubernetes operator"} << fixed;
        QTest::newRow("single-word phrase never changes the choice")
            << primary << QStringList{fixed} << QStringList{"Kubernetes"} << primary;
        QTest::newRow("case and accent variants of the primary are duplicates")
            << "the kubernetes operator"
            << QStringList{"The Kubernetes Operator", QStringLiteral("the kubernétes operator")}
            << QStringList{"kubernetes operator"} << "the kubernetes operator";
        QTest::newRow("too big a change is refused")
            << "please call me back" << QStringList{"deploy kubernetes operator now"}
            << QStringList{"kubernetes operator"} << "please call me back";
        QTest::newRow("higher score wins")
            << "send it to john smith at acme"
            << QStringList{"send it to Jon Smith at acme", "send it to Jon Smith at Acme Corp"}
            << QStringList{"Jon Smith", "acme corp"} << "send it to Jon Smith at Acme Corp";
        // The second is two edits from the first but four from the primary: small steps must not add up.
        QTest::newRow("always compared with the primary")
            << "aa bb ee" << QStringList{"aa cc ee", "dd cc ee"} << QStringList{"aa cc", "dd cc ee"} << "aa cc ee";
    }
    void choose() {
        QFETCH(QString, primary);
        QFETCH(QStringList, alternatives);
        QFETCH(QStringList, phrases);
        QFETCH(QString, expected);
        QCOMPARE(Selector::choose(primary, alternatives, phrases), expected);
    }
};

QTEST_GUILESS_MAIN(TestRecognitionContext)
#include "tst_recognitioncontext.moc"
