#include "FakeOllamaServer.h"
#include "FormatterOperations.h"
#include "LogRecorder.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/OllamaFormatter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>
#include <optional>

using Response = FakeHttpServer::Response;
Q_DECLARE_METATYPE(FakeHttpServer::Response)
Q_DECLARE_METATYPE(std::optional<QString>)

namespace {

const QString kModel = QStringLiteral("llama3.2:latest");

using Operation = FormatterOperation;

FormattingContext slackContext() {
    FormattingContext context;
    context.appName = QStringLiteral("Slack");
    context.vocabulary = {QStringLiteral("Quorvane")};
    return context;
}

QCoro::Task<QString> perform(OllamaFormatter &formatter, Operation operation, const QString &input) {
    return FormatterOperations::perform(formatter, operation, input, slackContext());
}

// What an operation produced: its text, or the error it failed with.
struct Outcome {
    std::optional<QString> text;
    std::optional<QuorvaneError> quorvaneError;
    bool transportError = false;
    bool parseError = false;
};

Outcome outcomeOf(OllamaFormatter &formatter, Operation operation, const QString &input) {
    Outcome outcome;
    try {
        outcome.text = syncWait(perform(formatter, operation, input));
    } catch (const QuorvaneError &error) {
        outcome.quorvaneError = error;
    } catch (const LoopbackHttp::TransportError &) {
        outcome.transportError = true;
    } catch (const LoopbackHttp::ParseError &) {
        outcome.parseError = true;
    }
    return outcome;
}

QSet<QString> keysOf(const QJsonObject &object) {
    const QStringList keys = object.keys();
    return QSet<QString>(keys.begin(), keys.end());
}

} // namespace

class TestOllamaFormatter : public QObject {
    Q_OBJECT

    std::optional<LogRecorder> m_log;

    // A formatter that has found its model on `server`; the warm-up has been answered.
    static void makeReady(OllamaFormatter &formatter) {
        syncWait(formatter.prepare());
        QVERIFY(formatter.isAvailable());
    }

private slots:
    void initTestCase() { m_log.emplace(); }
    void cleanupTestCase() { m_log.reset(); }
    void init() { m_log->clear(); }

    void onlyLoopbackEndpoints_data() {
        QTest::addColumn<std::optional<QString>>("configured");
        QTest::addColumn<QUrl>("expected");
        const QUrl fallback(QStringLiteral("http://127.0.0.1:11434"));
        QTest::newRow("none configured") << std::optional<QString>() << fallback;
        QTest::newRow("loopback kept") << std::optional(QStringLiteral("http://[::1]:8000"))
                                       << QUrl(QStringLiteral("http://[::1]:8000"));
        QTest::newRow("remote host refused") << std::optional(QStringLiteral("http://10.0.0.5:11434")) << fallback;
    }
    void onlyLoopbackEndpoints() {
        QFETCH(std::optional<QString>, configured);
        QFETCH(QUrl, expected);
        const OllamaFormatter formatter(configured, kModel);
        QCOMPARE(formatter.endpoint(), expected);
    }

