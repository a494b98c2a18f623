#pragma once

#include "core/LoopbackHttp.h"
#include "speech/AsrEngine.h"

#include <QString>
#include <QUrl>
#include <mutex>
#include <vector>

// Buffers an utterance and, when it ends, posts it as one 16 kHz mono WAV file to a whisper.cpp
// server on the loopback interface. Not streaming: all recognition happens in finishUtterance().
class WhisperServerEngine final : public AsrEngine {
public:
    // Errors of the exchange with the server, passed on unchanged.
    using TransportError = LoopbackHttp::TransportError;
    using ParseError = LoopbackHttp::ParseError;

    // `endpoint` is the configured server URL (replaced by http://127.0.0.1:8080 unless it is an
    // acceptable loopback endpoint), `language` the configured locale ("en-US"). Does no I/O.
    WhisperServerEngine(const QString &endpoint, const QString &language);
    ~WhisperServerEngine() override;

    QString name() const override { return QStringLiteral("whisper.cpp server"); }
    bool isStreaming() const override { return false; }
    double requiredSampleRate() const override { return 16000; }

    // Any HTTP answer from the endpoint, whatever its status, means the server is up.
    QCoro::Task<void> prepare() override;
    QCoro::Task<void> beginUtterance(QStringList contextualStrings) override;
    // The chunk's own rate is not consulted: callers deliver audio at requiredSampleRate().
    void append(const AudioChunk &chunk) override;
    QCoro::Task<QString> finishUtterance() override;
    QCoro::Task<void> cancelUtterance() override;

    const QUrl &endpoint() const { return m_endpoint; }
    const QString &language() const { return m_language; }

    // Removes whisper's non-speech annotations ("[BLANK_AUDIO]", "(laughs)", "*sighs*") and folds
    // white space.
    static QString stripAnnotations(const QString &text);
    // The recognised text of an inference reply's body. Throws ParseError when the body is not JSON.
    static QString transcriptFromReply(const QByteArray &body);

private:
    struct Drained {
        std::vector<float> samples;
        QString prompt;
    };
    Drained drain();
    // Hands a drained buffer's storage back so the next utterance appends without regrowing.
    void recycle(std::vector<float> storage);

    const QUrl m_endpoint;
    const QString m_language;
    std::mutex m_lock;
    std::vector<float> m_buffer;
    QString m_contextPrompt;
    LoopbackHttp m_http;
};
