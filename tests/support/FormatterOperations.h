#pragma once

#include "formatting/TextFormatter.h"

#include <QList>
#include <QMetaType>
#include <QString>

// The three requests every model formatter serves, so that tests can run one table over all of
// them. A rewrite is always "make formal".
enum class FormatterOperation { format, rewrite, compileDeveloperPrompt };
Q_DECLARE_METATYPE(FormatterOperation)

namespace FormatterOperations {

const QList<FormatterOperation> &all();

QCoro::Task<QString> perform(TextFormatter &formatter, FormatterOperation operation, const QString &input,
                             const FormattingContext &context);

// The instructions and the user message the model must be given for this request.
const QString &expectedInstructions(FormatterOperation operation);
QString expectedPrompt(FormatterOperation operation, const QString &input, const FormattingContext &context);

} // namespace FormatterOperations
