#include "FakeWhisperServer.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "speech/WavDecoder.h"
#include "speech/WavEncoder.h"
#include "speech/WhisperServerEngine.h"

#include <QTemporaryDir>
#include <QTest>
#include <optional>

using Response = FakeWhisperServer::Response;
Q_DECLARE_METATYPE(FakeWhisperServer::Response)

namespace {

// The transcript, or which kind of failure finishing the utterance ended in.
QString finish(WhisperServerEngine &engine) {
    try {
        return syncWait(engine.finishUtterance());
    } catch (const QuorvaneError &error) {
        if (error.errorCase() != QuorvaneError::Case::speechModelUnavailable)
            return QStringLiteral("<other error>");
        return QStringLiteral("<unavailable> ") + error.detail();
    } catch (const WhisperServerEngine::TransportError &) {
        return QStringLiteral("<transport error>");
    } catch (const WhisperServerEngine::ParseError &) {
        return QStringLiteral("<parse error>");
    }
}

void speak(WhisperServerEngine &engine, const QStringList &context = {}, std::vector<float> samples = {0.25f}) {
    syncWait(engine.beginUtterance(context));
    engine.append(AudioChunk{std::move(samples), 16000});
}

} // namespace

class TestWhisperServerEngine : public QObject {
    Q_OBJECT

    QTemporaryDir m_home;

private slots:
    void initTestCase() { qputenv("QUORVANE_HOME", m_home.path().toUtf8()); }

    void remoteEndpointIsNeverUsed() {
        QCOMPARE(WhisperServerEngine(QStringLiteral("http://192.168.1.20:8080"), QStringLiteral("en")).endpoint(),
                 QUrl(QStringLiteral("http://127.0.0.1:8080")));
    }

