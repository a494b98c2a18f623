#include "pipeline/Pipeline.h"

#include "core/Async.h"
#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/OffThread.h"
#include "core/Paths.h"
#include "core/Terminal.h"
#include "core/Text.h"
#include "core/Timeout.h"
#include "formatting/RewriteCommand.h"
#include "pipeline/EngineChoice.h"
#include "pipeline/Runs.h"
#include "pipeline/StockPhrases.h"
#include "speech/AudioFeed.h"
#include "speech/LinearAudioResampler.h"
#include "speech/RecognitionContextBuilder.h"

#include <QUuid>
#include <algorithm>
#include <cmath>

namespace {

void logTaskFailure(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception &e) {
        Log::error(QStringLiteral("Pipeline task failed: ") + QString::fromUtf8(e.what()));
    } catch (...) {
        Log::error(QStringLiteral("Pipeline task failed."));
    }
}

// Holds the engine itself, so that replacing the engine meanwhile cannot pull it from under the task.
QCoro::Task<void> abandonOn(std::shared_ptr<AsrEngine> engine) {
    co_await engine->cancelUtterance();
}

QString repositorySummary(const RepositoryContext &context) {
    QString summary = context.name;
    if (context.branch)
        summary += QStringLiteral(" (") + *context.branch + QStringLiteral(")");
    if (!context.languages.isEmpty())
        summary += bulletSeparator() + context.languages.join(QStringLiteral(", "));
    return summary;
}

} // namespace

Pipeline::Pipeline(Config config, PlatformKit platform, Scheduler &scheduler, std::unique_ptr<Store> store,
                   std::unique_ptr<Learner> learner)
    : m_config(std::move(config)), m_store(std::move(store)), m_learner(std::move(learner)),
      m_platform(std::move(platform)), m_scheduler(scheduler) {
    if (!m_store)
        m_store = std::make_unique<Store>(Paths::root());
    if (!m_learner)
        m_learner = std::make_unique<Learner>();
    PlatformKit fallbacks = PlatformKit::fallbacks();
    if (!m_platform.capture)
        m_platform.capture = fallbacks.capture;
    if (!m_platform.injector)
        m_platform.injector = fallbacks.injector;
    if (!m_platform.frontmostApp)
        m_platform.frontmostApp = fallbacks.frontmostApp;
    if (!m_platform.notifier)
        m_platform.notifier = fallbacks.notifier;
    if (!m_platform.cues)
        m_platform.cues = fallbacks.cues;
    buildEngines();
    m_platform.capture->setVoiceProcessingEnabled(m_config.voiceProcessingEnabled);
    m_run = std::make_shared<RunContext>(PipelineMode::dictation, m_asr, m_platform.capture);
}

Pipeline::~Pipeline() {
    stopRecordingLimit();
    if (m_state.kind == PipelineState::Kind::recording)
        m_run->capture->stop();
}

// MARK: state

void Pipeline::setState(const PipelineState &state) {
    if (state == m_state)
        return;
    const bool wasRecording = m_state.kind == PipelineState::Kind::recording;
    m_state = state;
    const bool recording = m_state.kind == PipelineState::Kind::recording;
    // The start cue sounds once the microphone runs, so a loudspeaker may leave it in the first
    // tenth of a second of the recording: short, soft and over before anyone speaks, recognisers
    // take it for noise, not a word, and waiting for it would clip the first word instead. The stop
    // cue comes after the capture has stopped and is never recorded.
    if (wasRecording != recording && m_config.playSounds)
        m_platform.cues->play(recording ? Cue::start : Cue::stop);
    if (onStateChange)
        onStateChange(m_state);
}

Pipeline::RunTicket Pipeline::newRun() {
    ++m_runNumber;
    return currentRun();
}

Pipeline::RunTicket Pipeline::currentRun() {
    return RunTicket{QPointer<Pipeline>(this), m_runNumber};
}

