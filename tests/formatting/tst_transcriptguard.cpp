#include "formatting/TranscriptGuard.h"

#include <QTest>

using Verdict = TranscriptGuard::Verdict;

class TestTranscriptGuard : public QObject {
    Q_OBJECT

private slots:
    void words_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("punctuation splits") << "Don't stop-now" << QStringList{"don", "t", "stop", "now"};
        QTest::newRow("curly apostrophe") << "don’t" << QStringList{"don", "t"};
        QTest::newRow("digits stay, dots split") << "v2.5 at 9:30" << QStringList{"v2", "5", "at", "9", "30"};
        QTest::newRow("accents") << "CAFÉ Ünïcode" << QStringList{"café", "ünïcode"};
        QTest::newRow("combining mark stays in its word") << "Cafe\u0301!" << QStringList{"cafe\u0301"};
        QTest::newRow("full lower-casing") << "İstanbul" << QStringList{"i\u0307stanbul"};
        QTest::newRow("cyrillic") << "Привет, МИР" << QStringList{"привет", "мир"};
        QTest::newRow("cjk") << "東京に行く。はい" << QStringList{"東京に行く", "はい"};
        QTest::newRow("emoji and CR LF split") << "hi👋there\r\nok" << QStringList{"hi", "there", "ok"};
        QTest::newRow("nothing") << " ... " << QStringList{};
    }
    void words() {
        QFETCH(QString, text);
        QFETCH(QStringList, expected);
        QCOMPARE(TranscriptGuard::words(text), expected);
    }

    void lightlyPunctuate_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << "hello world"
                               << "Hello world.";
        QTest::newRow("question") << "really?"
                                  << "Really?";
        QTest::newRow("blank") << "   "
                               << "";
        QTest::newRow("only inner text untouched") << " so um i think\r\n"
                                                   << "So um i think.";
        QTest::newRow("ellipsis character is not a mark") << "well…"
                                                          << "Well….";
        QTest::newRow("closing curly quote") << "he said “hi”"
                                             << "He said “hi”.";
        QTest::newRow("upper case may grow") << "ßtraße"
                                             << "SStraße.";
        QTest::newRow("decomposed accent") << "e\u0301lan"
                                           << "E\u0301lan.";
        QTest::newRow("cyrillic") << "привет"
                                  << "Привет.";
        QTest::newRow("cjk") << "東京"
                             << "東京.";
        QTest::newRow("mark with an accent is not a mark") << "ok.\u0301"
                                                           << "Ok.\u0301.";
    }
    void lightlyPunctuate() {
        QFETCH(QString, text);
        QFETCH(QString, expected);
        QCOMPARE(TranscriptGuard::lightlyPunctuate(text), expected);
    }

    void evaluate_data() {
        QTest::addColumn<QString>("raw");
        QTest::addColumn<QString>("formatted");
        QTest::addColumn<QString>("verdict");

        QTest::newRow("white space only") << "hello world"
                                          << " \n\t "
                                          << "rejectedEmpty";
        QTest::newRow("refusal even when every word was spoken") << "sure here is the text you asked for"
                                                                 << "Sure, here is the text you asked for"
                                                                 << "rejectedRefusal";
        QTest::newRow("refusal line before the text") << "send it"
                                                      << "Here's the text:\nSend it."
                                                      << "rejectedRefusal";
        QTest::newRow("refusal words later are fine") << "tell him i can't come"
                                                      << "Tell him I can't come."
                                                      << "accepted";
        QTest::newRow("short utterance may grow") << "ok thanks"
                                                  << "Okay, thanks so much."
                                                  << "accepted";
        QTest::newRow("one word grows within slack") << "thanks"
                                                     << "Thanks so much!"
                                                     << "accepted";
        QTest::newRow("one word grows past slack") << "thanks"
                                                   << "Thanks so very much, friend!"
                                                   << "rejectedTooLong";
        QTest::newRow("no slack from five words")
            << "please send the report today"
            << "Please send the report today, and also the slides, the notes and the summary as well ok"
            << "rejectedTooLong";
        QTest::newRow("one new content word of two") << "um so uh the the a release is on it"
                                                     << "so the release is on it a um uh tonight"
                                                     << "accepted";
        QTest::newRow("two new content words") << "um so uh the the a release is on it"
                                               << "so the release is on it a um shipping tonight"
                                               << "rejectedInvention";
        QTest::newRow("retention at the limit") << "alpha bravo charlie delta echo"
                                                << "Alpha bravo charlie."
                                                << "accepted";
        QTest::newRow("retention below the limit") << "alpha bravo charlie delta echo"
                                                   << "Alpha bravo."
                                                   << "rejectedContentLoss";
        QTest::newRow("repeats count for retention") << "go go go go team"
                                                     << "Team."
                                                     << "rejectedContentLoss";
        QTest::newRow("no words in raw, nothing invented") << "..."
                                                           << "Okay."
                                                           << "accepted";
        QTest::newRow("no words in raw, words invented") << "..."
                                                         << "Hello there friend"
                                                         << "rejectedInvention";
        QTest::newRow("curly and straight apostrophes agree") << "don’t stop now"
                                                              << "Don't stop now."
                                                              << "accepted";
        QTest::newRow("cyrillic clean-up") << "привет как дела"
                                           << "Привет, как дела?"
                                           << "accepted";
        QTest::newRow("cyrillic invention") << "привет как дела"
                                            << "Привет, как твои дела сегодня?"
                                            << "rejectedInvention";
        QTest::newRow("cjk") << "東京に行きます"
                             << "東京に行きます。"
                             << "accepted";
        QTest::newRow("accents must match") << "réunion à midi"
                                            << "Reunion a midi."
                                            << "rejectedContentLoss";
        QTest::newRow("CR LF kept inside") << "first line\r\nsecond line"
                                           << "First line.\r\nSecond line.\r\n"
                                           << "accepted";
    }
    void evaluate() {
        QFETCH(QString, raw);
        QFETCH(QString, formatted);
        QFETCH(QString, verdict);
        const TranscriptGuard guard;
        const TranscriptGuard::Decision decision = guard.evaluate(raw, formatted);
        QCOMPARE(TranscriptGuard::verdictName(decision.verdict), verdict);
        QCOMPARE(decision.text, verdict == "accepted" ? formatted.trimmed() : TranscriptGuard::lightlyPunctuate(raw));
    }

    void configuredThresholdsApply() {
        TranscriptGuard strict;
        strict.minContentRetention = 1.0;
        strict.maxLengthRatio = 1.0;
        QCOMPARE(strict.evaluate("alpha bravo charlie delta echo", "Alpha bravo charlie delta.").verdict,
                 Verdict::rejectedContentLoss);
        QCOMPARE(strict.evaluate("alpha bravo charlie delta echo", "Alpha bravo charlie delta echo, okay.").verdict,
                 Verdict::rejectedTooLong);
    }
};

QTEST_GUILESS_MAIN(TestTranscriptGuard)
#include "tst_transcriptguard.moc"
