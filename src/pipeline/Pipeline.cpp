#include "pipeline/Pipeline.h"

#include "core/Async.h"
#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/OffThread.h"
#include "core/Paths.h"
#include "core/QuorvaneError.h"
#include "core/Terminal.h"
#include "core/Text.h"
#include "core/Timeout.h"
#include "formatting/DeveloperPromptGuard.h"
#include "formatting/PassthroughFormatter.h"
#include "formatting/RewriteCommand.h"
#include "formatting/RewriteGuard.h"
#include "formatting/TranscriptGuard.h"
#include "pipeline/EngineChoice.h"
#include "pipeline/StockPhrases.h"
#include "speech/AudioFeed.h"
#include "speech/LinearAudioResampler.h"
#include "speech/RecognitionContextBuilder.h"
#include "speech/WavEncoder.h"

#include <QDateTime>
#include <QFileInfo>
#include <QSaveFile>
#include <QUuid>
#include <algorithm>
#include <cmath>

namespace {

const QString kBullet = QStringLiteral(" \u00B7 ");

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

bool isPassthrough(const TextFormatter &formatter) {
    return dynamic_cast<const PassthroughFormatter *>(&formatter) != nullptr;
}

QString repositorySummary(const RepositoryContext &context) {
    QString summary = context.name;
    if (context.branch)
        summary += QStringLiteral(" (") + *context.branch + QStringLiteral(")");
    if (!context.languages.isEmpty())
        summary += kBullet + context.languages.join(QStringLiteral(", "));
    return summary;
}

// Notices are full sentences even when the reason inside them is a lower-case fragment.
QString sentence(const QString &text) {
    if (text.isEmpty() || text.endsWith(QLatin1Char('.')) || text.endsWith(QLatin1Char('!')) ||
        text.endsWith(QLatin1Char('?')))
        return text;
    return text + QLatin1Char('.');
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
    m_recording = Recording{m_asr, m_platform.capture};
}

Pipeline::~Pipeline() {
    stopRecordingLimit();
    if (m_state.kind == PipelineState::Kind::recording)
        m_recording.capture->stop();
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
    return RunTicket{QPointer<Pipeline>(this), ++m_run};
}

void Pipeline::buildEngines() {
    m_asr = makeAsr(m_config, m_platform.nativeAsrEngine);
    m_formatter = makeFormatter(m_config, m_platform.nativeFormatter);
}

void Pipeline::saveConfig() const {
    m_config.save(Paths::file(QStringLiteral("config.json")));
}

void Pipeline::notify(const QString &title, const QString &body) const {
    m_platform.notifier->notify(title, body);
}

void Pipeline::abandonUtterance() {
    detach(abandonOn(m_recording.asr), logTaskFailure);
}

void Pipeline::clearPending() {
    m_pendingSelection.reset();
    m_selectionFailure.reset();
    m_pendingRepositoryTask.reset();
}

void Pipeline::keepOnClipboard(const QString &text) const {
    try {
        m_platform.injector->copyToClipboard(text);
    } catch (...) {
        Log::warn(QStringLiteral("Could not copy the text to the clipboard: ") +
                  describeError(std::current_exception()));
    }
}

qint64 Pipeline::sinceRelease() const {
    const qint64 now = m_scheduler.nowMs();
    return now - m_releaseTime.value_or(now);
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
    if (outcome.timedOut()) {
        const qint64 seconds = preparationLimitMs / 1000;
        Log::error(
            QStringLiteral("ASR preparation timed out after %1s. It will retry on first dictation.").arg(seconds));
        Terminal::tell(QStringLiteral("The speech engine did not get ready within %1 s; Quorvane tries again at the "
                                      "first dictation.")
                           .arg(seconds));
        setState(PipelineState::error(QStringLiteral("Speech model preparation timed out.")));
    } else if (outcome.error) {
        const QString description = describeError(outcome.error);
        Log::error(QStringLiteral("ASR unavailable: ") + description);
        Terminal::tell(description);
        setState(PipelineState::error(description));
    } else if (m_state.kind == PipelineState::Kind::error && !m_isStarting) {
        // A working engine clears the error an earlier preparation left on the icon.
        setState(PipelineState::idle());
    }

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
            m_pendingRepositoryTask.reset();
        }
    }
    co_return;
}