    void prepareTakesA404AsReady() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString() + QStringLiteral("/missing"), QStringLiteral("en"));
        syncWait(engine.prepare());
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(server.requests().first().path, QByteArray("/missing"));
    }

    void prepareReportsRefusedConnection() {
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeWhisperServer::closedPort());
        WhisperServerEngine engine(endpoint, QStringLiteral("en"));
        try {
            syncWait(engine.prepare());
            QFAIL("prepare succeeded without a server");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error, QuorvaneError::speechModelUnavailable(
                                QStringLiteral("no whisper.cpp server at ") + endpoint +
                                QStringLiteral(". Start one with: whisper-server -m <model.bin> --port 8080")));
        }
    }

    void sendsOneMultipartRequest() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString() + QStringLiteral("/"), QStringLiteral("en-US"));
        syncWait(engine.beginUtterance({QStringLiteral("Zoë"), QStringLiteral("Qt Creator")}));
        engine.append(AudioChunk{{0.5f, -0.5f}, 16000});
        // The chunk's rate is not consulted: the audio is already at 16 kHz.
        engine.append(AudioChunk{{1.0f}, 44100});
        QCOMPARE(finish(engine), QStringLiteral("Hello world."));

        QCOMPARE(server.requests().size(), 1);
        const FakeWhisperServer::Request request = server.requests().first();
        QCOMPARE(request.method, QByteArray("POST"));
        QCOMPARE(request.path, QByteArray("/inference"));
        const QByteArray boundary = request.boundary();
        QCOMPARE(request.header("Content-Type"), "multipart/form-data; boundary=" + boundary);

        const QByteArray dash = "--" + boundary + "\r\n";
        const QByteArray expected =
            dash + "Content-Disposition: form-data; name=\"file\"; filename=\"utterance.wav\"\r\n" +
            "Content-Type: audio/wav\r\n\r\n" + WavEncoder::encode({0.5f, -0.5f, 1.0f}, 16000) + "\r\n" + dash +
            "Content-Disposition: form-data; name=\"temperature\"\r\n\r\n0.0\r\n" + dash +
            "Content-Disposition: form-data; name=\"response_format\"\r\n\r\njson\r\n" + dash +
            "Content-Disposition: form-data; name=\"language\"\r\n\r\nen\r\n" + dash +
            "Content-Disposition: form-data; name=\"prompt\"\r\n\r\n" + QStringLiteral("Zoë, Qt Creator").toUtf8() +
            "\r\n" + "--" + boundary + "--\r\n";
        QCOMPARE(request.body, expected);
    }

    void sendsLanguageAndPrompt_data() {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<QStringList>("context");
        QTest::addColumn<QByteArray>("language");
        QTest::addColumn<std::optional<QByteArray>>("prompt");
        QStringList many;
        for (int i = 1; i <= 41; ++i)
            many.append(QStringLiteral("term%1").arg(i));
        QTest::newRow("41 strings keep the first 40")
            << "en-US" << many << QByteArray("en") << std::optional(many.mid(0, 40).join(", ").toUtf8());
        QTest::newRow("empty context sends no prompt, pt-BR is pt")
            << "pt-BR" << QStringList() << QByteArray("pt") << std::optional<QByteArray>();
    }
    void sendsLanguageAndPrompt() {
        QFETCH(QString, locale);
        QFETCH(QStringList, context);
        QFETCH(QByteArray, language);
        QFETCH(std::optional<QByteArray>, prompt);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), locale);
        speak(engine, context);
        QCOMPARE(finish(engine), QStringLiteral("Hello world."));
        const FakeWhisperServer::Request request = server.inferenceRequests().value(0);
        QCOMPARE(request.field("language"), std::optional(language));
        QCOMPARE(request.field("prompt"), prompt);
    }

    void interpretsResponse_data() {
        QTest::addColumn<Response>("response");
        QTest::addColumn<QString>("expected");
        QTest::newRow("segments trimmed")
            << FakeWhisperServer::transcript(QStringLiteral(" Hello there.\n General.\n")) << "Hello there. General.";
        QTest::newRow("500") << Response::plainText(500, "Internal Server Error")
                             << "<unavailable> whisper server returned an error";
        QTest::newRow("400 with a plain-text body")
            << Response::plainText(400, "Invalid request") << "<unavailable> whisper server returned an error";
        QTest::newRow("not JSON") << Response::invalidJson() << "<parse error>";
        QTest::newRow("object whose text is no string") << Response::json(200, R"({"text": 42})") << R"({"text": 42})";
        QTest::newRow("JSON array returned raw, stripped")
            << Response::json(200, "[[\"a\"],  \"spoken words\"]") << ", \"spoken words\"]";
        QTest::newRow("dropped connection") << Response::droppedConnection() << "<transport error>";
        QTest::newRow("dropped mid-body")
            << FakeWhisperServer::transcript(" Hello.\n").cutShort() << "<transport error>";
        QTest::newRow("gigabytes announced") << Response::enormous() << "<transport error>";
    }
    void interpretsResponse() {
        QFETCH(Response, response);
        QFETCH(QString, expected);
        FakeWhisperServer server;
        // Qt resends a request once when the connection drops before any answer, so script every answer.
        server.setDefaultInference(response);
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine);
        QCOMPARE(finish(engine), expected);
        // Whatever happened, the utterance was drained: the next finish has nothing to send.
        const qsizetype sent = server.requests().size();
        QCOMPARE(finish(engine), QString());
        QCOMPARE(server.requests().size(), sent);
    }

    void sendsNothingWithoutAudio() {
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        syncWait(engine.beginUtterance({QStringLiteral("prompt")}));
        QCOMPARE(finish(engine), QString());
        speak(engine);
        syncWait(engine.cancelUtterance());
        QCOMPARE(finish(engine), QString());
        QVERIFY(server.requests().isEmpty());
    }

    void earlierUtteranceNeverLeaks_data() {
        QTest::addColumn<bool>("cancel");
        QTest::newRow("begin again") << false;
        QTest::newRow("cancel, then audio without a begin") << true;
    }
    void earlierUtteranceNeverLeaks() {
        QFETCH(bool, cancel);
        FakeWhisperServer server;
        WhisperServerEngine engine(server.url().toString(), QStringLiteral("en-US"));
        speak(engine, {QStringLiteral("old")}, {0.5f, 0.5f, 0.5f});
        syncWait(cancel ? engine.cancelUtterance() : engine.beginUtterance({}));
        engine.append(AudioChunk{{-0.5f}, 16000});
        QCOMPARE(finish(engine), QStringLiteral("Hello world."));
        const FakeWhisperServer::Request request = server.inferenceRequests().value(0);
        QCOMPARE(WavDecoder::decode(request.field("file").value_or(QByteArray())).samples,
                 std::vector<float>{-16383.0f / 32768});
        QVERIFY(!request.field("prompt"));
    }

    void stripsAnnotations_data() {
        QTest::addColumn<QString>("input");
        QTest::addColumn<QString>("expected");
        QTest::newRow("blank audio") << " [BLANK_AUDIO] " << QString();
        QTest::newRow("mixed tags") << "Hello (laughs) *sighs* world [music]"
                                    << "Hello world";
        QTest::newRow("tag spanning lines") << "one [long\nnoise] two"
                                            << "one two";
        QTest::newRow("brackets removed before parentheses") << "a [b (c] d) e"
                                                             << "a d) e";
        QTest::newRow("unclosed marks kept") << "keep [this 5 * 3"
                                             << "keep [this 5 * 3";
        QTest::newRow("Unicode white space folded") << "\u00A0Hi\u2003\u2003there\u3000"
                                                    << "Hi there";
    }
    void stripsAnnotations() {
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QCOMPARE(WhisperServerEngine::stripAnnotations(input), expected);
    }
};

QTEST_GUILESS_MAIN(TestWhisperServerEngine)
#include "tst_whisper_server_engine.moc"