RunServices Pipeline::services(RunTicket ticket) {
    return RunServices{m_config,
                       m_platform,
                       m_scheduler,
                       *m_store,
                       *m_learner,
                       m_latency,
                       m_formatter,
                       m_repositoryContext,
                       [this](const PipelineState &state) { setState(state); },
                       [ticket] { return ticket.abandoned(); }};
}

void Pipeline::buildEngines() {
    m_asr = makeAsr(m_config, m_platform.nativeAsrEngine);
    m_formatter = makeFormatter(m_config, m_platform.nativeFormatter);
}

void Pipeline::saveConfig() const {
    m_config.save(Paths::file(QStringLiteral("config.json")));
}

void Pipeline::abandonUtterance() {
    detach(abandonOn(m_run->asr), logTaskFailure);
}

// MARK: preparation and settings

QCoro::Task<void> Pipeline::prepare() {
    QPointer<Pipeline> self(this);
    const auto asr = m_asr;
    const auto formatter = m_formatter;
    const auto outcome = co_await withTimeout<void>(
        preparationLimitMs, [asr] { return asr->prepare(); }, m_scheduler);
    if (!self)
        co_return;
    // A dictation under way keeps its state: it goes on with this engine, and if the engine fails it
    // too, the run says so and holds what was said. Taking the state from it would drop its audio at
    // key-up.
    const bool busy =
        m_state.kind == PipelineState::Kind::recording || m_state.kind == PipelineState::Kind::thinking || isStarting();
    if (outcome.timedOut()) {
        const qint64 seconds = preparationLimitMs / 1000;
        Log::error(
            QStringLiteral("ASR preparation timed out after %1s. It will retry on first dictation.").arg(seconds));
        Terminal::tell(QStringLiteral("The speech engine did not get ready within %1 s; Quorvane tries again at the "
                                      "first dictation.")
                           .arg(seconds));
        m_preparationProblem = QStringLiteral("Speech model preparation timed out.");
    } else if (outcome.error) {
        const QString description = describeError(outcome.error);
        Log::error(QStringLiteral("ASR unavailable: ") + description);
        Terminal::tell(description);
        m_preparationProblem = description;
    } else {
        m_preparationProblem.reset();
        // A working engine clears the error an earlier preparation left on the icon.
        if (m_state.kind == PipelineState::Kind::error && !busy)
            setState(PipelineState::idle());
    }
    if (m_preparationProblem && !busy)
        setState(PipelineState::error(*m_preparationProblem));

    co_await formatter->prepare();
    if (!self)
        co_return;
    if (!formatter->isAvailable())
        Log::warn(QStringLiteral("Formatter '") + formatter->name() +
                  QStringLiteral("' is unavailable; transcripts will ship unformatted."));
    if (m_config.repositoryContextEnabled && m_platform.repositoryContext)
        refreshRepositoryContextInBackground();
}

QCoro::Task<void> Pipeline::reload(Config config) {
    const Config old = m_config;
    m_config = std::move(config);
    saveConfig();
    if (old.captureCommand != m_config.captureCommand && m_platform.makeCapture) {
        // A recording under way keeps the capture it started on; the next one starts on this.
        if (std::shared_ptr<AudioCapturing> capture = m_platform.makeCapture(m_config))
            m_platform.capture = std::move(capture);
        m_platform.capture->setVoiceProcessingEnabled(m_config.voiceProcessingEnabled);
    } else if (old.voiceProcessingEnabled != m_config.voiceProcessingEnabled) {
        m_platform.capture->setVoiceProcessingEnabled(m_config.voiceProcessingEnabled);
    }
    buildEngines();
    co_await prepare();
}

