#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "benchmark/SpeechBenchmarkMetrics.h"
#include "speech/WavDecoder.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>
#include <algorithm>
#include <cmath>

namespace {

QuorvaneRun runBenchmark(const QString &home, const QStringList &arguments, const QString &commit = {}) {
    return runQuorvane(home, QStringList{"benchmark"} + arguments, {{"QUORVANE_BENCHMARK_COMMIT", commit}});
}

QJsonObject clip(const QString &id, const QString &audio, const QString &reference, const QString &locale = {}) {
    QJsonObject object{{"id", id}, {"audio", audio}, {"reference", reference}};
    if (!locale.isEmpty())
        object.insert("locale", locale);
    return object;
}

QByteArray manifest(const QJsonArray &clips, const QString &locale = "en-GB") {
    const QJsonObject provenance{{"source", "recorded for this test"},
                                 {"license", "CC0-1.0"},
                                 {"url", "https://example.org/data"},
                                 {"notes", "tones, not speech"}};
    QJsonObject set{{"name", "Test set"}, {"provenance", provenance}, {"clips", clips}};
    if (!locale.isEmpty())
        set.insert("locale", locale);
    return QJsonDocument(set).toJson();
}

QByteArray goodManifest() {
    return manifest({clip("a", "a.wav", "x"), clip("b", "b.wav", "y")});
}

// clips.csv as one map per clip, keyed by column name. Quoted fields may hold commas and doubled quotes.
QList<QHash<QString, QString>> readClips(const QString &path) {
    const QString text = QString::fromUtf8(readFileBytes(path));
    QList<QStringList> rows{{}};
    QString field;
    bool quoted = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        if (text[i] == u'"' && quoted && text.mid(i + 1, 1) == u"\"")
            field += text[++i];
        else if (text[i] == u'"')
            quoted = !quoted;
        else if (!quoted && (text[i] == u',' || text[i] == u'\r'))
            rows.last().append(std::exchange(field, {}));
        else if (!quoted && text[i] == u'\n')
            rows.append(QStringList());
        else
            field += text[i];
    }
    QList<QHash<QString, QString>> clips;
    for (const QStringList &row : rows.mid(1, rows.size() - 2)) {
        clips.append(QHash<QString, QString>());
        for (qsizetype c = 0; c < row.size(); ++c)
            clips.last().insert(rows[0].value(c), row[c]);
    }
    return clips;
}

QJsonObject readJson(const QString &path) {
    return QJsonDocument::fromJson(readFileBytes(path)).object();
}

// The counts a clip row must hold, worked out by hand from its reference and scripted hypothesis:
// words and characters in the reference and hypothesis, then substitutions, insertions, deletions.
void compareRow(const QHash<QString, QString> &row, const QString &hypothesis, const QList<int> &words,
                const QList<int> &chars) {
    QCOMPARE(row.value("hypothesis"), hypothesis);
    QCOMPARE(row.value("error"), QString());
    const QStringList kinds{"substitutions", "insertions", "deletions"};
    QStringList actual, expected;
    for (const QString &unit : {QStringLiteral("words"), QStringLiteral("chars")}) {
        const QString singular = unit.chopped(1);
        const QList<int> &counts = unit == "words" ? words : chars;
        actual << row.value("reference_" + unit) << row.value("hypothesis_" + unit);
        for (const QString &kind : kinds)
            actual << row.value(singular + "_" + kind);
        for (const int count : counts)
            expected << QString::number(count);
        const double errors = counts[2] + counts[3] + counts[4];
        QCOMPARE(row.value(unit == "words" ? "wer" : "cer").toDouble(), errors / counts[0]);
    }
    QCOMPARE(actual, expected);
}

// Rank ceil(p/100 × n) of the sorted values, as users of percentiles expect it.
QString nearestRank(QList<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto rank = qsizetype(std::ceil(p / 100.0 * double(values.size())));
    return QString::number(values[std::clamp<qsizetype>(rank, 1, values.size()) - 1], 'f', 1);
}

