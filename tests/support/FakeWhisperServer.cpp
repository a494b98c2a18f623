#include "FakeWhisperServer.h"

#include <QJsonDocument>
#include <QJsonObject>

FakeWhisperServer::FakeWhisperServer(QObject *parent)
    : FakeHttpServer(parent), m_default(transcript(QStringLiteral(" Hello world.\n"))) {}

FakeHttpServer::Response FakeWhisperServer::transcript(const QString &text) {
    return Response::json(200,
                          QJsonDocument(QJsonObject{{QStringLiteral("text"), text}}).toJson(QJsonDocument::Compact));
}

void FakeWhisperServer::enqueueInference(const Response &response) {
    m_scripted.enqueue(response);
}

void FakeWhisperServer::setDefaultInference(const Response &response) {
    m_default = response;
}

FakeHttpServer::Response FakeWhisperServer::respond(const Request &request) {
    const QByteArray path = pathOf(request);
    if (request.method == "GET" && path == "/") {
        Response page = Response::plainText(200, "<html><body><h1>Whisper.cpp Server</h1></body></html>");
        page.contentType = "text/html";
        return page;
    }
    if (request.method == "GET" && path == "/health")
        return Response::json(200, "{\"status\":\"ok\"}");
    if (request.method == "POST" && path == "/inference") {
        const auto file = request.field("file");
        // A RIFF header alone (44 bytes) carries no samples, which the real server refuses too.
        if (!file || !file->startsWith("RIFF") || file->size() <= 44)
            return Response::plainText(400, "Invalid request");
        return m_scripted.isEmpty() ? m_default : m_scripted.dequeue();
    }
    return Response::plainText(404, "File Not Found (" + path + ")");
}
