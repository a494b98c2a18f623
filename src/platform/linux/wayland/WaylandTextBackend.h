#pragma once

#include "platform/DesktopTextBackend.h"
#include "platform/SessionType.h"

#include <QByteArray>
#include <QList>
#include <functional>
#include <memory>

// Text in a Wayland session: the clipboard through the wlr data-control protocol (and the primary
// selection too for terminals that paste it), the paste chord through a virtual keyboard with a
// keymap of our own, and the focused element through AT-SPI. Where the compositor offers no
// clipboard control (GNOME's Mutter), the text goes to XWayland's CLIPBOARD, which the compositor
// hands on to its Wayland clients. It keeps a connection to the compositor of its own, separate
// from Qt's, dispatched on the main thread; use it there only.
class WaylandTextBackend final : public DesktopTextBackend {
public:
    // The app_id (or X11 class) of the window in front, empty when unknown: picks the paste chord.
    using DestinationID = std::function<QString()>;
    // The process of the window in front, when known: where the focused element is looked for.
    using DestinationProcess = std::function<std::optional<qint32>()>;

    // Protocols to leave unused although the compositor offers them: a compositor without them is
    // played this way.
    struct Ignored {
        bool dataControl;
        bool virtualKeyboard;
    };

    // `x11Display`: XWayland's DISPLAY, the clipboard's way in when there is no clipboard control.
    WaylandTextBackend(DestinationID destination, DestinationProcess process, Ignored ignored = {false, false},
                       const QString &x11Display = qEnvironmentVariable("DISPLAY"));
    ~WaylandTextBackend() override;
    WaylandTextBackend(const WaylandTextBackend &) = delete;
    WaylandTextBackend &operator=(const WaylandTextBackend &) = delete;

    // Which protocols the compositor offers; windowTree is left to the caller.
    SessionType::WaylandServices services() const;

    bool isTrusted() override;
    std::unique_ptr<FocusedElement> focusedElement() override;
    std::optional<ClipboardSnapshot> readClipboard() override;
    bool writeText(const QString &text) override;
    void writeClipboard(const ClipboardSnapshot &items) override;
    qint64 changeCount() override;
    bool postPasteChord() override;
    // One Return through the same virtual keyboard; false when the compositor offers none.
    bool pressReturn();

    struct State;

private:
    bool offer(const ClipboardItem &formats);
    void takePrimary(const QByteArray &utf8);
    // Presses `key` with `modifiers` held (their state `mask` in our keymap) and lets all go.
    bool tap(const QList<quint32> &modifiers, quint32 mask, quint32 key);

    std::unique_ptr<State> m_state;
    DestinationID m_destination;
    DestinationProcess m_process;
};
