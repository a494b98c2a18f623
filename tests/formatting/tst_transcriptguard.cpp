#include "formatting/TranscriptGuard.h"

#include <QTest>

using Verdict = TranscriptGuard::Verdict;

namespace {

template <typename Expected> void row(const char *name, const QString &text, const Expected &expected) {
    QTest::newRow(name) << text << expected;
}

void row(const char *name, const QString &raw, const QString &formatted, const QString &verdict) {
    QTest::newRow(name) << raw << formatted << verdict;
}

} // namespace

class TestTranscriptGuard : public QObject {
    Q_OBJECT

private slots:
    void words_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("expected");
        row("punctuation and curly apostrophe split", "Don’t stop-now v2.5",
            QStringList{"don", "t", "stop", "now", "v2", "5"});
        row("combining mark composed, full lower-casing", "Cafe\u0301! İstanbul",
            QStringList{"caf\u00e9", "i\u0307stanbul"});
        row("cyrillic and cjk", "Привет, МИР 東京に行く。はい", QStringList{"привет", "мир", "東京に行く", "はい"});
        row("emoji and CR LF split", "hi👋there\r\nok", QStringList{"hi", "there", "ok"});
    }
    void words() {
        QFETCH(QString, text);
        QFETCH(QStringList, expected);
        QCOMPARE(TranscriptGuard::words(text), expected);
    }

    void lightlyPunctuate_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("expected");
        row("question", "really?", QString("Really?"));
        row("blank", "   ", QString());
        row("trimmed, inner text untouched", " so um i think\r\n", QString("So um i think."));
        row("closing curly quote is not a mark", "he said “hi”", QString("He said “hi”."));
        row("upper case may grow", "ßtraße", QString("SStraße."));
        row("first character is a grapheme", "e\u0301lan", QString("E\u0301lan."));
        row("mark with an accent is not a mark", "ok.\u0301", QString("Ok.\u0301."));
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
        const QString four = "alpha bravo charlie delta";
        row("white space only", "hello world", " \n\t ", "rejectedEmpty");
        row("refusal even when every word was spoken", "sure here is the text you asked for",
            "Sure, here is the text you asked for", "rejectedRefusal");
        row("refusal words later are fine", "tell him i can't come", "Tell him I can't come.", "accepted");
        row("one word grows by the slack", "thanks", "Thanks so much, ok.", "accepted");
        row("one word grows past the slack", "thanks", "Thanks so much, ok ok.", "rejectedTooLong");
        row("length ratio at the limit", four, four + " " + four + " alpha bravo", "accepted");
        row("length ratio over the limit", four, four + " " + four + " alpha bravo charlie", "rejectedTooLong");
        row("retention at the limit, fillers ignored", "um alpha bravo charlie delta echo", "Alpha bravo charlie.",
            "accepted");
        row("retention below the limit", "alpha bravo charlie delta echo", "Alpha bravo.", "rejectedContentLoss");
        row("one invented word of two", "send it", "Send it tonight.", "accepted");
        row("one invented word of one, no words in raw", "...", "Hello.", "rejectedInvention");
        row("two invented words of six", "please send the release notes",
            "Please send the release notes tonight quickly.", "rejectedInvention");
        row("cyrillic invention", "привет как дела", "Привет, как твои дела сегодня?", "rejectedInvention");
        row("composition does not matter", "re\u0301union a\u0300 midi", "R\u00e9union \u00e0 midi.", "accepted");
        row("accents must match", "réunion à midi", "Reunion a midi.", "rejectedContentLoss");
        row("CR LF kept inside", "first line\r\nsecond line", "First line.\r\nSecond line.\r\n", "accepted");
    }
    void evaluate() {
        QFETCH(QString, raw);
        QFETCH(QString, formatted);
        QFETCH(QString, verdict);
        const TranscriptGuard::Decision decision = TranscriptGuard().evaluate(raw, formatted);
        QCOMPARE(toName(decision.verdict), verdict);
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
