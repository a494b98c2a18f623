#include "ScriptedOnDeviceModel.h"

#include <QCoro/QCoroTimer>
#include <chrono>

class ScriptedOnDeviceModel::ScriptedSession final : public OnDeviceLanguageModel::Session {
public:
    ScriptedSession(std::shared_ptr<SessionRecord> record, std::shared_ptr<QQueue<Reply>> replies)
        : m_record(std::move(record)), m_replies(std::move(replies)) {}

    void prewarm() override { m_record->prewarmed = true; }

    QCoro::Task<QString> respond(QString prompt, int maximumResponseTokens) override {
        if (m_record->request)
            ++m_record->laterRequests;
        else
            m_record->request = Request{prompt, maximumResponseTokens};
        const Reply reply = m_replies->isEmpty() ? Reply::withText(QStringLiteral("Hello.")) : m_replies->dequeue();
        co_await QCoro::sleepFor(std::chrono::milliseconds(1));
        switch (reply.kind) {
        case Reply::Kind::declined:
            throw GenerationError(reply.text);
        case Reply::Kind::otherFailure:
            throw OtherFailure();
        case Reply::Kind::text:
            break;
        }
        co_return reply.text;
    }

private:
    std::shared_ptr<SessionRecord> m_record;
    std::shared_ptr<QQueue<Reply>> m_replies;
};

std::shared_ptr<OnDeviceLanguageModel::Session> ScriptedOnDeviceModel::makeSession(const QString &instructions) {
    auto record = std::make_shared<SessionRecord>();
    record->instructions = instructions;
    m_records.append(record);
    return std::make_shared<ScriptedSession>(record, m_replies);
}

QList<ScriptedOnDeviceModel::SessionRecord> ScriptedOnDeviceModel::sessions() const {
    QList<SessionRecord> records;
    for (const auto &record : m_records)
        records.append(*record);
    return records;
}
