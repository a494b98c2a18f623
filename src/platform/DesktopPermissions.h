#pragma once

#include <functional>

// The permissions a desktop grants each application, where it has such a thing (macOS): onboarding
// shows them and offers the step that grants each.
class DesktopPermissions {
public:
    enum class State { granted, denied, undetermined };

    virtual ~DesktopPermissions() = default;

    virtual State microphone() = 0;
    // Shows the system's question, which it asks only once; `done` may come on any thread.
    virtual void requestMicrophone(std::function<void(bool granted)> done) = 0;
    // Whether the keys can be watched and text pasted.
    virtual bool accessibilityTrusted() = 0;
    virtual void openMicrophoneSettings() = 0;
    virtual void openAccessibilitySettings() = 0;
};
