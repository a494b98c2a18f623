#include "core/MainThread.h"

#include "core/HandOver.h"

#include <QCoreApplication>
#include <QMetaObject>

void postToMainThread(std::weak_ptr<const void> target, std::function<void()> work) {
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return; // command-line runs have no main loop and no desktop callbacks
    // The application stands for the lock of its event queue, which orders this thread's writes
    // before the work.
    HandOver::sent(application);
    QMetaObject::invokeMethod(
        application,
        [target = std::move(target), work = std::move(work)] {
            HandOver::received(QCoreApplication::instance());
            if (const auto alive = target.lock())
                work();
        },
        Qt::QueuedConnection);
}
