#pragma once

#include "platform/FocusedDocumentSource.h"

#include <mutex>

struct _XDisplay;

// The document of the focused window on an X11 desktop: the file URL an application publishes on
// its accessible document, else a path shown in the active window's title (editors and terminals
// that show one).
class X11FocusedDocumentSource final : public FocusedDocumentSource {
public:
    explicit X11FocusedDocumentSource(QString homeDirectory);
    ~X11FocusedDocumentSource() override;

    std::optional<QString> focusedDocumentPath(qint32 processID) override;

    // A local file path from the accessible document in the active window of `processID`.
    static std::optional<QString> accessibleDocumentPath(qint32 processID);

private:
    // The title of the active window, when it belongs to `processID`.
    std::optional<QString> activeWindowTitle(qint32 processID);

    const QString m_home;
    std::mutex m_mutex;
    _XDisplay *m_display = nullptr;
};
