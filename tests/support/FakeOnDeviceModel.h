#pragma once

#include "core/QuorvaneError.h"
#include "formatting/TextFormatter.h"

#include <QCoro/QCoroSignal>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QString>
#include <optional>

// The operating system's language model as the platform kit hands it out: replies come from a
// script, a reply can be held back until the test lets it go, and the model can be unavailable.
class FakeOnDeviceModel final : public QObject, public TextFormatter {
    Q_OBJECT
public:
    struct Call {
        QString operation; // "format", "rewrite" or "compile"
        QString text;
        FormattingContext context;
    };

    QString name() const override { return QStringLiteral("On-device model"); }
    bool isAvailable() const override { return available; }
    QCoro::Task<void> prepare() override { co_return; }
    QCoro::Task<QString> format(QString transcript, FormattingContext context) override {
        return answer(QStringLiteral("format"), transcript, context);
    }
    QCoro::Task<QString> rewrite(QString text, RewriteCommand, FormattingContext context) override {
        return answer(QStringLiteral("rewrite"), text, context);
    }
    QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) override {
        return answer(QStringLiteral("compile"), transcript, context);
    }

    // The next call answers `reply`; an unscripted call answers its input unchanged.
    void reply(const QString &text) { m_script.enqueue(Step{text, {}}); }
    // The next call fails with this.
    void fail(const QuorvaneError &error) { m_script.enqueue(Step{{}, error}); }
    // Calls wait until release() (or the end of the test) before answering.
    bool holdReplies = false;
    void release() { emit released(); }

    bool available = true;
    QList<Call> calls;

signals:
    void released();

private:
    struct Step {
        QString text;
        std::optional<QuorvaneError> error;
    };

    QCoro::Task<QString> answer(QString operation, QString text, FormattingContext context) {
        calls.append(Call{operation, text, context});
        const Step step = m_script.isEmpty() ? Step{text, {}} : m_script.dequeue();
        if (holdReplies)
            co_await qCoro(this, &FakeOnDeviceModel::released);
        if (step.error)
            throw *step.error;
        co_return step.text;
    }

    QQueue<Step> m_script;
};
