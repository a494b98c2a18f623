#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/PassthroughFormatter.h"
#include "formatting/RewritePrompt.h"

#include <QTest>

Q_DECLARE_METATYPE(FormattingContext)

namespace {

void row(const char *name, const QString &input, const QString &expected) {
    QTest::newRow(name) << input << expected;
}

} // namespace

class TestFormatterPrompt : public QObject {
    Q_OBJECT

private slots:
    void instructionTexts() {
        QCOMPARE(FormatterPrompt::systemInstructions().size(), 1353);
        QCOMPARE(RewritePrompt::systemInstructions().size(), 648);
        QCOMPARE(DeveloperPromptPrompt::systemInstructions().size(), 1118);
    }

    void prompt_data() {
        QTest::addColumn<FormattingContext>("context");
        QTest::addColumn<QString>("expected");
        const QString tail = "Raw transcript to rewrite:\n  so um hi \r\n";
        QStringList terms{"Zoë", "Привет"};
        for (int i = 3; i <= 61; ++i)
            terms << QString("t%1").arg(i);

        QTest::newRow("nothing") << FormattingContext{} << tail;
        QTest::newRow("style only") << FormattingContext{std::nullopt, "Be brief.", {}, {}, {}}
                                    << "Be brief.\n\n" + tail;
        QTest::newRow("app only, repository ignored") << FormattingContext{"Mail", std::nullopt, {}, {}, "Branch: main"}
                                                      << "Destination application: Mail.\n\n" + tail;
        QTest::newRow("all in order, first 60 terms, last 3 recent")
            << FormattingContext{"Notes", "Plain.", terms, {"one", "two", "東京", "four", "five"}, {}}
            << "Destination application: Notes. Plain.\n\nKnown terms this speaker uses. If the transcript "
               "contains something that is clearly a mangled version of one of these, correct it. Do not insert "
               "them otherwise: " +
                   terms.mid(0, 60).join(", ") +
                   "\n\nRecent dictation, for topical context only. Do not repeat it: 東京 / four / five\n\n" + tail;
    }
    void prompt() {
        QFETCH(FormattingContext, context);
        QFETCH(QString, expected);
        QCOMPARE(FormatterPrompt::prompt("  so um hi \r\n", context), expected);
    }

    void sanitize_data() {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("expected");
        row("preamble on the line", "Sure, here is the cleaned-up text: Hello there.", "Hello there.");
        row("preamble only at the start", "Note. Rewritten text: hi", "Note. Rewritten text: hi");
        row("announcement line", "Here's what I came up with:\n\n  Send it Wednesday.", "Send it Wednesday.");
        row("announcement with text on its line", "Here's the plan: ship Friday.", "Here's the plan: ship Friday.");
        row("reasoning blocks", "<think>plan</think>Hi <think>more", "Hi");
        row("fence unclosed", "```text\nHello", "Hello");
        row("fence with CR LF", "```\r\nHello\r\nworld\r\n  ```  \r\n", "Hello\r\nworld");
        row("closing fence alone stays", "Hello\n```", "Hello\n```");
        row("quotes around a quote stay", "\"He said \"hi\" to me\"", "\"He said \"hi\" to me\"");
        row("single quotation mark", "\"", "\"");
        row("typographic quotes stay", "“Привет, мир”", "“Привет, мир”");
        row("everything at once", "\n Okay, here's your corrected text:\n```\n<think>hmm</think>\"Café à 9h\"\n```\n",
            "Café à 9h");
    }
    void sanitize() {
        QFETCH(QString, reply);
        QFETCH(QString, expected);
        QCOMPARE(FormatterPrompt::sanitize(reply), expected);
    }

    void passthroughKeepsTheTranscriptAndRefusesModelModes() {
        PassthroughFormatter formatter;
        const QString transcript = "  um, héllo\r\n\tworld  ";
        QCOMPARE(syncWait(formatter.format(transcript, {})), transcript);
        const auto refusal = [&](bool rewrite) -> QString {
            try {
                rewrite ? syncWait(formatter.rewrite("text", RewriteCommand::shorten, {}))
                        : syncWait(formatter.compileDeveloperPrompt("text", {}));
            } catch (const QuorvaneError &error) {
                return error.errorCase() == QuorvaneError::Case::formatterUnavailable ? error.detail() : QString();
            }
            return {};
        };
        QCOMPARE(refusal(true), "Edit in Place requires the Apple on-device model or Ollama.");
        QCOMPARE(refusal(false), "Prompt Mode requires the Apple on-device model or Ollama.");
    }
};

QTEST_GUILESS_MAIN(TestFormatterPrompt)
#include "tst_formatterprompt.moc"
