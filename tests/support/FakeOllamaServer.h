#pragma once

#include "FakeHttpServer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QQueue>

// An Ollama server: GET /api/tags lists the pulled models, POST /api/generate answers from a queue of
// scripted responses first, then from a default. The client resends a GET once when the connection
// drops before any answer, so a drop of the model list meant to be seen is set as the default.
class FakeOllamaServer : public FakeHttpServer {
    Q_OBJECT
public:
    using FakeHttpServer::FakeHttpServer;

    // 200 with a complete non-streamed generation carrying `text` under "response".
    static Response generation(const QString &text) {
        return json(QJsonObject{{"model", "llama3.2:latest"}, {"response", text}, {"done", true}});
    }
    // 200 with a model list naming these models.
    static Response tags(const QStringList &names) {
        QJsonArray models;
        for (const QString &name : names)
            models.append(QJsonObject{{"name", name}, {"model", name}, {"size", 2019393189}});
        return json(QJsonObject{{"models", models}});
    }

    // The pulled models; initially llama3.2:latest.
    void setModels(const QStringList &names) { m_tags = tags(names); }
    // Replaces the model list with any answer.
    void setDefaultTags(const Response &response) { m_tags = response; }
    void enqueueGenerate(const Response &response) { m_generate.enqueue(response); }
    // Used once the queue is empty; initially generation("ok").
    void setDefaultGenerate(const Response &response) { m_defaultGenerate = response; }

    QList<Request> generateRequests() const { return requestsTo("POST", "/api/generate"); }
    // The JSON object of each generation request, in order.
    QList<QJsonObject> generateBodies() const {
        QList<QJsonObject> bodies;
        for (const Request &request : generateRequests())
            bodies.append(QJsonDocument::fromJson(request.body).object());
        return bodies;
    }

protected:
    Response respond(const Request &request) override {
        if (request.method == "GET" && pathOf(request) == "/api/tags")
            return m_tags;
        if (request.method == "POST" && pathOf(request) == "/api/generate")
            return m_generate.isEmpty() ? m_defaultGenerate : m_generate.dequeue();
        return Response::plainText(404, "404 page not found");
    }

private:
    static Response json(const QJsonObject &object) {
        return Response::json(200, QJsonDocument(object).toJson(QJsonDocument::Compact));
    }

    Response m_tags = tags({"llama3.2:latest"});
    QQueue<Response> m_generate;
    Response m_defaultGenerate = generation("ok");
};
