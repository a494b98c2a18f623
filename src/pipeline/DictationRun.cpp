#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/Timeout.h"
#include "formatting/TranscriptGuard.h"
#include "pipeline/Pipeline.h"
#include "pipeline/Runs.h"

QCoro::Task<RunEnd> runDictation(RunServices s, std::shared_ptr<RunContext> run, QString raw, Timings timings) {
    using Verdict = TranscriptGuard::Verdict;
    const auto formatter = s.formatter;
    const qint64 words = TranscriptGuard::words(raw).size();
    TranscriptGuard::Decision decision;
    QString formatted;

    if (s.config.formatter == FormatterKind::none || isPassthrough(*formatter)) {
        decision = TranscriptGuard::fallback(raw, Verdict::formatterDisabled);
    } else if (!formatter->isAvailable()) {
        decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
    } else if (words < s.config.guardMinWordsForLLM) {
        decision = TranscriptGuard::fallback(raw, Verdict::skippedTooShort);
    } else {
        const qint64 budget = Pipeline::formatterBudget(s.config, words);
        const FormattingContext context = run->formatting;
        const qint64 started = s.scheduler.nowMs();
        const auto outcome = co_await withTimeout<QString>(
            budget, [formatter, raw, context] { return formatter->format(raw, context); }, s.scheduler);
        if (s.abandoned())
            co_return std::nullopt;
        timings.formatMS = s.scheduler.nowMs() - started;
        if (outcome.timedOut()) {
            Log::warn(QStringLiteral("Formatter exceeded its %1 ms budget.").arg(budget));
            decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
        } else if (outcome.error) {
            Log::warn(QStringLiteral("Formatter failed: ") + describeError(outcome.error));
            decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
        } else {
            formatted = *outcome.value;
            decision = TranscriptGuard::fromConfig(s.config).evaluate(raw, formatted);
            if (decision.verdict != Verdict::accepted)
                Log::warn(QStringLiteral("Guard overruled the formatter (") + toName(decision.verdict) +
                          QStringLiteral(")"));
        }
    }

    const QString shipped = decision.text;
    const qint64 injectStarted = s.scheduler.nowMs();
    if (const std::exception_ptr failure = failureOf([&] {
            s.requireOriginalDestination(*run);
            s.platform.injector->inject(shipped);
        })) {
        const QString copyProblem = s.keepOnClipboard(shipped);
        co_return RunOutcome(s.failed(QStringLiteral("ERROR"), QStringLiteral("Injection failed: "),
                                      describeError(failure), QStringLiteral("Couldn't type that"),
                                      copyProblem.isEmpty()
                                          ? QStringLiteral("The text is on your clipboard \u2014 press ") +
                                                s.platform.pasteShortcut + QStringLiteral(" to paste it.")
                                          : sentence(copyProblem)));
    }
    timings.injectMS = s.scheduler.nowMs() - injectStarted;
    // The text is in: the icon need not wait for the audio file and the history entry.
    s.setState(PipelineState::idle());

    s.latency.record(s.sinceRelease(*run));
    if (s.config.learnVocabulary)
        s.learner.ingest(shipped);
    const Utterance utterance = s.keep(*run, raw, formatted, shipped, toName(decision.verdict), timings);
    Log::info(QStringLiteral("Dictation complete") + bulletSeparator() + timings.summary());
    co_return RunOutcome(PipelineState::idle(), utterance);
}
