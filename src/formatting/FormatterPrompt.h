#pragma once

#include "formatting/FormattingContext.h"

#include <QString>

// The dictation clean-up request, and the clean-up every model reply passes through.
namespace FormatterPrompt {

// The system instructions of every dictation clean-up request (and of nothing else).
const QString &systemInstructions();

// The user message: destination and style, known terms, recent dictation, then the transcript.
QString prompt(const QString &transcript, const FormattingContext &context);

// Strips what models wrap around an answer: announcements, reasoning blocks, code fences and
// enclosing straight quotes. Never fails; an empty reply stays empty.
QString sanitize(const QString &reply);

} // namespace FormatterPrompt
