#include "speech/ContextualAlternativeSelector.h"
#include "speech/RecognitionContextBuilder.h"

#include <QtTest>

namespace Selector = ContextualAlternativeSelector;

class TestRecognitionContext : public QObject {
    Q_OBJECT

private slots:
    void normalized_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("punctuation and outer spaces") << "  Hello, World!  "
                                                      << "hello world";
        QTest::newRow("no alphanumerics") << "---"
                                          << "";
        QTest::newRow("accents and case") << QStringLiteral("Café CRÈME") << "cafe creme";
        QTest::newRow("decomposed accent") << QStringLiteral("cafe\u0301") << "cafe";
        QTest::newRow("identifier separators") << "naïve_user-ID2.x"
                                               << "naive user id2 x";
        QTest::newRow("other scripts stay") << QStringLiteral("東京 ÄRGER") << QStringLiteral("東京 arger");
    }
    void normalized() {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(RecognitionContextBuilder::normalized(text), expected);
    }

    void splitIdentifier_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("camel case") << "camelCase"
                                    << "camel Case";
        QTest::newRow("acronym then word, digits") << "parseHTTPResponse2"
                                                   << "parse HTTP Response 2";
        QTest::newRow("code separators") << "snake_case.value-name/x"
                                         << "snake case value name x";
        QTest::newRow("plain word") << "kubectl"
                                    << "kubectl";
        QTest::newRow("all capitals") << "NASA"
                                      << "NASA";
        QTest::newRow("digit then letters") << "v2beta"
                                            << "v 2 beta";
    }
    void splitIdentifier() {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(RecognitionContextBuilder::splitIdentifier(text), expected);
    }

    void spokenVariants_data() {
        QTest::addColumn<QString>("term");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("camel case gets a spoken form") << "  camelCase  " << QStringList{"camelCase", "camel case"};
        QTest::newRow("separators already read as words") << "user_id" << QStringList{"user_id"};
        QTest::newRow("plain word") << "Kubernetes" << QStringList{"Kubernetes"};
        QTest::newRow("white space only") << " \n\t " << QStringList{};
        QTest::newRow("inner white space collapsed, already spoken") << "New \n  York" << QStringList{"New York"};
        QTest::newRow("accents alone are no spoken form") << QStringLiteral("Café") << QStringList{"Café"};
    }
    void spokenVariants() {
        QFETCH(QString, term);
        QFETCH(QStringList, expected);
        QCOMPARE(RecognitionContextBuilder::spokenVariants(term), expected);
    }

    void contextScore_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("phrases");
        QTest::addColumn<int>("expected");
        const QString text = "Deploy the Kubernetes operator to the staging cluster in Zürich today";
        QTest::newRow("two words") << text << QStringList{"kubernetes operator"} << 20;
        QTest::newRow("three words, case and accents") << text << QStringList{"Cluster in ZURICH"} << 30;
        QTest::newRow("four words") << text << QStringList{"to the staging cluster"} << 40;
        QTest::newRow("single word never counts") << text << QStringList{"Kubernetes"} << 0;
        QTest::newRow("five words never count") << text << QStringList{"the staging cluster in zurich"} << 0;
        QTest::newRow("word boundaries only") << text << QStringList{"kubernetes operators", "ploy the"} << 0;
        QTest::newRow("identifier phrase") << text << QStringList{"kubernetes_operator"} << 20;
        QTest::newRow("sum, empty phrase skipped")
            << text << QStringList{"kubernetes operator", "---", "staging cluster"} << 40;
    }
    void contextScore() {
        QFETCH(QString, text);
        QFETCH(QStringList, phrases);
        QFETCH(int, expected);
        QCOMPARE(Selector::contextScore(text, phrases), expected);
    }

    void editDistance_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("expected");
        QTest::newRow("classic") << "kitten"
                                 << "sitting" << 3;
        QTest::newRow("empty") << ""
                               << "abc" << 3;
        QTest::newRow("equal") << "same"
                               << "same" << 0;
        QTest::newRow("emoji is one character") << QStringLiteral("a👍b") << "ab" << 1;
        QTest::newRow("flag is one character") << QStringLiteral("🇫🇷") << QStringLiteral("🇩🇪") << 1;
    }
    void editDistance() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, expected);
        QCOMPARE(Selector::editDistance(a, b), expected);
        QCOMPARE(Selector::editDistance(b, a), expected);
    }

    void conservative_data() {
        QTest::addColumn<QString>("primary");
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<bool>("expected");
        // 10 characters: allowance 3.
        QTest::newRow("10 chars, 3 edits") << "abcdefghij"
                                           << "abcdefgxyz" << true;
        QTest::newRow("10 chars, 4 edits") << "abcdefghij"
                                           << "abcdefwxyz" << false;
        // 5 characters: 30 % is 1, the floor of 2 applies.
        QTest::newRow("5 chars, 2 edits") << "abcde"
                                          << "abxye" << true;
        QTest::newRow("5 chars, 3 edits") << "abcde"
                                          << "abxyz" << false;
        QTest::newRow("compared in normal form") << "Hello, World!"
                                                 << "hello world" << true;
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
        QTest::newRow("no phrases keep the primary") << primary << QStringList{fixed} << QStringList{} << primary;
        QTest::newRow("two-word phrase fixes a misheard name")
            << primary << QStringList{fixed} << QStringList{"Kubernetes operator"} << fixed;
        QTest::newRow("single-word phrase never changes the choice")
            << primary << QStringList{fixed} << QStringList{"Kubernetes"} << primary;
        QTest::newRow("case and accent variants of the primary are duplicates")
            << "the kubernetes operator"
            << QStringList{"The Kubernetes Operator", QStringLiteral("the kubernétes operator")}
            << QStringList{"kubernetes operator"} << "the kubernetes operator";
        QTest::newRow("two extra words are never chosen")
            << "run the tests" << QStringList{"run the kubernetes operator tests"} << QStringList{"kubernetes operator"}
            << "run the tests";
        QTest::newRow("too big a change is refused")
            << "please call me back" << QStringList{"deploy kubernetes operator now"}
            << QStringList{"kubernetes operator"} << "please call me back";
        QTest::newRow("higher score wins, as written")
            << "send it to john smith at acme"
            << QStringList{"send it to Jon Smyth at acme", "send it to Jon Smith at acme",
                           "send it to Jon Smith at Acme Corp"}
            << QStringList{"Jon Smith", "acme corp"} << "send it to Jon Smith at Acme Corp";
        QTest::newRow("ties keep the earlier")
            << "send it to john smith at acme"
            << QStringList{"send it to Jon Smith at acne", "send it to Jon Smith at acme"} << QStringList{"Jon Smith"}
            << "send it to Jon Smith at acne";
        QTest::newRow("empty alternative skipped")
            << primary << QStringList{"", "!!"} << QStringList{"kubernetes operator"} << primary;
    }
    void choose() {
        QFETCH(QString, primary);
        QFETCH(QStringList, alternatives);
        QFETCH(QStringList, phrases);
        QFETCH(QString, expected);
        QCOMPARE(Selector::choose(primary, alternatives, phrases), expected);
    }

    void alwaysComparedWithPrimary() {
        // The second alternative is two edits from the first but four from the primary: small steps
        // must not add up to a rewrite.
        const QStringList alternatives{"aa cc ee", "dd cc ee"};
        QCOMPARE(Selector::choose("aa bb ee", alternatives, {"aa cc", "dd cc ee"}), alternatives[0]);
    }
};

QTEST_GUILESS_MAIN(TestRecognitionContext)
#include "tst_recognitioncontext.moc"
