#include "FakeOllamaServer.h"
#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "speech/WavDecoder.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

namespace {

// Timings differ from run to run; everything else in the report is exact.
QString withoutTimings(QString out) {
    static const QRegularExpression milliseconds(QStringLiteral("\\b\\d+ ms\\b"));
    return out.replace(milliseconds, QStringLiteral("N ms"));
}

QString report(const QString &raw, const QString &formatted, const QString &verdict, bool clean) {
    const QString rule = QString(41, QChar(0x2500)) + "\n";
    return rule + "raw ASR    : \"" + raw + "\"\nformatted  : \"" + formatted + "\"\nverdict    : " + verdict + "\n" +
           rule +
           "asr        : N ms\nformat     : N ms\ntotal      : N ms  (from end of audio, injection excluded)\n\n" +
           (clean ? "✓ Pipeline ran end to end.\n" : "✓ Pipeline ran; guard protected against a bad rewrite.\n");
}

} // namespace

class TranscribeTest : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    std::unique_ptr<FakeWhisperServer> m_whisper;
    std::unique_ptr<FakeOllamaServer> m_ollama;
    QString m_wav;

    void writeSettings(const QString &key = {}, const QString &value = {}) {
        QJsonObject settings{{"asr", "whisperServer"},
                             {"formatter", "ollama"},
                             {"ollamaModel", "llama3.2:latest"},
                             {"whisperEndpoint", m_whisper->url().toString()},
                             {"ollamaEndpoint", m_ollama->url().toString()}};
        if (!key.isEmpty())
            settings.insert(key, value);
        writeFileBytes(m_home.filePath("config.json"), QJsonDocument(settings).toJson());
    }
    // Runs the command on a transcript, after the model's warm-up has been answered.
    QuorvaneRun transcribe(const QString &spoken, const QStringList &extra = {}) {
        m_whisper->enqueueInference(FakeWhisperServer::transcript(spoken));
        m_ollama->enqueueGenerate(FakeOllamaServer::generation("ok"));
        return runQuorvane(m_home.path(), QStringList{"transcribe", m_wav} + extra);
    }

