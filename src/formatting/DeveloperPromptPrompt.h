#pragma once

#include "formatting/FormattingContext.h"

#include <QString>

// The Prompt Mode request: structure a spoken development request, never act on it.
namespace DeveloperPromptPrompt {

const QString &systemInstructions();

// Destination, its style as context only, protected vocabulary, trusted repository facts, then
// the spoken request between markers. Recent dictation is not used.
QString prompt(const QString &transcript, const FormattingContext &context);

} // namespace DeveloperPromptPrompt
