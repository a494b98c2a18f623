#pragma once

#include "platform/TextInjection.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>

// The element that has the keyboard focus, read through the desktop's accessibility interface.
// Each read may fail (nullopt) independently.
class FocusedElement {
public:
    virtual ~FocusedElement() = default;
    // Its role, then its subrole where the desktop has one: each that can be read.
    virtual QStringList roles() = 0;
    virtual std::optional<QString> selectedText() = 0;
    // Whether the selected text, or the element's value, can be written.
    virtual bool isSelectionSettable() = 0;
    virtual std::optional<qint64> processID() = 0;
    virtual std::optional<TextSelectionRange> selectedRange() = 0;
    // Asks the application again, past any cached answer, whether this element still has the
    // focus; false when that cannot be told, so an earlier read is never trusted blindly.
    virtual bool stillFocused() { return false; }
    // Sends stillFocused()'s question without waiting; the function returned waits for the answer,
    // so that other reads can go on while the application answers. By default the question is
    // asked when the answer is wanted.
    virtual std::function<bool()> askStillFocused() {
        return [this] { return stillFocused(); };
    }
};

// The operating-system side of typing and reading text: the clipboard with every item and format,
// its change count, the paste keystroke, and the focused element. All policy (empty text, the
// secure-field gate, snapshot and delayed restore, the selection checks) lives in PasteTextInjector.
class DesktopTextBackend {
public:
    // One clipboard item: its data per format (MIME type or platform type name), in order.
    using ClipboardItem = QList<QPair<QString, QByteArray>>;
    using ClipboardSnapshot = QList<ClipboardItem>;

    virtual ~DesktopTextBackend() = default;

    // Whether this process may read other applications' elements and synthesise keys.
    virtual bool isTrusted() = 0;
    // Null when no element has the focus or it cannot be reached.
    virtual std::unique_ptr<FocusedElement> focusedElement() = 0;
    // Every item and format on the clipboard now; empty when it is empty, nullopt when its content
    // could not be read (an owner that does not answer): not knowing is not the same as empty.
    virtual std::optional<ClipboardSnapshot> readClipboard() = 0;
    // Clears the clipboard and puts `text` on it as plain text; false when that failed.
    virtual bool writeText(const QString &text) = 0;
    // Clears the clipboard and writes the items; no items leaves it empty.
    virtual void writeClipboard(const ClipboardSnapshot &items) = 0;
    // Changes whenever anyone writes the clipboard.
    virtual qint64 changeCount() = 0;
    // Synthesises the paste keystroke for the application in front; false when it could not.
    virtual bool postPasteChord() = 0;

    // Whether changeCount() and focusedWindow() are up to date the moment they return, so that a
    // snapshot and a focused element read early can stand at the paste while both stay put. Off
    // by default: every paste then reads afresh.
    virtual bool confirmsEarlyReads() { return false; }
    // Names the window with the keyboard focus; only ever compared with an earlier answer.
    virtual qint64 focusedWindow() { return 0; }
    // Reads now what the next writeText() and postPasteChord() would otherwise read then (which
    // chord the window in front takes, the keyboard's modifiers), while the focused element is
    // asked whether a paste may go ahead; nothing is written. By default there is nothing to read.
    virtual void preparePaste() {}
};
