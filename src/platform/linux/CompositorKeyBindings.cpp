#include "platform/linux/CompositorKeyBindings.h"

#include "core/Log.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <cstdio>

namespace CompositorKeyBindings {

namespace {

// The compositor runs the command on every key event: a hung bus must not pile them up.
constexpr int callTimeoutMs = 2000;

int fail(const QString &message, int status = 1) {
    std::fputs(("quorvane key: " + message + QLatin1Char('\n')).toLocal8Bit().constData(), stderr);
    return status;
}

} // namespace

QString modeWord(PipelineMode mode) {
    switch (mode) {
    case PipelineMode::dictation:
        return QStringLiteral("dictate");
    case PipelineMode::editSelection:
        return QStringLiteral("edit");
    case PipelineMode::developerPrompt:
        return QStringLiteral("prompt");
    }
    return {};
}

std::optional<PipelineMode> modeFromWord(const QString &word) {
    for (const PipelineMode mode : allPipelineModes)
        if (modeWord(mode) == word)
            return mode;
    return std::nullopt;
}

int runKeyCommand(const QStringList &arguments) {
    const QString usage = QStringLiteral("usage: quorvane key <press|release> [dictate|edit|prompt]");
    if (arguments.isEmpty() || arguments.size() > 2)
        return fail(usage, 2);
    const QString action = arguments.at(0);
    if (action != QLatin1String("press") && action != QLatin1String("release"))
        return fail(QStringLiteral("\"%1\" is neither press nor release. ").arg(action) + usage, 2);
    const QString mode = arguments.size() == 2 ? arguments.at(1) : modeWord(PipelineMode::dictation);
    if (!modeFromWord(mode))
        return fail(QStringLiteral("\"%1\" is not a mode. ").arg(mode) + usage, 2);

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return fail(QStringLiteral("no session bus could be reached (%1); run this from inside your desktop "
                                   "session.")
                        .arg(bus.lastError().message()));
    QDBusMessage call = QDBusMessage::createMethodCall(serviceName, objectPath, interfaceName,
                                                       action == QLatin1String("press") ? QStringLiteral("Press")
                                                                                        : QStringLiteral("Release"));
    call << mode;
    const QDBusMessage reply = bus.call(call, QDBus::Block, callTimeoutMs);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return 0;
    const QString error = reply.errorName();
    if (error == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
        error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
        return fail(QStringLiteral("Quorvane is not running (nothing answers as %1 on the session bus). Start "
                                   "Quorvane, then press the key again.")
                        .arg(serviceName));
    return fail(QStringLiteral("Quorvane did not take the key: ") + reply.errorMessage());
}

std::shared_ptr<Receiver> Receiver::shared() {
    static std::weak_ptr<Receiver> instance;
    std::shared_ptr<Receiver> receiver = instance.lock();
    if (!receiver) {
        receiver = std::shared_ptr<Receiver>(new Receiver, [](Receiver *gone) {
            if (gone->m_registered) {
                QDBusConnection bus = QDBusConnection::sessionBus();
                bus.unregisterObject(objectPath);
                bus.unregisterService(serviceName);
            }
            delete gone;
        });
        instance = receiver;
    }
    return receiver;
}

bool Receiver::listen(PipelineMode mode, Listener listener, QString &problem) {
    if (!m_registered) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected()) {
            problem = QStringLiteral("No session bus could be reached, so the compositor's key bindings cannot call "
                                     "Quorvane: ") +
                      bus.lastError().message();
            return false;
        }
        // Queued requests would leave a second instance silently waiting for the first one's keys.
        const auto owner = bus.interface()->registerService(serviceName, QDBusConnectionInterface::DontQueueService,
                                                            QDBusConnectionInterface::DontAllowReplacement);
        if (owner.value() != QDBusConnectionInterface::ServiceRegistered) {
            problem = QStringLiteral("Another Quorvane already answers as %1 on the session bus and takes the "
                                     "compositor's key bindings; quit it first.")
                          .arg(serviceName);
            return false;
        }
        if (!bus.registerObject(objectPath, this, QDBusConnection::ExportAllSlots)) {
            bus.unregisterService(serviceName);
            problem = QStringLiteral("Could not publish %1 on the session bus.").arg(objectPath);
            return false;
        }
        m_registered = true;
    }
    m_listeners[modeIndex(mode)] = std::move(listener);
    return true;
}

void Receiver::forget(PipelineMode mode) {
    m_listeners[modeIndex(mode)] = nullptr;
}

void Receiver::Press(const QString &mode) {
    deliver(mode, true);
}

void Receiver::Release(const QString &mode) {
    deliver(mode, false);
}

void Receiver::deliver(const QString &word, bool down) {
    const std::optional<PipelineMode> mode = modeFromWord(word);
    if (!mode) {
        Log::warn(QStringLiteral("A key binding named an unknown mode \"%1\"; ignored.").arg(word));
        return;
    }
    if (const Listener &listener = m_listeners[modeIndex(*mode)])
        listener(down);
}

} // namespace CompositorKeyBindings

CompositorKeyBindingBackend::CompositorKeyBindingBackend(PipelineMode mode) : m_mode(mode) {}

CompositorKeyBindingBackend::~CompositorKeyBindingBackend() {
    stop();
}

PhysicalKey CompositorKeyBindingBackend::physicalKey(PushToTalkKey) const {
    const int index = static_cast<int>(m_mode);
    return {index + 1, quint64(1) << index,
            QStringLiteral("the key bound to \u201Cquorvane key press %1\u201D")
                .arg(CompositorKeyBindings::modeWord(m_mode))};
}

bool CompositorKeyBindingBackend::start(Events events) {
    stop();
    auto receiver = CompositorKeyBindings::Receiver::shared();
    const PhysicalKey key = physicalKey(PushToTalkKey::rightOption);
    QString problem;
    const bool listening = receiver->listen(
        m_mode,
        [this, key, keyChanged = std::move(events.keyChanged)](bool down) {
            const quint64 flags = down ? (m_flags |= key.flagMask) : (m_flags &= ~key.flagMask);
            if (keyChanged)
                keyChanged(key.code, flags);
        },
        problem);
    std::lock_guard lock(m_lock);
    m_unavailable = problem;
    if (listening)
        m_receiver = std::move(receiver);
    return listening;
}

void CompositorKeyBindingBackend::stop() {
    if (m_receiver)
        m_receiver->forget(m_mode);
    m_receiver.reset();
    m_flags = 0;
}

QString CompositorKeyBindingBackend::unavailableMessage() const {
    std::lock_guard lock(m_lock);
    return m_unavailable;
}
