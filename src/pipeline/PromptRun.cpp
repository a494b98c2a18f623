#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "core/Timeout.h"
#include "formatting/DeveloperPromptGuard.h"
#include "formatting/TranscriptGuard.h"
#include "pipeline/Pipeline.h"
#include "pipeline/Runs.h"

namespace {

using Verdict = DeveloperPromptGuard::Verdict;

QCoro::Task<RepositoryLookup> takeRepositoryLookup(std::shared_ptr<RunContext> run) {
    if (!run->repositoryLookup)
        co_return RepositoryLookup{};
    QCoro::Task<RepositoryLookup> task = std::move(*run->repositoryLookup);
    run->repositoryLookup.reset();
    co_return co_await std::move(task);
}

// An unavailable agent is named as such; any other failure speaks for itself.
QString deliveryFailure(std::exception_ptr failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const QuorvaneError &error) {
        if (error.errorCase() == QuorvaneError::Case::agentUnavailable)
            return QStringLiteral("The coding agent is unavailable: ") + error.detail();
    } catch (...) {
    }
    return describeError(failure);
}

QCoro::Task<RunEnd> deliverPrompt(RunServices s, std::shared_ptr<RunContext> run, QString raw, QString compiled,
                                  DeveloperPromptGuard::Decision decision, std::optional<RepositoryContext> repository,
                                  Timings timings) {
    const QString prompt = decision.text;
    const QString verdictName = toName(decision.verdict);
    const std::optional<AgentKind> agent = agentKind(s.config.promptDestination);

    const qint64 deliveryStarted = s.scheduler.nowMs();
    std::exception_ptr failure;
    // Why the prompt could not be left on the clipboard, when it could not: the notices say so.
    QString copyProblem;
    if (!agent) {
        failure = failureOf([&] {
            s.requireOriginalDestination(*run);
            s.platform.injector->inject(prompt);
        });
    } else if (decision.verdict != Verdict::accepted) {
        // A fallback is the raw request: the user decides whether it is fit to send.
        Log::warn(QStringLiteral("Direct handoff withheld because the prompt used a lossless fallback (") +
                  verdictName + QStringLiteral(")"));
        copyProblem = s.keepOnClipboard(prompt);
        s.notify(QStringLiteral("Review prompt before sending"),
                 QStringLiteral("Quorvane used a lossless fallback, so it did not send the prompt automatically. ") +
                     (copyProblem.isEmpty() ? QStringLiteral("Review it on your clipboard.") : sentence(copyProblem)));
    } else {
        copyProblem = s.keepOnClipboard(prompt);
        const auto launcher = s.platform.agentHandoff;
        if (!launcher) {
            failure = std::make_exception_ptr(
                QuorvaneError::agentUnavailable(QStringLiteral("handing prompts to coding agents is not available on "
                                                               "this desktop")));
        } else if (!repository) {
            failure = std::make_exception_ptr(QuorvaneError::agentUnavailable(
                QStringLiteral("no Git repository was found; choose a repository from the Quorvane menu")));
        } else {
            failure = (co_await attempt(launcher->handoff(prompt, *agent, *repository))).failure;
            if (s.abandoned())
                co_return std::nullopt;
        }
    }
    if (failure) {
        const QString description = deliveryFailure(failure);
        if (!agent)
            copyProblem = s.keepOnClipboard(prompt);
        co_return RunOutcome(s.failed(
            QStringLiteral("ERROR"), QStringLiteral("Prompt delivery failed: "), description,
            copyProblem.isEmpty() ? QStringLiteral("Prompt copied instead") : QStringLiteral("Prompt not delivered"),
            sentence(description) + (copyProblem.isEmpty() ? QStringLiteral(" The prompt is on your clipboard.")
                                                           : QStringLiteral(" ") + sentence(copyProblem))));
    }
    timings.injectMS = s.scheduler.nowMs() - deliveryStarted;

    s.latency.record(s.sinceRelease(*run));
    Log::info(QStringLiteral("Prompt Mode complete") + bulletSeparator() + timings.summary());
    s.keep(*run, raw, compiled, prompt, verdictName, timings);
    co_return RunOutcome(PipelineState::idle());
}

} // namespace

QCoro::Task<RunEnd> runDeveloperPrompt(RunServices s, std::shared_ptr<RunContext> run, QString raw, Timings timings) {
    const qint64 lookupStarted = s.scheduler.nowMs();
    const bool lookupExpected = s.config.repositoryContextEnabled && s.platform.repositoryContext;
    const RepositoryLookup lookup = co_await takeRepositoryLookup(run);
    if (s.abandoned())
        co_return std::nullopt;
    timings.contextMS = s.scheduler.nowMs() - lookupStarted;
    const std::optional<RepositoryContext> repository = lookup.context;
    if (repository) {
        s.repositoryContext = repository;
    } else if (lookupExpected) {
        s.notify(QStringLiteral("No repository context"),
                 lookup.error ? QStringLiteral("Could not identify a repository: ") + sentence(*lookup.error)
                              : QStringLiteral("Quorvane found no Git repository for this app; choose a repository "
                                               "from the Quorvane menu."));
    }

    FormattingContext context = run->formatting;
    if (repository) {
        context.repositoryPromptContext = repository->promptContext();
        context.vocabulary += repository->vocabulary;
        context.vocabulary.removeDuplicates();
    }

    const auto formatter = s.formatter;
    DeveloperPromptGuard::Decision decision;
    QString compiled;
    if (s.config.formatter == FormatterKind::none || isPassthrough(*formatter)) {
        // The user chose no model: the verbatim request is what they asked for, not a failure.
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterDisabled);
        co_return co_await deliverPrompt(s, run, raw, compiled, decision, repository, timings);
    }
    const qint64 budget =
        Pipeline::formatterBudget(s.config, TranscriptGuard::words(raw).size(), Pipeline::promptBaseLimitMs);
    const qint64 started = s.scheduler.nowMs();
    const auto outcome = co_await withTimeout<QString>(
        budget, [formatter, raw, context] { return formatter->compileDeveloperPrompt(raw, context); }, s.scheduler);
    if (s.abandoned())
        co_return std::nullopt;
    timings.formatMS = s.scheduler.nowMs() - started;

    const QString simplified = QStringLiteral("Prompt simplified for safety");
    if (outcome.timedOut()) {
        Log::warn(QStringLiteral("Prompt compilation exceeded its %1 ms budget.").arg(budget));
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterFailed);
        s.notify(simplified, QStringLiteral("The local model timed out, so Quorvane kept your request verbatim."));
    } else if (outcome.error) {
        Log::warn(QStringLiteral("Prompt compilation failed: ") + describeError(outcome.error));
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterFailed);
        s.notify(simplified, QStringLiteral("The local model failed, so Quorvane kept your request verbatim."));
    } else {
        compiled = *outcome.value;
        decision = DeveloperPromptGuard::evaluate(raw, compiled, context.vocabulary, context.repositoryPromptContext);
        if (decision.verdict != Verdict::accepted) {
            Log::warn(QStringLiteral("Prompt guard used the lossless fallback ") + toName(decision.verdict));
            s.notify(simplified,
                     QStringLiteral("The model changed protected content, so Quorvane kept your request verbatim."));
        }
    }
    co_return co_await deliverPrompt(s, run, raw, compiled, decision, repository, timings);
}
