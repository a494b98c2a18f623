#pragma once

#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/RewritePrompt.h"
#include "formatting/TextFormatter.h"

#include <QMetaType>

// The three requests every model formatter serves, so that one test runs over all of them. A
// rewrite is always "make formal".
enum class FormatterOperation { format, rewrite, compileDeveloperPrompt };
Q_DECLARE_METATYPE(FormatterOperation)

namespace FormatterOperations {

inline const QList<FormatterOperation> all{FormatterOperation::format, FormatterOperation::rewrite,
                                           FormatterOperation::compileDeveloperPrompt};

inline QCoro::Task<QString> perform(TextFormatter &formatter, FormatterOperation operation, const QString &input,
                                    const FormattingContext &context) {
    if (operation == FormatterOperation::format)
        return formatter.format(input, context);
    if (operation == FormatterOperation::rewrite)
        return formatter.rewrite(input, RewriteCommand::makeFormal, context);
    return formatter.compileDeveloperPrompt(input, context);
}

// The instructions and the user message the model must be given for this request.
inline std::pair<QString, QString> expected(FormatterOperation operation, const QString &input,
                                            const FormattingContext &context) {
    if (operation == FormatterOperation::format)
        return {FormatterPrompt::systemInstructions(), FormatterPrompt::prompt(input, context)};
    if (operation == FormatterOperation::rewrite)
        return {RewritePrompt::systemInstructions(), RewritePrompt::prompt(input, RewriteCommand::makeFormal, context)};
    return {DeveloperPromptPrompt::systemInstructions(), DeveloperPromptPrompt::prompt(input, context)};
}

} // namespace FormatterOperations
