#pragma once

#include "core/Scheduler.h"
#include "platform/DesktopTextBackend.h"

#include <memory>
#include <optional>

// Types text by putting it on the clipboard and pasting it, then gives the user their clipboard
// back; reads and replaces the selection through the focused element. Secure fields are never
// read or written. Call on the main thread: the restore runs there too.
class PasteTextInjector final : public TextInjector, public SelectionEditing {
public:
    // How long the destination has to read the clipboard after the paste keystroke.
    static constexpr qint64 restoreDelayMs = 350;
    // Early reads older than this are dropped rather than confirmed: no copy of the user's
    // clipboard is held for a paste that never came.
    static constexpr qint64 earlyReadLifetimeMs = 30000;

    explicit PasteTextInjector(std::shared_ptr<DesktopTextBackend> backend, Scheduler &scheduler = Scheduler::system());

    void inject(const QString &text) override;
    // Reads the focused element and snapshots the clipboard now, where the backend can later tell
    // cheaply whether either moved; the next paste, or the next call, reuses what still holds.
    void prepareInjection() override;
    void copyToClipboard(const QString &text) override;
    SelectedTextSnapshot captureSelection() override;
    void replaceSelection(const SelectedTextSnapshot &snapshot, const QString &text) override;

    // Whether any of the focused element's roles marks a password or secure-entry field.
    static bool isSecure(const QStringList &roles);

private:
    struct EarlyReads {
        qint64 takenAt = 0;
        qint64 window = 0;
        // Null when no element had the focus: the paste then looks again.
        std::unique_ptr<FocusedElement> element;
        bool secure = false;
        // Nullopt when the clipboard's content could not be read.
        std::optional<DesktopTextBackend::ClipboardSnapshot> snapshot;
        qint64 changeCount = 0;
    };

    std::optional<EarlyReads> takeEarlyReads();
    // Asking the element costs a round trip to the application, which the paste always pays;
    // bringing early reads up to date before it only checks the window.
    enum class ElementCheck { windowOnly, askElement };
    EarlyReads currentReads(std::optional<EarlyReads> early, ElementCheck check);

    struct PendingRestore {
        // Nullopt when what the user had could not be read: nothing is put back, and the pasted
        // text stays rather than the clipboard being cleared.
        std::optional<DesktopTextBackend::ClipboardSnapshot> snapshot;
        // The clipboard's count right after our write; any other value means someone copied since.
        qint64 changeCount = 0;
        qint64 pastedAt = 0;
        // Null when nothing is to be put back.
        Scheduler::Handle handle;
    };

    // Whether the clipboard still holds the last paste's text with its restore yet to come.
    bool pendingRestoreHolds(qint64 changeCount) const;

    const std::shared_ptr<DesktopTextBackend> m_backend;
    Scheduler &m_scheduler;
    std::shared_ptr<PendingRestore> m_pending;
    std::optional<EarlyReads> m_early;
};
