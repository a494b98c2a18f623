#include "formatting/OllamaFormatter.h"

#include "core/LocalServiceEndpoint.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "formatting/FormatterPrompt.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <mutex>

namespace {

constexpr int kModelListTimeoutMs = 2000;
constexpr int kGenerateTimeoutMs = 30000;

QByteArray generateBody(const QString &model, const QString &prompt, const QString &system, int maxTokens,
                        bool sendThink) {
    const QJsonObject options{
        {QStringLiteral("temperature"), 0},
        {QStringLiteral("num_predict"), maxTokens},
    };
    QJsonObject body{
        {QStringLiteral("model"), model},  {QStringLiteral("prompt"), prompt},   {QStringLiteral("system"), system},
        {QStringLiteral("stream"), false}, {QStringLiteral("options"), options},
    };
    if (sendThink)
        body.insert(QStringLiteral("think"), false);
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

// Servers 0.9.0 to 0.12.4 refuse even `think: false` for a model that cannot think. The pairs of
// server and model known to do so, for the life of the process, so a reload does not ask again.
class ThinkRefusals {
public:
    static bool contains(const QString &key) {
        std::lock_guard lock(mutex());
        return keys().contains(key);
    }
    static void insert(const QString &key) {
        std::lock_guard lock(mutex());
        keys().insert(key);
    }

private:
    static std::mutex &mutex() {
        static std::mutex instance;
        return instance;
    }
    static QSet<QString> &keys() {
        static QSet<QString> instance;
        return instance;
    }
};

bool refusesThinking(const LoopbackHttp::Reply &reply) {
    if (reply.status != 400)
        return false;
    const QJsonDocument document = QJsonDocument::fromJson(reply.body);
    const QJsonValue error = document.isObject() ? document.object().value(QLatin1String("error")) : QJsonValue();
    return error.toString().endsWith(QLatin1String("does not support thinking"));
}

} // namespace

OllamaFormatter::OllamaFormatter(const std::optional<QString> &endpoint, const QString &model)
    : m_name(QStringLiteral("Ollama \u00B7 ") + model),
      m_endpoint(LocalServiceEndpoint::resolve(endpoint.value_or(QString()), QStringLiteral("http://127.0.0.1:11434"))),
      m_model(model) {}

QCoro::Task<void> OllamaFormatter::prepare() {
    const QString unreachable = QStringLiteral("Ollama not reachable at ") + m_endpoint.toString(QUrl::FullyEncoded);
    m_available = false;
    m_unavailableReason = unreachable;
    std::optional<LoopbackHttp::Reply> reply;
    try {
        reply =
            co_await m_http.get(LoopbackHttp::appendPath(m_endpoint, QStringLiteral("api/tags")), kModelListTimeoutMs);
    } catch (const LoopbackHttp::TransportError &) {
    }
    if (!reply) {
        Log::warn(unreachable);
        co_return;
    }
    // Something answers on the port but not as Ollama does; not worth a warning of its own.
    if (reply->status != 200) {
        m_unavailableReason = QStringLiteral("the server at %1 answered the model list with HTTP %2")
                                  .arg(m_endpoint.toString(QUrl::FullyEncoded))
                                  .arg(reply->status);
        co_return;
    }
    std::optional<QJsonDocument> document;
    try {
        document = LoopbackHttp::parseJson(reply->body);
    } catch (const LoopbackHttp::ParseError &) {
    }
    if (!document) {
        Log::warn(unreachable);
        co_return;
    }
    const QStringList names = modelNames(*document);
    // Exact names only: "llama3.2" and "llama3.2:latest" are different names to the server's API.
    m_available = names.contains(m_model, Qt::CaseSensitive);
    if (!m_available) {
        m_unavailableReason = QStringLiteral("Ollama is running but '") + m_model +
                              QStringLiteral("' is not pulled. Available: ") + names.join(QStringLiteral(", "));
        Log::warn(*m_unavailableReason);
        co_return;
    }
    m_unavailableReason.reset();
    Log::info(QStringLiteral("Formatter ready \u00B7 ") + m_name);
    // Loads the model into the server's memory before the first dictation needs it; a failure here
    // says nothing about the next request.
    try {
        co_await generate(QStringLiteral("hi"), QStringLiteral("Reply with: ok"), 4);
    } catch (...) {
    }
}

QCoro::Task<QString> OllamaFormatter::format(QString transcript, FormattingContext context) {
    return run(ModelRequest::format(transcript, context));
}

QCoro::Task<QString> OllamaFormatter::rewrite(QString text, RewriteCommand command, FormattingContext context) {
    return run(ModelRequest::rewrite(text, command, context));
}

QCoro::Task<QString> OllamaFormatter::compileDeveloperPrompt(QString transcript, FormattingContext context) {
    return run(ModelRequest::developerPrompt(transcript, context));
}

QCoro::Task<QString> OllamaFormatter::run(ModelRequest request) {
    if (!m_available)
        throw QuorvaneError::formatterUnavailable(QStringLiteral("Ollama model '") + m_model +
                                                  QStringLiteral("' is not available"));
    const QString reply = co_await generate(request.prompt, request.system, request.maxTokens);
    co_return FormatterPrompt::sanitize(reply);
}

QCoro::Task<QString> OllamaFormatter::generate(QString prompt, QString system, int maxTokens) {
    // Nothing of `this` is touched once the request has left: copies and a client of our own.
    const QUrl url = LoopbackHttp::appendPath(m_endpoint, QStringLiteral("api/generate"));
    const QString model = m_model;
    const QString server = m_endpoint.toString(QUrl::FullyEncoded);
    const QString key = server + QLatin1Char(' ') + model;
    LoopbackHttp http;
    bool sendThink = !ThinkRefusals::contains(key);
    LoopbackHttp::Reply reply = co_await http.post(
        url, "application/json", generateBody(model, prompt, system, maxTokens, sendThink), kGenerateTimeoutMs);
    if (sendThink && refusesThinking(reply)) {
        ThinkRefusals::insert(key);
        Log::info(QStringLiteral("Ollama at %1 does not accept \"think\" for %2; asking without it from now on.")
                      .arg(server, model));
        reply = co_await http.post(url, "application/json", generateBody(model, prompt, system, maxTokens, false),
                                   kGenerateTimeoutMs);
    }
    if (reply.status != 200)
        throw QuorvaneError::formatterUnavailable(QStringLiteral("Ollama returned HTTP error"));
    co_return responseFromReply(reply.body);
}

QStringList OllamaFormatter::modelNames(const QJsonDocument &document) {
    QStringList names;
    const QJsonValue models = document.isObject() ? document.object().value(QLatin1String("models")) : QJsonValue();
    for (const QJsonValue &model : models.toArray()) {
        const QJsonValue name = model.toObject().value(QLatin1String("name"));
        if (name.isString())
            names.append(name.toString());
    }
    return names;
}

QString OllamaFormatter::responseFromReply(const QByteArray &body) {
    const QJsonDocument document = LoopbackHttp::parseJson(body);
    const QJsonValue response = document.isObject() ? document.object().value(QLatin1String("response")) : QJsonValue();
    // An empty text is for the guard to refuse.
    return response.isString() ? response.toString() : QString();
}
