#include "formatting/PassthroughFormatter.h"

#include "core/QuorvaneError.h"

QCoro::Task<void> PassthroughFormatter::prepare() {
    co_return;
}

QCoro::Task<QString> PassthroughFormatter::format(QString transcript, FormattingContext) {
    co_return transcript;
}

// Both failures are raised inside the coroutine so that they reach the awaiting caller, like the
// failures of a real model.
QCoro::Task<QString> PassthroughFormatter::rewrite(QString, RewriteCommand, FormattingContext) {
    throw QuorvaneError::formatterUnavailable(
        QStringLiteral("Edit in Place requires the Apple on-device model or Ollama."));
    co_return QString();
}

QCoro::Task<QString> PassthroughFormatter::compileDeveloperPrompt(QString, FormattingContext) {
    throw QuorvaneError::formatterUnavailable(
        QStringLiteral("Prompt Mode requires the Apple on-device model or Ollama."));
    co_return QString();
}
