#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/Timeout.h"
#include "formatting/RewriteCommand.h"
#include "formatting/RewriteGuard.h"
#include "formatting/TranscriptGuard.h"
#include "pipeline/Pipeline.h"
#include "pipeline/Runs.h"

QCoro::Task<RunEnd> runEditCommand(RunServices s, std::shared_ptr<RunContext> run, QString raw, Timings timings) {
    const std::optional<RewriteCommand> command = RewriteCommand::parse(raw);
    if (!command) {
        Log::info(QStringLiteral("Edit command was not recognized; selection left untouched."));
        s.notify(QStringLiteral("Edit command not recognized"),
                 QStringLiteral("Say one command: ") + RewriteCommand::recognitionHints().join(QStringLiteral(", ")) +
                     QStringLiteral("."));
        co_return RunOutcome(PipelineState::idle());
    }
    if (!run->selection || !s.platform.selectionEditor) {
        const QString reason = run->selectionFailure ? sentence(*run->selectionFailure)
                                                     : QStringLiteral("The original selection is no longer available.");
        s.notify(QStringLiteral("Edit in Place"), reason + QStringLiteral(" Nothing was replaced."));
        co_return RunOutcome(PipelineState::idle());
    }

    const SelectedTextSnapshot selection = *run->selection;
    const auto formatter = s.formatter;
    const FormattingContext context = run->formatting;
    const RewriteCommand chosen = *command;
    const qint64 budget = Pipeline::formatterBudget(s.config, TranscriptGuard::words(selection.text).size());
    const qint64 started = s.scheduler.nowMs();
    const auto outcome = co_await withTimeout<QString>(
        budget,
        [formatter, text = selection.text, chosen, context] { return formatter->rewrite(text, chosen, context); },
        s.scheduler);
    if (s.abandoned())
        co_return std::nullopt;
    timings.formatMS = s.scheduler.nowMs() - started;
    const QString unchanged = QStringLiteral("The original text was left unchanged.");
    if (outcome.timedOut()) {
        Log::warn(QStringLiteral("Selected-text rewrite exceeded its %1 ms budget.").arg(budget));
        s.notify(QStringLiteral("Rewrite timed out"), unchanged);
        co_return RunOutcome(PipelineState::idle());
    }
    if (outcome.error) {
        Log::warn(QStringLiteral("Selected-text rewrite failed: ") + describeError(outcome.error));
        s.notify(QStringLiteral("Rewrite failed"), unchanged);
        co_return RunOutcome(PipelineState::idle());
    }

    const RewriteGuard::Decision decision =
        RewriteGuard::evaluate(selection.text, *outcome.value, chosen, context.vocabulary);
    if (decision.verdict != RewriteGuard::Verdict::accepted) {
        Log::warn(QStringLiteral("Rewrite guard kept the original selection (") + toName(decision.verdict) +
                  QStringLiteral(")"));
        s.notify(QStringLiteral("Unsafe rewrite blocked"),
                 QStringLiteral("Quorvane kept the original text because the rewrite changed protected content or "
                                "meaning."));
        co_return RunOutcome(PipelineState::idle());
    }

    const qint64 replaceStarted = s.scheduler.nowMs();
    if (const std::exception_ptr failure =
            failureOf([&] { s.platform.selectionEditor->replaceSelection(selection, decision.text); }))
        co_return RunOutcome(s.failed(QStringLiteral("WARN"), QStringLiteral("Selected text was not replaced: "),
                                      describeError(failure), QStringLiteral("Nothing was replaced")));
    timings.injectMS = s.scheduler.nowMs() - replaceStarted;
    s.latency.record(s.sinceRelease(*run));
    Log::info(QStringLiteral("Edit in Place complete") + bulletSeparator() + chosen.displayName() + bulletSeparator() +
              timings.summary());
    co_return RunOutcome(PipelineState::idle());
}
