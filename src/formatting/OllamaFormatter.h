#pragma once

#include "core/LoopbackHttp.h"
#include "formatting/ModelRequest.h"
#include "formatting/TextFormatter.h"

#include <QJsonDocument>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

// Sends every formatting request to a local Ollama server. prepare() checks once that the server
// answers and the model is pulled, and until it has, every request fails at once, so that the
// pipeline falls back quickly instead of waiting on a dead server.
class OllamaFormatter final : public TextFormatter {
public:
    // `endpoint` is the configured server URL (replaced by http://127.0.0.1:11434 unless it is an
    // acceptable loopback endpoint), `model` the model name exactly as pulled ("llama3.2:latest").
    OllamaFormatter(const std::optional<QString> &endpoint, const QString &model);

    QString name() const override { return m_name; }
    bool isAvailable() const override { return m_available; }
    // What the last prepare() found wrong, in the words of its log line; none while available.
    std::optional<QString> unavailableReason() const override { return m_unavailableReason; }
    // Lists the pulled models (2 s limit) and warms the configured one. Never fails.
    QCoro::Task<void> prepare() override;

    QCoro::Task<QString> format(QString transcript, FormattingContext context) override;
    QCoro::Task<QString> rewrite(QString text, RewriteCommand command, FormattingContext context) override;
    QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) override;

    const QUrl &endpoint() const { return m_endpoint; }
    const QString &model() const { return m_model; }

    // The names under "models" in a model list, in the server's order; any other shape lists nothing.
    static QStringList modelNames(const QJsonDocument &document);
    // The text of a generate reply's body; empty when it has none. Throws ParseError when the body is
    // not JSON.
    static QString responseFromReply(const QByteArray &body);

private:
    QCoro::Task<QString> run(ModelRequest request);
    // The model's raw reply; a server error fails without showing the server's text.
    QCoro::Task<QString> generate(QString prompt, QString system, int maxTokens);

    const QString m_name;
    const QUrl m_endpoint;
    const QString m_model;
    // Written only by prepare(): one failed request must not disable the formatter.
    bool m_available = false;
    std::optional<QString> m_unavailableReason = QStringLiteral("not prepared yet");
    LoopbackHttp m_http;
};
