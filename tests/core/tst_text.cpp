#include "core/Text.h"

#include <QTest>

class TextTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void trimming_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("ascii") << " \t hello world \r\n"
                               << "hello world";
        QTest::newRow("no-break and ideographic spaces") << "\u00A0\u3000Привет\u2029"
                                                         << "Привет";
        QTest::newRow("only space") << " \n\u2003 "
                                    << "";
        QTest::newRow("astral kept") << "  \U0001F600x\U0001F600 "
                                     << "\U0001F600x\U0001F600";
        QTest::newRow("zero-width space is not white space") << "\u200Bword"
                                                             << "\u200Bword";
    }
    void trimming() {
        QFETCH(QString, input);
        QTEST(Text::trimmed(input), "expected");
    }

    void folding_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("accents") << "Crème Brûlée"
                                 << "creme brulee";
        QTest::newRow("precomposed vs combining") << "e\u0301TE\u0301"
                                                  << "ete";
        QTest::newRow("cyrillic case, breve removed") << "ЙОГУРТ"
                                                      << "иогурт";
        QTest::newRow("full-width") << "ＡＢＣ１２３"
                                    << "abc123";
        QTest::newRow("half-width katakana") << "ｶﾀｶﾅ"
                                             << "カタカナ";
        QTest::newRow("cjk unchanged") << "漢字"
                                       << "漢字";
        QTest::newRow("final sigma case-folded") << "λόγος"
                                                 << "λογοσ";
        QTest::newRow("enclosing and spacing marks removed") << "a\u20DD\u0915\u093F"
                                                             << "a\u0915";
        QTest::newRow("german sharp s lower-cased") << "STRASSE"
                                                    << "strasse";
    }
    void folding() {
        QFETCH(QString, input);
        QTEST(Text::fold(input), "expected");
    }

    void alphanumericClassByCodePoint() {
        const QString sample = QStringLiteral("a1é\u0301Я漢٣\U0001D400-'’ \U0001F600");
        QString kept;
        for (char32_t c : Text::codePoints(sample))
            if (Text::isAlphanumeric(c))
                kept += Text::fromCodePoint(c);
        // Letters, marks and digits of every script, including astral letters; no punctuation or emoji.
        QCOMPARE(kept, QStringLiteral("a1é\u0301Я漢٣\U0001D400"));
    }

    void graphemeCounts_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<qsizetype>("count");
        QTest::newRow("empty") << "" << qsizetype(0);
        QTest::newRow("combining") << "e\u0301e\u0301" << qsizetype(2);
        QTest::newRow("emoji family") << "\U0001F468\u200D\U0001F469\u200D\U0001F467" << qsizetype(1);
        QTest::newRow("flag") << "\U0001F1E9\U0001F1EA!" << qsizetype(2);
        QTest::newRow("cr lf is one") << "a\r\nb" << qsizetype(3);
        QTest::newRow("cjk") << "日本語" << qsizetype(3);
    }
    void graphemeCounts() {
        QFETCH(QString, input);
        QTEST(Text::graphemeCount(input), "count");
    }

    void splitOnWhitespace() {
        QCOMPARE(Text::splitOnWhitespace(QStringLiteral(" one\u00A0two\r\n\tthree  ")),
                 (QStringList{"one", "two", "three"}));
        QCOMPARE(Text::splitOnWhitespace(QStringLiteral("  ")), QStringList());
    }
};

QTEST_GUILESS_MAIN(TextTest)
#include "tst_text.moc"
