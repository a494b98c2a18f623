#include "PipelineHarness.h"

#include "TempGitRepository.h"
#include "platform/PlatformKitFactory.h"

#include <QFileInfo>

using Kind = PipelineState::Kind;
using Notice = RecordingNotifier::Notice;

Q_DECLARE_METATYPE(PipelineState::Kind)
Q_DECLARE_METATYPE(RecordingNotifier::Notice)

namespace {

const QString kRaw = QStringLiteral("um so the deployment of kubernetes cluster finished early today");
const QString kRawPunctuated = QStringLiteral("Um so the deployment of kubernetes cluster finished early today.");
const QString kClean = QStringLiteral("So the deployment of the Kubernetes cluster finished early today.");
const QString kSelection = QStringLiteral("the meeting is at 10:30 in room 4 and we need the slides");
const QString kRequest = QStringLiteral("Add a retry to fetchUser in api/client.ts.");
const QString kPrompt = QStringLiteral("Goal:\n") + kRequest +
                        QStringLiteral("\nContext:\nfetchUser in api/client.ts.\nConstraints:\nAdd one retry.\n"
                                       "Acceptance criteria:\nfetchUser has a retry.\nVerification:\nfetchUser in "
                                       "api/client.ts has a retry.");
// A reply that arrives long after any budget.
const QString kTimeout = QStringLiteral("<timeout>");
// No model at all: the formatter setting is none.
const QString kNoModel = QStringLiteral("<no model>");

void replyOrStall(PipelineHarness &h, const QString &reply, const QString &stalled) {
    h.reply(reply == kTimeout ? stalled : reply, reply == kTimeout ? 10000 : 0);
}

} // namespace

Q_DECLARE_METATYPE(FakeHttpServer::Response)

