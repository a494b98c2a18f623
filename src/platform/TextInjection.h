#pragma once

#include "core/Log.h"
#include "core/QuorvaneError.h"

#include <QString>
#include <QtGlobal>
#include <optional>

// Types text into whatever has the keyboard focus. Throws QuorvaneError on failure.
class TextInjector {
public:
    virtual ~TextInjector() = default;
    virtual void inject(const QString &text) = 0;
    // A paste is likely soon: its slow reads may start now, so that the paste only confirms them.
    virtual void prepareInjection() {}
    // Leaves the text on the clipboard without pasting it, so that a delivery that failed or was
    // withheld loses nothing.
    virtual void copyToClipboard(const QString &text) = 0;
};

// Where text cannot be typed: every delivery fails, saying so.
class UnsupportedTextInjector final : public TextInjector {
public:
    void inject(const QString &) override {
        throw QuorvaneError::injectionFailed(QStringLiteral("text insertion is not available on this desktop"));
    }
    void copyToClipboard(const QString &) override {
        throw QuorvaneError::injectionFailed(QStringLiteral("the clipboard is not available on this desktop"));
    }
};

// A selected range in UTF-16 code units.
struct TextSelectionRange {
    qint64 location = 0;
    qint64 length = 0;
    bool operator==(const TextSelectionRange &) const = default;
};

// The selection as captured when an edit starts, exactly as the application reported it.
struct SelectedTextSnapshot {
    QString text;
    qint64 processID = 0;
    std::optional<TextSelectionRange> range;
    bool operator==(const SelectedTextSnapshot &) const = default;
};

// Reads and replaces the user's selection. Both throw QuorvaneError on failure.
class SelectionEditing {
public:
    virtual ~SelectionEditing() = default;
    virtual SelectedTextSnapshot captureSelection() = 0;
    virtual void replaceSelection(const SelectedTextSnapshot &snapshot, const QString &text) = 0;
};

struct FrontmostApp {
    std::optional<QString> name;
    std::optional<QString> bundleID;
    // The repository lookup needs the application's process to find its documents and shells.
    std::optional<qint32> processID;
    bool operator==(const FrontmostApp &) const = default;
    // Whether both name the same application; the process id is left out, so a relaunched
    // application still counts as the same destination.
    bool sameApplication(const FrontmostApp &other) const { return name == other.name && bundleID == other.bundleID; }
};

class FrontmostAppProvider {
public:
    virtual ~FrontmostAppProvider() = default;
    virtual FrontmostApp frontmostApp() = 0;
};

// Where the platform cannot tell: no application.
class UnknownFrontmostApp final : public FrontmostAppProvider {
public:
    FrontmostApp frontmostApp() override { return {}; }
};

class UserNotifier {
public:
    virtual ~UserNotifier() = default;
    virtual void notify(const QString &title, const QString &body) = 0;
};

// Where nothing can be shown: the notice goes to the log.
class ConsoleNotifier final : public UserNotifier {
public:
    void notify(const QString &title, const QString &body) override {
        Log::info(QStringLiteral("[") + title + QStringLiteral("] ") + body);
    }
};
