#include "FakeWhisperServer.h"
#include "core/Async.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "speech/WavDecoder.h"
#include "speech/WavEncoder.h"
#include "speech/WhisperServerEngine.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>
#include <functional>
#include <mutex>
#include <optional>

using Response = FakeWhisperServer::Response;
Q_DECLARE_METATYPE(FakeWhisperServer::Response)

namespace {

// What a finished utterance produced: its text, or the error it failed with.
struct Outcome {
    std::optional<QString> text;
    std::optional<QuorvaneError> quorvaneError;
    bool transportError = false;
    bool parseError = false;
};

Outcome finish(WhisperServerEngine &engine) {
    Outcome outcome;
    try {
        outcome.text = syncWait(engine.finishUtterance());
    } catch (const QuorvaneError &error) {
        outcome.quorvaneError = error;
    } catch (const WhisperServerEngine::TransportError &) {
        outcome.transportError = true;
    } catch (const WhisperServerEngine::ParseError &) {
        outcome.parseError = true;
    }
    return outcome;
}

void speak(WhisperServerEngine &engine, const QStringList &context = {}, std::vector<float> samples = {0.25f, -0.25f}) {
    syncWait(engine.beginUtterance(context));
    engine.append(AudioChunk{std::move(samples), 16000});
}

} // namespace

class TestWhisperServerEngine : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;
    std::mutex m_logMutex;
    QStringList m_log;

