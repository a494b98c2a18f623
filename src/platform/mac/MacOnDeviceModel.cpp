#include "MacOnDeviceModel.h"

#include "FoundationModelBridge.h"
#include "core/Timeout.h"

#include <stdexcept>

namespace {

// Settled once, from whichever thread the model answers on; the awaiting coroutine resumes on its
// own thread.
using Resolution = detail::TimeoutResolution<QString>;

constexpr const char *needsNewerSystem = "the on-device model needs macOS 26";

void deliver(void *context, int32_t status, const char *text) {
    const std::unique_ptr<std::shared_ptr<Resolution>> resolution(static_cast<std::shared_ptr<Resolution> *>(context));
    const QString message = QString::fromUtf8(text ? text : "");
    TimeoutOutcome<QString> outcome;
    if (status == quorvane_fm_replied)
        outcome.value = message;
    else if (status == quorvane_fm_generation_error)
        outcome.error = std::make_exception_ptr(OnDeviceLanguageModel::GenerationError(message));
    else
        outcome.error =
            std::make_exception_ptr(std::runtime_error(message.isEmpty() ? needsNewerSystem : message.toStdString()));
    (*resolution)->resolve(std::move(outcome));
}

class MacSession final : public OnDeviceLanguageModel::Session {
public:
    explicit MacSession(void *handle) : m_handle(handle) {}
    ~MacSession() override {
        if (m_handle)
            quorvane_fm_session_release(m_handle);
    }
    MacSession(const MacSession &) = delete;
    MacSession &operator=(const MacSession &) = delete;

    void prewarm() override {
        if (m_handle)
            quorvane_fm_session_prewarm(m_handle);
    }

    QCoro::Task<QString> respond(QString prompt, int maximumResponseTokens) override {
        if (!m_handle)
            throw std::runtime_error(needsNewerSystem);
        auto resolution = std::make_shared<Resolution>();
        quorvane_fm_session_respond(m_handle, prompt.toUtf8().constData(), maximumResponseTokens,
                                    new std::shared_ptr<Resolution>(resolution), &deliver);
        const TimeoutOutcome<QString> outcome = co_await Resolution::Awaiter(resolution.get());
        co_return outcome.get();
    }

private:
    void *m_handle;
};

} // namespace

std::optional<OnDeviceLanguageModel::Unavailability> MacOnDeviceModel::unavailability() const {
    switch (quorvane_fm_availability()) {
    case 0:
        return std::nullopt;
    case 1:
        return Unavailability::deviceNotEligible;
    case 2:
        return Unavailability::appleIntelligenceNotEnabled;
    case 3:
        return Unavailability::modelNotReady;
    default:
        return Unavailability::other;
    }
}

std::shared_ptr<OnDeviceLanguageModel::Session> MacOnDeviceModel::makeSession(const QString &instructions) {
    return std::make_shared<MacSession>(quorvane_fm_session_create(instructions.toUtf8().constData()));
}
