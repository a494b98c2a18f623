#include "core/LaunchAtLogin.h"

#include "core/Log.h"

namespace LaunchAtLogin {

void apply(Service &service, bool enabled) {
    if (service.isEnabled() == enabled)
        return;
    const QString failure = enabled ? service.enable() : service.disable();
    if (!failure.isEmpty())
        Log::error(QStringLiteral("Could not change launch-at-login: ") + failure);
}

} // namespace LaunchAtLogin
