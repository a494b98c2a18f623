#pragma once

#include "core/Config.h"
#include "core/LatencyStats.h"
#include "core/Scheduler.h"
#include "core/Timings.h"
#include "formatting/DeveloperPromptGuard.h"
#include "formatting/FormattingContext.h"
#include "history/Store.h"
#include "history/Utterance.h"
#include "pipeline/PipelineState.h"
#include "pipeline/PlatformKit.h"
#include "speech/Learner.h"

#include <QCoro/QCoroTask>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

// Runs one utterance at a time from key-down to delivered text, in each of the three modes. Lives
// on the main thread; every callback from elsewhere hops there before it touches any member.
class Pipeline : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 minimumHoldMs = 250;
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
    PipelineMode activeMode() const { return m_activeMode; }
    const std::optional<RepositoryContext> &repositoryContext() const { return m_repositoryContext; }
    Store &store() { return *m_store; }
    Learner &learner() { return *m_learner; }
    const LatencyStats &latency() const { return m_latency; }
    const PlatformKit &platform() const { return m_platform; }
    AsrEngine &asr() const { return *m_asr; }
    TextFormatter &formatter() const { return *m_formatter; }
    // From key-down until the capture has started (or failed).
    bool isStarting() const { return m_isStarting; }

    // Readies the speech engine (within 30 s) and the formatter. Never throws: failures set the state.
    QCoro::Task<void> prepare();
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
    // Whether prompts can be handed to `agent` here: the handoff service exists and the agent is
    // installed in a trusted folder.
    bool isAgentAvailable(AgentKind agent) const;

    // "3 minutes", "1 minute", "90 seconds".
    static QString recordingLimitLabel(qint64 seconds);
    // The formatter's time budget for a text of `words` words: longer texts earn 50 ms a word past
    // twenty, up to the configuration's ceiling. `maxBase` caps the configured timeout first.
    static qint64 formatterBudget(const Config &config, qint64 words, qint64 maxBase = Config::maxFormatterTimeoutMS);