QStringList resultFolders(const QString &folder) {
    return QDir(folder).entryList({"*-results-*"}, QDir::Dirs);
}

} // namespace

class TestSpeechBenchmark : public QObject {
    Q_OBJECT

private slots:
    void fullRunMatchesHandCountedFigures() {
        QTemporaryDir dir;
        QDir().mkpath(dir.filePath("data/audio"));
        // Different rates: every clip must reach the server resampled to 16 kHz.
        const QList<std::pair<double, double>> tones{{1.0, 16000}, {2.0, 48000}, {0.5, 8000}, {1.5, 22050}};
        for (qsizetype i = 0; i < tones.size(); ++i)
            writeToneWav(dir.filePath("data/audio/c%1.wav").arg(i + 1), tones[i].first, tones[i].second);
        writeFileBytes(dir.filePath("data/set.json"), manifest({clip("c1", "audio/c1.wav", "The quick brown fox"),
                                                                clip("c2", "audio/c2.wav", "I have 3 cats"),
                                                                clip("c3", "audio/c3.wav", "Hello, world!", "de-DE"),
                                                                clip("c4", "audio/c4.wav", "He said yes")}));
        FakeWhisperServer server;
        // The warm-up gets a transcript that would spoil c1 if it were scored.
        server.enqueueInference(FakeWhisperServer::transcript(" warm up noise"));
        server.enqueueInference(FakeWhisperServer::transcript(" The quick brown fox.\n").delayedBy(60));
        server.enqueueInference(FakeWhisperServer::transcript(" I have three cats.\n").delayedBy(20));
        server.enqueueInference(FakeWhisperServer::transcript(" hello there world again\n").delayedBy(40));
        server.enqueueInference(FakeWhisperServer::transcript(" He said, \"yes\"\n"));
        const QString out = dir.filePath("results");
        const QuorvaneRun run = runBenchmark(
            dir.filePath("home"),
            {dir.filePath("data/set.json"), "--endpoint", server.url().toString(), "--warmup", "1", "--out", out},
            "0123abc");
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));

        const QList<FakeWhisperServer::Request> requests = server.inferenceRequests();
        QCOMPARE(requests.size(), 5);
        const QList<double> secondsSent = {1.0, 1.0, 2.0, 0.5, 1.5};
        for (qsizetype i = 0; i < requests.size(); ++i) {
            const WavDecoder::Decoded sent = WavDecoder::decode(requests[i].field("file").value_or(QByteArray()));
            QCOMPARE(sent.sampleRate, 16000.0);
            // Truncation in the resampler may drop the last sample.
            QVERIFY(std::abs(double(sent.samples.size()) - secondsSent[i] * 16000) <= 1);
        }
        // The clip's own locale wins over the manifest's.
        QCOMPARE(requests[2].field("language").value_or(QByteArray()), QByteArray("en"));
        QCOMPARE(requests[3].field("language").value_or(QByteArray()), QByteArray("de"));

        const auto rows = readClips(out + "/clips.csv");
        QCOMPARE(rows.size(), 4);
        // Normalised: "the quick brown fox" against itself.
        compareRow(rows[0], "The quick brown fox.", {4, 4, 0, 0, 0}, {16, 16, 0, 0, 0});
        // "3" against "three": one word substituted; "ihave3cats" against "ihavethreecats": 3→t, four inserted.
        compareRow(rows[1], "I have three cats.", {4, 4, 1, 0, 0}, {10, 14, 1, 4, 0});
        // Two extra words; "helloworld" against "hellothereworldagain": ten inserted.
        compareRow(rows[2], "hello there world again", {2, 4, 0, 2, 0}, {10, 20, 0, 10, 0});
        // Punctuation and quotes do not count, but the hypothesis is kept as the server wrote it.
        compareRow(rows[3], "He said, \"yes\"", {3, 3, 0, 0, 0}, {9, 9, 0, 0, 0});
        QStringList ids, durations, locales;
        for (const auto &row : rows) {
            ids << row.value("id");
            durations << row.value("duration_s");
            locales << row.value("locale");
        }
        QCOMPARE(ids, (QStringList{"c1", "c2", "c3", "c4"}));
        QCOMPARE(durations, (QStringList{"1.000", "2.000", "0.500", "1.500"}));
        QCOMPARE(locales, (QStringList{"en-GB", "en-GB", "de-DE", "en-GB"}));

        QList<double> latencies;
        double rtfSum = 0;
        const QList<int> delays = {60, 20, 40, 0};
        for (qsizetype i = 0; i < rows.size(); ++i) {
            latencies.append(rows[i].value("latency_ms").toDouble());
            QVERIFY2(latencies[i] >= delays[i], qPrintable(rows[i].value("latency_ms")));
            const double rtf = latencies[i] / 1000.0 / rows[i].value("duration_s").toDouble();
            QVERIFY(std::abs(rows[i].value("rtf").toDouble() - rtf) < 1e-3);
            rtfSum += rtf;
        }

        const QJsonObject summary = readJson(out + "/summary.json");
        QCOMPARE(summary["engine"]["name"].toString(), "whisper.cpp server");
        QCOMPARE(summary["engine"]["endpoint"].toString(), server.url().toString());
        QCOMPARE(summary["locale"].toString(), "en-GB");
        QCOMPARE(summary["commit"].toString(), "0123abc");
        QCOMPARE(summary["dataset"]["name"].toString(), "Test set");
        QCOMPARE(summary["dataset"]["provenance"]["license"].toString(), "CC0-1.0");
        QCOMPARE(summary["dataset"]["provenance"]["url"].toString(), "https://example.org/data");
        QCOMPARE(summary["normalization"].toString(), SpeechBenchmarkMetrics::normalizationRule);
        QCOMPARE(summary["clips"]["scored"].toInt(), 4);
        QCOMPARE(summary["clips"]["failed"].toInt(), 0);
        // Pooled over the clips: 4+4+2+3 = 13 reference words, 1 substitution + 2 insertions; 16+10+10+9 = 45
        // reference characters, 1 substitution + 14 insertions.
        const QJsonObject wer = summary["wer"].toObject();
        const QJsonObject cer = summary["cer"].toObject();
        QCOMPARE((QList<int>{wer["referenceWords"].toInt(), wer["hypothesisWords"].toInt(),
                             wer["substitutions"].toInt(), wer["insertions"].toInt(), wer["deletions"].toInt()}),
                 (QList<int>{13, 15, 1, 2, 0}));
        QCOMPARE(wer["rate"].toDouble(), 3.0 / 13.0);
        QCOMPARE((QList<int>{cer["referenceCharacters"].toInt(), cer["hypothesisCharacters"].toInt(),
                             cer["insertions"].toInt()}),
                 (QList<int>{45, 59, 14}));
        QCOMPARE(cer["rate"].toDouble(), 15.0 / 45.0);
        const QJsonObject latency = summary["latencyMs"].toObject();
        for (const double p : {50, 90, 99, 100}) {
            const QString key = p == 100 ? QString("max") : "p" + QString::number(p);
            QCOMPARE(QString::number(latency[key].toDouble(), 'f', 1), nearestRank(latencies, p));
        }
        QVERIFY(std::abs(summary["meanRealTimeFactor"].toDouble() - rtfSum / 4) < 1e-3);

        const QString percent = QString::number(300.0 / 13.0, 'f', 2) + " %";
        QVERIFY(run.out.contains("Normalisation: " + SpeechBenchmarkMetrics::normalizationRule + "\n"));
        QVERIFY2(run.out.contains(percent), qPrintable(run.out));
        QVERIFY(run.err.contains("[4/4] c4"));

        const QString html = QString::fromUtf8(readFileBytes(out + "/report.html"));
        QVERIFY(html.startsWith("<!DOCTYPE html>"));
        QVERIFY(html.contains("<svg"));
        QVERIFY(html.contains(percent));
        QVERIFY(html.contains(nearestRank(latencies, 50) + " ms"));
        QVERIFY(html.contains("He said, &quot;yes&quot;"));
        // Self-contained: nothing is fetched and nothing runs.
        QVERIFY(html.contains("default-src 'none'"));
        for (const char *forbidden : {"<script", "src=", "href=", "@import", "url("})
            QVERIFY2(!html.contains(QLatin1String(forbidden)), forbidden);
    }

    void failedClipsAreRecordedAndTheRunGoesOn() {
        QTemporaryDir dir;
        for (const char *name : {"a.wav", "c.wav", "d.wav"})
            writeToneWav(dir.filePath(name), 1.0, 16000);
        writeFileBytes(dir.filePath("broken.wav"), "RIFF-cut-short-WAVE");
        writeFileBytes(dir.filePath("set.json"),
                       manifest({clip("a", "a.wav", "one two three"), clip("broken", "broken.wav", "never heard"),
                                 clip("server-error", "c.wav", "lost words"), clip("d", "d.wav", "four five")}));
        FakeWhisperServer server;
        server.enqueueInference(FakeWhisperServer::transcript(" one two\n"));
        server.enqueueInference(FakeWhisperServer::Response::plainText(500, "Internal Server Error"));
        server.enqueueInference(FakeWhisperServer::transcript(" four five\n"));
        const QString out = dir.filePath("out");
        const QuorvaneRun run = runBenchmark(
            dir.filePath("home"), {dir.filePath("set.json"), "--endpoint", server.url().toString(), "--out", out});
        QVERIFY2(run.exitCode == 1, qPrintable(run.err));
        // The undecodable clip never reached the server.
        QCOMPARE(server.inferenceRequests().size(), 3);
        const auto rows = readClips(out + "/clips.csv");
        QCOMPARE(rows.size(), 4);
        QCOMPARE(rows[1].value("error"), "file is too short to be a WAV");
        QVERIFY(rows[2].value("error").contains("whisper server returned an error"));
        for (const auto &row : {rows[1], rows[2]})
            QVERIFY(row.value("wer").isEmpty() && row.value("latency_ms").isEmpty());
        QVERIFY(run.err.contains("broken") && run.err.contains("file is too short to be a WAV"));

        const QJsonObject summary = readJson(out + "/summary.json");
        QCOMPARE(summary["clips"]["scored"].toInt(), 2);
        QCOMPARE(summary["clips"]["failed"].toInt(), 2);
        QCOMPARE(summary["commit"].type(), QJsonValue::Null);
        // Only the scored clips count: 3 + 2 reference words, one deletion.
        QCOMPARE(summary["wer"]["referenceWords"].toInt(), 5);
        QCOMPARE(summary["wer"]["deletions"].toInt(), 1);
        QCOMPARE(summary["wer"]["rate"].toDouble(), 1.0 / 5.0);
        QVERIFY(QFile::exists(out + "/report.html"));
    }

    void settingsChooseTheEngineAndTheOutputFolder() {
        QTemporaryDir dir;
        FakeWhisperServer server;
        // The settings' engine and language reach the server.
        QDir().mkpath(dir.filePath("home"));
        writeFileBytes(dir.filePath("home/config.json"),
                       QJsonDocument(QJsonObject{{"asr", "whisperServer"},
                                                 {"whisperEndpoint", server.url().toString()},
                                                 {"locale", "fr-FR"}})
                           .toJson());
        writeFileBytes(dir.filePath("set.json"), manifest({clip("a", "a.wav", "hello world")}, {}));
        writeToneWav(dir.filePath("a.wav"), 0.5, 16000);
        const QuorvaneRun run = runBenchmark(dir.filePath("home"), {dir.filePath("set.json")});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QCOMPARE(server.inferenceRequests().size(), 1);
        QCOMPARE(server.inferenceRequests()[0].field("language").value_or(QByteArray()), QByteArray("fr"));
        const QStringList folders = resultFolders(dir.path());
        QCOMPARE(folders.size(), 1);
        const QJsonObject summary = readJson(dir.filePath(folders[0] + "/summary.json"));
        QCOMPARE(summary["locale"].toString(), "fr-FR");
        QCOMPARE(summary["wer"]["rate"].toDouble(), 0.0);
    }

    void unusableRequestsStopBeforeAnyClip_data() {
        QTest::addColumn<QByteArray>("manifestJson");
        QTest::addColumn<QStringList>("arguments"); // "@" is the manifest; "%closed" a port nothing listens on
        QTest::addColumn<QString>("expectedError");
        QTest::addColumn<int>("exitCode");
        const QByteArray good = goodManifest();
        const auto row = [](const char *name, const QByteArray &json, const QStringList &arguments,
                            const QString &error,
                            int exitCode = 2) { QTest::newRow(name) << json << arguments << error << exitCode; };
        row("no manifest", good, {}, "No manifest given");
        row("manifest missing", {}, {"@"}, "Manifest not found: ");
        row("not JSON", "{\"name\": ", {"@"}, "is not valid JSON");
        row("no clips", "{\"name\": \"n\", \"clips\": []}", {"@"}, "has no \"clips\"");
        row("duplicate id", manifest({clip("a", "a.wav", "x"), clip("b", "b.wav", "y"), clip("a", "b.wav", "z")}),
            {"@"}, "Duplicate clip id \"a\" (clips 1 and 3)");
        row("missing clip file", manifest({clip("a", "a.wav", "x"), clip("gone", "gone.wav", "y")}), {"@"},
            "Clip \"gone\": audio file not found");
        row("clip without reference", R"({"name": "n", "clips": [{"id": "a", "audio": "a.wav"}]})", {"@"},
            "Clip \"a\" has no \"reference\"");
        row("remote endpoint", good, {"@", "--endpoint", "http://192.168.1.20:8080"}, "is not on this machine");
        row("https endpoint", good, {"@", "--endpoint", "https://127.0.0.1:8443"}, "plain http only");
        row("unknown engine", good, {"@", "--engine=vosk"}, "--engine is whisper or native");
        row("unknown option", good, {"@", "--fast"}, "Unknown option --fast");
        row("zero limit", good, {"@", "--limit", "0"}, "--limit needs a whole number");
        row("option without value", good, {"@", "--warmup"}, "--warmup needs a value");
        row("two manifests", good, {"@", "other.json"}, "Only one manifest");
        row("server not running", good, {"@", "--endpoint", "http://127.0.0.1:%closed"},
            "no whisper.cpp server at http://127.0.0.1:%closed", 1);
    }
    void unusableRequestsStopBeforeAnyClip() {
        QFETCH(QByteArray, manifestJson);
        QFETCH(QStringList, arguments);
        QFETCH(QString, expectedError);
        QFETCH(int, exitCode);
        QTemporaryDir dir;
        writeToneWav(dir.filePath("a.wav"), 0.2, 16000);
        writeToneWav(dir.filePath("b.wav"), 0.2, 16000);
        if (!manifestJson.isEmpty())
            writeFileBytes(dir.filePath("set.json"), manifestJson);
        const QString closed = QString::number(FakeWhisperServer::closedPort());
        arguments.replaceInStrings("%closed", closed);
        for (QString &argument : arguments) {
            if (argument == "@")
                argument = dir.filePath("set.json");
        }
        FakeWhisperServer server;
        server.setDefaultInference(FakeWhisperServer::transcript("should not be asked"));
        // First, so a row's own options still end the command line.
        if (!arguments.contains("--endpoint") && !arguments.contains("native"))
            arguments.prepend("--endpoint=" + server.url().toString());
        const QuorvaneRun run = runBenchmark(dir.filePath("home"), arguments);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.err.contains(expectedError.replace("%closed", closed)), qPrintable(run.err));
        // With a sound manifest the fault is on the command line, so the usage is shown.
        QCOMPARE(run.err.contains("Usage: quorvane benchmark <manifest.json>"),
                 exitCode == 2 && manifestJson == goodManifest());
        QVERIFY(server.inferenceRequests().isEmpty());
        QVERIFY(resultFolders(dir.path()).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSpeechBenchmark)
#include "tst_speech_benchmark.moc"
