#pragma once

#include "formatting/FormattingContext.h"
#include "formatting/RewriteCommand.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <optional>

// A language model (or none) that turns spoken text into written text. Its replies are never
// trusted as they stand: each mode passes them through its guard before anything is pasted.
// Arguments are taken by value because the tasks outlive the caller's temporaries.
class TextFormatter {
public:
    virtual ~TextFormatter() = default;

    // A label for logs and the menu.
    virtual QString name() const = 0;
    // Whether requests can be served now; settled once prepare() has finished.
    virtual bool isAvailable() const = 0;
    // Probes and warms the model. Never fails.
    virtual QCoro::Task<void> prepare() = 0;
    // Why the formatter cannot serve requests, when it knows (lower case, for logs and errors).
    virtual std::optional<QString> unavailableReason() const { return std::nullopt; }

    // Dictation clean-up.
    virtual QCoro::Task<QString> format(QString transcript, FormattingContext context) = 0;
    // Edit in Place: one rewrite operation on the selected text.
    virtual QCoro::Task<QString> rewrite(QString text, RewriteCommand command, FormattingContext context) = 0;
    // Prompt Mode: the spoken request as a five-section task description.
    virtual QCoro::Task<QString> compileDeveloperPrompt(QString transcript, FormattingContext context) = 0;
};
