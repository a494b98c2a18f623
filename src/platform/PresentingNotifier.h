#pragma once

#include "platform/TextInjection.h"

#include <functional>
#include <memory>

// Logs every notice and shows it through `present`, which the shell installs. notify() may be
// called from any thread; `present` runs on the main thread, and not at all once the notifier is
// gone.
class PresentingNotifier final : public UserNotifier {
public:
    void notify(const QString &title, const QString &body) override;

    // Set on the main thread; read there only.
    std::function<void(const QString &title, const QString &body)> present;

private:
    // Stands for this notifier in work posted to the main thread, whoever owns the notifier.
    const std::shared_ptr<char> m_lifetime = std::make_shared<char>();
};
