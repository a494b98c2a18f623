#pragma once

#include "FakeHttpServer.h"

#include <QQueue>
#include <QString>

// A whisper.cpp server answering the way the real one does: GET / is a help page, GET /health is
// {"status":"ok"}, unknown paths are 404 "File Not Found (<path>)", and a POST /inference without a
// usable WAV file part is 400 "Invalid request". Other /inference answers come from a queue of
// scripted responses, then from a default.
class FakeWhisperServer : public FakeHttpServer {
    Q_OBJECT
public:
    explicit FakeWhisperServer(QObject *parent = nullptr);

    // 200 {"text": text}, as the server answers a transcription.
    static Response transcript(const QString &text);

    // The next POST /inference that passes validation gets the first queued response.
    void enqueueInference(const Response &response);
    // Used once the queue is empty; initially 200 {"text":" Hello world.\n"}.
    void setDefaultInference(const Response &response);

    QList<Request> inferenceRequests() const { return requestsTo("POST", "/inference"); }

protected:
    Response respond(const Request &request) override;

private:
    QQueue<Response> m_scripted;
    Response m_default;
};
