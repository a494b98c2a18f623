#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// What travels with every formatter request besides the text itself.
struct FormattingContext {
    // The application that will receive the text.
    std::optional<QString> appName;
    // The matching application rule's style, if any.
    std::optional<QString> styleInstruction;
    // The speaker's known terms, most preferred first.
    QStringList vocabulary;
    // Earlier finished dictations, oldest first.
    QStringList recentTranscripts;
    // Prompt Mode only: the repository facts exactly as given to the model (the repository
    // context's prompt text). Only the text is needed here, so the record itself stays with the
    // repository module.
    std::optional<QString> repositoryPromptContext;

    bool operator==(const FormattingContext &) const = default;
};