QCoro::Task<void> Pipeline::updatePreferences(Config config) {
    const Config old = m_config;
    m_config = std::move(config);
    saveConfig();
    if (old.voiceProcessingEnabled != m_config.voiceProcessingEnabled)
        m_platform.capture->setVoiceProcessingEnabled(m_config.voiceProcessingEnabled);
    if (old.repositoryContextEnabled != m_config.repositoryContextEnabled ||
        old.pinnedRepositoryPath != m_config.pinnedRepositoryPath) {
        // Facts about the previous repository must not reach the next prompt.
        m_repositoryContext.reset();
        if (m_config.repositoryContextEnabled) {
            if (m_platform.repositoryContext)
                refreshRepositoryContextInBackground();
        } else {
            m_run->repositoryLookup.reset();
        }
    }
    co_return;
}

bool Pipeline::isAgentAvailable(AgentKind agent) const {
    return m_platform.agentHandoff && m_platform.agentHandoff->isAgentAvailable(agent);
}

// MARK: repository lookup

QCoro::Task<RepositoryLookup> Pipeline::lookUpRepository(std::shared_ptr<RepositoryContextProviding> provider,
                                                         std::optional<QString> bundleID,
                                                         std::optional<QString> pinnedPath) {
    RepositoryLookup lookup;
    const auto found = co_await attempt(provider->refreshContext(bundleID, pinnedPath));
    if (found.failure)
        lookup.error = describeError(found.failure);
    else
        lookup.context = *found.value;
    if (lookup.context)
        Log::info(QStringLiteral("Repository context ready") + bulletSeparator() + repositorySummary(*lookup.context));
    else if (lookup.error)
        Log::warn(QStringLiteral("Could not identify a repository: ") + *lookup.error);
    co_return lookup;
}

QCoro::Task<void> Pipeline::applyBackgroundLookup(QPointer<Pipeline> pipeline, QCoro::Task<RepositoryLookup> lookup) {
    RepositoryLookup result = co_await std::move(lookup);
    // The feature may have been switched off while the lookup ran.
    if (pipeline && pipeline->m_config.repositoryContextEnabled && result.context)
        pipeline->m_repositoryContext = result.context;
}

void Pipeline::refreshRepositoryContextInBackground() {
    const FrontmostApp app = m_platform.frontmostApp->frontmostApp();
    detach(applyBackgroundLookup(QPointer<Pipeline>(this), lookUpRepository(m_platform.repositoryContext, app.bundleID,
                                                                            m_config.pinnedRepositoryPath)),
           logTaskFailure);
}

void Pipeline::startRepositoryLookup(RunContext &run) {
    run.repositoryLookup.reset();
    if (!m_config.repositoryContextEnabled || !m_platform.repositoryContext)
        return;
    const std::optional<QString> bundleID = run.app ? run.app->bundleID : std::nullopt;
    run.repositoryLookup.emplace(
        lookUpRepository(m_platform.repositoryContext, bundleID, m_config.pinnedRepositoryPath));
}

// MARK: key-down

void Pipeline::gatherContext(RunContext &run, QStringList &hints) {
    const FrontmostApp app = m_platform.frontmostApp->frontmostApp();
    run.app = app;

    FormattingContext context;
    context.appName = app.name;
    context.styleInstruction = m_config.styleInstruction(app.bundleID);
    if (!context.styleInstruction)
        context.styleInstruction = AppRule::styleFor(m_platform.appRules, app.bundleID);
    QStringList vocabulary = m_store->vocabulary();
    if (m_config.learnVocabulary)
        vocabulary += m_learner->learnedTerms();
    vocabulary.removeDuplicates();
    context.vocabulary = vocabulary;
    if (m_config.retainHistory)
        context.recentTranscripts = m_store->recentTranscripts(5);
    run.formatting = context;

    // The engine keeps only the first phrases, so an edit command's own words go first.
    hints.clear();
    if (run.mode == PipelineMode::editSelection)
        hints += RewriteCommand::recognitionHints();
    for (const QString &term : vocabulary)
        hints += RecognitionContextBuilder::spokenVariants(term);
    hints.removeDuplicates();
}