bool Pipeline::isAgentAvailable(AgentKind agent) const {
    return m_platform.agentHandoff && m_platform.agentHandoff->isAgentAvailable(agent);
}

// MARK: repository lookup

QCoro::Task<Pipeline::RepositoryLookup> Pipeline::lookUpRepository(std::shared_ptr<RepositoryContextProviding> provider,
                                                                   std::optional<QString> bundleID,
                                                                   std::optional<QString> pinnedPath) {
    RepositoryLookup lookup;
    try {
        lookup.context = co_await provider->refreshContext(bundleID, pinnedPath);
    } catch (...) {
        lookup.error = describeError(std::current_exception());
    }
    if (lookup.context)
        Log::info(QStringLiteral("Repository context ready") + kBullet + repositorySummary(*lookup.context));
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

void Pipeline::startRepositoryLookup() {
    m_pendingRepositoryTask.reset();
    if (!m_config.repositoryContextEnabled || !m_platform.repositoryContext)
        return;
    const std::optional<QString> bundleID = m_pendingApp ? m_pendingApp->bundleID : std::nullopt;
    m_pendingRepositoryTask.emplace(
        lookUpRepository(m_platform.repositoryContext, bundleID, m_config.pinnedRepositoryPath));
}

QCoro::Task<Pipeline::RepositoryLookup> Pipeline::resolvePendingRepositoryContext() {
    if (!m_pendingRepositoryTask)
        co_return RepositoryLookup{};
    QCoro::Task<RepositoryLookup> task = std::move(*m_pendingRepositoryTask);
    m_pendingRepositoryTask.reset();
    co_return co_await std::move(task);
}

// MARK: key-down

void Pipeline::gatherContext(PipelineMode mode, QStringList &hints) {
    const FrontmostApp app = m_platform.frontmostApp->frontmostApp();
    m_pendingApp = app;

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
    m_pendingContext = context;

    // The engine keeps only the first phrases, so an edit command's own words go first.
    hints.clear();
    if (mode == PipelineMode::editSelection)
        hints += RewriteCommand::recognitionHints();
    for (const QString &term : vocabulary)
        hints += RecognitionContextBuilder::spokenVariants(term);
    hints.removeDuplicates();
}

void Pipeline::begin(PipelineMode mode) {
    if (m_state.kind == PipelineState::Kind::recording || m_state.kind == PipelineState::Kind::thinking || m_isStarting)
        return;
    m_activeMode = mode;
    m_utteranceID = QUuid::createUuid().toString(QUuid::WithoutBraces);
    m_recordingStart = m_scheduler.nowMs();
    m_releaseTime.reset();
    m_isStarting = true;
    m_pendingFinish = false;
    m_limitFinishedMode.reset();
    clearPending();

    QStringList hints;
    gatherContext(mode, hints);
    if (mode == PipelineMode::editSelection && m_platform.selectionEditor) {
        try {
            m_pendingSelection = m_platform.selectionEditor->captureSelection();
        } catch (...) {
            m_selectionFailure = describeError(std::current_exception());
            Log::warn(QStringLiteral("Could not capture the selection: ") + *m_selectionFailure);
        }
    } else if (mode == PipelineMode::developerPrompt) {
        startRepositoryLookup();
    }
    m_recording = Recording{m_asr, m_platform.capture};
    detach(startRecording(newRun(), m_recording, hints), logTaskFailure);
}

QCoro::Task<void> Pipeline::startRecording(RunTicket ticket, Recording recording, QStringList hints) {
    const auto asr = recording.asr;
    const auto capture = recording.capture;
    const auto peak = recording.peak;
    const double sampleRate = asr->requiredSampleRate();
    const bool retainAudio = m_config.retainAudio;
    std::exception_ptr failure;
    try {
        co_await asr->beginUtterance(hints);
        capture->setOnChunk([asr, peak, heard = recording.heard](const AudioChunk &chunk) {
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
    } catch (...) {
        failure = std::current_exception();
    }
    if (!ticket.pipeline) {
        if (!failure)
            capture->stop();
        co_return;
    }
    m_isStarting = false;
    if (ticket.abandoned()) {
        // Cancelled while starting: nothing may keep listening.
        m_pendingFinish = false;
        if (!failure)
            capture->stop();
        detach(abandonOn(asr), logTaskFailure);
        co_return;
    }
    if (failure) {
        const QString description = describeError(failure);
        m_pendingFinish = false;
        clearPending();
        Log::error(QStringLiteral("Could not start recording: ") + description);
        setState(PipelineState::error(description));
        notify(QStringLiteral("Quorvane"), description);
        detach(abandonOn(asr), logTaskFailure);
        co_return;
    }

    setState(PipelineState::recording());
    switch (m_activeMode) {
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
    if (m_pendingFinish) {
        m_pendingFinish = false;
        Log::info(QStringLiteral("Applying release that arrived during startup."));
        finish(m_activeMode);
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
    const PipelineMode mode = m_activeMode;
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
    m_limitFinishedMode = mode;
    notify(QStringLiteral("Recording limit reached"),
           QStringLiteral("Quorvane finished this dictation after ") + label +
               QStringLiteral(". Choose a longer limit from the menu or continue in a new dictation."));
    finish(mode);
}

// MARK: key-up and cancel

void Pipeline::finish(std::optional<PipelineMode> expectedMode) {
    if (expectedMode && *expectedMode != m_activeMode)
        return;
    if (expectedMode && expectedMode == m_limitFinishedMode && m_state.kind != PipelineState::Kind::recording &&
        !m_isStarting) {
        // The user lets go of a key whose recording the limit already finished: its run goes on.
        m_limitFinishedMode.reset();
        Log::info(QStringLiteral("Key released after the recording limit finished the recording."));
        return;
    }
    stopRecordingLimit();
    if (m_state.kind != PipelineState::Kind::recording) {
        if (m_isStarting) {
            m_pendingFinish = true;
            Log::info(QStringLiteral("Release arrived during startup; will apply once recording begins."));
            return;
        }
        Log::info(QStringLiteral("finish() ignored \u2014 not recording (state unchanged)."));
        if (m_state.kind == PipelineState::Kind::thinking || m_state.kind == PipelineState::Kind::error)
            cancel();
        return;
    }

    const qint64 now = m_scheduler.nowMs();
    const qint64 held = now - m_recordingStart.value_or(now);
    m_releaseTime = now;
    m_recording.capture->stop();

    if (held < minimumHoldMs) {
        Log::info(QStringLiteral("Ignored %1 ms key tap.").arg(held));
        clearPending();
        setState(PipelineState::idle());
        abandonUtterance();
        return;
    }

    const AudioCaptureStatus status = m_recording.capture->lastCaptureStatus();
    if (status == AudioCaptureStatus::noBuffers || status == AudioCaptureStatus::digitalSilence) {
        const QString message =
            status == AudioCaptureStatus::noBuffers
                ? QStringLiteral("The microphone stopped sending audio. Quorvane reset it; please try that dictation "
                                 "again.")
                : QStringLiteral("macOS sent a silent microphone stream. Quorvane switched to its reliable fallback; "
                                 "please try that dictation again.");
        Log::error(QStringLiteral("Recording produced no usable microphone audio. ") + message);
        clearPending();
        setState(PipelineState::error(message));
        notify(QStringLiteral("Microphone recovered"), message);
        abandonUtterance();
        return;
    }

    setState(PipelineState::thinking());
    Timings timings;
    timings.recordingMS = held;
    detach(runGuarded(RunTicket{QPointer<Pipeline>(this), m_run}, timings), logTaskFailure);
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
    ++m_run;
    stopRecordingLimit();
    m_pendingFinish = false;
    m_recording.capture->stop();
    clearPending();
    setState(PipelineState::idle());
    abandonUtterance();
}

// MARK: retry

bool Pipeline::canRetry() const {
    return m_heldAudio && !m_isStarting &&
           (m_state.kind == PipelineState::Kind::idle || m_state.kind == PipelineState::Kind::error);
}

void Pipeline::holdForRetry(const Recording &recording) {
    // A retry that fails again keeps what it retried.
    if (recording.replay)
        return;
    auto held = std::make_shared<HeldAudio>();
    {
        std::lock_guard lock(recording.heard->lock);
        held->samples = std::move(recording.heard->samples);
        held->sampleRate = recording.heard->sampleRate;
    }
    if (held->samples.empty() || held->sampleRate <= 0)
        return;
    held->utteranceID = m_utteranceID;
    held->peak = recording.peak->load();
    m_heldAudio = std::move(held);
    // Kept recordings are kept whatever became of them, so this one survives a quit too.
    if (m_config.retainAudio)
        retainCurrentAudio();
    Log::info(QStringLiteral("The dictation is held; choose Retry last dictation from the menu to transcribe it "
                             "again."));
}

void Pipeline::releaseHeard(const Recording &recording) {
    std::lock_guard lock(recording.heard->lock);
    recording.heard->samples = {};
}

QCoro::Task<void> Pipeline::replay(std::shared_ptr<AsrEngine> asr, std::shared_ptr<const HeldAudio> held,
                                   QStringList hints) {
    co_await asr->beginUtterance(hints);
    // The engine may have changed since, and with it the rate it takes.
    const double rate = asr->requiredSampleRate();
    feedInChunks(*asr, LinearAudioResampler::resample(held->samples, held->sampleRate, rate), rate);
}

void Pipeline::retryLastDictation() {
    if (!canRetry()) {
        Log::info(QStringLiteral("There is no dictation to retry."));
        return;
    }
    const std::shared_ptr<const HeldAudio> held = m_heldAudio;
    stopRecordingLimit();
    m_activeMode = PipelineMode::dictation;
    // The same utterance: its kept recording and its history entry share the name.
    m_utteranceID = held->utteranceID;
    m_recordingStart.reset();
    m_releaseTime = m_scheduler.nowMs();
    m_pendingFinish = false;
    m_limitFinishedMode.reset();
    clearPending();

    QStringList hints;
    // The text goes where the user is now, styled for it.
    gatherContext(PipelineMode::dictation, hints);
    m_recording = Recording{m_asr, m_platform.capture};
    m_recording.peak->store(held->peak);
    m_recording.replay = held;
    m_recording.replayHints = hints;
    Log::info(QStringLiteral("Retrying the last dictation."));
    setState(PipelineState::thinking());
    Timings timings;
    timings.recordingMS = static_cast<qint64>(double(held->samples.size()) * 1000.0 / held->sampleRate);
    detach(runGuarded(newRun(), timings), logTaskFailure);
}

// MARK: runs

QCoro::Task<void> Pipeline::runGuarded(RunTicket ticket, Timings timings) {
    RunEnd end;
    try {
        end = co_await runInference(ticket, timings);
    } catch (...) {
        // Whatever went wrong, the run must not leave the pipeline thinking.
        const QString description = describeError(std::current_exception());
        Log::error(QStringLiteral("Processing failed: ") + description);
        end.emplace(PipelineState::error(description));
    }
    if (ticket.abandoned() || !end)
        co_return;
    clearPending();
    setState(end->state);
    if (end->delivered && onUtterance)
        onUtterance(*end->delivered);
}

QCoro::Task<Pipeline::RunEnd> Pipeline::runInference(RunTicket ticket, Timings timings) {
    const Recording recording = m_recording;
    const auto asr = recording.asr;
    const qint64 started = m_scheduler.nowMs();
    QString raw;
    std::exception_ptr failure;
    try {
        if (recording.replay)
            co_await replay(asr, recording.replay, recording.replayHints);
        raw = co_await asr->finishUtterance();
    } catch (...) {
        failure = std::current_exception();
    }
    if (ticket.abandoned())
        co_return std::nullopt;
    timings.asrMS = m_scheduler.nowMs() - started;
    if (failure) {
        const QString description = describeError(failure);
        Log::error(QStringLiteral("Transcription failed: ") + description);
        // Before the state changes, so that whoever draws the error can offer the retry.
        if (m_activeMode == PipelineMode::dictation)
            holdForRetry(recording);
        releaseHeard(recording);
        // The icon shows the error by the time its notice appears.
        setState(PipelineState::error(description));
        notify(QStringLiteral("Transcription failed"), description);
        co_return RunOutcome(PipelineState::error(description));
    }
    if (recording.replay && m_heldAudio == recording.replay)
        m_heldAudio.reset();
    // Only a failure needs the audio again.
    releaseHeard(recording);
    raw = Text::trimmed(raw);
    if (raw.isEmpty()) {
        Log::info(QStringLiteral("Nothing was said."));
        co_return RunOutcome(PipelineState::idle());
    }
    // Recognisers answer near-silence with stock phrases nobody said.
    if (recording.peak->load() < silentPeak && StockPhrases::only(raw)) {
        Log::info(QStringLiteral("Nothing was said; dropped \"") + raw + QStringLiteral("\" heard in near-silence."));
        co_return RunOutcome(PipelineState::idle());
    }
    switch (m_activeMode) {
    case PipelineMode::dictation:
        co_return co_await runDictation(ticket, raw, timings);
    case PipelineMode::editSelection:
        co_return co_await runEditCommand(ticket, raw, timings);
    case PipelineMode::developerPrompt:
        co_return co_await runDeveloperPrompt(ticket, raw, timings);
    }
    co_return RunOutcome(PipelineState::idle());
}

qint64 Pipeline::formatterBudget(const Config &config, qint64 words, qint64 maxBase) {
    const qint64 base = std::clamp<qint64>(config.formatterTimeoutMS, 1, maxBase);
    return std::min(config.formatterTimeoutCeiling(base), base + 50 * std::max<qint64>(0, words - 20));
}

void Pipeline::requireOriginalDestination() const {
    const FrontmostApp now = m_platform.frontmostApp->frontmostApp();
    if (m_pendingApp && !m_pendingApp->sameApplication(now))
        throw QuorvaneError(QuorvaneError::Case::destinationChanged);
}

std::optional<QString> Pipeline::retainCurrentAudio() {
    const QString path = m_store->audioURL(m_utteranceID);
    if (!m_recording.replay) {
        m_recording.capture->writeRetainedAudio(path);
    } else if (!QFileInfo::exists(path)) {
        // Kept when it failed only if recordings were kept then; the capture has moved on since.
        QSaveFile file(path);
        if (file.open(QIODevice::WriteOnly)) {
            file.write(WavEncoder::encode(m_recording.replay->samples, m_recording.replay->sampleRate));
            file.commit();
        }
    }
    if (!QFileInfo::exists(path))
        return std::nullopt;
    m_store->didWriteAudio(path);
    return QFileInfo(path).fileName();
}

Utterance Pipeline::makeUtterance(const QString &raw, const QString &formatted, const QString &shipped,
                                  const QString &verdict, const Timings &timings) const {
    Utterance utterance;
    utterance.id = m_utteranceID;
    utterance.timestamp = QDateTime::currentDateTimeUtc();
    if (m_pendingApp) {
        utterance.appBundleID = m_pendingApp->bundleID;
        utterance.appName = m_pendingApp->name;
    }
    utterance.rawTranscript = raw;
    utterance.formattedText = formatted;
    utterance.shippedText = shipped;
    utterance.guardVerdict = verdict;
    utterance.engine = m_recording.asr->name();
    utterance.formatter = m_formatter->name();
    utterance.asrMS = timings.asrMS;
    utterance.formatMS = timings.formatMS;
    utterance.responseMS = sinceRelease();
    return utterance;
}

QCoro::Task<Pipeline::RunEnd> Pipeline::runDictation(RunTicket ticket, QString raw, Timings timings) {
    using Verdict = TranscriptGuard::Verdict;
    const auto formatter = m_formatter;
    const qint64 words = TranscriptGuard::words(raw).size();
    TranscriptGuard::Decision decision;
    QString formatted;

    if (m_config.formatter == FormatterKind::none || isPassthrough(*formatter)) {
        decision = TranscriptGuard::fallback(raw, Verdict::formatterDisabled);
    } else if (!formatter->isAvailable()) {
        decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
    } else if (words < m_config.guardMinWordsForLLM) {
        decision = TranscriptGuard::fallback(raw, Verdict::skippedTooShort);
    } else {
        const qint64 budget = formatterBudget(m_config, words);
        const FormattingContext context = m_pendingContext;
        const qint64 started = m_scheduler.nowMs();
        const auto outcome = co_await withTimeout<QString>(
            budget, [formatter, raw, context] { return formatter->format(raw, context); }, m_scheduler);
        if (ticket.abandoned())
            co_return std::nullopt;
        timings.formatMS = m_scheduler.nowMs() - started;
        if (outcome.timedOut()) {
            Log::warn(QStringLiteral("Formatter exceeded its %1 ms budget.").arg(budget));
            decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
        } else if (outcome.error) {
            Log::warn(QStringLiteral("Formatter failed: ") + describeError(outcome.error));
            decision = TranscriptGuard::fallback(raw, Verdict::formatterFailed);
        } else {
            formatted = *outcome.value;
            decision = TranscriptGuard::fromConfig(m_config).evaluate(raw, formatted);
            if (decision.verdict != Verdict::accepted)
                Log::warn(QStringLiteral("Guard overruled the formatter (") + toName(decision.verdict) +
                          QStringLiteral(")"));
        }
    }

    const QString shipped = decision.text;
    const qint64 injectStarted = m_scheduler.nowMs();
    std::exception_ptr failure;
    try {
        requireOriginalDestination();
        m_platform.injector->inject(shipped);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        const QString description = describeError(failure);
        Log::error(QStringLiteral("Injection failed: ") + description);
        keepOnClipboard(shipped);
        notify(QStringLiteral("Couldn't type that"), QStringLiteral("The text is on your clipboard \u2014 press ") +
                                                         m_platform.pasteShortcut + QStringLiteral(" to paste it."));
        co_return RunOutcome(PipelineState::error(description));
    }
    timings.injectMS = m_scheduler.nowMs() - injectStarted;
    // The text is in: the icon need not wait for the audio file and the history entry.
    setState(PipelineState::idle());

    m_latency.record(sinceRelease());
    if (m_config.learnVocabulary)
        m_learner->ingest(shipped);
    Utterance utterance =
        makeUtterance(raw, formatted.isEmpty() ? shipped : formatted, shipped, toName(decision.verdict), timings);
    if (m_config.retainAudio)
        utterance.audioFile = retainCurrentAudio();
    if (m_config.retainHistory)
        m_store->append(utterance);
    Log::info(QStringLiteral("Dictation complete") + kBullet + timings.summary());
    co_return RunOutcome(PipelineState::idle(), utterance);
}

QCoro::Task<Pipeline::RunEnd> Pipeline::runEditCommand(RunTicket ticket, QString raw, Timings timings) {
    const std::optional<RewriteCommand> command = RewriteCommand::parse(raw);
    if (!command) {
        Log::info(QStringLiteral("Edit command was not recognized; selection left untouched."));
        notify(QStringLiteral("Edit command not recognized"),
               QStringLiteral("Say one command: ") + RewriteCommand::recognitionHints().join(QStringLiteral(", ")) +
                   QStringLiteral("."));
        co_return RunOutcome(PipelineState::idle());
    }
    if (!m_pendingSelection || !m_platform.selectionEditor) {
        const QString reason = m_selectionFailure ? sentence(*m_selectionFailure)
                                                  : QStringLiteral("The original selection is no longer available.");
        notify(QStringLiteral("Edit in Place"), reason + QStringLiteral(" Nothing was replaced."));
        co_return RunOutcome(PipelineState::idle());
    }

    const SelectedTextSnapshot selection = *m_pendingSelection;
    const auto formatter = m_formatter;
    const FormattingContext context = m_pendingContext;
    const RewriteCommand chosen = *command;
    const qint64 budget = formatterBudget(m_config, TranscriptGuard::words(selection.text).size());
    const qint64 started = m_scheduler.nowMs();
    const auto outcome = co_await withTimeout<QString>(
        budget,
        [formatter, text = selection.text, chosen, context] { return formatter->rewrite(text, chosen, context); },
        m_scheduler);
    if (ticket.abandoned())
        co_return std::nullopt;
    timings.formatMS = m_scheduler.nowMs() - started;
    if (outcome.timedOut()) {
        Log::warn(QStringLiteral("Selected-text rewrite exceeded its %1 ms budget.").arg(budget));
        notify(QStringLiteral("Rewrite timed out"), QStringLiteral("The original text was left unchanged."));
        co_return RunOutcome(PipelineState::idle());
    }
    if (outcome.error) {
        Log::warn(QStringLiteral("Selected-text rewrite failed: ") + describeError(outcome.error));
        notify(QStringLiteral("Rewrite failed"), QStringLiteral("The original text was left unchanged."));
        co_return RunOutcome(PipelineState::idle());
    }

    const RewriteGuard::Decision decision =
        RewriteGuard::evaluate(selection.text, *outcome.value, chosen, context.vocabulary);
    if (decision.verdict != RewriteGuard::Verdict::accepted) {
        Log::warn(QStringLiteral("Rewrite guard kept the original selection (") + toName(decision.verdict) +
                  QStringLiteral(")"));
        notify(QStringLiteral("Unsafe rewrite blocked"),
               QStringLiteral("Quorvane kept the original text because the rewrite changed protected content or "
                              "meaning."));
        co_return RunOutcome(PipelineState::idle());
    }

    const qint64 replaceStarted = m_scheduler.nowMs();
    std::exception_ptr failure;
    try {
        m_platform.selectionEditor->replaceSelection(selection, decision.text);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        const QString description = describeError(failure);
        Log::warn(QStringLiteral("Selected text was not replaced: ") + description);
        notify(QStringLiteral("Nothing was replaced"), description);
        co_return RunOutcome(PipelineState::error(description));
    }
    timings.injectMS = m_scheduler.nowMs() - replaceStarted;
    m_latency.record(sinceRelease());
    Log::info(QStringLiteral("Edit in Place complete") + kBullet + chosen.displayName() + kBullet + timings.summary());
    co_return RunOutcome(PipelineState::idle());
}

QCoro::Task<Pipeline::RunEnd> Pipeline::runDeveloperPrompt(RunTicket ticket, QString raw, Timings timings) {
    using Verdict = DeveloperPromptGuard::Verdict;
    const qint64 lookupStarted = m_scheduler.nowMs();
    const bool lookupExpected = m_config.repositoryContextEnabled && m_platform.repositoryContext;
    const RepositoryLookup lookup = co_await resolvePendingRepositoryContext();
    if (ticket.abandoned())
        co_return std::nullopt;
    timings.contextMS = m_scheduler.nowMs() - lookupStarted;
    const std::optional<RepositoryContext> repository = lookup.context;
    if (repository) {
        m_repositoryContext = repository;
    } else if (lookupExpected) {
        notify(QStringLiteral("No repository context"),
               lookup.error ? QStringLiteral("Could not identify a repository: ") + sentence(*lookup.error)
                            : QStringLiteral("Quorvane found no Git repository for this app; choose a repository "
                                             "from the Quorvane menu."));
    }

    FormattingContext context = m_pendingContext;
    if (repository) {
        context.repositoryPromptContext = repository->promptContext();
        context.vocabulary += repository->vocabulary;
        context.vocabulary.removeDuplicates();
    }

    const auto formatter = m_formatter;
    DeveloperPromptGuard::Decision decision;
    QString compiled;
    if (m_config.formatter == FormatterKind::none || isPassthrough(*formatter)) {
        // The user chose no model: the verbatim request is what they asked for, not a failure.
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterDisabled);
        co_return co_await deliverPrompt(ticket, raw, compiled, decision, repository, timings);
    }
    const qint64 budget = formatterBudget(m_config, TranscriptGuard::words(raw).size(), promptBaseLimitMs);
    const qint64 started = m_scheduler.nowMs();
    const auto outcome = co_await withTimeout<QString>(
        budget, [formatter, raw, context] { return formatter->compileDeveloperPrompt(raw, context); }, m_scheduler);
    if (ticket.abandoned())
        co_return std::nullopt;
    timings.formatMS = m_scheduler.nowMs() - started;

    const QString simplified = QStringLiteral("Prompt simplified for safety");
    if (outcome.timedOut()) {
        Log::warn(QStringLiteral("Prompt compilation exceeded its %1 ms budget.").arg(budget));
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterFailed);
        notify(simplified, QStringLiteral("The local model timed out, so Quorvane kept your request verbatim."));
    } else if (outcome.error) {
        Log::warn(QStringLiteral("Prompt compilation failed: ") + describeError(outcome.error));
        decision = DeveloperPromptGuard::fallback(raw, Verdict::formatterFailed);
        notify(simplified, QStringLiteral("The local model failed, so Quorvane kept your request verbatim."));
    } else {
        compiled = *outcome.value;
        decision = DeveloperPromptGuard::evaluate(raw, compiled, context.vocabulary, context.repositoryPromptContext);
        if (decision.verdict != Verdict::accepted) {
            Log::warn(QStringLiteral("Prompt guard used the lossless fallback ") + toName(decision.verdict));
            notify(simplified,
                   QStringLiteral("The model changed protected content, so Quorvane kept your request verbatim."));
        }
    }
    co_return co_await deliverPrompt(ticket, raw, compiled, decision, repository, timings);
}

QCoro::Task<Pipeline::RunEnd> Pipeline::deliverPrompt(RunTicket ticket, QString raw, QString compiled,
                                                      DeveloperPromptGuard::Decision decision,
                                                      std::optional<RepositoryContext> repository, Timings timings) {
    using Verdict = DeveloperPromptGuard::Verdict;
    const QString prompt = decision.text;
    const QString verdictName = toName(decision.verdict);
    const std::optional<AgentKind> agent = agentKind(m_config.promptDestination);

    const qint64 deliveryStarted = m_scheduler.nowMs();
    std::exception_ptr failure;
    if (!agent) {
        try {
            requireOriginalDestination();
            m_platform.injector->inject(prompt);
        } catch (...) {
            failure = std::current_exception();
        }
    } else if (decision.verdict != Verdict::accepted) {
        // A fallback is the raw request: the user decides whether it is fit to send.
        Log::warn(QStringLiteral("Direct handoff withheld because the prompt used a lossless fallback (") +
                  verdictName + QStringLiteral(")"));
        keepOnClipboard(prompt);
        notify(QStringLiteral("Review prompt before sending"),
               QStringLiteral("Quorvane used a lossless fallback, so it did not send the prompt automatically. "
                              "Review it on your clipboard."));
    } else {
        keepOnClipboard(prompt);
        const auto launcher = m_platform.agentHandoff;
        if (!launcher) {
            failure = std::make_exception_ptr(
                QuorvaneError::agentUnavailable(QStringLiteral("handing prompts to coding agents is not available on "
                                                               "this desktop")));
        } else if (!repository) {
            failure = std::make_exception_ptr(QuorvaneError::agentUnavailable(
                QStringLiteral("no Git repository was found; choose a repository from the Quorvane menu")));
        } else {
            try {
                co_await launcher->handoff(prompt, *agent, *repository);
            } catch (...) {
                failure = std::current_exception();
            }
            if (ticket.abandoned())
                co_return std::nullopt;
        }
    }
    if (failure) {
        QString description = describeError(failure);
        try {
            std::rethrow_exception(failure);
        } catch (const QuorvaneError &error) {
            if (error.errorCase() == QuorvaneError::Case::agentUnavailable)
                description = QStringLiteral("The coding agent is unavailable: ") + error.detail();
        } catch (...) {
        }
        Log::error(QStringLiteral("Prompt delivery failed: ") + description);
        if (!agent)
            keepOnClipboard(prompt);
        notify(QStringLiteral("Prompt copied instead"),
               sentence(description) + QStringLiteral(" The prompt is on your clipboard."));
        co_return RunOutcome(PipelineState::error(description));
    }
    timings.injectMS = m_scheduler.nowMs() - deliveryStarted;

    m_latency.record(sinceRelease());
    Log::info(QStringLiteral("Prompt Mode complete") + kBullet + timings.summary());
    Utterance utterance = makeUtterance(raw, compiled.isEmpty() ? prompt : compiled, prompt, verdictName, timings);
    if (m_config.retainAudio)
        utterance.audioFile = retainCurrentAudio();
    if (m_config.retainHistory)
        m_store->append(utterance);
    co_return RunOutcome(PipelineState::idle());
}