    // "%1" in an expected log line stands for the server's URL.
    void prepareSettlesAvailability_data() {
        QTest::addColumn<Response>("tags");
        QTest::addColumn<QString>("model");
        QTest::addColumn<bool>("available");
        QTest::addColumn<QStringList>("log");

        const QString notPulled = QStringLiteral("WARN Ollama is running but '%1' is not pulled. Available: ");
        const QString unreachable = QStringLiteral("WARN Ollama not reachable at %1");
        QTest::newRow("pulled") << FakeOllamaServer::tags({QStringLiteral("qwen3:8b"), kModel}) << kModel << true
                                << QStringList{QStringLiteral("INFO Formatter ready \u00B7 Ollama \u00B7 ") + kModel};
        QTest::newRow("listed only with its tag")
            << FakeOllamaServer::tags({kModel}) << QStringLiteral("llama3.2") << false
            << QStringList{notPulled.arg(QStringLiteral("llama3.2")) + kModel};
        QTest::newRow("case differs") << FakeOllamaServer::tags({QStringLiteral("Llama3.2:latest")}) << kModel << false
                                      << QStringList{notPulled.arg(kModel) + QStringLiteral("Llama3.2:latest")};
        QTest::newRow("array body") << Response::json(200, "[{\"name\":\"llama3.2:latest\"}]") << kModel << false
                                    << QStringList{notPulled.arg(kModel)};
        QTest::newRow("unusable entries skipped")
            << Response::json(200, "{\"models\":[{\"model\":\"llama3.2:latest\"},{\"name\":null},\"llama3.2:latest\","
                                   "{\"name\":\"a:1\"},{\"name\":7},{\"name\":\"b:2\"}]}")
            << kModel << false << QStringList{notPulled.arg(kModel) + QStringLiteral("a:1, b:2")};
        QTest::newRow("server error is silent")
            << FakeOllamaServer::tags({kModel}).withStatus(500) << kModel << false << QStringList{};
        QTest::newRow("not found is silent")
            << Response::plainText(404, "404 page not found") << kModel << false << QStringList{};
        QTest::newRow("invalid JSON") << Response::invalidJson() << kModel << false << QStringList{unreachable};
        QTest::newRow("dropped connection")
            << Response::droppedConnection() << kModel << false << QStringList{unreachable};
        QTest::newRow("slow but in time")
            << FakeOllamaServer::tags({kModel}).delayedBy(80) << kModel << true
            << QStringList{QStringLiteral("INFO Formatter ready \u00B7 Ollama \u00B7 ") + kModel};
    }
    void prepareSettlesAvailability() {
        QFETCH(Response, tags);
        QFETCH(QString, model);
        QFETCH(bool, available);
        QFETCH(QStringList, log);
        FakeOllamaServer server;
        server.setModels({kModel});
        server.setDefaultTags(tags);
        OllamaFormatter formatter(server.url().toString(), model);
        syncWait(formatter.prepare());

        QCOMPARE(formatter.isAvailable(), available);
        for (QString &line : log)
            line.replace(QStringLiteral("%1"), server.url().toString());
        QCOMPARE(m_log->lines(), log);
        // Only a model that was found is warmed.
        QCOMPARE(server.generateRequests().size(), available ? 1 : 0);
    }

    void unreachableServerWarns() {
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1").arg(FakeHttpServer::closedPort());
        OllamaFormatter formatter(endpoint, kModel);
        syncWait(formatter.prepare());
        QVERIFY(!formatter.isAvailable());
        QCOMPARE(m_log->lines(), QStringList{QStringLiteral("WARN Ollama not reachable at ") + endpoint});
    }

    // However the warm-up ends, the model stays available.
    void warmUpFailureIsSwallowed_data() {
        QTest::addColumn<Response>("reply");
        QTest::newRow("answered") << FakeOllamaServer::generation(QStringLiteral("ok"));
        QTest::newRow("server error") << Response::json(500, "{\"error\":\"llama runner process has terminated\"}");
        QTest::newRow("not JSON") << Response::invalidJson();
        QTest::newRow("dropped") << Response::droppedConnection();
    }
    void warmUpFailureIsSwallowed() {
        QFETCH(Response, reply);
        FakeOllamaServer server;
        server.setDefaultGenerate(reply);
        OllamaFormatter formatter(server.url().toString(), kModel);
        syncWait(formatter.prepare());

        QVERIFY(formatter.isAvailable());
        QVERIFY(!server.generateBodies().isEmpty());
        for (const QJsonObject &body : server.generateBodies()) {
            QCOMPARE(body.value(QLatin1String("prompt")).toString(), QStringLiteral("hi"));
            QCOMPARE(body.value(QLatin1String("system")).toString(), QStringLiteral("Reply with: ok"));
            QCOMPARE(body.value(QLatin1String("options")).toObject().value(QLatin1String("num_predict")).toInt(), 4);
        }
    }

