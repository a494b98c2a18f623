#include "FakeWhisperServer.h"
#include "QuorvaneProcess.h"
#include "benchmark/SpeechBenchmarkMetrics.h"
#include "speech/WavDecoder.h"
#include "speech/WavEncoder.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <algorithm>
#include <cmath>

using Response = FakeWhisperServer::Response;

namespace {

using Finished = QuorvaneRun;

Finished runBenchmark(const QString &home, const QStringList &arguments, const QString &commit = {}) {
    return runQuorvane(home, QStringList{QStringLiteral("benchmark")} + arguments,
                       {{QStringLiteral("QUORVANE_BENCHMARK_COMMIT"), commit}});
}

QJsonObject clip(const QString &id, const QString &audio, const QString &reference, const QString &locale = {}) {
    QJsonObject object{{"id", id}, {"audio", audio}, {"reference", reference}};
    if (!locale.isEmpty())
        object.insert("locale", locale);
    return object;
}

QByteArray manifest(const QJsonArray &clips, const QString &locale = QStringLiteral("en-GB")) {
    const QJsonObject provenance{{"source", "recorded for this test"},
                                 {"license", "CC0-1.0"},
                                 {"url", "https://example.org/data"},
                                 {"notes", "tones, not speech"}};
    return QJsonDocument(
               QJsonObject{{"name", "Test set"}, {"provenance", provenance}, {"locale", locale}, {"clips", clips}})
        .toJson();
}

// RFC 4180 reader: quoted fields may hold commas, doubled quotes and line breaks.
QList<QStringList> parseCsv(const QString &text) {
    QList<QStringList> rows;
    QStringList row;
    QString field;
    bool quoted = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (quoted) {
            if (c == u'"' && i + 1 < text.size() && text[i + 1] == u'"') {
                field += u'"';
                ++i;
            } else if (c == u'"') {
                quoted = false;
            } else {
                field += c;
            }
        } else if (c == u'"') {
            quoted = true;
        } else if (c == u',') {
            row.append(field);
            field.clear();
        } else if (c == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') {
            row.append(field);
            rows.append(row);
            row.clear();
            field.clear();
            ++i;
        } else {
            field += c;
        }
    }
    return rows;
}

// clips.csv as one map per clip, keyed by column name.
QList<QHash<QString, QString>> readClips(const QString &path) {
    const QList<QStringList> rows = parseCsv(QString::fromUtf8(readFileBytes(path)));
    QList<QHash<QString, QString>> clips;
    for (qsizetype r = 1; r < rows.size(); ++r) {
        QHash<QString, QString> values;
        for (qsizetype c = 0; c < rows[0].size() && c < rows[r].size(); ++c)
            values.insert(rows[0][c], rows[r][c]);
        clips.append(values);
    }
    return clips;
}

QJsonObject readJson(const QString &path) {
    return QJsonDocument::fromJson(readFileBytes(path)).object();
}

// The figures a clip row must hold, counted by hand from its reference and scripted hypothesis.
struct Expected {
    QString id;
    QString duration;
    int referenceWords, hypothesisWords, wordSub, wordIns, wordDel;
    int referenceChars, hypothesisChars, charSub, charIns, charDel;
    QString hypothesis;
};

void compareRow(const QHash<QString, QString> &row, const Expected &e) {
    QCOMPARE(row.value("id"), e.id);
    QCOMPARE(row.value("duration_s"), e.duration);
    QCOMPARE(row.value("hypothesis"), e.hypothesis);
    QCOMPARE(row.value("error"), QString());
    const QList<std::pair<const char *, int>> counts = {
        {"reference_words", e.referenceWords},   {"hypothesis_words", e.hypothesisWords},
        {"word_substitutions", e.wordSub},       {"word_insertions", e.wordIns},
        {"word_deletions", e.wordDel},           {"reference_chars", e.referenceChars},
        {"hypothesis_chars", e.hypothesisChars}, {"char_substitutions", e.charSub},
        {"char_insertions", e.charIns},          {"char_deletions", e.charDel}};
    for (const auto &[column, value] : counts)
        QVERIFY2(row.value(column) == QString::number(value),
                 qPrintable(e.id + ' ' + column + ": " + row.value(column)));
    QCOMPARE(row.value("wer").toDouble(), double(e.wordSub + e.wordIns + e.wordDel) / e.referenceWords);
    QCOMPARE(row.value("cer").toDouble(), double(e.charSub + e.charIns + e.charDel) / e.referenceChars);
}

