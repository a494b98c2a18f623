#pragma once

#include "formatting/FormattingContext.h"
#include "formatting/RewriteCommand.h"

#include <QString>

// The Edit in Place request: one named operation on text that is data, never instructions.
namespace RewritePrompt {

const QString &systemInstructions();

// The operation, destination and protected vocabulary, then the selected text between markers.
QString prompt(const QString &text, RewriteCommand command, const FormattingContext &context);

} // namespace RewritePrompt
