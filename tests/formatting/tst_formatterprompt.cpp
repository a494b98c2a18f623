#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/PassthroughFormatter.h"
#include "formatting/RewritePrompt.h"

#include <QTest>

Q_DECLARE_METATYPE(FormattingContext)

class TestFormatterPrompt : public QObject {
    Q_OBJECT

private slots:
    void instructionTexts_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<qsizetype>("length");
        QTest::addColumn<QString>("lastLine");
        QTest::newRow("dictation") << FormatterPrompt::systemInstructions() << qsizetype(1353)
                                   << "- If the transcript is already clean, return it unchanged.";
        QTest::newRow("rewrite") << RewritePrompt::systemInstructions() << qsizetype(648)
                                 << "- If the operation cannot be applied safely, return the text unchanged.";
        QTest::newRow("developer") << DeveloperPromptPrompt::systemInstructions() << qsizetype(1118)
                                   << "  requirement, constraint, acceptance criterion, or verification step.";
    }
    void instructionTexts() {
        QFETCH(QString, text);
        QFETCH(qsizetype, length);
        QFETCH(QString, lastLine);
        QCOMPARE(text.size(), length);
        QCOMPARE(text.split(u'\n').last(), lastLine);
    }

    void prompt_data() {
        QTest::addColumn<FormattingContext>("context");
        QTest::addColumn<QString>("expected");
        const QString tail = "Raw transcript to rewrite:\n  so um hi \r\n";
        QStringList sixtyOne;
        for (int i = 1; i <= 61; ++i)
            sixtyOne << QString("t%1").arg(i);
        QStringList firstSixty = sixtyOne.mid(0, 60);

        QTest::newRow("nothing") << FormattingContext{} << tail;
        QTest::newRow("style only") << FormattingContext{std::nullopt, "Be brief.", {}, {}, {}}
                                    << "Be brief.\n\n" + tail;
        QTest::newRow("app and style") << FormattingContext{"Slack", "Keep it short and casual.", {}, {}, {}}
                                       << "Destination application: Slack. Keep it short and casual.\n\n" + tail;
        QTest::newRow("app only, repository ignored") << FormattingContext{"Mail", std::nullopt, {}, {}, "Branch: main"}
                                                      << "Destination application: Mail.\n\n" + tail;
        QTest::newRow("61 terms keep the first 60")
            << FormattingContext{std::nullopt, std::nullopt, sixtyOne, {}, {}}
            << "Known terms this speaker uses. If the transcript contains something that is clearly a mangled "
               "version of one of these, correct it. Do not insert them otherwise: " +
                   firstSixty.join(", ") + "\n\n" + tail;
        QTest::newRow("5 recent keep the last 3")
            << FormattingContext{std::nullopt, std::nullopt, {}, {"one", "two", "three", "four", "five"}, {}}
            << "Recent dictation, for topical context only. Do not repeat it: three / four / five\n\n" + tail;
        QTest::newRow("all, in order")
            << FormattingContext{"Notes", "Plain.", {"Zoë", "Привет"}, {"東京"}, {}}
            << "Destination application: Notes. Plain.\n\nKnown terms this speaker uses. If the transcript "
               "contains something that is clearly a mangled version of one of these, correct it. Do not insert "
               "them otherwise: Zoë, Привет\n\nRecent dictation, for topical context only. Do not repeat it: "
               "東京\n\n" +
                   tail;
    }
    void prompt() {
        QFETCH(FormattingContext, context);
        QFETCH(QString, expected);
        QCOMPARE(FormatterPrompt::prompt("  so um hi \r\n", context), expected);
    }

    void sanitize_data() {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("expected");
        QTest::newRow("empty") << ""
                               << "";
        QTest::newRow("preamble on the line") << "Sure, here is the cleaned-up text: Hello there."
                                              << "Hello there.";
        QTest::newRow("preamble on its own line") << "HERE'S THE POLISHED VERSION:\nHi"
                                                  << "Hi";
        QTest::newRow("announcement line") << "Here's what I came up with:\n\n  Send it Wednesday."
                                           << "Send it Wednesday.";
        QTest::newRow("announcement with text on one line survives") << "Here's the plan: ship Friday."
                                                                     << "Here's the plan: ship Friday.";
        QTest::newRow("preamble only at the start") << "Note. Rewritten text: hi"
                                                    << "Note. Rewritten text: hi";
        QTest::newRow("reasoning blocks") << "<think>plan</think>Hi <think>more"
                                          << "Hi";
        QTest::newRow("preamble is looked for before reasoning is removed") << "<think>x</think>Rewritten text: hi"
                                                                            << "Rewritten text: hi";
        QTest::newRow("reasoning is case-sensitive") << "<THINK>x</THINK> Hi"
                                                     << "<THINK>x</THINK> Hi";
        QTest::newRow("fence with tag") << "```text\nHello\n```"
                                        << "Hello";
        QTest::newRow("fence unclosed") << "```text\nHello"
                                        << "Hello";
        QTest::newRow("fence with CR LF") << "```\r\nHello\r\nworld\r\n  ```  \r\n"
                                          << "Hello\r\nworld";
        QTest::newRow("closing fence alone stays") << "Hello\n```"
                                                   << "Hello\n```";
        QTest::newRow("straight quotes") << "\"Hello\""
                                         << "Hello";
        QTest::newRow("quotes around a quote stay") << "\"He said \"hi\" to me\""
                                                    << "\"He said \"hi\" to me\"";
        QTest::newRow("single quotation mark") << "\""
                                               << "\"";
        QTest::newRow("typographic quotes stay") << "“Привет, мир”"
                                                 << "“Привет, мир”";
        QTest::newRow("everything at once")
            << "\n Okay, here's your corrected text:\n```\n<think>hmm</think>\"Café à 9h\"\n```\n"
            << "Café à 9h";
    }
    void sanitize() {
        QFETCH(QString, reply);
        QFETCH(QString, expected);
        QCOMPARE(FormatterPrompt::sanitize(reply), expected);
    }

    void passthroughKeepsTheTranscript() {
        PassthroughFormatter formatter;
        QVERIFY(formatter.isAvailable());
        syncWait(formatter.prepare());
        const QString transcript = "  um, héllo\r\n\tworld  ";
        QCOMPARE(syncWait(formatter.format(transcript, {})), transcript);
    }

    void passthroughRefusesModelModes_data() {
        QTest::addColumn<bool>("rewrite");
        QTest::addColumn<QString>("reason");
        QTest::newRow("edit") << true << "Edit in Place requires the Apple on-device model or Ollama.";
        QTest::newRow("prompt") << false << "Prompt Mode requires the Apple on-device model or Ollama.";
    }
    void passthroughRefusesModelModes() {
        QFETCH(bool, rewrite);
        QFETCH(QString, reason);
        PassthroughFormatter formatter;
        try {
            if (rewrite)
                syncWait(formatter.rewrite("text", RewriteCommand::shorten, {}));
            else
                syncWait(formatter.compileDeveloperPrompt("text", {}));
            QFAIL("no error");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error.errorCase(), QuorvaneError::Case::formatterUnavailable);
            QCOMPARE(error.detail(), reason);
        }
    }
};

QTEST_GUILESS_MAIN(TestFormatterPrompt)
#include "tst_formatterprompt.moc"