private slots:
    void init() {
        QVERIFY(m_home.isValid());
        QFile::remove(m_home.filePath("vocabulary.txt"));
        m_whisper = std::make_unique<FakeWhisperServer>();
        m_ollama = std::make_unique<FakeOllamaServer>();
        m_ollama->setModels({"llama3.2:latest"});
        m_wav = m_home.filePath("clip.wav");
        writeToneWav(m_wav, 1.0, 16000);
        writeSettings();
    }

    void acceptedRewrite() {
        m_ollama->setDefaultGenerate(FakeOllamaServer::generation("So the meeting is at three tomorrow."));
        const QuorvaneRun run = transcribe(" so the meeting is at three tomorrow\n");
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(withoutTimings(run.out), "audio      : 1.0s · 16000 Hz · 16000 samples\n" +
                                              report("so the meeting is at three tomorrow",
                                                     "So the meeting is at three tomorrow.", "accepted", true));
        QVERIFY(m_ollama->generateBodies().last().value("prompt").toString().contains("meeting is at three"));
    }

    void guardOverrulesTheModel() {
        const QString proposal = "Sure! I can help you send the report to Anna. Let me know what else you need.";
        m_ollama->setDefaultGenerate(FakeOllamaServer::generation(proposal));
        const QuorvaneRun run = transcribe(" send the report to anna");
        QCOMPARE(run.exitCode, 0);
        const QStringList lines = withoutTimings(run.out).split('\n');
        QVERIFY2(lines.at(1).startsWith("  ⚠︎ guard overruled the model (rejected"), qPrintable(lines.at(1)));
        QVERIFY(lines.at(1).endsWith("); proposal was:"));
        QCOMPARE(lines.at(2), "     \"" + proposal + "\"");
        const QString verdict = lines.at(1).section('(', 1).section(')', 0, 0);
        QCOMPARE(lines.mid(3).join('\n'),
                 report("send the report to anna", "Send the report to anna.", verdict, false));
    }

    void rawWordsShip_data() {
        QTest::addColumn<QString>("spoken");
        QTest::addColumn<QString>("verdict");
        QTest::addColumn<qsizetype>("modelRequests"); // counting the warm-up
        QTest::newRow("one word") << "hello"
                                  << "skippedTooShort" << qsizetype(1);
        QTest::newRow("formatter fails") << "please call me back later"
                                         << "formatterFailed" << qsizetype(2);
        QTest::newRow("formatter disabled") << "notes for the standup"
                                            << "formatterDisabled" << qsizetype(0);
    }
    void rawWordsShip() {
        QFETCH(QString, spoken);
        QFETCH(QString, verdict);
        QFETCH(qsizetype, modelRequests);
        if (verdict == "formatterFailed")
            m_ollama->setDefaultGenerate(FakeOllamaServer::Response::json(500, R"({"error":"runner failed"})"));
        if (verdict == "formatterDisabled")
            writeSettings("formatter", "none");
        const QuorvaneRun run = transcribe(" " + spoken);
        QCOMPARE(run.exitCode, 0);
        const QString shipped = spoken.at(0).toUpper() + spoken.mid(1) + ".";
        QVERIFY2(withoutTimings(run.out).endsWith(report(spoken, shipped, verdict, verdict != "formatterFailed")),
                 qPrintable(run.out));
        QVERIFY(!run.out.contains("HTTP error")); // the formatter's error is not printed
        QCOMPARE(m_ollama->generateBodies().size(), modelRequests);
    }

    void resamplesToTheEngineRateAndBiases() {
        writeToneWav(m_wav, 0.5, 48000);
        writeFileBytes(m_home.filePath("vocabulary.txt"), "# my words\nKubernetes\nQuorvane\n");
        const QuorvaneRun run = transcribe(" deploy kubernetes", {"pt-BR", "ignored"});
        QCOMPARE(run.exitCode, 0);
        QVERIFY(
            run.out.startsWith("audio      : 0.5s · 48000 Hz · 24000 samples\n  biasing with 2 vocabulary terms\n"));
        const auto requests = m_whisper->inferenceRequests();
        QCOMPARE(requests.size(), 1);
        const WavDecoder::Decoded sent = WavDecoder::decode(*requests.first().field("file"));
        QCOMPARE(sent.sampleRate, 16000.0);
        QCOMPARE(sent.samples.size(), std::size_t(8000));
        QCOMPARE(*requests.first().field("language"), QByteArray("pt"));
        QVERIFY(requests.first().field("prompt")->contains("Kubernetes"));
    }

    void failuresPrintOneLine_data() {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QString>("expected");
        QTest::newRow("missing file") << "missing"
                                      << "✗ Could not read %wav: ";
        QTest::newRow("not a WAV") << "text"
                                   << "✗ Could not read %wav: missing RIFF header";
        QTest::newRow("whisper down") << "whisper down"
                                      << "✗ ASR preparation failed: The speech model is unavailable: no whisper.cpp "
                                         "server at http://127.0.0.1:%closed. Start one with: whisper-server -m "
                                         "<model.bin> --port 8080";
        QTest::newRow("ollama down") << "ollama down"
                                     << "✗ Formatter unavailable: Ollama not reachable at http://127.0.0.1:%closed";
        QTest::newRow("model missing") << "model missing"
                                       << "✗ Formatter unavailable: Ollama is running but 'llama3.2:latest' is not "
                                          "pulled. Available: llama3.2, qwen3:8b";
        QTest::newRow("recognition fails") << "whisper 500"
                                           << "✗ finishUtterance failed: The speech model is unavailable: whisper "
                                              "server returned an error";
    }
    void failuresPrintOneLine() {
        QFETCH(QString, scenario);
        QFETCH(QString, expected);
        const QString closed = QString::number(FakeHttpServer::closedPort());
        if (scenario == "missing")
            QFile::remove(m_wav);
        if (scenario == "text")
            writeFileBytes(m_wav, "this is plain text, long enough to pass the size check of a header");
        if (scenario == "whisper down")
            writeSettings("whisperEndpoint", "http://127.0.0.1:" + closed);
        if (scenario == "ollama down")
            writeSettings("ollamaEndpoint", "http://127.0.0.1:" + closed);
        if (scenario == "model missing")
            m_ollama->setModels({"llama3.2", "qwen3:8b"});
        if (scenario == "whisper 500")
            m_whisper->setDefaultInference(FakeHttpServer::Response::json(500, R"({"error":"boom"})"));
        const QuorvaneRun run = runQuorvane(m_home.path(), {"transcribe", m_wav});
        QVERIFY2(run.exitCode == 1, qPrintable(run.err));
        // Exactly one failure line, and it is the last thing printed.
        const QString failure = run.out.split('\n', Qt::SkipEmptyParts).last();
        QVERIFY2(failure.startsWith(QString(expected).replace("%wav", m_wav).replace("%closed", closed)),
                 qPrintable(failure));
        QCOMPARE(run.out.count("✗"), 1);
        QVERIFY(run.out.endsWith(failure + "\n"));
    }
};

QTEST_GUILESS_MAIN(TranscribeTest)
#include "tst_transcribe.moc"
