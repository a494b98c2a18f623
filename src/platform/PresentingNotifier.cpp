#include "platform/PresentingNotifier.h"

#include "core/MainThread.h"

void PresentingNotifier::notify(const QString &title, const QString &body) {
    Log::warn(QStringLiteral("[") + title + QStringLiteral("] ") + body);
    postToMainThread(m_lifetime, [this, title, body] {
        if (present)
            present(title, body);
    });
}
