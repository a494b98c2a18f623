#include "PipelineHarness.h"

#include "TempGitRepository.h"
#include "platform/PlatformKitFactory.h"

#include <QFileInfo>
#include <QTemporaryDir>

using Kind = PipelineState::Kind;
using Notice = RecordingNotifier::Notice;

Q_DECLARE_METATYPE(FormatterKind)
Q_DECLARE_METATYPE(PipelineState::Kind)

namespace {

const QString kRaw = QStringLiteral("um so the deployment of kubernetes cluster finished early today");
const QString kRawPunctuated = QStringLiteral("Um so the deployment of kubernetes cluster finished early today.");
const QString kClean = QStringLiteral("So the deployment of the Kubernetes cluster finished early today.");

const QString kSelection = QStringLiteral("the meeting is at 10:30 in room 4 and we need the slides");
const QString kRequest = QStringLiteral("Add a retry to fetchUser in api/client.ts.");

QString promptDocument(const QString &goal) {
    return QStringLiteral("Goal:\n") + goal +
           QStringLiteral("\nContext:\nfetchUser in api/client.ts.\nConstraints:\nAdd one retry.\nAcceptance "
                          "criteria:\nfetchUser has a retry.\nVerification:\nfetchUser in api/client.ts has a "
                          "retry.");
}

} // namespace

