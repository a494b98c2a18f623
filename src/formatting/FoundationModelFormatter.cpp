#include "formatting/FoundationModelFormatter.h"

#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "formatting/DeveloperPromptPrompt.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/RewritePrompt.h"

#include <exception>
#include <utility>

namespace {

std::optional<QString> reasonText(const std::optional<OnDeviceLanguageModel::Unavailability> &unavailability) {
    if (!unavailability)
        return std::nullopt;
    switch (*unavailability) {
    case OnDeviceLanguageModel::Unavailability::deviceNotEligible:
        return QStringLiteral("this Mac is not eligible for Apple Intelligence");
    case OnDeviceLanguageModel::Unavailability::appleIntelligenceNotEnabled:
        return QStringLiteral("Apple Intelligence is turned off in System Settings");
    case OnDeviceLanguageModel::Unavailability::modelNotReady:
        return QStringLiteral("the model is still downloading");
    case OnDeviceLanguageModel::Unavailability::other:
        break;
    }
    return QStringLiteral("unavailable");
}

// What a refusal of each kind of request says in the log and in the error the user sees.
struct Refusal {
    QString logText;
    QString reason;
};

} // namespace

FoundationModelFormatter::FoundationModelFormatter(std::shared_ptr<OnDeviceLanguageModel> model)
    : m_state(std::make_shared<State>()) {
    m_state->model = std::move(model);
}

bool FoundationModelFormatter::isAvailable() const {
    return !m_state->model->unavailability();
}

std::optional<QString> FoundationModelFormatter::unavailableReason() const {
    return reasonText(m_state->model->unavailability());
}

QCoro::Task<void> FoundationModelFormatter::prepare() {
    if (!isAvailable()) {
        Log::warn(QStringLiteral("Apple on-device model unavailable: ") +
                  unavailableReason().value_or(QStringLiteral("unknown")) +
                  QStringLiteral(". Falling back to unformatted transcripts."));
        co_return;
    }
    for (const Kind kind : {dictation, selectionRewrite, developerPrompt})
        prewarm(*m_state, kind);
    Log::info(QStringLiteral("Formatter ready \u00B7 Apple on-device model"));
}

QCoro::Task<QString> FoundationModelFormatter::format(QString transcript, FormattingContext context) {
    return respond(m_state, dictation, ModelRequest::format(transcript, context));
}

QCoro::Task<QString> FoundationModelFormatter::rewrite(QString text, RewriteCommand command,
                                                       FormattingContext context) {
    return respond(m_state, selectionRewrite, ModelRequest::rewrite(text, command, context));
}

QCoro::Task<QString> FoundationModelFormatter::compileDeveloperPrompt(QString transcript, FormattingContext context) {
    return respond(m_state, developerPrompt, ModelRequest::developerPrompt(transcript, context));
}

void FoundationModelFormatter::prewarm(State &state, Kind kind) {
    if (state.model->unavailability())
        return;
    static const std::array<const QString *, kindCount> instructions = {
        &FormatterPrompt::systemInstructions(),
        &RewritePrompt::systemInstructions(),
        &DeveloperPromptPrompt::systemInstructions(),
    };
    auto session = state.model->makeSession(*instructions[kind]);
    session->prewarm();
    state.warm[kind] = std::move(session);
}

QCoro::Task<QString> FoundationModelFormatter::respond(std::shared_ptr<State> state, Kind kind, ModelRequest request) {
    static const std::array<Refusal, kindCount> refusals = {{
        {QStringLiteral("On-device model declined this utterance: "), QStringLiteral("model declined the request")},
        {QStringLiteral("On-device model declined the selected-text rewrite: "),
         QStringLiteral("model declined the rewrite")},
        {QStringLiteral("On-device model declined the developer prompt: "),
         QStringLiteral("model declined the developer prompt")},
    }};
    if (const std::optional<QString> reason = reasonText(state->model->unavailability()))
        throw QuorvaneError::formatterUnavailable(*reason);

    // A session keeps its conversation, so it serves one request and is never handed out twice.
    std::shared_ptr<OnDeviceLanguageModel::Session> session = std::exchange(state->warm[kind], nullptr);
    if (!session)
        session = state->model->makeSession(request.system);

    QString reply;
    std::exception_ptr failure;
    try {
        reply = co_await session->respond(request.prompt, request.maxTokens);
    } catch (const OnDeviceLanguageModel::GenerationError &error) {
        Log::warn(refusals[kind].logText + error.description());
        failure = std::make_exception_ptr(QuorvaneError::formatterUnavailable(refusals[kind].reason));
    } catch (...) {
        failure = std::current_exception();
    }
    // Whatever happened, the next request of this kind finds a warm session.
    prewarm(*state, kind);
    if (failure)
        std::rethrow_exception(failure);
    co_return FormatterPrompt::sanitize(reply);
}
