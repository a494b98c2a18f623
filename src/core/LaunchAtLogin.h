#pragma once

#include <QString>

// Registers or unregisters the application as a login item. Never throws: a failure is logged as
// "Could not change launch-at-login: <reason>" and the stored setting is left to the caller.
namespace LaunchAtLogin {

void set(bool enabled); // defined by the platform library

// The login-item service of a platform, reduced to what the switch needs.
class Service {
public:
    virtual ~Service() = default;
    virtual bool isEnabled() = 0;
    // Each returns an empty string on success, else the reason.
    virtual QString enable() = 0;
    virtual QString disable() = 0;
};

// The switch itself: acts only when the state differs, logs a failure.
void apply(Service &service, bool enabled);

} // namespace LaunchAtLogin