// What each mode's run does with the transcript: formatting and its guard, delivery, and every
// fallback and notice on the way.
class TestPipelineRuns : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

    // Dictation with `h`'s settings; returns false when the run did not end.
    static bool dictate(PipelineHarness &h) { return h.holdAndSettle(h.dictationKey); }

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
        QVERIFY(dictate(h));

        QCOMPARE(h.states,
                 (QList<PipelineState>{PipelineState::recording(), PipelineState::thinking(), PipelineState::idle()}));
        QCOMPARE(h.injector->injected, QStringList{kClean});
        QVERIFY(h.notifier->notices.isEmpty());
        // Vocabulary reaches the recogniser (with the spoken form of an identifier) and the model.
        const QByteArray hints = h.whisper.inferenceRequests().value(0).field("prompt").value_or(QByteArray());
        QVERIFY2(hints.contains("Quorvane") && hints.contains("kube ctl"), hints.constData());
        const QJsonObject request = h.modelRequests().value(0);
        QVERIFY(request.value(QStringLiteral("prompt")).toString().contains(QStringLiteral("Notes")));

        QCOMPARE(h.utterances.size(), 1);
        const Utterance utterance = h.utterances.first();
        QCOMPARE(utterance.rawTranscript, kRaw);
        QCOMPARE(utterance.shippedText, kClean);
        QCOMPARE(utterance.guardVerdict, QStringLiteral("accepted"));
        QCOMPARE(utterance.appBundleID, std::optional<QString>(QStringLiteral("com.apple.Notes")));
        QVERIFY(utterance.audioFile);
        QVERIFY(QFileInfo::exists(h.pipeline->store().audioURL(utterance.id)));
        QCOMPARE(h.pipeline->store().recentTranscripts(5), QStringList{kClean});
        QVERIFY(h.pipeline->learner().model().terms.contains(QStringLiteral("kubernetes")));
        QCOMPARE(h.pipeline->latency().samples().size(), 1);
        QVERIFY(h.loggedStartingWith(QStringLiteral("INFO Dictation complete \u00B7 asr ")));

        // The next dictation carries the first one as recent context.
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(dictate(h));
        QVERIFY(h.modelRequests()
                    .value(1)
                    .value(QStringLiteral("prompt"))
                    .toString()
                    .contains(QStringLiteral("Recent dictation")));
    }

    void nothingIsKeptWhenRetentionIsOff() {
        PipelineHarness h;
        h.config.retainHistory = false;
        h.config.learnVocabulary = false;
        h.ready();
        h.transcript(kRaw);
        h.reply(kClean);
        QVERIFY(dictate(h));
        QCOMPARE(h.injector->injected, QStringList{kClean});
        QCOMPARE(h.utterances.size(), 1);
        QCOMPARE(h.pipeline->store().totalCount(), 0);
        QCOMPARE(h.pipeline->learner().model().utterances, 0);
    }

    void dictationFallsBackToTheRawTranscript_data() {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<QString>("verdict");
        QTest::addColumn<QString>("logLine");
        QTest::newRow("empty") << ""
                               << "rejectedEmpty"
                               << "WARN Guard overruled the formatter (rejectedEmpty)";
        QTest::newRow("too long") << QString(kClean + QLatin1Char(' ')).repeated(3) << "rejectedTooLong"
                                  << "WARN Guard overruled the formatter (rejectedTooLong)";
        QTest::newRow("content lost") << "The job is done."
                                      << "rejectedContentLoss"
                                      << "WARN Guard overruled the formatter (rejectedContentLoss)";
        QTest::newRow("invented") << "The deployment of the Kubernetes cluster finished early today in Berlin "
                                     "and Paris."
                                  << "rejectedInvention"
                                  << "WARN Guard overruled the formatter (rejectedInvention)";
        QTest::newRow("refusal") << "I'm sorry, I can't help with that."
                                 << "rejectedRefusal"
                                 << "WARN Guard overruled the formatter (rejectedRefusal)";
    }
    void dictationFallsBackToTheRawTranscript() {
        QFETCH(QString, reply);
        QFETCH(QString, verdict);
        QFETCH(QString, logLine);
        PipelineHarness h;
        h.ready();
        h.transcript(kRaw);
        h.reply(reply);
        QVERIFY(dictate(h));
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected, QStringList{kRawPunctuated});
        QCOMPARE(h.utterances.value(0).guardVerdict, verdict);
        QVERIFY2(h.logged(logLine), qPrintable(h.log().join(QLatin1Char('\n'))));
    }

    void formatterTimeOutAndFailure() {
        PipelineHarness h;
        h.ready();
        // 2,500 ms base: 10 words earn nothing more.
        h.transcript(kRaw);
        h.reply(kClean, 10000);
        QVERIFY(h.hold(h.dictationKey));
        QVERIFY(h.modelAsked());
        h.scheduler.advance(2499);
        QTest::qWait(10);
        QCOMPARE(h.kind(), Kind::thinking);
        h.scheduler.advance(1);
        QVERIFY(h.settle());
        QVERIFY(h.logged(QStringLiteral("WARN Formatter exceeded its 2500 ms budget.")));
        QCOMPARE(h.injector->injected, QStringList{kRawPunctuated});
        QCOMPARE(h.utterances.value(0).guardVerdict, QStringLiteral("formatterFailed"));

        h.transcript(kRaw);
        h.ollama.enqueueGenerate(FakeHttpServer::Response::json(500, R"({"error":"runner crashed"})"));
        QVERIFY(dictate(h));
        QVERIFY(h.loggedStartingWith(QStringLiteral("WARN Formatter failed: ")));
        QCOMPARE(h.injector->injected.value(1), kRawPunctuated);
        QCOMPARE(h.utterances.value(1).guardVerdict, QStringLiteral("formatterFailed"));
    }

    void formatterNotAsked_data() {
        QTest::addColumn<QString>("transcript");
        QTest::addColumn<FormatterKind>("formatter");
        QTest::addColumn<bool>("modelPulled");
        QTest::addColumn<QString>("shipped");
        QTest::addColumn<QString>("verdict");
        QTest::newRow("one word") << "hello" << FormatterKind::ollama << true << "Hello."
                                  << "skippedTooShort";
        QTest::newRow("no formatter") << kRaw << FormatterKind::none << true << kRawPunctuated << "formatterDisabled";
        QTest::newRow("model unavailable")
            << kRaw << FormatterKind::ollama << false << kRawPunctuated << "formatterFailed";
    }
    void formatterNotAsked() {
        QFETCH(QString, transcript);
        QFETCH(FormatterKind, formatter);
        QFETCH(bool, modelPulled);
        QFETCH(QString, shipped);
        QFETCH(QString, verdict);
        PipelineHarness h;
        h.config.formatter = formatter;
        if (!modelPulled)
            h.ollama.setModels({});
        h.ready();
        h.transcript(transcript);
        QVERIFY(dictate(h));
        QCOMPARE(h.injector->injected, QStringList{shipped});
        QCOMPARE(h.utterances.value(0).guardVerdict, verdict);
        QVERIFY(h.modelRequests().isEmpty());
    }

    void emptyTranscriptEndsQuietly() {
        PipelineHarness h;
        h.ready();
        h.transcript(QString());
        QVERIFY(dictate(h));
        QCOMPARE(h.kind(), Kind::idle);
        QVERIFY(h.logged(QStringLiteral("INFO Nothing was said.")));
        QVERIFY(h.notifier->notices.isEmpty());
        QVERIFY(h.injector->injected.isEmpty());
    }

    void transcriptionFailureIsShown() {
        PipelineHarness h;
        h.ready();
        h.whisper.enqueueInference(FakeHttpServer::Response::plainText(500, "boom"));
        QVERIFY(dictate(h));
        QCOMPARE(h.kind(), Kind::error);
        const QString message = h.pipeline->state().message;
        QVERIFY(h.logged(QStringLiteral("ERROR Transcription failed: ") + message));
        QCOMPARE(h.notifier->notices, (QList<Notice>{{QStringLiteral("Transcription failed"), message}}));
    }

    void deliveryFailuresKeepTheText_data() {
        QTest::addColumn<bool>("switchApp");
        QTest::addColumn<QString>("message");
        QTest::newRow("destination changed") << true << "The destination app changed while you were speaking.";
        QTest::newRow("paste failed") << false << "Could not insert text: could not synthesise the paste keystroke";
    }
    void deliveryFailuresKeepTheText() {
        QFETCH(bool, switchApp);
        QFETCH(QString, message);
        PipelineHarness h;
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
        QCOMPARE(h.injector->clipboard, std::optional<QString>(kClean));
        QVERIFY(h.logged(QStringLiteral("ERROR Injection failed: ") + message));
        QCOMPARE(h.notifier->notices,
                 (QList<Notice>{{QStringLiteral("Couldn't type that"),
                                 QStringLiteral("The text is on your clipboard \u2014 press \u2318V to paste it.")}}));
        QVERIFY(h.utterances.isEmpty());
    }

    // MARK: Edit in Place

    void editInPlace_data() {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<bool>("selected");
        QTest::addColumn<QString>("reply"); // "<timeout>" holds the reply past the budget
        QTest::addColumn<bool>("selectionMoves");
        QTest::addColumn<QString>("logLine");
        QTest::addColumn<QString>("title");
        QTest::addColumn<QString>("body");
        QTest::addColumn<QString>("replacement");
        const QString unchanged = QStringLiteral("The original text was left unchanged.");
        QTest::newRow("not a command") << "banana bread" << true << "" << false
                                       << "INFO Edit command was not recognized; selection left untouched."
                                       << "Edit command not recognized"
                                       << "Say one command: fix grammar, make concise, make formal, make casual, "
                                          "improve clarity, turn into bullet points."
                                       << "";
        QTest::newRow("nothing selected") << "fix grammar" << false << "" << false << ""
                                          << "Edit in Place"
                                          << "The original selection is no longer available. Nothing was replaced."
                                          << "";
        QTest::newRow("timed out") << "fix grammar" << true << "<timeout>" << false
                                   << "WARN Selected-text rewrite exceeded its 2500 ms budget."
                                   << "Rewrite timed out" << unchanged << "";
        QTest::newRow("guard refuses") << "fix grammar" << true
                                       << "The meeting is at 11:30 in room 5, and we need the slides." << false
                                       << "WARN Rewrite guard kept the original selection (rejectedProtectedContent)"
                                       << "Unsafe rewrite blocked"
                                       << "Quorvane kept the original text because the rewrite changed protected "
                                          "content or meaning."
                                       << "";
        QTest::newRow("selection moved") << "fix grammar" << true
                                         << "The meeting is at 10:30 in room 4, and we need the slides." << true
                                         << "WARN Selected text was not replaced: The selection changed while you "
                                            "were speaking. Nothing was replaced."
                                         << "Nothing was replaced"
                                         << "The selection changed while you were speaking. Nothing was replaced."
                                         << "";
        QTest::newRow("replaced") << "fix grammar please" << true
                                  << "The meeting is at 10:30 in room 4, and we need the slides." << false << ""
                                  << ""
                                  << ""
                                  << "The meeting is at 10:30 in room 4, and we need the slides.";
    }
    void editInPlace() {
        QFETCH(QString, spoken);
        QFETCH(bool, selected);
        QFETCH(QString, reply);
        QFETCH(bool, selectionMoves);
        QFETCH(QString, logLine);
        QFETCH(QString, title);
        QFETCH(QString, body);
        QFETCH(QString, replacement);
        PipelineHarness h;
        const SelectedTextSnapshot snapshot{kSelection, 42, TextSelectionRange{10, kSelection.size()}};
        if (selected)
            h.selection->current = snapshot;
        h.ready();
        h.transcript(spoken);
        const bool timeout = reply == QStringLiteral("<timeout>");
        h.reply(timeout ? kSelection : reply, timeout ? 10000 : 0);

        QVERIFY(h.press(h.editKey));
        QVERIFY(h.logged(QStringLiteral("INFO Edit command recording started.")));
        if (selectionMoves)
            h.selection->current = SelectedTextSnapshot{kSelection, 42, TextSelectionRange{50, kSelection.size()}};
        h.scheduler.advance(1000);
        h.editKey.release();
        if (timeout) {
            QVERIFY(h.modelAsked());
            h.scheduler.advance(2500);
        }
        QVERIFY(h.settle());

        // The command's own words bias recognition.
        QVERIFY(h.whisper.inferenceRequests()
                    .value(0)
                    .field("prompt")
                    .value_or(QByteArray())
                    .startsWith("fix "
                                "grammar"));
        if (!logLine.isEmpty())
            QVERIFY2(h.logged(logLine), qPrintable(h.log().join(QLatin1Char('\n'))));
        if (replacement.isEmpty()) {
            QVERIFY(h.selection->replacements.isEmpty());
            QCOMPARE(h.notifier->notices, (QList<Notice>{{title, body}}));
        } else {
            QCOMPARE(h.selection->replacements.size(), 1);
            QCOMPARE(h.selection->replacements.first().first, snapshot);
            QCOMPARE(h.selection->replacements.first().second, replacement);
            QVERIFY(h.notifier->notices.isEmpty());
            QVERIFY(h.loggedStartingWith(QStringLiteral("INFO Edit in Place complete \u00B7 Fix grammar \u00B7 asr ")));
        }
        QCOMPARE(h.kind(), selectionMoves ? Kind::error : Kind::idle);
        QVERIFY(h.injector->injected.isEmpty());
        QVERIFY(h.utterances.isEmpty());
    }

    // MARK: Prompt Mode

    void promptIsTypedIntoTheFocusedApp() {
        PipelineHarness h;
        h.ready();
        h.transcript(kRequest);
        const QString document = promptDocument(QStringLiteral("Add a retry to fetchUser in api/client.ts."));
        h.reply(document);
        QVERIFY(h.holdAndSettle(h.promptKey));
        QVERIFY(h.logged(QStringLiteral("INFO Prompt Mode recording started.")));
        QCOMPARE(h.kind(), Kind::idle);
        QCOMPARE(h.injector->injected.size(), 1);
        QVERIFY(h.injector->injected.first().startsWith(QStringLiteral("Goal:")));
        QVERIFY(h.injector->injected.first().contains(QStringLiteral("api/client.ts")));
        QVERIFY(h.loggedStartingWith(QStringLiteral("INFO Prompt Mode complete \u00B7 asr ")));
        QCOMPARE(h.pipeline->store().totalCount(), 1);
        QVERIFY2(h.notifier->titles().isEmpty(), qPrintable(h.log().join(QLatin1Char('\n'))));
    }

    void promptCompilationHasAnEighteenHundredMillisecondBase() {
        PipelineHarness h;
        h.config.formatterTimeoutMS = 2500;
        h.ready();
        h.transcript(kRequest);
        h.reply(promptDocument(kRequest), 10000);
        QVERIFY(h.hold(h.promptKey));
        QVERIFY(h.modelAsked());
        h.scheduler.advance(1799);
        QTest::qWait(10);
        QCOMPARE(h.kind(), Kind::thinking);
        h.scheduler.advance(1);
        QVERIFY(h.settle());
        QVERIFY(h.logged(QStringLiteral("WARN Prompt compilation exceeded its 1800 ms budget.")));
        QCOMPARE(
            h.notifier->notices,
            (QList<Notice>{{QStringLiteral("Prompt simplified for safety"),
                            QStringLiteral("The local model timed out, so Quorvane kept your request verbatim.")}}));
        // The fallback keeps the request word for word, and may be typed where the user is.
        QCOMPARE(h.injector->injected.size(), 1);
        QVERIFY(h.injector->injected.first().contains(kRequest));
    }

    void promptHandoffToAnAgent_data() {
        QTest::addColumn<QString>("reply");
        QTest::addColumn<bool>("agentFails");
        QTest::addColumn<int>("handoffs");
        QTest::addColumn<QStringList>("titles");
        QTest::addColumn<PipelineState::Kind>("endState");
        QTest::newRow("handed off") << promptDocument(QStringLiteral("Add a retry to fetchUser in api/client.ts."))
                                    << false << 1 << QStringList{} << Kind::idle;
        QTest::newRow("handoff fails") << promptDocument(QStringLiteral("Add a retry to fetchUser in api/client.ts."))
                                       << true << 0 << QStringList{QStringLiteral("Prompt copied instead")}
                                       << Kind::error;
        QTest::newRow("fallback withheld") << "Sure! Here is your prompt." << false << 0
                                           << QStringList{QStringLiteral("Prompt simplified for safety"),
                                                          QStringLiteral("Review prompt before sending")}
                                           << Kind::idle;
    }
    void promptHandoffToAnAgent() {
        QFETCH(QString, reply);
        QFETCH(bool, agentFails);
        QFETCH(int, handoffs);
        QFETCH(QStringList, titles);
        QFETCH(PipelineState::Kind, endState);
        TempGitRepository repository(QStringLiteral("webshop"));
        QVERIFY(repository.isValid());
        QVERIFY(repository.write(QStringLiteral("api/client.ts"), "export function fetchUser() {}\n"));
        repository.commitAll();

        PipelineHarness h;
        h.repositoryProvider = makePlatformKit().repositoryContext;
        h.config.promptDestination = PromptDestination::claude;
        h.config.pinnedRepositoryPath = repository.root();
        if (agentFails)
            h.agent->failure =
                QuorvaneError::agentHandoffFailed(QStringLiteral("the agent did not become ready in Terminal"));
        h.ready();
        h.transcript(kRequest);
        h.reply(reply);
        QVERIFY(h.holdAndSettle(h.promptKey));

        QVERIFY2(h.kind() == endState, qPrintable(h.log().join(QLatin1Char('\n'))));
        QCOMPARE(h.notifier->titles(), titles);
        QCOMPARE(h.agent->handoffs.size(), handoffs);
        QVERIFY(h.injector->injected.isEmpty());
        // Whatever happened, the prompt is on the clipboard.
        QVERIFY(h.injector->clipboard && h.injector->clipboard->startsWith(QStringLiteral("Goal:")));
        QVERIFY(h.loggedStartingWith(QStringLiteral("INFO Repository context ready \u00B7 webshop")));
        if (handoffs) {
            QCOMPARE(h.agent->handoffs.first().agent, AgentKind::claude);
            QCOMPARE(h.agent->handoffs.first().repository.name, QStringLiteral("webshop"));
            QCOMPARE(h.agent->handoffs.first().prompt, *h.injector->clipboard);
            // The model saw the repository's facts.
            QVERIFY(h.modelRequests()
                        .value(0)
                        .value(QStringLiteral("prompt"))
                        .toString()
                        .contains(QStringLiteral("webshop")));
        }
        if (agentFails) {
            const QString description =
                QStringLiteral("Could not hand off the prompt: the agent did not become ready in Terminal");
            QVERIFY(h.logged(QStringLiteral("ERROR Prompt delivery failed: ") + description));
            QCOMPARE(h.notifier->notices.first().body,
                     description + QStringLiteral(". The prompt is on your clipboard."));
        }
        if (titles.contains(QStringLiteral("Review prompt before sending")))
            QVERIFY(h.loggedStartingWith(
                QStringLiteral("WARN Direct handoff withheld because the prompt used a lossless fallback (rejected")));
    }
};

QTEST_GUILESS_MAIN(TestPipelineRuns)
#include "tst_pipeline_runs.moc"
