#pragma once

#include "speech/AsrEngine.h"

#include <QByteArray>
#include <QNetworkReply>
#include <QString>
#include <QUrl>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QNetworkAccessManager;

// Buffers an utterance and, when it ends, posts it as one 16 kHz mono WAV file to a whisper.cpp
// server on the loopback interface. Not streaming: all recognition happens in finishUtterance().
class WhisperServerEngine final : public AsrEngine {
public:
    // The exchange failed below HTTP (refused, reset, timed out); passed on unchanged.
    class TransportError : public std::exception {
    public:
        TransportError(QNetworkReply::NetworkError code, const QString &text)
            : m_code(code), m_text(text), m_what(text.toStdString()) {}
        QNetworkReply::NetworkError code() const { return m_code; }
        const QString &text() const { return m_text; }
        const char *what() const noexcept override { return m_what.c_str(); }

    private:
        QNetworkReply::NetworkError m_code;
        QString m_text;
        std::string m_what;
    };

    // The server answered 200 with a body that is not JSON.
    class ParseError : public std::exception {
    public:
        explicit ParseError(const QString &text) : m_text(text), m_what(text.toStdString()) {}
        const QString &text() const { return m_text; }
        const char *what() const noexcept override { return m_what.c_str(); }

    private:
        QString m_text;
        std::string m_what;
    };

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

private:
    struct Drained {
        std::vector<float> samples;
        QString prompt;
    };
    Drained drain();
    // Hands a drained buffer's storage back so the next utterance appends without regrowing.
    void recycle(std::vector<float> storage);
    std::shared_ptr<QNetworkAccessManager> network();

    const QUrl m_endpoint;
    const QString m_language;
    std::mutex m_lock;
    std::vector<float> m_buffer;
    QString m_contextPrompt;
    std::shared_ptr<QNetworkAccessManager> m_network;
};
