#pragma once

#include <QString>
#include <functional>

// Desktop notifications through the session bus's notification service. The call does not wait
// for the service: `fallback` runs later on the calling thread if no service answered it.
namespace FreedesktopNotifications {
void show(const QString &title, const QString &body, std::function<void()> fallback);
}
