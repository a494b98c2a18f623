#pragma once

#include "pipeline/PipelineState.h"
#include "platform/HotkeyBackend.h"

#include <QObject>
#include <QString>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

// Mode keys in a Wayland session, where no client may watch the keyboard: the user binds a key in
// the compositor to run `quorvane key press|release <mode>`, which calls this running instance on
// the session bus.
namespace CompositorKeyBindings {

inline const QString serviceName = QStringLiteral("com.quorvane.Quorvane");
inline const QString objectPath = QStringLiteral("/Hotkey");
inline const QString interfaceName = QStringLiteral("com.quorvane.Hotkey");

// "dictate", "edit", "prompt": the words of the command line.
QString modeWord(PipelineMode mode);
std::optional<PipelineMode> modeFromWord(const QString &word);

// The `quorvane key` command: `arguments` are the words after "key". Returns the exit status and
// says on stderr what went wrong.
int runKeyCommand(const QStringList &arguments);

// The receiving end, one per process, on the session bus while any backend is started.
class Receiver final : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.quorvane.Hotkey")

public:
    using Listener = std::function<void(bool down)>;

    static std::shared_ptr<Receiver> shared();

    // False, with the reason in `problem`, when the bus or the name is not ours to have.
    bool listen(PipelineMode mode, Listener listener, QString &problem);
    void forget(PipelineMode mode);

public Q_SLOTS:
    void Press(const QString &mode);
    void Release(const QString &mode);

private:
    void deliver(const QString &word, bool down);

    std::array<Listener, 3> m_listeners;
    bool m_registered = false;
};

} // namespace CompositorKeyBindings

// One mode's key, pressed and released by the compositor's bindings. The key code is the mode and
// the flag is its bit.
//
// The compositor reports nothing but these calls, so the "live" state the watchdog compares with is
// the last call received: a release the compositor never sends (its binding missing, or the key let
// go while another grab held the keyboard) goes unnoticed here, and the recording runs until the
// next release of that mode or the recording limit.
class CompositorKeyBindingBackend final : public HotkeyBackend {
public:
    explicit CompositorKeyBindingBackend(PipelineMode mode);
    ~CompositorKeyBindingBackend() override;

    PhysicalKey physicalKey(PushToTalkKey key) const override;
    bool start(Events events) override;
    void stop() override;
    void reenable() override {}
    quint64 liveFlags() override { return m_flags.load(); }
    QString unavailableMessage() const override;
    // No thread of ours watches anything here: the compositor runs the command, which calls us.
    QString deliveryDescription() const override {
        return QStringLiteral("the compositor's key binding calls Quorvane over the session bus");
    }

private:
    const PipelineMode m_mode;
    std::shared_ptr<CompositorKeyBindings::Receiver> m_receiver;
    std::atomic<quint64> m_flags{0};
    mutable std::mutex m_lock;
    QString m_unavailable;
};