    void generationRequestIsExact() {
        FakeOllamaServer server;
        OllamaFormatter formatter(server.url().toString(), kModel);
        makeReady(formatter);
        const QString transcript = QStringLiteral("um so send it tuesday");
        syncWait(formatter.format(transcript, slackContext()));

        QCOMPARE(server.generateRequests().size(), 2);
        const FakeHttpServer::Request request = server.generateRequests().last();
        QCOMPARE(request.header("Content-Type"), std::optional<QByteArray>("application/json"));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(keysOf(body), (QSet<QString>{"model", "prompt", "system", "stream", "think", "options"}));
        QCOMPARE(body.value(QLatin1String("model")).toString(), kModel);
        QCOMPARE(body.value(QLatin1String("prompt")).toString(), FormatterPrompt::prompt(transcript, slackContext()));
        QCOMPARE(body.value(QLatin1String("system")).toString(), FormatterPrompt::systemInstructions());
        QCOMPARE(body.value(QLatin1String("stream")), QJsonValue(false));
        QCOMPARE(body.value(QLatin1String("think")), QJsonValue(false));
        const QJsonObject options = body.value(QLatin1String("options")).toObject();
        QCOMPARE(keysOf(options), (QSet<QString>{"temperature", "num_predict"}));
        QCOMPARE(options.value(QLatin1String("num_predict")).toInt(-1), 128 + 10);
        // Integers on the wire, as the server's options expect: no "0.0".
        static const QRegularExpression integerTemperature(QStringLiteral("\"temperature\"\\s*:\\s*0\\s*[,}]"));
        static const QRegularExpression integerBudget(QStringLiteral("\"num_predict\"\\s*:\\s*138\\s*[,}]"));
        QVERIFY(integerTemperature.match(QString::fromUtf8(request.body)).hasMatch());
        QVERIFY(integerBudget.match(QString::fromUtf8(request.body)).hasMatch());
    }

    // Each operation's texts and budget, counted in user-perceived characters.
    void operationsSendTheirPromptAndBudget_data() {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("input");
        QTest::addColumn<int>("budget");
        const QString ten = QStringLiteral("0123456789");
        // Ten characters in twenty UTF-16 units: "e" with a combining acute accent.
        const QString tenAccented = QStringLiteral("e\u0301").repeated(10);
        // Ten characters of four UTF-16 units each: flags.
        const QString tenFlags = QStringLiteral("\U0001F1EB\U0001F1F7").repeated(10);
        QTest::newRow("format") << Operation::format << ten << 133;
        QTest::newRow("format, combining marks") << Operation::format << tenAccented << 133;
        QTest::newRow("format, odd length rounds down") << Operation::format << ten + QLatin1Char('x') << 133;
        QTest::newRow("rewrite") << Operation::rewrite << ten << 165;
        QTest::newRow("rewrite, flags") << Operation::rewrite << tenFlags << 165;
        QTest::newRow("developer prompt") << Operation::compileDeveloperPrompt << ten << 330;
        QTest::newRow("developer prompt, empty") << Operation::compileDeveloperPrompt << QString() << 320;
    }
    void operationsSendTheirPromptAndBudget() {
        QFETCH(Operation, operation);
        QFETCH(QString, input);
        QFETCH(int, budget);
        FakeOllamaServer server;
        OllamaFormatter formatter(server.url().toString(), kModel);
        makeReady(formatter);
        syncWait(perform(formatter, operation, input));

        const QJsonObject body = server.generateBodies().last();
        QCOMPARE(body.value(QLatin1String("options")).toObject().value(QLatin1String("num_predict")).toInt(-1), budget);
        QCOMPARE(body.value(QLatin1String("system")).toString(), FormatterOperations::expectedInstructions(operation));
        QCOMPARE(body.value(QLatin1String("prompt")).toString(),
                 FormatterOperations::expectedPrompt(operation, input, slackContext()));
    }

