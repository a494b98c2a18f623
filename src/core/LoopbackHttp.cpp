#include "core/LoopbackHttp.h"

#include <QCoro/QCoroNetworkReply>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkRequest>

namespace {

struct ReplyDeleter {
    void operator()(QNetworkReply *reply) const { reply->deleteLater(); }
};
using ReplyHandle = std::unique_ptr<QNetworkReply, ReplyDeleter>;

// Did the server answer with HTTP at all? Qt reports statuses >= 400 as errors too, with the status
// attribute set; a broken exchange has no status or a transport-level error code.
bool isHttpAnswer(const QNetworkReply &reply) {
    if (!reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid())
        return false;
    const int error = reply.error();
    return error == QNetworkReply::NoError || (error >= 201 && error <= 299) || (error >= 401 && error <= 499) ||
           error == QNetworkReply::ProtocolInvalidOperationError;
}

QNetworkRequest makeRequest(const QUrl &url, int timeoutMs) {
    QNetworkRequest request(url);
    request.setTransferTimeout(timeoutMs);
    // A loopback server has no business redirecting us anywhere, least of all off the machine.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    return request;
}

// The manager is held by value so that nothing of the caller is touched once the request has left.
QCoro::Task<LoopbackHttp::Reply> exchange(std::shared_ptr<QNetworkAccessManager> manager, QNetworkRequest request,
                                          std::optional<QByteArray> body) {
    ReplyHandle reply(body ? manager->post(request, *body) : manager->get(request));
    co_await reply.get();
    if (!isHttpAnswer(*reply))
        throw LoopbackHttp::TransportError(reply->error(), reply->errorString());
    LoopbackHttp::Reply answer;
    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    answer.body = reply->readAll();
    co_return answer;
}

} // namespace

LoopbackHttp::LoopbackHttp() = default;
LoopbackHttp::~LoopbackHttp() = default;

std::shared_ptr<QNetworkAccessManager> LoopbackHttp::network() {
    if (!m_network) {
        // Requests in flight hold their own reference, and the manager is deleted from the event
        // loop, never inside one of its replies' signals.
        m_network.reset(new QNetworkAccessManager, [](QNetworkAccessManager *manager) { manager->deleteLater(); });
        m_network->setProxy(QNetworkProxy::NoProxy);
    }
    return m_network;
}

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::get(const QUrl &url, int timeoutMs) {
    return exchange(network(), makeRequest(url, timeoutMs), std::nullopt);
}

QCoro::Task<LoopbackHttp::Reply> LoopbackHttp::post(const QUrl &url, const QByteArray &contentType,
                                                    const QByteArray &body, int timeoutMs) {
    QNetworkRequest request = makeRequest(url, timeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, contentType);
    return exchange(network(), request, body);
}

QUrl LoopbackHttp::appendPath(const QUrl &base, const QString &relativePath) {
    QUrl url = base;
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + relativePath);
    return url;
}

QJsonDocument LoopbackHttp::parseJson(const QByteArray &body) {
    QJsonParseError parseError;
    QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw ParseError(parseError.errorString());
    return document;
}