void Pipeline::begin(PipelineMode mode) {
    if (m_state.kind == PipelineState::Kind::recording || m_state.kind == PipelineState::Kind::thinking || isStarting())
        return;
    m_phase = Starting{};
    m_run->clearPending();
    m_run = std::make_shared<RunContext>(mode, m_asr, m_platform.capture);
    m_run->utteranceID = QUuid::createUuid().toString(QUuid::WithoutBraces);
    m_run->recordingStart = m_scheduler.nowMs();

    QStringList hints;
    gatherContext(*m_run, hints);
    if (mode == PipelineMode::editSelection && m_platform.selectionEditor) {
        if (const std::exception_ptr failure =
                failureOf([&] { m_run->selection = m_platform.selectionEditor->captureSelection(); })) {
            m_run->selectionFailure = describeError(failure);
            Log::warn(QStringLiteral("Could not capture the selection: ") + *m_run->selectionFailure);
        }
    } else if (mode == PipelineMode::developerPrompt) {
        startRepositoryLookup(*m_run);
    }
    detach(startRecording(newRun(), m_run, hints), logTaskFailure);
}

QCoro::Task<void> Pipeline::startCapture(std::shared_ptr<RunContext> run, QStringList hints, bool retainAudio) {
    const auto asr = run->asr;
    const auto capture = run->capture;
    const double sampleRate = asr->requiredSampleRate();
    co_await asr->beginUtterance(hints);
    capture->setOnChunk([asr, peak = run->peak, heard = run->heard](const AudioChunk &chunk) {
        float loudest = 0;
        for (const float sample : chunk.samples)
            loudest = std::max(loudest, std::abs(sample));
        // The pre-roll and the device's chunks may come from different threads.
        float seen = peak->load(std::memory_order_relaxed);
        while (loudest > seen && !peak->compare_exchange_weak(seen, loudest, std::memory_order_relaxed)) {
        }
        {
            std::lock_guard lock(heard->lock);
            heard->samples.insert(heard->samples.end(), chunk.samples.begin(), chunk.samples.end());
            heard->sampleRate = chunk.sampleRate;
        }
        asr->append(chunk);
    });
    // Starting a device can block for a while, and key events must keep flowing on the main
    // thread meanwhile. Every capture is safe to start from a pool thread: each guards its
    // state with locks and delivers from threads of its own.
    co_await runOffThread<bool>([capture, sampleRate, retainAudio] {
        capture->start(sampleRate, retainAudio);
        return true;
    });
}

QCoro::Task<void> Pipeline::startRecording(RunTicket ticket, std::shared_ptr<RunContext> run, QStringList hints) {
    const std::exception_ptr failure = (co_await attempt(startCapture(run, hints, m_config.retainAudio))).failure;
    if (!ticket.pipeline) {
        if (!failure)
            run->capture->stop();
        co_return;
    }
    const auto *starting = std::get_if<Starting>(&m_phase);
    const bool released = starting && starting->released;
    m_phase = Settled{};
    if (ticket.abandoned()) {
        // Cancelled while starting: nothing may keep listening.
        if (!failure)
            run->capture->stop();
        detach(abandonOn(run->asr), logTaskFailure);
        co_return;
    }
    if (failure) {
        const QString description = describeError(failure);
        run->clearPending();
        services(ticket).failed(QStringLiteral("ERROR"), QStringLiteral("Could not start recording: "), description,
                                QStringLiteral("Quorvane"), {}, [&] { setState(PipelineState::error(description)); });
        detach(abandonOn(run->asr), logTaskFailure);
        co_return;
    }

    setState(PipelineState::recording());
    switch (run->mode) {
    case PipelineMode::dictation:
        Log::info(QStringLiteral("Recording started."));
        break;
    case PipelineMode::editSelection:
        Log::info(QStringLiteral("Edit command recording started."));
        break;
    case PipelineMode::developerPrompt:
        Log::info(QStringLiteral("Prompt Mode recording started."));
        break;
    }
    startRecordingLimit();
    // The paste's slow reads (the focused field, the clipboard) are taken while the user speaks;
    // key-up and the paste then only confirm them.
    m_platform.injector->prepareInjection();
    if (released) {
        Log::info(QStringLiteral("Applying release that arrived during startup."));
        finish(run->mode);
    }
}

