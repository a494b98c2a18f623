#include "FakeOllamaServer.h"
#include "FormatterOperations.h"
#include "LogRecorder.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/OllamaFormatter.h"

#include <QTest>

using Response = FakeHttpServer::Response;
using Operation = FormatterOperation;
Q_DECLARE_METATYPE(FakeHttpServer::Response)

namespace {

const QString kModel = QStringLiteral("llama3.2:latest");
const QString kReady = QStringLiteral("INFO Formatter ready \u00B7 Ollama \u00B7 llama3.2:latest");
const FormattingContext kContext{"Slack", std::nullopt, {"Quorvane"}, {}, {}};

// The text an operation produced, or what it failed with.
QString outcomeOf(OllamaFormatter &formatter, Operation operation, const QString &input) {
    try {
        return syncWait(FormatterOperations::perform(formatter, operation, input, kContext));
    } catch (const QuorvaneError &error) {
        return "QuorvaneError: " + error.message();
    } catch (const LoopbackHttp::TransportError &error) {
        return "TransportError: " + error.text();
    }
}

QStringList keysOf(const QJsonValue &object) {
    QStringList keys = object.toObject().keys();
    keys.sort();
    return keys;
}

} // namespace

class TestOllamaFormatter : public QObject {
    Q_OBJECT

    LogRecorder m_log;

private slots:
    void init() { m_log.lines.clear(); }

    void onlyLoopbackEndpoints() {
        QCOMPARE(OllamaFormatter("http://[::1]:8000", kModel).endpoint(), QUrl("http://[::1]:8000"));
        QCOMPARE(OllamaFormatter("http://10.0.0.5:11434", kModel).endpoint(), QUrl("http://127.0.0.1:11434"));
    }

    // "%1" in an expected log line stands for the server's URL. However the warm-up ends, a model
    // that was found stays available.
    void prepareSettlesAvailability_data() {
        QTest::addColumn<Response>("tags");
        QTest::addColumn<QString>("model");
        QTest::addColumn<Response>("warmUp");
        QTest::addColumn<QStringList>("log");
        const Response list = FakeOllamaServer::tags({"qwen3:8b", kModel});
        const Response ok = FakeOllamaServer::generation("ok");
        const QString notPulled = "WARN Ollama is running but '%1' is not pulled. Available: ";
        QTest::newRow("pulled") << list << kModel << ok << QStringList{kReady};
        QTest::newRow("warm-up fails") << list << kModel << ok.withStatus(500) << QStringList{kReady};
        QTest::newRow("warm-up not JSON") << list << kModel << Response::invalidJson() << QStringList{kReady};
        QTest::newRow("listed only with its tag")
            << list << "llama3.2" << ok << QStringList{notPulled.arg("llama3.2") + "qwen3:8b, " + kModel};
        QTest::newRow("array body") << Response::json(200, R"([{"name":"llama3.2:latest"}])") << kModel << ok
                                    << QStringList{notPulled.arg(kModel)};
        QTest::newRow("server error is silent") << list.withStatus(500) << kModel << ok << QStringList{};
        QTest::newRow("invalid JSON") << Response::invalidJson() << kModel << ok
                                      << QStringList{"WARN Ollama not reachable at %1"};
    }
    void prepareSettlesAvailability() {
        QFETCH(Response, tags);
        QFETCH(QString, model);
        QFETCH(Response, warmUp);
        QFETCH(QStringList, log);
        FakeOllamaServer server;
        server.setDefaultTags(tags);
        server.setDefaultGenerate(warmUp);
        OllamaFormatter formatter(server.url().toString(), model);
        syncWait(formatter.prepare());

        const bool available = log == QStringList{kReady};
        QCOMPARE(formatter.isAvailable(), available);
        QCOMPARE(m_log.lines, log.replaceInStrings("%1", server.url().toString()));
        // Only a model that was found is warmed, once, with a tiny request.
        QCOMPARE(server.generateRequests().size(), available ? 1 : 0);
        for (const QJsonObject &body : server.generateBodies()) {
            QCOMPARE(body.value("prompt").toString() + body.value("system").toString(), "hiReply with: ok");
            QCOMPARE(body.value("options")["num_predict"].toInt(), 4);
        }
    }

