#include "platform/linux/wayland/PortalHotkeyBackend.h"

#include "platform/linux/wayland/GlobalShortcutsSession.h"

#include <utility>

PortalHotkeyBackend::PortalHotkeyBackend(PipelineMode mode, PushToTalkKey preferred,
                                         std::shared_ptr<GlobalShortcutsSession> session)
    : m_mode(mode), m_preferred(preferred), m_session(std::move(session)) {}

PortalHotkeyBackend::~PortalHotkeyBackend() {
    stop();
}

PhysicalKey PortalHotkeyBackend::physicalKey(PushToTalkKey key) const {
    const int index = static_cast<int>(m_mode);
    return {index + 1, quint64(1) << index, PhysicalKey::x11(key).displayName};
}

bool PortalHotkeyBackend::start(Events events) {
    stop();
    const PhysicalKey key = physicalKey(m_preferred);
    // The session calls on the main thread, where start and stop run: no lock needed beyond the
    // atomic the watchdog reads.
    m_session->listen(m_mode, m_preferred, [this, key, keyChanged = std::move(events.keyChanged)](bool down) {
        const quint64 flags = down ? (m_flags |= key.flagMask) : (m_flags &= ~key.flagMask);
        if (keyChanged)
            keyChanged(key.code, flags);
    });
    m_listening = true;
    return true;
}

void PortalHotkeyBackend::stop() {
    if (std::exchange(m_listening, false))
        m_session->forget(m_mode);
    m_flags = 0;
}

QString PortalHotkeyBackend::unavailableMessage() const {
    return {};
}
