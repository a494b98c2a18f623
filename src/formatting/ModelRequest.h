#pragma once

#include "formatting/FormattingContext.h"
#include "formatting/RewriteCommand.h"

#include <QString>

// One request to a language model: the fixed instructions of its kind, the user message and the
// most the reply may cost. Every model formatter sends the same texts with the same budgets.
struct ModelRequest {
    QString system;
    QString prompt;
    // Response tokens, proportional to the input so that a runaway reply is cut short.
    int maxTokens = 0;

    // Dictation clean-up.
    static ModelRequest format(const QString &transcript, const FormattingContext &context);
    // Edit in Place on the selected text.
    static ModelRequest rewrite(const QString &text, RewriteCommand command, const FormattingContext &context);
    // Prompt Mode: a task description is much longer than what was said, hence the larger budget.
    static ModelRequest developerPrompt(const QString &transcript, const FormattingContext &context);
};
