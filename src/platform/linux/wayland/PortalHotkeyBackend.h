#pragma once

#include "pipeline/PipelineState.h"
#include "platform/HotkeyBackend.h"

#include <atomic>
#include <memory>
#include <mutex>

class GlobalShortcutsSession;

// One mode's key through the desktop portal's global shortcuts. As with compositor bindings, the
// key code is the mode and the flag is its bit; the desktop picks the real key.
//
// The portal reports nothing but activations, so the "live" state the watchdog compares with is
// the last one received. A closed session is the one lost release we can see: the session treats a
// held key as released and binds again.
class PortalHotkeyBackend final : public HotkeyBackend {
public:
    PortalHotkeyBackend(PipelineMode mode, PushToTalkKey preferred, std::shared_ptr<GlobalShortcutsSession> session);
    ~PortalHotkeyBackend() override;

    // The key's Linux name: the key we ask the desktop for, which the user confirms or changes.
    PhysicalKey physicalKey(PushToTalkKey key) const override;
    bool start(Events events) override;
    void stop() override;
    void reenable() override {}
    quint64 liveFlags() override { return m_flags.load(); }
    QString unavailableMessage() const override;
    QString deliveryDescription() const override {
        return QStringLiteral("the desktop portal's global shortcut, confirmed by the user");
    }

private:
    const PipelineMode m_mode;
    const PushToTalkKey m_preferred;
    const std::shared_ptr<GlobalShortcutsSession> m_session;
    bool m_listening = false;
    std::atomic<quint64> m_flags{0};
};
