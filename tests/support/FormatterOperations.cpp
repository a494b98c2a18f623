#include "FormatterOperations.h"

#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/RewritePrompt.h"

namespace FormatterOperations {

const QList<FormatterOperation> &all() {
    static const QList<FormatterOperation> operations = {FormatterOperation::format, FormatterOperation::rewrite,
                                                         FormatterOperation::compileDeveloperPrompt};
    return operations;
}

QCoro::Task<QString> perform(TextFormatter &formatter, FormatterOperation operation, const QString &input,
                             const FormattingContext &context) {
    switch (operation) {
    case FormatterOperation::format:
        return formatter.format(input, context);
    case FormatterOperation::rewrite:
        return formatter.rewrite(input, RewriteCommand::makeFormal, context);
    case FormatterOperation::compileDeveloperPrompt:
        break;
    }
    return formatter.compileDeveloperPrompt(input, context);
}

const QString &expectedInstructions(FormatterOperation operation) {
    switch (operation) {
    case FormatterOperation::format:
        return FormatterPrompt::systemInstructions();
    case FormatterOperation::rewrite:
        return RewritePrompt::systemInstructions();
    case FormatterOperation::compileDeveloperPrompt:
        break;
    }
    return DeveloperPromptPrompt::systemInstructions();
}

QString expectedPrompt(FormatterOperation operation, const QString &input, const FormattingContext &context) {
    switch (operation) {
    case FormatterOperation::format:
        return FormatterPrompt::prompt(input, context);
    case FormatterOperation::rewrite:
        return RewritePrompt::prompt(input, RewriteCommand::makeFormal, context);
    case FormatterOperation::compileDeveloperPrompt:
        break;
    }
    return DeveloperPromptPrompt::prompt(input, context);
}

} // namespace FormatterOperations
