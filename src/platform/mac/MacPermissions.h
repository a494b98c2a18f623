#pragma once

#include "platform/DesktopPermissions.h"

// The Microphone and Accessibility permissions of the privacy settings.
class MacPermissions final : public DesktopPermissions {
public:
    State microphone() override;
    void requestMicrophone(std::function<void(bool granted)> done) override;
    bool accessibilityTrusted() override;
    void openMicrophoneSettings() override;
    void openAccessibilitySettings() override;
};
