#pragma once

#include "core/DescribedError.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <memory>
#include <optional>

// The operating system's on-device language model, reduced to what a formatter needs. The desktop
// implementation only forwards to the platform's framework; everything the formatter decides lives
// with the formatter.
class OnDeviceLanguageModel {
public:
    enum class Unavailability { deviceNotEligible, appleIntelligenceNotEnabled, modelNotReady, other };

    // The model did not produce a reply: its guardrails refused the content, or generation itself
    // failed. Carries the platform's localised description.
    class GenerationError : public DescribedError {
    public:
        using DescribedError::DescribedError;
    };

    // One conversation with fixed instructions and no tools.
    class Session {
    public:
        virtual ~Session() = default;
        // Starts loading what the session needs ahead of its request; returns at once.
        virtual void prewarm() = 0;
        // The whole reply, sampled greedily, of at most `maximumResponseTokens` tokens. Fails with
        // GenerationError when the model declines.
        virtual QCoro::Task<QString> respond(QString prompt, int maximumResponseTokens) = 0;
    };

    virtual ~OnDeviceLanguageModel() = default;

    // None while the model can serve requests.
    virtual std::optional<Unavailability> unavailability() const = 0;
    virtual std::shared_ptr<Session> makeSession(const QString &instructions) = 0;
};
