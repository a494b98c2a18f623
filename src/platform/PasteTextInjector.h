#pragma once

#include "core/Scheduler.h"
#include "platform/DesktopTextBackend.h"

#include <memory>

// Types text by putting it on the clipboard and pasting it, then gives the user their clipboard
// back; reads and replaces the selection through the focused element. Secure fields are never
// read or written. Call on the main thread: the restore runs there too.
class PasteTextInjector final : public TextInjector, public SelectionEditing {
public:
    // How long the destination has to read the clipboard after the paste keystroke.
    static constexpr qint64 restoreDelayMs = 350;

    explicit PasteTextInjector(std::shared_ptr<DesktopTextBackend> backend, Scheduler &scheduler = Scheduler::system());

    void inject(const QString &text) override;
    void copyToClipboard(const QString &text) override;
    SelectedTextSnapshot captureSelection() override;
    void replaceSelection(const SelectedTextSnapshot &snapshot, const QString &text) override;

    // Whether any of the focused element's roles marks a password or secure-entry field.
    static bool isSecure(const QStringList &roles);

private:
    struct PendingRestore {
        DesktopTextBackend::ClipboardSnapshot snapshot;
        // The clipboard's count right after our write; any other value means someone copied since.
        qint64 changeCount = 0;
        Scheduler::Handle handle;
    };

    const std::shared_ptr<DesktopTextBackend> m_backend;
    Scheduler &m_scheduler;
    std::shared_ptr<PendingRestore> m_pending;
};
