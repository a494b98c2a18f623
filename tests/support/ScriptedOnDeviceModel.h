#pragma once

#include "formatting/OnDeviceLanguageModel.h"

#include <QList>
#include <QQueue>
#include <QString>
#include <memory>
#include <optional>

// An on-device model whose availability and replies a test sets. Every session it makes is kept,
// with whether it was warmed and what it was asked, so tests can follow which session served which
// request. Replies arrive from the event loop, as the real model's do.
class ScriptedOnDeviceModel final : public OnDeviceLanguageModel {
public:
    struct Request {
        QString prompt;
        int maximumResponseTokens = 0;
    };

    struct SessionRecord {
        QString instructions;
        bool prewarmed = false;
        // Set once a request has been made of the session.
        std::optional<Request> request;
        // Requests made after the first; a session that is reused shows up here.
        int laterRequests = 0;
    };

    // What the next request gets: a reply, a refusal with this description, or another failure.
    struct Reply {
        enum class Kind { text, declined, otherFailure };
        Kind kind = Kind::text;
        QString text;

        static Reply withText(const QString &text) { return {Kind::text, text}; }
        static Reply declined(const QString &description) { return {Kind::declined, description}; }
        static Reply otherFailure() { return {Kind::otherFailure, {}}; }
    };

    // Thrown for Reply::otherFailure: not a refusal of the model.
    struct OtherFailure : std::exception {
        const char *what() const noexcept override { return "interrupted"; }
    };

    std::optional<Unavailability> unavailability() const override { return m_unavailability; }
    std::shared_ptr<Session> makeSession(const QString &instructions) override;

    void setUnavailability(std::optional<Unavailability> unavailability) { m_unavailability = unavailability; }
    // Answered in order; once empty, requests get the text "Hello.".
    void enqueue(const Reply &reply) { m_replies->enqueue(reply); }

    // Every session made so far, oldest first.
    QList<SessionRecord> sessions() const;

private:
    class ScriptedSession;

    std::optional<Unavailability> m_unavailability;
    std::shared_ptr<QQueue<Reply>> m_replies = std::make_shared<QQueue<Reply>>();
    QList<std::shared_ptr<SessionRecord>> m_records;
};
