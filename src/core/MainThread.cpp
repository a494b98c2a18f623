#include "core/MainThread.h"

#include <QCoreApplication>
#include <QMetaObject>

void postToMainThread(std::weak_ptr<const void> target, std::function<void()> work) {
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return; // command-line runs have no main loop and no desktop callbacks
    QMetaObject::invokeMethod(
        application,
        [target = std::move(target), work = std::move(work)] {
            if (const auto alive = target.lock())
                work();
        },
        Qt::QueuedConnection);
}
