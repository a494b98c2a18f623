#pragma once

#include "FakeHttpServer.h"

#include <QJsonObject>
#include <QQueue>
#include <QStringList>
#include <optional>

// An Ollama server answering the way the real one does: GET / is "Ollama is running", GET /api/tags
// lists the pulled models (each with its tag and the other keys the real list carries), and
// POST /api/generate refuses a body that is not JSON (400) or names a model that is not pulled
// (404 {"error":"model '<name>' not found"}). Answers of either API come from a queue of scripted
// responses first, then from a default. Note that Qt resends a request once when the connection
// drops before any answer, so a drop meant to be seen by the client is set as the default.
class FakeOllamaServer : public FakeHttpServer {
    Q_OBJECT
public:
    explicit FakeOllamaServer(QObject *parent = nullptr);

    // 200 with a complete non-streamed generation carrying `text` under "response".
    static Response generation(const QString &text);
    // 200 with a model list naming these models.
    static Response tags(const QStringList &names);

    // Names as the server lists them; initially {"llama3.2:latest"}.
    void setModels(const QStringList &names) { m_models = names; }
    void enqueueTags(const Response &response) { m_scriptedTags.enqueue(response); }
    // Replaces the model list built from setModels() once the queue is empty.
    void setDefaultTags(const Response &response) { m_defaultTags = response; }
    void enqueueGenerate(const Response &response) { m_scriptedGenerate.enqueue(response); }
    // Used for a valid generation once the queue is empty; initially generation("ok").
    void setDefaultGenerate(const Response &response) { m_defaultGenerate = response; }

    QList<Request> tagsRequests() const { return requestsTo("GET", "/api/tags"); }
    QList<Request> generateRequests() const { return requestsTo("POST", "/api/generate"); }
    // The JSON object of each generation request, in order (empty objects for bodies that are not one).
    QList<QJsonObject> generateBodies() const;

protected:
    Response respond(const Request &request) override;

private:
    QStringList m_models;
    QQueue<Response> m_scriptedTags;
    std::optional<Response> m_defaultTags;
    QQueue<Response> m_scriptedGenerate;
    Response m_defaultGenerate;
};