    void unreachableServerWarns() {
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeHttpServer::closedPort());
        OllamaFormatter formatter(endpoint, kModel);
        syncWait(formatter.prepare());
        QVERIFY(!formatter.isAvailable());
        QCOMPARE(m_log.lines, QStringList{"WARN Ollama not reachable at " + endpoint});
    }

    // Each operation's texts and budget, counted in user-perceived characters.
    void requestsCarryTheirTextsAndBudget_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("input");
        QTest::addColumn<int>("budget");
        // Eleven characters in 22 UTF-16 units; the half rounds down.
        QTest::newRow("format") << Operation::format << QString("e\u0301").repeated(11) << 133;
        QTest::newRow("rewrite") << Operation::rewrite << QString("\U0001F1EB\U0001F1F7").repeated(10) << 165;
        QTest::newRow("developer prompt") << Operation::compileDeveloperPrompt << QString("0123456789") << 330;
    }
    void requestsCarryTheirTextsAndBudget() {
        QFETCH(Operation, operation);
        QFETCH(QString, input);
        QFETCH(int, budget);
        FakeOllamaServer server;
        OllamaFormatter formatter(server.url().toString(), kModel);
        syncWait(formatter.prepare());
        syncWait(FormatterOperations::perform(formatter, operation, input, kContext));

        QCOMPARE(server.generateRequests().size(), 2);
        const FakeHttpServer::Request request = server.generateRequests().last();
        QCOMPARE(request.header("Content-Type"), std::optional<QByteArray>("application/json"));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(keysOf(body), (QStringList{"model", "options", "prompt", "stream", "system", "think"}));
        QCOMPARE(keysOf(body["options"]), (QStringList{"num_predict", "temperature"}));
        QCOMPARE(body["options"]["num_predict"].toInt(-1), budget);
        QCOMPARE(body["options"]["temperature"], QJsonValue(0));
        QCOMPARE(body["model"].toString(), kModel);
        QCOMPARE(body["stream"], QJsonValue(false));
        QCOMPARE(body["think"], QJsonValue(false));
        const auto [system, prompt] = FormatterOperations::expected(operation, input, kContext);
        QCOMPARE(body["system"].toString(), system);
        QCOMPARE(body["prompt"].toString(), prompt);
    }

    void repliesAreReadAndCleaned_data() {
        QTest::addColumn<Response>("reply");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("preamble and reasoning removed")
            << FakeOllamaServer::generation("Sure, here is the cleaned-up text: <think>The user wants\nclean "
                                            "text.</think>\n\"Send it Wednesday.\"<think>unterminated")
            << "Send it Wednesday.";
        QTest::newRow("500 even with a response")
            << FakeOllamaServer::generation("Send it.").withStatus(500)
            << "QuorvaneError: The formatting model is unavailable: Ollama returned HTTP error";
        QTest::newRow("400 with a plain-text body")
            << Response::plainText(400, "Bad Request")
            << "QuorvaneError: The formatting model is unavailable: Ollama returned HTTP error";
        QTest::newRow("empty object") << Response::json(200, "{}") << "";
        QTest::newRow("response of another shape")
            << Response::json(200, R"({"response": {"text": "Send it."}})") << "";
        QTest::newRow("dropped mid-body")
            << FakeOllamaServer::generation("Send it.").cutShort() << "TransportError: Connection closed";
        QTest::newRow("gigabytes announced")
            << Response::enormous() << "TransportError: the server's answer is larger than 8 MB";
        QTest::newRow("array body") << Response::json(200, R"(["Send it Wednesday."])") << "";
    }
    void repliesAreReadAndCleaned() {
        QFETCH(Response, reply);
        QFETCH(QString, outcome);
        FakeOllamaServer server;
        OllamaFormatter formatter(server.url().toString(), kModel);
        syncWait(formatter.prepare());
        server.setDefaultGenerate(reply);
        for (const Operation operation : FormatterOperations::all) {
            QCOMPARE(outcomeOf(formatter, operation, "send it tuesday no wednesday"), outcome);
            // One bad reply does not disable the formatter.
            QVERIFY(formatter.isAvailable());
        }
    }

    // Servers 0.9.0 to 0.12.4 answer a model without thinking this way when asked not to think.
    void olderServersAreAskedWithoutThink_data() {
        QTest::addColumn<QString>("model");
        QTest::addColumn<Response>("firstReply");
        QTest::addColumn<QString>("outcome");
        // Per request of the first format: whether its body carried "think"; then whether a formatter
        // built afresh for the same server and model still sends it.
        QTest::addColumn<QList<bool>>("thinkSent");
        QTest::addColumn<bool>("thinkSentLater");
        const QByteArray refusal = "{\"error\":\"\\\"gemma3:1b\\\" does not support thinking\"}";
        const QString failed = "QuorvaneError: The formatting model is unavailable: Ollama returned HTTP error";
        QTest::newRow("refused, asked again without it")
            << "gemma3:1b" << Response::json(400, refusal) << "Hello." << QList<bool>{true, false} << false;
        QTest::newRow("another bad request is not retried")
            << "llama3.2:1b" << Response::json(400, R"({"error":"invalid options"})") << failed << QList<bool>{true}
            << true;
        QTest::newRow("the same text with a server error is not retried")
            << "qwen3:0.6b" << Response::json(500, refusal) << failed << QList<bool>{true} << true;
    }
    void olderServersAreAskedWithoutThink() {
        QFETCH(QString, model);
        QFETCH(Response, firstReply);
        FakeOllamaServer server;
        server.setModels({model});
        const auto thinkSent = [&server] {
            QList<bool> sent;
            for (const QJsonObject &body : server.generateBodies())
                sent.append(body.contains("think"));
            server.clearRequests();
            return sent;
        };
        OllamaFormatter formatter(server.url().toString(), model);
        syncWait(formatter.prepare());
        server.clearRequests();
        server.enqueueGenerate(firstReply);
        server.setDefaultGenerate(FakeOllamaServer::generation("Hello."));
        QTEST(outcomeOf(formatter, Operation::format, "hello"), "outcome");
        QTEST(thinkSent(), "thinkSent");

        OllamaFormatter rebuilt(server.url().toString(), model);
        syncWait(rebuilt.prepare());
        server.clearRequests();
        QCOMPARE(outcomeOf(rebuilt, Operation::format, "hello"), QStringLiteral("Hello."));
        QFETCH(bool, thinkSentLater);
        QCOMPARE(thinkSent(), QList<bool>{thinkSentLater});
    }

    void unavailableModelSendsNothing() {
        FakeOllamaServer server;
        server.setModels({"qwen3:8b"});
        OllamaFormatter formatter(server.url().toString(), kModel);
        for (const bool prepared : {false, true}) {
            if (prepared)
                syncWait(formatter.prepare());
            for (const Operation operation : FormatterOperations::all)
                QCOMPARE(outcomeOf(formatter, operation, "hello"),
                         "QuorvaneError: The formatting model is unavailable: Ollama model 'llama3.2:latest' is not "
                         "available");
        }
        QVERIFY(server.generateRequests().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestOllamaFormatter)
#include "tst_ollama_formatter.moc"
