#pragma once

#include "platform/DesktopTextBackend.h"

#include <QStringList>

// A desktop in memory: a clipboard of items and formats with its change count, a focused element
// that answers as scripted, and a record of every paste keystroke.
class ScriptedTextBackend final : public DesktopTextBackend {
public:
    struct Element {
        QStringList roles = {QStringLiteral("text")};
        std::optional<QString> selectedText;
        bool settable = true;
        std::optional<qint64> processID = 4242;
        std::optional<TextSelectionRange> range = TextSelectionRange{0, 0};
    };

    static constexpr auto plainTextFormat = "text/plain;charset=utf-8";
    static ClipboardSnapshot plainText(const QString &text) {
        return {{{QString::fromLatin1(plainTextFormat), text.toUtf8()}}};
    }

    bool isTrusted() override { return trusted; }
    std::unique_ptr<FocusedElement> focusedElement() override {
        ++focusLookups;
        return element ? std::make_unique<ScriptedElement>(*this) : nullptr;
    }
    std::optional<ClipboardSnapshot> readClipboard() override {
        ++clipboardReads;
        if (ownerHangs)
            return std::nullopt;
        return clipboard;
    }
    bool writeText(const QString &text) override {
        if (writeFails)
            return false;
        ownerHangs = false;
        clipboard = plainText(text);
        ++m_changeCount;
        return true;
    }
    void writeClipboard(const ClipboardSnapshot &items) override {
        ownerHangs = false;
        clipboard = items;
        ++m_changeCount;
        ++restores;
    }
    qint64 changeCount() override { return m_changeCount; }
    bool postPasteChord() override {
        if (chordFails)
            return false;
        // What the destination would read from the clipboard.
        pasted << QString::fromUtf8(clipboard.value(0).value(0).second);
        return true;
    }

    bool confirmsEarlyReads() override { return confirms; }
    qint64 focusedWindow() override { return window; }
    // Someone else copies: the change count moves as it would for them.
    void copyElsewhere(const ClipboardSnapshot &items) {
        ownerHangs = false;
        clipboard = items;
        ++m_changeCount;
    }

    bool trusted = true;
    bool confirms = true;
    qint64 window = 1;
    // Moving the focus within the window: elements handed out before no longer have it.
    int focusMoves = 0;
    int focusLookups = 0;
    int clipboardReads = 0;
    bool writeFails = false;
    bool chordFails = false;
    // The clipboard's owner does not answer, so its content cannot be read until someone else
    // takes the clipboard.
    bool ownerHangs = false;
    std::optional<Element> element = Element{};
    ClipboardSnapshot clipboard;
    QStringList pasted;
    int restores = 0;
    int selectedTextReads = 0;

private:
    class ScriptedElement final : public FocusedElement {
    public:
        explicit ScriptedElement(ScriptedTextBackend &backend) : m_backend(backend), m_focusMoves(backend.focusMoves) {}
        QStringList roles() override { return m_backend.element->roles; }
        std::optional<QString> selectedText() override {
            ++m_backend.selectedTextReads;
            return m_backend.element->selectedText;
        }
        bool isSelectionSettable() override { return m_backend.element->settable; }
        std::optional<qint64> processID() override { return m_backend.element->processID; }
        std::optional<TextSelectionRange> selectedRange() override { return m_backend.element->range; }
        bool stillFocused() override { return m_backend.focusMoves == m_focusMoves; }

    private:
        ScriptedTextBackend &m_backend;
        const int m_focusMoves;
    };

    qint64 m_changeCount = 0;
};