// What each mode's run does with the transcript: formatting and its guard, delivery, and every
// fallback and notice on the way.
class TestPipelineRuns : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() {
        QVERIFY(m_home.isValid());
        qputenv("QUORVANE_HOME", m_home.path().toUtf8());
    }
    void cleanupTestCase() { Log::flush(); }

    void dictationIsFormattedDeliveredAndRemembered() {
        PipelineHarness h;
        h.config.retainAudio = true;
        h.ready();
        h.pipeline->store().ensureVocabularyFile();
        QFile vocabulary(h.pipeline->store().vocabularyPath());
        QVERIFY(vocabulary.open(QIODevice::Append));
        vocabulary.write("Quorvane\nkubeCtl\n");
        vocabulary.close();
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(h.holdAndSettle(h.dictationKey));

        QCOMPARE(h.states,
                 (QList<PipelineState>{PipelineState::recording(), PipelineState::thinking(), PipelineState::idle()}));
        QCOMPARE(h.injector->injected, QStringList{kClean});
        // Vocabulary reaches the recogniser (with the spoken form of an identifier) and the model sees the app.
        QVERIFY2(h.recognitionHints().contains("Quorvane") && h.recognitionHints().contains("kube ctl"),
                 h.recognitionHints());
        QVERIFY(h.modelPrompt().contains(QStringLiteral("Notes")));
        QCOMPARE(h.utterances.size(), 1);
        const Utterance utterance = h.utterances.first();
        QCOMPARE(utterance.rawTranscript, kRaw);
        QCOMPARE(utterance.shippedText, kClean);
        QCOMPARE(utterance.guardVerdict, QStringLiteral("accepted"));
        QCOMPARE(utterance.appBundleID, std::optional<QString>(QStringLiteral("com.apple.Notes")));
        QCOMPARE(h.pipeline->store().recentTranscripts(5), QStringList{kClean});
        // Written on the store's queue, which the read above waited for.
        QVERIFY(utterance.audioFile && QFileInfo::exists(h.pipeline->store().audioURL(utterance.id)));
        QCOMPARE(h.pipeline->store().recentEntries(1).value(0).audioFile, utterance.audioFile);
        QVERIFY(h.pipeline->learner().model().terms.contains(QStringLiteral("kubernetes")));
        QCOMPARE(h.pipeline->latency().samples().size(), 1);

        // The next dictation carries the first one as recent context.
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QVERIFY(h.modelPrompt(1).contains(QStringLiteral("Recent dictation")));
    }

    // The recording, the entry and the learned words are written after the paste, off its path:
    // quitting at once must still leave all three on disk.
    void aQuitRightAfterADictationLosesNothing() {
        PipelineHarness h;
        h.config.retainAudio = true;
        h.ready();
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.utterances.size(), 1);
        const QString id = h.utterances.first().id;
        h.pipeline.reset();

        Store store(h.data.path());
        const QList<Utterance> entries = store.recentEntries(5);
        QCOMPARE(entries.size(), 1);
        QCOMPARE(entries.first().shippedText, kClean);
        QCOMPARE(entries.first().audioFile, std::optional<QString>(Store::audioFileName(id)));
        QVERIFY(QFileInfo(store.audioURL(id)).size() > 44);
        const Learner learner(h.data.filePath(QStringLiteral("learned.json")), h.scheduler);
        QVERIFY(learner.model().terms.contains(QStringLiteral("kubernetes")));
    }

    void nothingIsKeptWhenRetentionIsOff() {
        PipelineHarness h;
        h.config.retainHistory = false;
        h.config.learnVocabulary = false;
        h.ready();
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.utterances.size(), 1);
        QCOMPARE(h.pipeline->store().totalCount(), 0);
        QCOMPARE(h.pipeline->learner().model().utterances, 0);
    }

    void rawTranscriptShipsWhenTheFormatterFails_data() {
        QTest::addColumn<QString>("reply"); // "<error>": the model answers HTTP 500
        QTest::addColumn<QString>("verdict");
        QTest::addColumn<QString>("logLine");
        const auto guardRow = [](const char *name, const QString &reply, const QString &verdict) {
            QTest::newRow(name) << reply << verdict << "WARN Guard overruled the formatter (" + verdict + ")";
        };
        guardRow("empty", "", "rejectedEmpty");
        guardRow("too long", QString(kClean + QLatin1Char(' ')).repeated(3), "rejectedTooLong");
        guardRow("content lost", "The job is done.", "rejectedContentLoss");
        guardRow("invented", "The deployment of the Kubernetes cluster finished early today in Berlin and Paris.",
                 "rejectedInvention");
        guardRow("refusal", "I'm sorry, I can't help with that.", "rejectedRefusal");
        // 2,500 ms base: ten words earn nothing more.
        QTest::newRow("timed out") << kTimeout << "formatterFailed"
                                   << "WARN Formatter exceeded its 2500 ms budget.";
        QTest::newRow("model error") << "<error>"
                                     << "formatterFailed"
                                     << "WARN Formatter failed: ";
        QTest::newRow("plain-text 400") << "<plain 400>"
                                        << "formatterFailed"
                                        << "WARN Formatter failed: ";
        QTest::newRow("dropped mid-body") << "<cut short>"
                                          << "formatterFailed"
                                          << "WARN Formatter failed: ";
        QTest::newRow("gigabytes announced") << "<gigabytes>"
                                             << "formatterFailed"
                                             << "WARN Formatter failed: ";
    }
    void rawTranscriptShipsWhenTheFormatterFails() {
        QFETCH(QString, reply);
        QFETCH(QString, verdict);
        QFETCH(QString, logLine);
        PipelineHarness h;
        h.ready();
        h.transcript(kRaw);
        const QHash<QString, FakeHttpServer::Response> faults{
            {"<error>", FakeHttpServer::Response::json(500, R"({"error":"runner crashed"})")},
            {"<plain 400>", FakeHttpServer::Response::plainText(400, "Bad Request")},
            {"<cut short>", FakeOllamaServer::generation(kClean).cutShort()},
            {"<gigabytes>", FakeHttpServer::Response::enormous()},
        };
        if (faults.contains(reply))
            h.ollama.enqueueGenerate(faults.value(reply));
        else
            replyOrStall(h, reply, kClean);
        QVERIFY(h.hold(h.dictationKey));
        if (reply == kTimeout)
            QVERIFY(h.modelAsked() && h.expiresAfter(2500));
        QVERIFY(h.settle());
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected, QStringList{kRawPunctuated});
        QCOMPARE(h.utterances.value(0).guardVerdict, verdict);
        QVERIFY2(logLine.endsWith(QLatin1Char(' ')) ? h.loggedStartingWith(logLine) : h.logged(logLine), h.logText());
    }

    void formatterNotAsked_data() {
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<QString>("shipped");
        QTest::addColumn<QString>("verdict");
        QTest::newRow("one word") << "hello"
                                  << "Hello."
                                  << "skippedTooShort";
        QTest::newRow("no formatter") << kRaw << kRawPunctuated << "formatterDisabled";
        QTest::newRow("model unavailable") << kRaw << kRawPunctuated << "formatterFailed";
    }
    void formatterNotAsked() {
        QFETCH(QString, transcript);
        QFETCH(QString, verdict);
        PipelineHarness h;
        if (verdict == QStringLiteral("formatterDisabled"))
            h.config.formatter = FormatterKind::none;
        if (verdict == QStringLiteral("formatterFailed"))
            h.ollama.setModels({});
        h.ready();
        h.transcript(transcript);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QTEST(h.injector->injected.value(0), "shipped");
        QCOMPARE(h.utterances.value(0).guardVerdict, verdict);
        QCOMPARE(h.modelRequestCount(), 0);
    }

    // Near-silence gives stock phrases nobody said; they are not typed.
    void nearSilence_data() {
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<float>("level");
        QTest::addColumn<bool>("typed");
        QTest::newRow("thanks in near-silence") << "Thank you." << 0.005f << false;
        QTest::newRow("stock phrases only") << "Thanks for watching! you" << 0.005f << false;
        QTest::newRow("blank marker") << "[BLANK_AUDIO]" << 0.0f << false;
        QTest::newRow("words of its own") << "Thank you for the report." << 0.005f << true;
        QTest::newRow("thanks said aloud") << "Thank you." << 0.2f << true;
    }
    void nearSilence() {
        QFETCH(QString, transcript);
        QFETCH(float, level);
        QFETCH(bool, typed);
        PipelineHarness h;
        h.config.formatter = FormatterKind::none;
        h.capture->setPreRoll(std::vector<float>(1600, -level));
        h.build();
        h.transcript(transcript);
        QVERIFY(h.press(h.dictationKey));
        h.capture->deliver(std::vector<float>(8000, level));
        h.scheduler.advance(1000);
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), typed ? 1 : 0);
        QCOMPARE(h.loggedStartingWith(QStringLiteral("INFO Nothing was said")), !typed);
        QVERIFY(h.notifier->notices.isEmpty());
    }

    void recognitionWithoutText() {
        PipelineHarness h;
        h.ready();
        h.transcript(QString());
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(h.logged(QStringLiteral("INFO Nothing was said.")));
        QVERIFY(h.notifier->notices.isEmpty() && h.injector->injected.isEmpty());

        h.whisper.enqueueInference(FakeHttpServer::Response::plainText(500, "boom"));
        qsizetype noticesAtError = -1;
        h.pipeline->onStateChange = [&](const PipelineState &state) {
            if (state.kind == Kind::error)
                noticesAtError = h.notifier->notices.size();
        };
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(noticesAtError, 0);
        QCOMPARE(h.kind(), Kind::error);
        QCOMPARE(h.notifier->notices,
                 (QList<Notice>{{QStringLiteral("Transcription failed"), h.pipeline->state().message}}));
    }

    // Whatever the whisper server does wrong, the run ends in an error the user is told about, and
    // nothing half-heard is typed.
    void transcriptionFailuresEndInError_data() {
        QTest::addColumn<FakeHttpServer::Response>("answer");
        QTest::addColumn<QString>("message");
        using Response = FakeHttpServer::Response;
        const QString unavailable = "The speech model is unavailable: whisper server returned an error";
        QTest::newRow("plain-text 400") << Response::plainText(400, "Invalid request") << unavailable;
        QTest::newRow("not JSON") << Response::invalidJson()
                                  << "the local server's answer was not JSON: unterminated object";
        QTest::newRow("dropped mid-body")
            << FakeWhisperServer::transcript(kRaw).cutShort() << "no answer from the local server: Connection closed";
        QTest::newRow("gigabytes announced")
            << Response::enormous()
            << "the local server's answer was unusable: the server's answer is larger than 8 MB";
    }
    void transcriptionFailuresEndInError() {
        QFETCH(FakeHttpServer::Response, answer);
        PipelineHarness h;
        h.ready();
        h.whisper.enqueueInference(answer);
        QVERIFY(h.holdAndSettle(h.dictationKey));
        QCOMPARE(h.kind(), Kind::error);
        QTEST(h.pipeline->state().message, "message");
        QCOMPARE(h.notifier->notices,
                 (QList<Notice>{{QStringLiteral("Transcription failed"), h.pipeline->state().message}}));
        QVERIFY(h.injector->injected.isEmpty());
    }

    void deliveryFailuresKeepTheText_data() {
        QTest::addColumn<bool>("switchApp");
        QTest::addColumn<bool>("clipboardWorks");
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("body");
        const QString onClipboard = QStringLiteral("The text is on your clipboard \u2014 press \u2318V to paste it.");
        QTest::newRow("destination changed")
            << true << true << "The destination app changed while you were speaking." << onClipboard;
        QTest::newRow("paste failed") << false << true
                                      << "Could not insert text: could not synthesise the paste keystroke"
                                      << onClipboard;
        // Nowhere to leave it: the notice must not send the user to an empty clipboard.
        QTest::newRow("the clipboard unreachable too")
            << false << false << "Could not insert text: could not synthesise the paste keystroke"
            << "Could not insert text: could not write to the pasteboard.";
    }
    void deliveryFailuresKeepTheText() {
        QFETCH(bool, switchApp);
        QFETCH(bool, clipboardWorks);
        QFETCH(QString, message);
        QFETCH(QString, body);
        PipelineHarness h;
        if (!clipboardWorks)
            h.injector->copyFailure =
                QuorvaneError::injectionFailed(QStringLiteral("could not write to the pasteboard"));
        h.ready();
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(h.press(h.dictationKey));
        if (switchApp)
            h.frontmost->app = FrontmostApp{QStringLiteral("Slack"), QStringLiteral("com.tinyspeck.slackmacgap"), 7};
        else
            h.injector->failNextInjection(
                QuorvaneError::injectionFailed(QStringLiteral("could not synthesise the paste keystroke")));
        h.scheduler.advance(1000);
        h.dictationKey.release();
        QVERIFY(h.settle());
        QCOMPARE(h.pipeline->state(), PipelineState::error(message));
        QVERIFY(h.injector->injected.isEmpty());
        QCOMPARE(h.injector->clipboard, clipboardWorks ? std::optional<QString>(kClean) : std::nullopt);
        QCOMPARE(h.notifier->notices, (QList<Notice>{{QStringLiteral("Couldn't type that"), body}}));
        QVERIFY(h.utterances.isEmpty());
    }

    void editInPlace_data() {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<bool>("selected");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<bool>("selectionMoves");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<Notice>("notice"); // none when the selection is replaced by the reply
        const QString rewrite = QStringLiteral("The meeting is at 10:30 in room 4, and we need the slides.");
        const QString changed = QStringLiteral("The selection changed while you were speaking. Nothing was replaced.");
        QTest::newRow("not a command") << "banana bread" << true << "" << false
                                       << "INFO Edit command was not recognized; selection left untouched."
                                       << Notice{"Edit command not recognized",
                                                 "Say one command: fix grammar, make concise, make formal, make "
                                                 "casual, improve clarity, turn into bullet points."};
        QTest::newRow("nothing selected")
            << "fix grammar" << false << "" << false << ""
            << Notice{"Edit in Place", "Select text first, then hold the Edit in Place key. Nothing was replaced."};
        QTest::newRow("timed out") << "fix grammar" << true << kTimeout << false
                                   << "WARN Selected-text rewrite exceeded its 2500 ms budget."
                                   << Notice{"Rewrite timed out", "The original text was left unchanged."};
        QTest::newRow("guard refuses")
            << "fix grammar" << true << "The meeting is at 11:30 in room 5, and we need the slides." << false
            << "WARN Rewrite guard kept the original selection (rejectedProtectedContent)"
            << Notice{"Unsafe rewrite blocked",
                      "Quorvane kept the original text because the rewrite changed protected content or meaning."};
        QTest::newRow("selection moved") << "fix grammar" << true << rewrite << true
                                         << "WARN Selected text was not replaced: " + changed
                                         << Notice{"Nothing was replaced", changed};
        QTest::newRow("replaced") << "fix grammar please" << true << rewrite << false << "" << Notice{};
    }
    void editInPlace() {
        QFETCH(QString, spoken);
        QFETCH(bool, selected);
        QFETCH(QString, reply);
        QFETCH(bool, selectionMoves);
        QFETCH(QString, logLine);
        QFETCH(Notice, notice);
        PipelineHarness h;
        const SelectedTextSnapshot snapshot{kSelection, 42, TextSelectionRange{10, kSelection.size()}};
        if (selected)
            h.selection->current = snapshot;
        h.ready();
        h.transcript(spoken);
        replyOrStall(h, reply, kSelection);
        QVERIFY(h.press(h.editKey));
        if (selectionMoves)
            h.selection->current = SelectedTextSnapshot{kSelection, 42, TextSelectionRange{50, kSelection.size()}};
        h.scheduler.advance(1000);
        h.editKey.release();
        if (reply == kTimeout)
            QVERIFY(h.modelAsked() && h.expiresAfter(2500));
        QVERIFY(h.settle());

        // The command's own words bias recognition.
        QVERIFY(h.recognitionHints().startsWith("fix grammar"));
        QVERIFY2(logLine.isEmpty() || h.logged(logLine), h.logText());
        if (notice.title.isEmpty()) {
            QCOMPARE(h.selection->replacements, (QList<std::pair<SelectedTextSnapshot, QString>>{{snapshot, reply}}));
            QVERIFY(h.notifier->notices.isEmpty());
        } else {
            QVERIFY(h.selection->replacements.isEmpty());
            QCOMPARE(h.notifier->notices, QList<Notice>{notice});
        }
        QCOMPARE(h.kind(), selectionMoves ? Kind::error : Kind::idle);
        QVERIFY(h.injector->injected.isEmpty());
        QVERIFY(h.utterances.isEmpty());
    }

    void promptMode_data() {
        QTest::addColumn<bool>("toAgent");
        QTest::addColumn<QString>("reply");
        QTest::addColumn<bool>("agentFails");
        QTest::addColumn<QStringList>("titles");
        QTest::addColumn<Kind>("end");
        const QString simplified = QStringLiteral("Prompt simplified for safety");
        QTest::newRow("typed into the focused app") << false << kPrompt << false << QStringList{} << Kind::idle;
        // 1,800 ms base, below the 2,500 ms formatter timeout; the verbatim fallback may still be typed.
        QTest::newRow("timed out, typed") << false << kTimeout << false << QStringList{simplified} << Kind::idle;
        QTest::newRow("no model, typed verbatim") << false << kNoModel << false << QStringList{} << Kind::idle;
        QTest::newRow("handed off") << true << kPrompt << false << QStringList{} << Kind::idle;
        QTest::newRow("handoff fails") << true << kPrompt << true << QStringList{"Prompt copied instead"}
                                       << Kind::error;
        QTest::newRow("fallback withheld") << true << "Sure! Here is your prompt." << false
                                           << QStringList{simplified, "Review prompt before sending"} << Kind::idle;
    }
    void promptMode() {
        QFETCH(bool, toAgent);
        QFETCH(QString, reply);
        QFETCH(bool, agentFails);
        QFETCH(QStringList, titles);
        QFETCH(Kind, end);
        TempGitRepository repository(QStringLiteral("webshop"));
        QVERIFY(repository.isValid());
        QVERIFY(repository.write(QStringLiteral("api/client.ts"), "export function fetchUser() {}\n"));
        repository.commitAll();
        PipelineHarness h;
        h.repositoryProvider = makePlatformKit().repositoryContext;
        h.config.pinnedRepositoryPath = repository.root();
        if (toAgent)
            h.config.promptDestination = PromptDestination::claude;
        const QString failure =
            QStringLiteral("Could not hand off the prompt: the agent did not become ready in Terminal");
        if (agentFails)
            h.agent->failure =
                QuorvaneError::agentHandoffFailed(QStringLiteral("the agent did not become ready in Terminal"));
        if (reply == kNoModel)
            h.config.formatter = FormatterKind::none;
        h.ready();
        h.transcript(kRequest);
        if (reply != kNoModel)
            replyOrStall(h, reply, kPrompt);
        QVERIFY(h.hold(h.promptKey));
        if (reply == kTimeout)
            QVERIFY(h.modelAsked() && h.expiresAfter(1800));
        QVERIFY(h.settle());

        QVERIFY2(h.kind() == end, h.logText());
        QCOMPARE(h.notifier->titles(), titles);
        QVERIFY(h.loggedStartingWith(QStringLiteral("INFO Repository context ready \u00B7 webshop")));
        QCOMPARE(h.injector->injected.size(), toAgent ? 0 : 1);
        // The agent path always leaves the prompt on the clipboard.
        const QString prompt = toAgent ? h.injector->clipboard.value_or(QString()) : h.injector->injected.value(0);
        QVERIFY2(prompt.startsWith(QStringLiteral("Goal:")) && prompt.contains(kRequest), qPrintable(prompt));
        const bool handedOff = toAgent && titles.isEmpty();
        QCOMPARE(h.agent->handoffs.size(), handedOff ? 1 : 0);
        if (reply == kNoModel)
            QCOMPARE(h.modelRequestCount(), 0);
        if (handedOff) {
            QCOMPARE(h.agent->handoffs.first().agent, AgentKind::claude);
            QCOMPARE(h.agent->handoffs.first().repository.name, QStringLiteral("webshop"));
            QCOMPARE(h.agent->handoffs.first().prompt, prompt);
            QVERIFY(h.modelPrompt().contains(QStringLiteral("webshop")));
        }
        // Every delivered prompt, a withheld one included, is remembered.
        QCOMPARE(h.pipeline->store().recentTranscripts(5).size(), end == Kind::idle ? 1 : 0);
        QCOMPARE(h.loggedStartingWith(QStringLiteral("INFO Prompt Mode complete")), end == Kind::idle);
        if (agentFails) {
            QVERIFY(h.logged(QStringLiteral("ERROR Prompt delivery failed: ") + failure));
            QCOMPARE(h.notifier->notices.first().body, failure + QStringLiteral(". The prompt is on your clipboard."));
        }
    }
};

QTEST_GUILESS_MAIN(TestPipelineRuns)
#include "tst_pipeline_runs.moc"