private:
    // How a run ended: the state to show and, for a delivered dictation, its history entry.
    struct RunOutcome {
        RunOutcome(PipelineState endState, std::optional<Utterance> utterance = std::nullopt)
            : state(std::move(endState)), delivered(std::move(utterance)) {}
        PipelineState state;
        std::optional<Utterance> delivered;
    };
    // Absent when the run was abandoned (cancelled, or the pipeline is gone): nothing more to do.
    using RunEnd = std::optional<RunOutcome>;
    // A repository lookup's answer, or why there is none.
    struct RepositoryLookup {
        std::optional<RepositoryContext> context;
        std::optional<QString> error;
    };
    // The audio a recording gave its engine, gathered from the capture's threads.
    struct HeardAudio {
        std::mutex lock;
        std::vector<float> samples;
        double sampleRate = 0;
    };
    // The last dictation whose transcription failed: only one, in memory, until a retry succeeds.
    struct HeldAudio {
        QString utteranceID;
        std::vector<float> samples;
        double sampleRate = 0;
        float peak = 0;
    };
    // What one recording was made with. A reload meanwhile builds new services for the next
    // recording; this one is stopped, read and finished where its audio went.
    struct Recording {
        std::shared_ptr<AsrEngine> asr;
        std::shared_ptr<AudioCapturing> capture;
        // Loudest sample delivered so far, written from the capture's thread.
        std::shared_ptr<std::atomic<float>> peak = std::make_shared<std::atomic<float>>(0.0f);
        std::shared_ptr<HeardAudio> heard = std::make_shared<HeardAudio>();
        // Set when the run transcribes held audio again rather than a live recording.
        std::shared_ptr<const HeldAudio> replay = {};
        QStringList replayHints = {};
    };
    // Whether work started under `run` must stop: the pipeline is gone or has moved on.
    struct RunTicket {
        QPointer<Pipeline> pipeline;
        quint64 run = 0;
        bool abandoned() const { return !pipeline || pipeline->m_run != run; }
    };

    void setState(const PipelineState &state);
    RunTicket newRun();
    void buildEngines();
    void saveConfig() const;
    void notify(const QString &title, const QString &body) const;
    void abandonUtterance();
    void clearPending();
    void gatherContext(PipelineMode mode, QStringList &hints);
    void startRepositoryLookup();
    void refreshRepositoryContextInBackground();
    void holdForRetry(const Recording &recording);
    static void releaseHeard(const Recording &recording);
    void startRecordingLimit();
    void stopRecordingLimit();
    void onRecordingLimit(qint64 limit, const QString &label, PipelineMode mode);

    QCoro::Task<void> startRecording(RunTicket ticket, Recording recording, QStringList hints);
    QCoro::Task<void> runGuarded(RunTicket ticket, Timings timings);
    QCoro::Task<RunEnd> runInference(RunTicket ticket, Timings timings);
    QCoro::Task<RunEnd> runDictation(RunTicket ticket, QString raw, Timings timings);
    QCoro::Task<RunEnd> runEditCommand(RunTicket ticket, QString raw, Timings timings);
    QCoro::Task<RunEnd> runDeveloperPrompt(RunTicket ticket, QString raw, Timings timings);
    QCoro::Task<RunEnd> deliverPrompt(RunTicket ticket, QString raw, QString compiled,
                                      DeveloperPromptGuard::Decision decision,
                                      std::optional<RepositoryContext> repository, Timings timings);
    QCoro::Task<RepositoryLookup> resolvePendingRepositoryContext();
    static QCoro::Task<RepositoryLookup> lookUpRepository(std::shared_ptr<RepositoryContextProviding> provider,
                                                          std::optional<QString> bundleID,
                                                          std::optional<QString> pinnedPath);
    static QCoro::Task<void> applyBackgroundLookup(QPointer<Pipeline> pipeline, QCoro::Task<RepositoryLookup> lookup);
    // Leaves `text` on the clipboard; a failure there is only logged, the caller already reports one.
    void keepOnClipboard(const QString &text) const;
    // Throws destinationChanged when the application in front is not the one of key-down.
    void requireOriginalDestination() const;
    static QCoro::Task<void> replay(std::shared_ptr<AsrEngine> asr, std::shared_ptr<const HeldAudio> held,
                                    QStringList hints);
    // Keeps the recording when asked; returns its file name.
    std::optional<QString> retainCurrentAudio();
    Utterance makeUtterance(const QString &raw, const QString &formatted, const QString &shipped,
                            const QString &verdict, const Timings &timings) const;
    qint64 sinceRelease() const;

    PipelineState m_state;
    Config m_config;
    PipelineMode m_activeMode = PipelineMode::dictation;
    std::optional<RepositoryContext> m_repositoryContext;
    std::unique_ptr<Store> m_store;
    std::unique_ptr<Learner> m_learner;
    LatencyStats m_latency;
    PlatformKit m_platform;
    Scheduler &m_scheduler;
    std::shared_ptr<AsrEngine> m_asr;
    std::shared_ptr<TextFormatter> m_formatter;
    std::optional<qint64> m_recordingStart;
    std::optional<qint64> m_releaseTime;
    FormattingContext m_pendingContext;
    std::optional<FrontmostApp> m_pendingApp;
    std::optional<SelectedTextSnapshot> m_pendingSelection;
    std::optional<QCoro::Task<RepositoryLookup>> m_pendingRepositoryTask;
    QString m_utteranceID;
    Scheduler::Handle m_maxHoldTimer;
    bool m_isStarting = false;
    bool m_pendingFinish = false;
    Recording m_recording;
    // Why the selection could not be read at key-down, told when the edit ends.
    std::optional<QString> m_selectionFailure;
    // The mode whose recording the limit ended; its key is still down until the user lets go.
    std::optional<PipelineMode> m_limitFinishedMode;
    std::shared_ptr<const HeldAudio> m_heldAudio;
    // Bumped by every start and cancel, so work of an earlier recording or run sees it is stale.
    quint64 m_run = 0;
};
