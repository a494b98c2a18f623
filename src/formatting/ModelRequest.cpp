#include "formatting/ModelRequest.h"

#include "core/Text.h"
#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/RewritePrompt.h"

#include <algorithm>

namespace {

// Budgets count what the user sees as characters, not bytes or UTF-16 units.
int characters(const QString &text) {
    return static_cast<int>(Text::graphemeCount(text));
}

} // namespace

ModelRequest ModelRequest::format(const QString &transcript, const FormattingContext &context) {
    ModelRequest request;
    request.system = FormatterPrompt::systemInstructions();
    request.prompt = FormatterPrompt::prompt(transcript, context);
    request.maxTokens = std::max(64, characters(transcript) / 2 + 128);
    return request;
}

ModelRequest ModelRequest::rewrite(const QString &text, RewriteCommand command, const FormattingContext &context) {
    ModelRequest request;
    request.system = RewritePrompt::systemInstructions();
    request.prompt = RewritePrompt::prompt(text, command, context);
    request.maxTokens = std::max(96, characters(text) / 2 + 160);
    return request;
}

ModelRequest ModelRequest::developerPrompt(const QString &transcript, const FormattingContext &context) {
    ModelRequest request;
    request.system = DeveloperPromptPrompt::systemInstructions();
    request.prompt = DeveloperPromptPrompt::prompt(transcript, context);
    request.maxTokens = std::max(256, characters(transcript) + 320);
    return request;
}