// Rank ceil(p/100 × n) of the sorted values, as users of percentiles expect it.
double nearestRank(QList<double> values, double p) {
    std::sort(values.begin(), values.end());
    const auto rank = qsizetype(std::ceil(p / 100.0 * double(values.size())));
    return values[std::clamp<qsizetype>(rank, 1, values.size()) - 1];
}

QStringList resultFolders(const QString &folder) {
    return QDir(folder).entryList({QStringLiteral("*-results-*")}, QDir::Dirs);
}

} // namespace

class TestSpeechBenchmark : public QObject {
    Q_OBJECT

private slots:
    void fullRunMatchesHandCountedFigures() {
        QTemporaryDir dir;
        const QString home = dir.filePath("home");
        QDir().mkpath(dir.filePath("data/audio"));
        // Different rates: every clip must reach the server resampled to 16 kHz.
        writeToneWav(dir.filePath("data/audio/c1.wav"), 1.0, 16000);
        writeToneWav(dir.filePath("data/audio/c2.wav"), 2.0, 48000);
        writeToneWav(dir.filePath("data/audio/c3.wav"), 0.5, 8000);
        writeToneWav(dir.filePath("data/audio/c4.wav"), 1.5, 22050);
        const QJsonArray clips{
            clip("c1", "audio/c1.wav", "The quick brown fox"), clip("c2", "audio/c2.wav", "I have 3 cats"),
            clip("c3", "audio/c3.wav", "Hello, world!", "de-DE"), clip("c4", "audio/c4.wav", "He said yes")};
        writeFileBytes(dir.filePath("data/set.json"), manifest(clips));

        FakeWhisperServer server;
        // The warm-up gets a transcript that would spoil c1 if it were scored.
        server.enqueueInference(FakeWhisperServer::transcript(" warm up noise"));
        server.enqueueInference(FakeWhisperServer::transcript(" The quick brown fox.\n").delayedBy(60));
        server.enqueueInference(FakeWhisperServer::transcript(" I have three cats.\n").delayedBy(20));
        server.enqueueInference(FakeWhisperServer::transcript(" hello there world again\n").delayedBy(40));
        server.enqueueInference(FakeWhisperServer::transcript(" He said, \"yes\"\n"));
        const QString out = dir.filePath("results");
        const Finished run = runBenchmark(
            home, {dir.filePath("data/set.json"), "--endpoint", server.url().toString(), "--warmup", "1", "--out", out},
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
        compareRow(rows[0], {"c1", "1.000", 4, 4, 0, 0, 0, 16, 16, 0, 0, 0, "The quick brown fox."});
        // "3" against "three": one word substituted; characters "ihave3cats" (10) against
        // "ihavethreecats" (14): 3→t and four insertions.
        compareRow(rows[1], {"c2", "2.000", 4, 4, 1, 0, 0, 10, 14, 1, 4, 0, "I have three cats."});
        // Two extra words; "helloworld" (10) against "hellothereworldagain" (20): ten insertions.
        compareRow(rows[2], {"c3", "0.500", 2, 4, 0, 2, 0, 10, 20, 0, 10, 0, "hello there world again"});
        // Punctuation and quotes do not count, but the hypothesis is kept as the server wrote it.
        compareRow(rows[3], {"c4", "1.500", 3, 3, 0, 0, 0, 9, 9, 0, 0, 0, "He said, \"yes\""});
        QCOMPARE(rows[2].value("locale"), QString("de-DE"));
        QCOMPARE(rows[0].value("locale"), QString("en-GB"));

        QList<double> latencies;
        double rtfSum = 0;
        const QList<int> delays = {60, 20, 40, 0};
        for (qsizetype i = 0; i < rows.size(); ++i) {
            const double latency = rows[i].value("latency_ms").toDouble();
            QVERIFY2(latency >= delays[i], qPrintable(rows[i].value("latency_ms")));
            latencies.append(latency);
            const double rtf = latency / 1000.0 / rows[i].value("duration_s").toDouble();
            QVERIFY(std::abs(rows[i].value("rtf").toDouble() - rtf) < 1e-3);
            rtfSum += rtf;
        }

        const QJsonObject summary = readJson(out + "/summary.json");
        QCOMPARE(summary["engine"]["name"].toString(), QString("whisper.cpp server"));
        QCOMPARE(summary["engine"]["endpoint"].toString(), server.url().toString());
        QCOMPARE(summary["locale"].toString(), QString("en-GB"));
        QCOMPARE(summary["commit"].toString(), QString("0123abc"));
        QCOMPARE(summary["dataset"]["name"].toString(), QString("Test set"));
        QCOMPARE(summary["dataset"]["provenance"]["license"].toString(), QString("CC0-1.0"));
        QCOMPARE(summary["dataset"]["provenance"]["url"].toString(), QString("https://example.org/data"));
        QCOMPARE(summary["normalization"].toString(), SpeechBenchmarkMetrics::normalizationRule);
        QCOMPARE(summary["clips"]["scored"].toInt(), 4);
        QCOMPARE(summary["clips"]["failed"].toInt(), 0);
        // Words: 4+4+2+3 = 13 in the references, 1 substitution + 2 insertions.
        const QJsonObject wer = summary["wer"].toObject();
        QCOMPARE(wer["referenceWords"].toInt(), 13);
        QCOMPARE(wer["hypothesisWords"].toInt(), 15);
        QCOMPARE(wer["substitutions"].toInt(), 1);
        QCOMPARE(wer["insertions"].toInt(), 2);
        QCOMPARE(wer["deletions"].toInt(), 0);
        QCOMPARE(wer["rate"].toDouble(), 3.0 / 13.0);
        // Characters: 16+10+10+9 = 45, 1 substitution + 14 insertions.
        const QJsonObject cer = summary["cer"].toObject();
        QCOMPARE(cer["referenceCharacters"].toInt(), 45);
        QCOMPARE(cer["hypothesisCharacters"].toInt(), 59);
        QCOMPARE(cer["insertions"].toInt(), 14);
        QCOMPARE(cer["rate"].toDouble(), 15.0 / 45.0);

        const QJsonObject latency = summary["latencyMs"].toObject();
        const auto figure = [](double value) { return QString::number(value, 'f', 1); };
        QCOMPARE(figure(latency["p50"].toDouble()), figure(nearestRank(latencies, 50)));
        QCOMPARE(figure(latency["p90"].toDouble()), figure(nearestRank(latencies, 90)));
        QCOMPARE(figure(latency["p99"].toDouble()), figure(nearestRank(latencies, 99)));
        QCOMPARE(figure(latency["max"].toDouble()), figure(*std::max_element(latencies.begin(), latencies.end())));
        QVERIFY(std::abs(summary["meanRealTimeFactor"].toDouble() - rtfSum / 4) < 1e-3);

        const QString percent = QString::number(300.0 / 13.0, 'f', 2) + " %";
        QVERIFY(run.out.contains("Normalisation: " + SpeechBenchmarkMetrics::normalizationRule + "\n"));
        QVERIFY2(run.out.contains(percent), qPrintable(run.out));
        QVERIFY(run.err.contains("[4/4] c4"));

        const QString html = QString::fromUtf8(readFileBytes(out + "/report.html"));
        QVERIFY(html.startsWith("<!DOCTYPE html>"));
        QVERIFY(html.contains("<svg"));
        QVERIFY(html.contains(percent));
        QVERIFY(html.contains(figure(nearestRank(latencies, 50)) + " ms"));
        QVERIFY(html.contains("He said, &quot;yes&quot;"));
        // Self-contained: nothing is fetched and nothing runs.
        QVERIFY(html.contains("default-src 'none'"));
        for (const char *forbidden : {"<script", "src=", "href=", "@import", "url("})
            QVERIFY2(!html.contains(QLatin1String(forbidden)), forbidden);
    }

    void failedClipsAreRecordedAndTheRunGoesOn() {
        QTemporaryDir dir;
        writeToneWav(dir.filePath("a.wav"), 1.0, 16000);
        writeFileBytes(dir.filePath("broken.wav"), "RIFF-cut-short-WAVE");
        writeToneWav(dir.filePath("c.wav"), 1.0, 16000);
        writeToneWav(dir.filePath("d.wav"), 1.0, 16000);
        const QJsonArray clips{clip("a", "a.wav", "one two three"), clip("broken", "broken.wav", "never heard"),
                               clip("server-error", "c.wav", "lost words"), clip("d", "d.wav", "four five")};
        writeFileBytes(dir.filePath("set.json"), manifest(clips));

        FakeWhisperServer server;
        server.enqueueInference(FakeWhisperServer::transcript(" one two\n"));
        server.enqueueInference(Response::plainText(500, "Internal Server Error"));
        server.enqueueInference(FakeWhisperServer::transcript(" four five\n"));
        const QString out = dir.filePath("out");
        const Finished run = runBenchmark(
            dir.filePath("home"), {dir.filePath("set.json"), "--endpoint", server.url().toString(), "--out", out});
        QVERIFY2(run.exitCode == 1, qPrintable(run.err));
        // The undecodable clip never reached the server.
        QCOMPARE(server.inferenceRequests().size(), 3);

        const auto rows = readClips(out + "/clips.csv");
        QCOMPARE(rows.size(), 4);
        QCOMPARE(rows[1].value("error"), QString("file is too short to be a WAV"));
        QVERIFY(rows[2].value("error").contains("whisper server returned an error"));
        for (const auto &row : {rows[1], rows[2]}) {
            QCOMPARE(row.value("wer"), QString());
            QCOMPARE(row.value("latency_ms"), QString());
        }
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
        const QString home = dir.filePath("home");
        QDir().mkpath(home);
        // The on-device engine is asked for, but this platform has none: the whisper server stands in.
        writeFileBytes(home + "/config.json", QJsonDocument(QJsonObject{{"asr", "appleSpeech"},
                                                                        {"whisperEndpoint", server.url().toString()},
                                                                        {"locale", "fr-FR"}})
                                                  .toJson());
        QJsonObject set = QJsonDocument::fromJson(manifest({clip("a", "a.wav", "hello world")})).object();
        set.remove("locale");
        writeFileBytes(dir.filePath("set.json"), QJsonDocument(set).toJson());
        writeToneWav(dir.filePath("a.wav"), 0.5, 16000);

        const Finished run = runBenchmark(home, {dir.filePath("set.json")});
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QCOMPARE(server.inferenceRequests().size(), 1);
        QCOMPARE(server.inferenceRequests()[0].field("language").value_or(QByteArray()), QByteArray("fr"));
        const QStringList folders = resultFolders(dir.path());
        QCOMPARE(folders.size(), 1);
        const QJsonObject summary = readJson(dir.filePath(folders[0] + "/summary.json"));
        QCOMPARE(summary["engine"]["endpoint"].toString(), server.url().toString());
        QCOMPARE(summary["locale"].toString(), QString("fr-FR"));
        QCOMPARE(summary["wer"]["rate"].toDouble(), 0.0);
    }

    void aServerThatIsNotRunningStopsTheRunBeforeAnyClip() {
        QTemporaryDir dir;
        writeToneWav(dir.filePath("a.wav"), 0.2, 16000);
        writeFileBytes(dir.filePath("set.json"), manifest({clip("a", "a.wav", "x")}));
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort());
        const Finished run = runBenchmark(dir.filePath("home"), {dir.filePath("set.json"), "--endpoint", endpoint});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("no whisper.cpp server at " + endpoint), qPrintable(run.err));
        QVERIFY(resultFolders(dir.path()).isEmpty());
    }

    void unusableRequestsExplainAndExitTwo_data() {
        QTest::addColumn<QByteArray>("manifestJson");
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("expectedError");
        QTest::addColumn<bool>("showsUsage");
        const QByteArray good = manifest({clip("a", "a.wav", "x"), clip("b", "b.wav", "y")});
        QTest::newRow("no manifest") << good << QStringList{} << "No manifest given" << true;
        QTest::newRow("manifest missing") << QByteArray() << QStringList{"@"} << "Manifest not found: " << false;
        QTest::newRow("not JSON") << QByteArray("{\"name\": ") << QStringList{"@"} << "is not valid JSON" << false;
        QTest::newRow("no clips") << QByteArray("{\"name\": \"n\", \"clips\": []}") << QStringList{"@"}
                                  << "has no \"clips\"" << false;
        QTest::newRow("duplicate id") << manifest({clip("a", "a.wav", "x"), clip("b", "b.wav", "y"),
                                                   clip("a", "b.wav", "z")})
                                      << QStringList{"@"} << "Duplicate clip id \"a\" (clips 1 and 3)" << false;
        QTest::newRow("missing clip file") << manifest({clip("a", "a.wav", "x"), clip("gone", "gone.wav", "y")})
                                           << QStringList{"@"} << "Clip \"gone\": audio file not found" << false;
        QTest::newRow("clip without reference")
            << QJsonDocument(
                   QJsonObject{{"name", "n"}, {"clips", QJsonArray{QJsonObject{{"id", "a"}, {"audio", "a.wav"}}}}})
                   .toJson()
            << QStringList{"@"} << "Clip \"a\" has no \"reference\"" << false;
        QTest::newRow("remote endpoint") << good << QStringList{"@", "--endpoint", "http://192.168.1.20:8080"}
                                         << "is not on this machine" << true;
        QTest::newRow("native engine") << good << QStringList{"@", "--engine", "native"}
                                       << "not available on this platform" << true;
        QTest::newRow("unknown engine") << good << QStringList{"@", "--engine=vosk"} << "--engine is whisper or native"
                                        << true;
        QTest::newRow("unknown option") << good << QStringList{"@", "--fast"} << "Unknown option --fast" << true;
        QTest::newRow("zero limit") << good << QStringList{"@", "--limit", "0"} << "--limit needs a whole number"
                                    << true;
        QTest::newRow("option without value")
            << good << QStringList{"@", "--warmup"} << "--warmup needs a value" << true;
        QTest::newRow("two manifests") << good << QStringList{"@", "other.json"} << "Only one manifest" << true;
    }
    void unusableRequestsExplainAndExitTwo() {
        QFETCH(QByteArray, manifestJson);
        QFETCH(QStringList, arguments);
        QFETCH(QString, expectedError);
        QFETCH(bool, showsUsage);
        QTemporaryDir dir;
        writeToneWav(dir.filePath("a.wav"), 0.2, 16000);
        writeToneWav(dir.filePath("b.wav"), 0.2, 16000);
        if (!manifestJson.isEmpty())
            writeFileBytes(dir.filePath("set.json"), manifestJson);
        for (QString &argument : arguments) {
            if (argument == "@")
                argument = dir.filePath("set.json");
        }
        FakeWhisperServer server;
        server.setDefaultInference(FakeWhisperServer::transcript("should not be asked"));
        // First, so a row's own options still end the command line.
        if (!arguments.contains("--endpoint") && !arguments.contains("native"))
            arguments.prepend("--endpoint=" + server.url().toString());

        const Finished run = runBenchmark(dir.filePath("home"), arguments);
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.err.contains(expectedError), qPrintable(run.err));
        QCOMPARE(run.err.contains("Usage: quorvane benchmark <manifest.json>"), showsUsage);
        QVERIFY(server.inferenceRequests().isEmpty());
        QVERIFY(resultFolders(dir.path()).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestSpeechBenchmark)
#include "tst_speech_benchmark.moc"
