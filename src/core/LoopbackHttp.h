#pragma once

#include "core/DescribedError.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QJsonDocument>
#include <QNetworkReply>
#include <QString>
#include <QUrl>
#include <memory>

class QTcpSocket;

// HTTP to the local model and speech servers: no proxy (what we send must not leave the machine),
// no redirects, a transfer time-out on every request, one request per connection. Plain http only.
// Each request goes out in a single write on a socket without Nagle's delay, so a POST's body is not
// held back waiting for the server to acknowledge its headers.
class LoopbackHttp {
public:
    // The exchange failed below HTTP (refused, reset, timed out); callers pass it on unchanged.
    class TransportError : public DescribedError {
    public:
        TransportError(QNetworkReply::NetworkError code, const QString &text) : DescribedError(text), m_code(code) {}
        QNetworkReply::NetworkError code() const { return m_code; }
        QString description() const override {
            // A garbled or oversized answer did arrive; everything else never did.
            return (m_code == QNetworkReply::ProtocolFailure
                        ? QStringLiteral("the local server's answer was unusable: ")
                        : QStringLiteral("no answer from the local server: ")) +
                   text();
        }

    private:
        QNetworkReply::NetworkError m_code;
    };

    // A body that should have been JSON and is not.
    class ParseError : public DescribedError {
    public:
        using DescribedError::DescribedError;
        QString description() const override {
            return QStringLiteral("the local server's answer was not JSON: ") + text();
        }
    };

    // Any HTTP answer, whatever its status.
    struct Reply {
        int status = 0;
        QByteArray body;
    };

    LoopbackHttp();
    ~LoopbackHttp();
    LoopbackHttp(const LoopbackHttp &) = delete;
    LoopbackHttp &operator=(const LoopbackHttp &) = delete;

    // Both throw TransportError when no complete HTTP answer arrives within `timeoutMs` of the
    // start, or when the answer's body passes HttpResponseReader::kMaxBodyBytes. Only a GET is sent again after a
    // connection dropped unanswered. The request keeps what it needs alive on its own, so the caller may be destroyed
    // while it is in flight.
    QCoro::Task<Reply> get(const QUrl &url, int timeoutMs);
    QCoro::Task<Reply> post(const QUrl &url, const QByteArray &contentType, const QByteArray &body, int timeoutMs);

    // Opens a connection to `url`'s server now for the next request to it, so that the request
    // does not wait for a connection when it is urgent (a transcription at key-up). It is kept until
    // a request takes it, another replaces it, or `dropConnectionAhead`; a server that closes it
    // while it waits (an idle time-out) gets a new one, for up to a quarter of an hour.
    void connectAhead(const QUrl &url);
    void dropConnectionAhead();

    // `base` with `relativePath` appended to its path ("http://h:1/x" + "api/tags" → "http://h:1/x/api/tags").
    static QUrl appendPath(const QUrl &base, const QString &relativePath);
    // Throws ParseError when `body` is not JSON.
    static QJsonDocument parseJson(const QByteArray &body);

private:
    struct Ahead;
    void openAhead();
    // The connection opened ahead for `url`'s server, when it can still carry a request; owned by the caller.
    QTcpSocket *takeConnectionAhead(const QUrl &url);
    std::unique_ptr<Ahead> m_ahead;
};
