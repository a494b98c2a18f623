#include "speech/WhisperServerEngine.h"

#include "core/LocalServiceEndpoint.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "core/Text.h"
#include "speech/WavEncoder.h"

#include <QCoro/QCoroNetworkReply>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QTextBoundaryFinder>
#include <QUuid>

namespace {

constexpr int kHealthTimeoutMs = 2000;
constexpr int kInferenceTimeoutMs = 60000;
constexpr qsizetype kMaxContextualStrings = 40;

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

// The first `count` user-perceived characters; the whole text when it is shorter.
QString leadingCharacters(const QString &text, int count) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype end = 0;
    for (int i = 0; i < count; ++i) {
        end = finder.toNextBoundary();
        if (end < 0)
            return text;
    }
    return text.left(end);
}

void appendField(QByteArray &body, const QByteArray &boundary, const char *name, const QByteArray &value) {
    body += "--" + boundary + "\r\n";
    body += "Content-Disposition: form-data; name=\"";
    body += name;
    body += "\"\r\n\r\n";
    body += value;
    body += "\r\n";
}

QByteArray multipartBody(const QByteArray &boundary, const QByteArray &wav, const QString &language,
                         const QString &prompt) {
    QByteArray body;
    body.reserve(wav.size() + 1024 + prompt.size() * 3);
    body += "--" + boundary + "\r\n";
    body += "Content-Disposition: form-data; name=\"file\"; filename=\"utterance.wav\"\r\n";
    body += "Content-Type: audio/wav\r\n\r\n";
    body += wav;
    body += "\r\n";
    appendField(body, boundary, "temperature", "0.0");
    appendField(body, boundary, "response_format", "json");
    appendField(body, boundary, "language", leadingCharacters(language, 2).toUtf8());
    if (!prompt.isEmpty())
        appendField(body, boundary, "prompt", prompt.toUtf8());
    body += "--" + boundary + "--\r\n";
    return body;
}

QString transcriptFromBody(const QByteArray &body) {
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        throw WhisperServerEngine::ParseError(parseError.errorString());
    const QJsonValue text = document.isObject() ? document.object().value(QLatin1String("text")) : QJsonValue();
    if (text.isString())
        return text.toString();
    // Some server builds answer other shapes; their raw text is still better than nothing. (The
    // parser has already refused bodies that are not UTF-8.)
    return QString::fromUtf8(body);
}

} // namespace

WhisperServerEngine::WhisperServerEngine(const QString &endpoint, const QString &language)
    : m_endpoint(LocalServiceEndpoint::resolve(endpoint, QStringLiteral("http://127.0.0.1:8080"))),
      m_language(language) {}

WhisperServerEngine::~WhisperServerEngine() = default;

std::shared_ptr<QNetworkAccessManager> WhisperServerEngine::network() {
    if (!m_network) {
        // Requests in flight hold their own reference, and the manager is deleted from the event
        // loop, never inside one of its replies' signals.
        m_network.reset(new QNetworkAccessManager, [](QNetworkAccessManager *manager) { manager->deleteLater(); });
        // Loopback only: a proxy from the environment must not see the user's audio.
        m_network->setProxy(QNetworkProxy::NoProxy);
    }
    return m_network;
}

QCoro::Task<void> WhisperServerEngine::prepare() {
    const QUrl endpoint = m_endpoint;
    const auto manager = network();
    ReplyHandle reply(manager->get(makeRequest(endpoint, kHealthTimeoutMs)));
    co_await reply.get();
    const QString endpointText = endpoint.toString(QUrl::FullyEncoded);
    if (!isHttpAnswer(*reply))
        throw QuorvaneError::speechModelUnavailable(QStringLiteral("no whisper.cpp server at ") + endpointText +
                                                    QStringLiteral(". Start one with: whisper-server -m "
                                                                   "<model.bin> --port 8080"));
    Log::info(QStringLiteral("ASR ready \u00B7 whisper.cpp server at ") + endpointText);
}

QCoro::Task<void> WhisperServerEngine::beginUtterance(QStringList contextualStrings) {
    const QString prompt = contextualStrings.mid(0, kMaxContextualStrings).join(QStringLiteral(", "));
    {
        std::lock_guard lock(m_lock);
        m_buffer.clear();
        m_contextPrompt = prompt;
    }
    co_return;
}

void WhisperServerEngine::append(const AudioChunk &chunk) {
    std::lock_guard lock(m_lock);
    m_buffer.insert(m_buffer.end(), chunk.samples.begin(), chunk.samples.end());
}

WhisperServerEngine::Drained WhisperServerEngine::drain() {
    Drained drained;
    std::lock_guard lock(m_lock);
    drained.samples.swap(m_buffer);
    drained.prompt = std::exchange(m_contextPrompt, QString());
    return drained;
}

void WhisperServerEngine::recycle(std::vector<float> storage) {
    storage.clear();
    std::lock_guard lock(m_lock);
    // Audio that arrived meanwhile stays where it is.
    if (m_buffer.empty() && m_buffer.capacity() < storage.capacity())
        m_buffer.swap(storage);
}

QCoro::Task<QString> WhisperServerEngine::finishUtterance() {
    Drained drained = drain();
    if (drained.samples.empty()) {
        recycle(std::move(drained.samples));
        co_return QString();
    }
    const QByteArray wav = WavEncoder::encode(drained.samples, 16000);
    recycle(std::move(drained.samples));

    const QByteArray boundary = "speakwell-" + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toLatin1();
    QUrl url = m_endpoint;
    QString path = url.path();
    if (!path.endsWith(QLatin1Char('/')))
        path += QLatin1Char('/');
    url.setPath(path + QStringLiteral("inference"));
    QNetworkRequest request = makeRequest(url, kInferenceTimeoutMs);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("multipart/form-data; boundary=" + boundary));

    // Nothing of `this` is touched after the request leaves: the engine may be replaced meanwhile.
    const auto manager = network();
    ReplyHandle reply(manager->post(request, multipartBody(boundary, wav, m_language, drained.prompt)));
    co_await reply.get();
    if (!isHttpAnswer(*reply))
        throw TransportError(reply->error(), reply->errorString());
    if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200)
        throw QuorvaneError::speechModelUnavailable(QStringLiteral("whisper server returned an error"));
    co_return stripAnnotations(transcriptFromBody(reply->readAll()));
}

QCoro::Task<void> WhisperServerEngine::cancelUtterance() {
    recycle(drain().samples);
    co_return;
}

QString WhisperServerEngine::stripAnnotations(const QString &text) {
    static const auto options = QRegularExpression::UseUnicodePropertiesOption;
    static const QRegularExpression bracketed(QStringLiteral("\\[[^\\]]*\\]"), options);
    static const QRegularExpression parenthesised(QStringLiteral("\\([^\\)]*\\)"), options);
    static const QRegularExpression starred(QStringLiteral("\\*[^\\*]*\\*"), options);
    static const QRegularExpression whitespace(QStringLiteral("\\s+"), options);
    QString cleaned = text;
    cleaned.replace(bracketed, QString());
    cleaned.replace(parenthesised, QString());
    cleaned.replace(starred, QString());
    cleaned.replace(whitespace, QStringLiteral(" "));
    return Text::trimmed(cleaned);
}
