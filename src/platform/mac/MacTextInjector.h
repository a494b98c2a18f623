#pragma once

#include "platform/DesktopTextBackend.h"

// The general pasteboard, a synthesised Command-V and the Accessibility interface's focused
// element. Call on the main thread; needs the Accessibility permission.
class MacTextInjector final : public DesktopTextBackend {
public:
    bool isTrusted() override;
    std::unique_ptr<FocusedElement> focusedElement() override;
    std::optional<ClipboardSnapshot> readClipboard() override;
    bool writeText(const QString &text) override;
    void writeClipboard(const ClipboardSnapshot &items) override;
    qint64 changeCount() override;
    bool postPasteChord() override;
};
