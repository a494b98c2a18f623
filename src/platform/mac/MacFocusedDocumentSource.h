#pragma once

#include "platform/FocusedDocumentSource.h"

// The "AXDocument" of the application's "AXFocusedWindow". Needs the Accessibility permission;
// without it the answer is simply absent.
class MacFocusedDocumentSource final : public FocusedDocumentSource {
public:
    std::optional<QString> focusedDocumentPath(qint32 processID) override;
};