private slots:
    void initTestCase() {
        QVERIFY(m_home.isValid());
        qputenv("QUORVANE_HOME", m_home.path().toUtf8());
        Log::setObserver([this](const QString &level, const QString &message) {
            std::lock_guard lock(m_logMutex);
            m_log.append(level + QLatin1Char(' ') + message);
        });
    }
    void cleanupTestCase() {
        Log::setObserver({});
        Log::flush();
    }
    void init() {
        std::lock_guard lock(m_logMutex);
        m_log.clear();
    }

    void resolvesEndpoint_data() {
        QTest::addColumn<QString>("configured");
        QTest::addColumn<QUrl>("expected");
        const QUrl fallback(QStringLiteral("http://127.0.0.1:8080"));
        QTest::newRow("loopback kept") << "http://localhost:9000" << QUrl(QStringLiteral("http://localhost:9000"));
        QTest::newRow("remote host refused") << "http://192.168.1.20:8080" << fallback;
        QTest::newRow("not a URL") << "::" << fallback;
    }
    void resolvesEndpoint() {
        QFETCH(QString, configured);
        QFETCH(QUrl, expected);
        QCOMPARE(WhisperServerEngine(configured, QStringLiteral("en")).endpoint(), expected);
    }

    void prepareAcceptsAnyHttpAnswer_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("requested");
        QTest::newRow("help page") << QString() << QByteArray("/");
        QTest::newRow("404 still means the server is up") << "/missing" << QByteArray("/missing");
    }
    void prepareAcceptsAnyHttpAnswer() {
        QFETCH(QString, path);
        QFETCH(QByteArray, requested);
        FakeWhisperServer server;
        const QString endpoint = server.url().toString() + path;
        WhisperServerEngine engine(endpoint, QStringLiteral("en-US"));
        syncWait(engine.prepare());
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests().first().method, QByteArray("GET"));
        QCOMPARE(server.requests().first().path, requested);
        std::lock_guard lock(m_logMutex);
        QCOMPARE(m_log, QStringList{QStringLiteral("INFO ASR ready \u00B7 whisper.cpp server at ") + endpoint});
    }

    void prepareReportsMissingServer() {
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort());
        WhisperServerEngine engine(endpoint, QStringLiteral("en-US"));
        try {
            syncWait(engine.prepare());
            QFAIL("prepare succeeded without a server");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error.errorCase(), QuorvaneError::Case::speechModelUnavailable);
            QCOMPARE(error.detail(), QStringLiteral("no whisper.cpp server at ") + endpoint +
                                         QStringLiteral(". Start one with: whisper-server -m <model.bin> --port 8080"));
        }
        std::lock_guard lock(m_logMutex);
        QVERIFY(m_log.isEmpty());
    }

    void sendsOneMultipartRequest() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        syncWait(engine.beginUtterance({QStringLiteral("Quorvane"), QStringLiteral("Qt Creator")}));
        engine.append(AudioChunk{{0.5f, -0.5f}, 16000});
        // The chunk's rate is not consulted.
        engine.append(AudioChunk{{1.0f}, 44100});
        QCOMPARE(finish(engine).text, QStringLiteral("Hello world."));

        QCOMPARE(server.requests().size(), 1);
        const FakeWhisperServer::Request request = server.requests().first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, QByteArray("/inference"));
        const QByteArray boundary = request.boundary();
        QCOMPARE(request.header("Content-Type"), "multipart/form-data; boundary=" + boundary);
        QVERIFY(QRegularExpression(QStringLiteral("^speakwell-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"))
                    .match(QString::fromLatin1(boundary))
                    .hasMatch());
        QVERIFY(!QUuid::fromString(QString::fromLatin1(boundary.mid(10))).isNull());

        const QByteArray wav = WavEncoder::encode({0.5f, -0.5f, 1.0f}, 16000);
        const QByteArray dash = "--" + boundary + "\r\n";
        const QByteArray expected = dash +
                                    "Content-Disposition: form-data; name=\"file\"; filename=\"utterance.wav\"\r\n" +
                                    "Content-Type: audio/wav\r\n\r\n" + wav + "\r\n" + dash +
                                    "Content-Disposition: form-data; name=\"temperature\"\r\n\r\n0.0\r\n" + dash +
                                    "Content-Disposition: form-data; name=\"response_format\"\r\n\r\njson\r\n" + dash +
                                    "Content-Disposition: form-data; name=\"language\"\r\n\r\nen\r\n" + dash +
                                    "Content-Disposition: form-data; name=\"prompt\"\r\n\r\nQuorvane, Qt Creator\r\n" +
                                    "--" + boundary + "--\r\n";
        QCOMPARE(request.body, expected);
    }

    void boundaryIsFreshPerRequest() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine);
        finish(engine);
        speak(engine);
        finish(engine);
        QCOMPARE(server.requests().size(), 2);
        QVERIFY(server.requests()[0].boundary() != server.requests()[1].boundary());
    }

    void sendsPrompt_data() {
        QTest::addColumn<QStringList>("context");
        QTest::addColumn<std::optional<QByteArray>>("prompt");
        QStringList many;
        for (int i = 1; i <= 41; ++i)
            many.append(QStringLiteral("term%1").arg(i));
        QTest::newRow("41 strings keep the first 40") << many << std::optional(many.mid(0, 40).join(", ").toUtf8());
        QTest::newRow("empty context sends no prompt") << QStringList() << std::optional<QByteArray>();
        QTest::newRow("non-ASCII goes as UTF-8") << QStringList{QStringLiteral("Zoë"), QStringLiteral("東京")}
                                                 << std::optional(QStringLiteral("Zoë, 東京").toUtf8());
    }
    void sendsPrompt() {
        QFETCH(QStringList, context);
        QFETCH(std::optional<QByteArray>, prompt);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine, context);
        QVERIFY(finish(engine).text);
        QCOMPARE(server.inferenceRequests().size(), 1);
        QCOMPARE(server.inferenceRequests().first().field("prompt"), prompt);
    }

    void sendsLanguage_data() {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QByteArray>("language");
        QTest::newRow("en-US") << "en-US" << QByteArray("en");
        QTest::newRow("pt-BR") << "pt-BR" << QByteArray("pt");
        QTest::newRow("de") << "de" << QByteArray("de");
        QTest::newRow("shorter than two") << "x" << QByteArray("x");
    }
    void sendsLanguage() {
        QFETCH(QString, locale);
        QFETCH(QByteArray, language);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), locale);
        speak(engine);
        QVERIFY(finish(engine).text);
        QCOMPARE(server.inferenceRequests().first().field("language"), std::optional(language));
    }

    void appendsToTheEndpointPath_data() {
        QTest::addColumn<QString>("suffix");
        QTest::addColumn<QByteArray>("path");
        QTest::newRow("bare") << QString() << QByteArray("/inference");
        QTest::newRow("trailing slash") << "/" << QByteArray("/inference");
        QTest::newRow("sub-path") << "/whisper" << QByteArray("/whisper/inference");
    }
    void appendsToTheEndpointPath() {
        QFETCH(QString, suffix);
        QFETCH(QByteArray, path);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString() + suffix, QStringLiteral("en"));
        speak(engine);
        finish(engine);
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests().first().path, path);
    }

    void interpretsResponse_data() {
        QTest::addColumn<Response>("response");
        QTest::addColumn<std::optional<QString>>("text");
        QTest::addColumn<bool>("unavailable");
        QTest::addColumn<bool>("transportError");
        QTest::addColumn<bool>("parseError");
        const std::optional<QString> none;
        QTest::newRow("segments trimmed")
            << FakeWhisperServer::transcript(QStringLiteral(" Hello there.\n General.\n"))
            << std::optional(QStringLiteral("Hello there. General.")) << false << false << false;
        QTest::newRow("blank audio is empty") << FakeWhisperServer::transcript(QStringLiteral(" [BLANK_AUDIO] "))
                                              << std::optional(QString()) << false << false << false;
        QTest::newRow("500") << Response::plainText(500, "Internal Server Error") << none << true << false << false;
        QTest::newRow("JSON error body with 503")
            << Response::json(503, "{\"text\":\"busy\"}") << none << true << false << false;
        QTest::newRow("not JSON") << Response::invalidJson() << none << false << false << true;
        QTest::newRow("plain text with 200") << Response::plainText(200, "Hello") << none << false << false << true;
        QTest::newRow("array returned raw, stripped")
            << Response::json(200, "[[\"a\"],  \"spoken words\"]")
            << std::optional(QStringLiteral(", \"spoken words\"]")) << false << false << false;
        QTest::newRow("text that is not a string returned raw")
            << Response::json(200, "{\"text\": 42}") << std::optional(QStringLiteral("{\"text\": 42}")) << false
            << false << false;
        QTest::newRow("slow answer") << FakeWhisperServer::transcript(QStringLiteral(" Late. ")).delayedBy(60)
                                     << std::optional(QStringLiteral("Late.")) << false << false << false;
        QTest::newRow("dropped connection") << Response::droppedConnection() << none << false << true << false;
    }
    void interpretsResponse() {
        QFETCH(Response, response);
        QFETCH(std::optional<QString>, text);
        QFETCH(bool, unavailable);
        QFETCH(bool, transportError);
        QFETCH(bool, parseError);
        FakeWhisperServer server;
        // Qt resends a request once when the connection drops before any answer, so script every answer.
        server.setDefaultInference(response);
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine);
        const Outcome outcome = finish(engine);
        QCOMPARE(outcome.text, text);
        QCOMPARE(outcome.transportError, transportError);
        QCOMPARE(outcome.parseError, parseError);
        QCOMPARE(outcome.quorvaneError.has_value(), unavailable);
        if (unavailable)
            QCOMPARE(*outcome.quorvaneError,
                     QuorvaneError::speechModelUnavailable(QStringLiteral("whisper server returned an error")));
        // Whatever happened, the utterance was drained: the next finish has nothing to send.
        const qsizetype sent = server.requests().size();
        QCOMPARE(finish(engine).text, std::optional(QString()));
        QCOMPARE(server.requests().size(), sent);
    }

    void refusedConnectionIsPassedOn() {
        WhisperServerEngine engine(QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort()),
                                   QStringLiteral("en-US"));
        speak(engine);
        QVERIFY(finish(engine).transportError);
    }

    void sendsNothingWithoutAudio_data() {
        QTest::addColumn<std::function<void(WhisperServerEngine &)>>("before");
        QTest::newRow("nothing appended")
            << std::function([](WhisperServerEngine &e) { syncWait(e.beginUtterance({QStringLiteral("prompt")})); });
        QTest::newRow("empty chunk") << std::function([](WhisperServerEngine &e) {
            syncWait(e.beginUtterance({}));
            e.append(AudioChunk{{}, 16000});
        });
        QTest::newRow("cancelled") << std::function([](WhisperServerEngine &e) {
            speak(e);
            syncWait(e.cancelUtterance());
        });
    }
    void sendsNothingWithoutAudio() {
        QFETCH(std::function<void(WhisperServerEngine &)>, before);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        before(engine);
        QCOMPARE(finish(engine).text, std::optional(QString()));
        QVERIFY(server.requests().isEmpty());
    }

    void beginUtteranceStartsAfresh() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine, {QStringLiteral("old")}, {0.5f, 0.5f, 0.5f});
        speak(engine, {}, {-0.5f});
        QVERIFY(finish(engine).text);
        const auto request = server.inferenceRequests().first();
        QCOMPARE(WavDecoder::decode(*request.field("file")).samples, std::vector<float>{-16383.0f / 32768});
        QVERIFY(!request.field("prompt"));
    }

    void cancelDropsThePrompt() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine, {QStringLiteral("first")});
        syncWait(engine.cancelUtterance());
        // Audio appended without a new beginUtterance belongs to no prompt.
        engine.append(AudioChunk{{0.1f}, 16000});
        QVERIFY(finish(engine).text);
        QVERIFY(!server.inferenceRequests().first().field("prompt"));
    }

    void stripsAnnotations_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("blank audio") << " [BLANK_AUDIO] "
                                     << "";
        QTest::newRow("mixed tags") << "Hello (laughs) *sighs* world [music]"
                                    << "Hello world";
        QTest::newRow("tag spanning lines") << "one [long\nnoise] two"
                                            << "one two";
        QTest::newRow("brackets removed before parentheses") << "a [b (c] d) e"
                                                             << "a d) e";
        QTest::newRow("unclosed bracket kept") << "keep [this"
                                               << "keep [this";
        QTest::newRow("lone asterisk kept") << "5 * 3"
                                            << "5 * 3";
        QTest::newRow("Unicode white space folded") << "\u00A0Hi\u2003\u2003there\u3000"
                                                    << "Hi there";
        QTest::newRow("empty") << ""
                               << "";
    }
    void stripsAnnotations() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(WhisperServerEngine::stripAnnotations(input), expected);
    }
};

QTEST_GUILESS_MAIN(TestWhisperServerEngine)
#include "tst_whisper_server_engine.moc"
