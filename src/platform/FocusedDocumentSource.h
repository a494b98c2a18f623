#pragma once

#include <QString>
#include <QtGlobal>
#include <optional>

// The file shown in the focused window of an application, read through the accessibility interface.
// Called on the main thread.
class FocusedDocumentSource {
public:
    virtual ~FocusedDocumentSource() = default;
    // A local file path, or absent when the application exposes no document.
    virtual std::optional<QString> focusedDocumentPath(qint32 processID) = 0;
};

// For desktops whose accessibility interface does not name the focused document.
class UnsupportedFocusedDocumentSource final : public FocusedDocumentSource {
public:
    std::optional<QString> focusedDocumentPath(qint32) override { return std::nullopt; }
};