    void repliesAreReadAndCleaned_data() {
        QTest::addColumn<Response>("reply");
        QTest::addColumn<std::optional<QString>>("text");
        QTest::addColumn<bool>("httpError");
        QTest::addColumn<bool>("transportError");
        QTest::addColumn<bool>("parseError");
        const std::optional<QString> none;
        QTest::newRow("plain reply") << FakeOllamaServer::generation(QStringLiteral("Send it Wednesday."))
                                     << std::optional(QStringLiteral("Send it Wednesday.")) << false << false << false;
        QTest::newRow("reasoning removed")
            << FakeOllamaServer::generation(QStringLiteral("<think>The user wants\nclean text.</think>\nSend it "
                                                           "Wednesday.<think>unterminated"))
            << std::optional(QStringLiteral("Send it Wednesday.")) << false << false << false;
        QTest::newRow("preamble removed")
            << FakeOllamaServer::generation(QStringLiteral("Sure, here is the cleaned-up text: \"Send it Wednesday.\""))
            << std::optional(QStringLiteral("Send it Wednesday.")) << false << false << false;
        QTest::newRow("500 even with a response")
            << FakeOllamaServer::generation(QStringLiteral("Send it Wednesday.")).withStatus(500) << none << true
            << false << false;
        QTest::newRow("model gone") << Response::json(404, "{\"error\":\"model 'llama3.2:latest' not found\"}") << none
                                    << true << false << false;
        QTest::newRow("empty object") << Response::json(200, "{}") << std::optional(QString()) << false << false
                                      << false;
        QTest::newRow("array body") << Response::json(200, "[\"Send it Wednesday.\"]") << std::optional(QString())
                                    << false << false << false;
        QTest::newRow("invalid JSON") << Response::invalidJson() << none << false << false << true;
        QTest::newRow("dropped connection") << Response::droppedConnection() << none << false << true << false;
        QTest::newRow("slow reply") << FakeOllamaServer::generation(QStringLiteral("Late.")).delayedBy(80)
                                    << std::optional(QStringLiteral("Late.")) << false << false << false;
    }
    void repliesAreReadAndCleaned() {
        QFETCH(Response, reply);
        QFETCH(std::optional<QString>, text);
        QFETCH(bool, httpError);
        QFETCH(bool, transportError);
        QFETCH(bool, parseError);
        FakeOllamaServer server;
        OllamaFormatter formatter(server.url().toString(), kModel);
        makeReady(formatter);
        server.setDefaultGenerate(reply);
        for (const Operation operation : FormatterOperations::all()) {
            const Outcome outcome = outcomeOf(formatter, operation, QStringLiteral("send it tuesday no wednesday"));
            QCOMPARE(outcome.text, text);
            QCOMPARE(outcome.quorvaneError.has_value(), httpError);
            if (httpError)
                QCOMPARE(outcome.quorvaneError->message(),
                         QStringLiteral("The formatting model is unavailable: Ollama returned HTTP error"));
            QCOMPARE(outcome.transportError, transportError);
            QCOMPARE(outcome.parseError, parseError);
            // One bad reply does not disable the formatter.
            QVERIFY(formatter.isAvailable());
        }
    }

    void unavailableModelSendsNothing_data() {
        QTest::addColumn<Operation>("operation");
        QTest::newRow("format") << Operation::format;
        QTest::newRow("rewrite") << Operation::rewrite;
        QTest::newRow("developer prompt") << Operation::compileDeveloperPrompt;
    }
    void unavailableModelSendsNothing() {
        QFETCH(Operation, operation);
        FakeOllamaServer server;
        server.setModels({QStringLiteral("qwen3:8b")});
        OllamaFormatter formatter(server.url().toString(), kModel);
        const Outcome beforePrepare = outcomeOf(formatter, operation, QStringLiteral("hello"));
        syncWait(formatter.prepare());
        const Outcome afterPrepare = outcomeOf(formatter, operation, QStringLiteral("hello"));
        for (const Outcome &outcome : {beforePrepare, afterPrepare}) {
            QVERIFY(outcome.quorvaneError);
            QCOMPARE(outcome.quorvaneError->errorCase(), QuorvaneError::Case::formatterUnavailable);
            QCOMPARE(outcome.quorvaneError->detail(),
                     QStringLiteral("Ollama model 'llama3.2:latest' is not available"));
        }
        QVERIFY(server.generateRequests().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestOllamaFormatter)
#include "tst_ollama_formatter.moc"