// MARK: recording limit

QString Pipeline::recordingLimitLabel(qint64 seconds) {
    if (seconds > 0 && seconds % 60 == 0)
        return QStringLiteral("%1 minute%2").arg(seconds / 60).arg(seconds == 60 ? QString() : QStringLiteral("s"));
    return QStringLiteral("%1 seconds").arg(seconds);
}

void Pipeline::startRecordingLimit() {
    stopRecordingLimit();
    const qint64 limit = m_config.maximumRecordingSeconds;
    const QString label = recordingLimitLabel(limit);
    const PipelineMode mode = m_run->mode;
    QPointer<Pipeline> self(this);
    m_maxHoldTimer = m_scheduler.schedule(limit * 1000, [self, limit, label, mode] {
        if (self)
            self->onRecordingLimit(limit, label, mode);
    });
}

void Pipeline::stopRecordingLimit() {
    Scheduler::cancel(m_maxHoldTimer);
    m_maxHoldTimer.reset();
}

void Pipeline::onRecordingLimit(qint64 limit, const QString &label, PipelineMode mode) {
    if (m_state.kind != PipelineState::Kind::recording)
        return;
    Log::warn(QStringLiteral("Maximum %1s recording reached without a key-up; finishing automatically.").arg(limit));
    m_phase = LimitReached{mode};
    services(currentRun())
        .notify(QStringLiteral("Recording limit reached"),
                QStringLiteral("Quorvane finished this dictation after ") + label +
                    QStringLiteral(". Choose a longer limit from the menu or continue in a new "
                                   "dictation."));
    finish(mode);
}

// MARK: key-up and cancel

void Pipeline::finish(std::optional<PipelineMode> expectedMode) {
    if (expectedMode && *expectedMode != m_run->mode)
        return;
    const auto *limited = std::get_if<LimitReached>(&m_phase);
    if (expectedMode && limited && limited->mode == *expectedMode && m_state.kind != PipelineState::Kind::recording) {
        // The user lets go of a key whose recording the limit already finished: its run goes on.
        m_phase = Settled{};
        Log::info(QStringLiteral("Key released after the recording limit finished the recording."));
        return;
    }
    stopRecordingLimit();
    if (m_state.kind != PipelineState::Kind::recording) {
        if (auto *starting = std::get_if<Starting>(&m_phase)) {
            starting->released = true;
            Log::info(QStringLiteral("Release arrived during startup; will apply once recording begins."));
            return;
        }
        Log::info(QStringLiteral("finish() ignored \u2014 not recording (state unchanged)."));
        if (m_state.kind == PipelineState::Kind::thinking || m_state.kind == PipelineState::Kind::error)
            cancel();
        return;
    }

    const qint64 now = m_scheduler.nowMs();
    const qint64 held = now - m_run->recordingStart.value_or(now);
    m_run->releaseTime = now;
    m_run->capture->stop();

    if (held < minimumHoldMs) {
        Log::info(QStringLiteral("Ignored %1 ms key tap.").arg(held));
        m_run->clearPending();
        setState(PipelineState::idle());
        abandonUtterance();
        return;
    }

    const AudioCaptureStatus status = m_run->capture->lastCaptureStatus();
    if (status == AudioCaptureStatus::noBuffers || status == AudioCaptureStatus::digitalSilence) {
        const QString message =
            status == AudioCaptureStatus::noBuffers
                ? QStringLiteral("The microphone stopped sending audio. Quorvane reset it; please try that dictation "
                                 "again.")
                : QStringLiteral("macOS sent a silent microphone stream. Quorvane switched to its reliable fallback; "
                                 "please try that dictation again.");
        Log::error(QStringLiteral("Recording produced no usable microphone audio. ") + message);
        m_run->clearPending();
        setState(PipelineState::error(message));
        services(currentRun()).notify(QStringLiteral("Microphone recovered"), message);
        abandonUtterance();
        return;
    }

    setState(PipelineState::thinking());
    Timings timings;
    timings.recordingMS = held;
    detach(runGuarded(currentRun(), timings), logTaskFailure);
    // Whatever moved while the user spoke is read again alongside the engine's work, once the engine
    // is seen to take a while: one that answers at once would only find the paste waiting behind it.
    QPointer<Pipeline> self(this);
    const quint64 runNumber = m_runNumber;
    m_scheduler.schedule(keyUpReadsDelayMs, [self, runNumber] {
        if (self && self->m_runNumber == runNumber && self->m_state.kind == PipelineState::Kind::thinking)
            self->m_platform.injector->prepareInjection();
    });
}

