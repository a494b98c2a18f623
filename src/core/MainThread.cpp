#include "core/MainThread.h"

#include "core/HandOver.h"

#include <QCoreApplication>
#include <QMetaObject>

void postToMainThread(std::weak_ptr<const void> target, std::function<void()> work) {
    QCoreApplication *application = QCoreApplication::instance();
    if (!application)
        return; // command-line runs have no main loop and no desktop callbacks
    struct Parcel {
        std::weak_ptr<const void> target;
        std::function<void()> work;
    };
    auto parcel = std::make_shared<Parcel>(Parcel{std::move(target), std::move(work)});
    HandOver::sent(parcel.get());
    QMetaObject::invokeMethod(
        application,
        [parcel] {
            HandOver::received(parcel.get());
            if (const auto alive = parcel->target.lock())
                parcel->work();
        },
        Qt::QueuedConnection);
}
