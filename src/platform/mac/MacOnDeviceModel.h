#pragma once

#include "formatting/OnDeviceLanguageModel.h"

// The system language model of FoundationModels (macOS 26 and later). Replies are delivered on the
// thread that asked for them, which must run a Qt event loop.
class MacOnDeviceModel final : public OnDeviceLanguageModel {
public:
    std::optional<Unavailability> unavailability() const override;
    std::shared_ptr<Session> makeSession(const QString &instructions) override;
};
