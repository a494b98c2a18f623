#pragma once

#include "formatting/TextFormatter.h"

// Used when no model is configured: dictation goes through untouched, and the modes that cannot
// work without a model say so.
class PassthroughFormatter final : public TextFormatter {
public:
    QString name() const override { return m_name; }
    bool isAvailable() const override { return true; }
    QCoro::Task<void> prepare() override;
    QCoro::Task<QString> format(QString transcript, FormattingContext context) override;
    QCoro::Task<QString> rewrite(QString text, RewriteCommand command, FormattingContext context) override;
    QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) override;

private:
    const QString m_name = QStringLiteral("None (raw transcript)");
};