void Pipeline::bindHotkey(GlobalHotkey &hotkey, PipelineMode mode) {
    QPointer<Pipeline> self(this);
    hotkey.onPress = [self, mode] {
        if (self)
            self->begin(mode);
    };
    hotkey.onRelease = [self, mode] {
        if (self)
            self->finish(mode);
    };
}

void Pipeline::cancel() {
    ++m_runNumber;
    stopRecordingLimit();
    // A start under way still ends its own phase once the capture answers.
    if (auto *starting = std::get_if<Starting>(&m_phase))
        starting->released = false;
    m_run->capture->stop();
    m_run->clearPending();
    setState(PipelineState::idle());
    abandonUtterance();
}

// MARK: retry

bool Pipeline::canRetry() const {
    return m_heldAudio && !isStarting() &&
           (m_state.kind == PipelineState::Kind::idle || m_state.kind == PipelineState::Kind::error);
}

void Pipeline::holdForRetry(const RunContext &run) {
    // A retry that fails again keeps what it retried.
    if (run.replay)
        return;
    auto held = std::make_shared<HeldAudio>();
    {
        std::lock_guard lock(run.heard->lock);
        held->samples = std::move(run.heard->samples);
        held->sampleRate = run.heard->sampleRate;
    }
    if (held->samples.empty() || held->sampleRate <= 0)
        return;
    held->utteranceID = run.utteranceID;
    held->peak = run.peak->load();
    m_heldAudio = std::move(held);
    // Kept recordings are kept whatever became of them, so this one survives a quit too.
    if (m_config.retainAudio)
        services(currentRun()).retainAudio(run);
    Log::info(QStringLiteral("The dictation is held; choose Retry last dictation from the menu to transcribe it "
                             "again."));
}

void Pipeline::releaseHeard(const RunContext &run) {
    std::lock_guard lock(run.heard->lock);
    run.heard->samples = {};
}

void Pipeline::retryLastDictation() {
    if (!canRetry()) {
        Log::info(QStringLiteral("There is no dictation to retry."));
        return;
    }
    const std::shared_ptr<const HeldAudio> held = m_heldAudio;
    stopRecordingLimit();
    m_phase = Settled{};
    m_run->clearPending();
    m_run = std::make_shared<RunContext>(PipelineMode::dictation, m_asr, m_platform.capture);
    // The same utterance: its kept recording and its history entry share the name.
    m_run->utteranceID = held->utteranceID;
    m_run->releaseTime = m_scheduler.nowMs();

    QStringList hints;
    // The text goes where the user is now, styled for it.
    gatherContext(*m_run, hints);
    m_run->peak->store(held->peak);
    m_run->replay = held;
    m_run->replayHints = hints;
    Log::info(QStringLiteral("Retrying the last dictation."));
    setState(PipelineState::thinking());
    Timings timings;
    timings.recordingMS = static_cast<qint64>(double(held->samples.size()) * 1000.0 / held->sampleRate);
    detach(runGuarded(newRun(), timings), logTaskFailure);
}

