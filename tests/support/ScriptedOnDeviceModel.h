#pragma once

#include "formatting/OnDeviceLanguageModel.h"

#include <QCoro/QCoroTimer>
#include <QList>
#include <QQueue>
#include <chrono>

// An on-device model whose availability and replies a test sets. Every session it makes is kept,
// with whether it was warmed and what it was asked. Replies arrive from the event loop, as the
// real model's do.
class ScriptedOnDeviceModel final : public OnDeviceLanguageModel {
public:
    // A reply's text, a refusal with this description, or a failure that is not a refusal.
    enum class Reply { text, declined, otherFailure };
    struct OtherFailure : std::exception {};
    using Replies = QQueue<std::pair<Reply, QString>>;

    struct ScriptedSession final : Session {
        QString instructions;
        std::shared_ptr<Replies> replies;
        bool prewarmed = false;
        QStringList prompts;
        QList<int> budgets;

        ScriptedSession(const QString &instructions, std::shared_ptr<Replies> replies)
            : instructions(instructions), replies(std::move(replies)) {}
        void prewarm() override { prewarmed = true; }
        QCoro::Task<QString> respond(QString prompt, int maximumResponseTokens) override {
            prompts.append(prompt);
            budgets.append(maximumResponseTokens);
            const auto [kind, text] =
                replies->isEmpty() ? std::pair(Reply::text, QString("Hello.")) : replies->dequeue();
            co_await QCoro::sleepFor(std::chrono::milliseconds(1));
            if (kind == Reply::declined)
                throw GenerationError(text);
            if (kind == Reply::otherFailure)
                throw OtherFailure();
            co_return text;
        }
    };

    std::optional<Unavailability> unavailability() const override { return m_unavailability; }
    void setUnavailability(std::optional<Unavailability> unavailability) { m_unavailability = unavailability; }
    std::shared_ptr<Session> makeSession(const QString &instructions) override {
        return sessions.emplace_back(std::make_shared<ScriptedSession>(instructions, m_replies));
    }
    // Answered in order; once empty, requests get the text "Hello.".
    void enqueue(Reply kind, const QString &text) { m_replies->enqueue({kind, text}); }

    // Every session made so far, oldest first.
    QList<std::shared_ptr<ScriptedSession>> sessions;

private:
    std::optional<Unavailability> m_unavailability;
    std::shared_ptr<Replies> m_replies = std::make_shared<Replies>();
};
