#include "speech/WhisperServerEngine.h"

#include "core/LocalServiceEndpoint.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "core/Text.h"
#include "speech/WavEncoder.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTextBoundaryFinder>
#include <QUuid>

namespace {

constexpr int kHealthTimeoutMs = 2000;
constexpr int kInferenceTimeoutMs = 60000;
constexpr qsizetype kMaxContextualStrings = 40;

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
    const QJsonDocument document = LoopbackHttp::parseJson(body);
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

QCoro::Task<void> WhisperServerEngine::prepare() {
    const QString endpointText = m_endpoint.toString(QUrl::FullyEncoded);
    bool answered = true;
    try {
        co_await m_http.get(m_endpoint, kHealthTimeoutMs);
    } catch (const TransportError &) {
        answered = false;
    }
    if (!answered)
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
    // The request at key-up then goes out without waiting for a connection.
    m_http.connectAhead(m_endpoint);
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
    // Nothing of `this` is touched after the request leaves: the engine may be replaced meanwhile.
    const LoopbackHttp::Reply reply = co_await m_http.post(
        LoopbackHttp::appendPath(m_endpoint, QStringLiteral("inference")), "multipart/form-data; boundary=" + boundary,
        multipartBody(boundary, wav, m_language, drained.prompt), kInferenceTimeoutMs);
    if (reply.status != 200)
        throw QuorvaneError::speechModelUnavailable(QStringLiteral("whisper server returned an error"));
    co_return transcriptFromReply(reply.body);
}

QCoro::Task<void> WhisperServerEngine::cancelUtterance() {
    m_http.dropConnectionAhead();
    recycle(drain().samples);
    co_return;
}

QString WhisperServerEngine::transcriptFromReply(const QByteArray &body) {
    return stripAnnotations(transcriptFromBody(body));
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