// MARK: runs

QCoro::Task<void> Pipeline::runGuarded(RunTicket ticket, Timings timings) {
    const std::shared_ptr<RunContext> run = m_run;
    auto inference = co_await attempt(runInference(ticket, timings));
    RunEnd end;
    if (inference.failure) {
        // Whatever went wrong, the run must not leave the pipeline thinking.
        const QString description = describeError(inference.failure);
        Log::error(QStringLiteral("Processing failed: ") + description);
        end.emplace(PipelineState::error(description));
    } else {
        end = std::move(*inference.value);
    }
    if (ticket.abandoned() || !end)
        co_return;
    run->clearPending();
    setState(end->state);
    if (end->delivered && onUtterance)
        onUtterance(*end->delivered);
}

QCoro::Task<QString> Pipeline::transcribe(std::shared_ptr<RunContext> run) {
    const auto asr = run->asr;
    if (const std::shared_ptr<const HeldAudio> held = run->replay) {
        co_await asr->beginUtterance(run->replayHints);
        // The engine may have changed since, and with it the rate it takes.
        const double rate = asr->requiredSampleRate();
        feedInChunks(*asr, LinearAudioResampler::resample(held->samples, held->sampleRate, rate), rate);
    }
    co_return co_await asr->finishUtterance();
}

QCoro::Task<RunEnd> Pipeline::runInference(RunTicket ticket, Timings timings) {
    const std::shared_ptr<RunContext> run = m_run;
    const qint64 started = m_scheduler.nowMs();
    const auto heard = co_await attempt(transcribe(run));
    if (ticket.abandoned())
        co_return std::nullopt;
    timings.asrMS = m_scheduler.nowMs() - started;
    const RunServices s = services(ticket);
    if (heard.failure) {
        const QString description = describeError(heard.failure);
        // The icon shows the error by the time its notice appears.
        co_return RunOutcome(s.failed(QStringLiteral("ERROR"), QStringLiteral("Transcription failed: "), description,
                                      QStringLiteral("Transcription failed"), {}, [&] {
                                          // Before the state changes, so that whoever draws the error can offer
                                          // the retry.
                                          if (run->mode == PipelineMode::dictation)
                                              holdForRetry(*run);
                                          releaseHeard(*run);
                                          setState(PipelineState::error(description));
                                      }));
    }
    if (run->replay && m_heldAudio == run->replay)
        m_heldAudio.reset();
    // Only a failure needs the audio again.
    releaseHeard(*run);
    const QString raw = Text::trimmed(*heard.value);
    if (raw.isEmpty()) {
        Log::info(QStringLiteral("Nothing was said."));
        co_return RunOutcome(PipelineState::idle());
    }
    // Recognisers answer near-silence with stock phrases nobody said.
    if (run->peak->load() < silentPeak && StockPhrases::only(raw)) {
        Log::info(QStringLiteral("Nothing was said; dropped \"") + raw + QStringLiteral("\" heard in near-silence."));
        co_return RunOutcome(PipelineState::idle());
    }
    switch (run->mode) {
    case PipelineMode::dictation:
        co_return co_await runDictation(s, run, raw, timings);
    case PipelineMode::editSelection:
        co_return co_await runEditCommand(s, run, raw, timings);
    case PipelineMode::developerPrompt:
        co_return co_await runDeveloperPrompt(s, run, raw, timings);
    }
    co_return RunOutcome(PipelineState::idle());
}

qint64 Pipeline::formatterBudget(const Config &config, qint64 words, qint64 maxBase) {
    const qint64 base = std::clamp<qint64>(config.formatterTimeoutMS, 1, maxBase);
    return std::min(config.formatterTimeoutCeiling(base), base + 50 * std::max<qint64>(0, words - 20));
}
