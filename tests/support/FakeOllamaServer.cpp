#include "FakeOllamaServer.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

QByteArray compact(const QJsonObject &object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

QByteArray errorBody(const QString &message) {
    return compact(QJsonObject{{QStringLiteral("error"), message}});
}

} // namespace

FakeOllamaServer::FakeOllamaServer(QObject *parent)
    : FakeHttpServer(parent), m_models{QStringLiteral("llama3.2:latest")},
      m_defaultGenerate(generation(QStringLiteral("ok"))) {}

FakeHttpServer::Response FakeOllamaServer::generation(const QString &text) {
    return Response::json(200, compact(QJsonObject{
                                   {QStringLiteral("model"), QStringLiteral("llama3.2:latest")},
                                   {QStringLiteral("created_at"), QStringLiteral("2025-01-01T00:00:00.000000Z")},
                                   {QStringLiteral("response"), text},
                                   {QStringLiteral("done"), true},
                                   {QStringLiteral("done_reason"), QStringLiteral("stop")},
                                   {QStringLiteral("total_duration"), 123456789},
                                   {QStringLiteral("eval_count"), 3},
                               }));
}

FakeHttpServer::Response FakeOllamaServer::tags(const QStringList &names) {
    QJsonArray models;
    for (const QString &name : names) {
        models.append(QJsonObject{
            {QStringLiteral("name"), name},
            {QStringLiteral("model"), name},
            {QStringLiteral("modified_at"), QStringLiteral("2025-01-01T00:00:00Z")},
            {QStringLiteral("size"), 2019393189},
            {QStringLiteral("digest"),
             QStringLiteral("a80c4f17acd55265feec403c7aef86be0c25983ab279d83f3bcd3abbcb5b8b72")},
            {QStringLiteral("details"), QJsonObject{{QStringLiteral("format"), QStringLiteral("gguf")}}},
        });
    }
    return Response::json(200, compact(QJsonObject{{QStringLiteral("models"), models}}));
}

QList<QJsonObject> FakeOllamaServer::generateBodies() const {
    QList<QJsonObject> bodies;
    for (const Request &request : generateRequests())
        bodies.append(QJsonDocument::fromJson(request.body).object());
    return bodies;
}

FakeHttpServer::Response FakeOllamaServer::respond(const Request &request) {
    const QByteArray path = pathOf(request);
    if (request.method == "GET" && path == "/")
        return Response::plainText(200, "Ollama is running");
    if (request.method == "GET" && path == "/api/tags")
        return m_scriptedTags.isEmpty() ? m_defaultTags.value_or(tags(m_models)) : m_scriptedTags.dequeue();
    if (request.method == "POST" && path == "/api/generate") {
        const QJsonDocument body = QJsonDocument::fromJson(request.body);
        if (!body.isObject())
            return Response::json(400, errorBody(QStringLiteral("invalid request body")));
        const QString model = body.object().value(QLatin1String("model")).toString();
        if (!m_models.contains(model))
            return Response::json(404, errorBody(QStringLiteral("model '%1' not found").arg(model)));
        return m_scriptedGenerate.isEmpty() ? m_defaultGenerate : m_scriptedGenerate.dequeue();
    }
    return Response::plainText(404, "404 page not found");
}
