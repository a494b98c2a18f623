#pragma once

#include "pipeline/RunContext.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

// Runs one utterance at a time from key-down to delivered text, in each of the three modes. Lives
// on the main thread; every callback from elsewhere hops there before it touches any member.
class Pipeline : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 minimumHoldMs = 250;
    // How long after key-up an engine still at work is taken to be slow enough to read alongside.
    static constexpr qint64 keyUpReadsDelayMs = 20;
    static constexpr qint64 preparationLimitMs = 30000;
    // The base of a prompt compilation's budget, whatever the formatter setting: the request is
    // delivered verbatim anyway when the model is slow.
    static constexpr qint64 promptBaseLimitMs = 1800;
    // Peak level below which a recording counts as near-silence.
    static constexpr float silentPeak = 0.01f;

    // `store` and `learner` default to the data directory's; `scheduler` is the clock of every
    // timer and measurement.
    Pipeline(Config config, PlatformKit platform, Scheduler &scheduler = Scheduler::system(),
             std::unique_ptr<Store> store = {}, std::unique_ptr<Learner> learner = {});
    ~Pipeline() override;

    std::function<void(const PipelineState &)> onStateChange;
    // After a dictation delivered its text.
    std::function<void(const Utterance &)> onUtterance;

    const PipelineState &state() const { return m_state; }
    const Config &config() const { return m_config; }
    PipelineMode activeMode() const { return m_run->mode; }
    const std::optional<RepositoryContext> &repositoryContext() const { return m_repositoryContext; }
    Store &store() { return *m_store; }
    Learner &learner() { return *m_learner; }
    const LatencyStats &latency() const { return m_latency; }
    const PlatformKit &platform() const { return m_platform; }
    AsrEngine &asr() const { return *m_asr; }
    TextFormatter &formatter() const { return *m_formatter; }
    // From key-down until the capture has started (or failed).
    bool isStarting() const { return std::holds_alternative<Starting>(m_phase); }

    // Readies the speech engine (within 30 s) and the formatter. Never throws: a failure sets the
    // state, unless a dictation is under way, and is kept in preparationProblem().
    QCoro::Task<void> prepare();
    // Why the last preparation of the speech engine failed; empty when it succeeded.
    const std::optional<QString> &preparationProblem() const { return m_preparationProblem; }
    // New settings that may need another engine or formatter: saves them, rebuilds both, prepares.
    QCoro::Task<void> reload(Config config);
    // New settings that keep the engine and the formatter.
    QCoro::Task<void> updatePreferences(Config config);

    // Key-down of the key bound to `mode`.
    void begin(PipelineMode mode);
    void beginEditing() { begin(PipelineMode::editSelection); }
    void beginPrompting() { begin(PipelineMode::developerPrompt); }
    // Key-up; `expectedMode` is the mode whose key went up, or none for whatever is active.
    void finish(std::optional<PipelineMode> expectedMode = std::nullopt);
    // Wires a watcher's press and release to `mode`'s begin and finish.
    void bindHotkey(GlobalHotkey &hotkey, PipelineMode mode);
    // Abandons whatever is under way and returns to idle.
    void cancel();
    // Whether a dictation whose transcription failed is held, and nothing is under way to stop a retry.
    bool canRetry() const;
    // Transcribes the held dictation again with the engine as it is now and delivers it as any
    // dictation, into the application in front now. Does nothing when there is nothing to retry.
    void retryLastDictation();
    // Drops the held dictation: the user asked for everything retained to go.
    void forgetHeldDictation() { m_heldAudio.reset(); }
    // Whether prompts can be handed to `agent` here: the handoff service exists and the agent is
    // installed in a trusted folder.
    bool isAgentAvailable(AgentKind agent) const;

    // "3 minutes", "1 minute", "90 seconds".
    static QString recordingLimitLabel(qint64 seconds);
    // The formatter's time budget for a text of `words` words: longer texts earn 50 ms a word past
    // twenty, up to the configuration's ceiling. `maxBase` caps the configured timeout first.
    static qint64 formatterBudget(const Config &config, qint64 words, qint64 maxBase = Config::maxFormatterTimeoutMS);

private:
    // Whether work started under `run` must stop: the pipeline is gone or has moved on.
    struct RunTicket {
        QPointer<Pipeline> pipeline;
        quint64 run = 0;
        bool abandoned() const { return !pipeline || pipeline->m_runNumber != run; }
    };
    // What the keys have set going that the state does not show. Nothing: the next key-down may start.
    struct Settled {};
    // From key-down until the capture has started (or failed); the key may be up again already.
    struct Starting {
        bool released = false;
    };
    // The limit finished the recording of `mode` while its key was still down: that key-up ends nothing.
    struct LimitReached {
        PipelineMode mode;
    };
    using KeyPhase = std::variant<Settled, Starting, LimitReached>;

    void setState(const PipelineState &state);
    RunTicket newRun();
    RunTicket currentRun();
    RunServices services(RunTicket ticket);
    void buildEngines();
    void saveConfig() const;
    void abandonUtterance();
    void gatherContext(RunContext &run, QStringList &hints);
    void startRepositoryLookup(RunContext &run);
    void refreshRepositoryContextInBackground();
    void holdForRetry(const RunContext &run);
    static void releaseHeard(const RunContext &run);
    void startRecordingLimit();
    void stopRecordingLimit();
    void onRecordingLimit(qint64 limit, const QString &label, PipelineMode mode);

    QCoro::Task<void> startRecording(RunTicket ticket, std::shared_ptr<RunContext> run, QStringList hints);
    QCoro::Task<void> runGuarded(RunTicket ticket, Timings timings);
    QCoro::Task<RunEnd> runInference(RunTicket ticket, Timings timings);
    static QCoro::Task<RepositoryLookup> lookUpRepository(std::shared_ptr<RepositoryContextProviding> provider,
                                                          std::optional<QString> bundleID,
                                                          std::optional<QString> pinnedPath);
    static QCoro::Task<void> applyBackgroundLookup(QPointer<Pipeline> pipeline, QCoro::Task<RepositoryLookup> lookup);
    // Opens the engine's utterance and starts the microphone feeding it; throws what either throws.
    static QCoro::Task<void> startCapture(std::shared_ptr<RunContext> run, QStringList hints, bool retainAudio);
    // The run's transcript; held audio is fed to the engine again first.
    static QCoro::Task<QString> transcribe(std::shared_ptr<RunContext> run);

    PipelineState m_state;
    Config m_config;
    std::optional<RepositoryContext> m_repositoryContext;
    std::unique_ptr<Store> m_store;
    std::unique_ptr<Learner> m_learner;
    LatencyStats m_latency;
    PlatformKit m_platform;
    Scheduler &m_scheduler;
    std::shared_ptr<AsrEngine> m_asr;
    std::shared_ptr<TextFormatter> m_formatter;
    Scheduler::Handle m_maxHoldTimer;
    KeyPhase m_phase;
    // The current or last utterance; work of an earlier one holds its own.
    std::shared_ptr<RunContext> m_run;
    std::shared_ptr<const HeldAudio> m_heldAudio;
    std::optional<QString> m_preparationProblem;
    // Bumped by every start and cancel, so work of an earlier recording or run sees it is stale.
    quint64 m_runNumber = 0;
};
