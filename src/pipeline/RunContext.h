#pragma once

#include "core/Config.h"
#include "core/LatencyStats.h"
#include "core/Scheduler.h"
#include "core/Timings.h"
#include "formatting/FormattingContext.h"
#include "history/Store.h"
#include "history/Utterance.h"
#include "pipeline/PipelineState.h"
#include "pipeline/PlatformKit.h"
#include "speech/Learner.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QStringList>
#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <vector>

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

// What one utterance was started with and gathered since key-down. A reload meanwhile builds new
// services for the next recording; this one is stopped, read and finished where its audio went.
struct RunContext {
    RunContext(PipelineMode runMode, std::shared_ptr<AsrEngine> engine, std::shared_ptr<AudioCapturing> microphone)
        : mode(runMode), asr(std::move(engine)), capture(std::move(microphone)) {}

    PipelineMode mode;
    QString utteranceID;
    std::shared_ptr<AsrEngine> asr;
    std::shared_ptr<AudioCapturing> capture;
    // Loudest sample delivered so far, written from the capture's thread.
    std::shared_ptr<std::atomic<float>> peak = std::make_shared<std::atomic<float>>(0.0f);
    std::shared_ptr<HeardAudio> heard = std::make_shared<HeardAudio>();
    // Set when the run transcribes held audio again rather than a live recording.
    std::shared_ptr<const HeldAudio> replay;
    QStringList replayHints;
    FormattingContext formatting;
    std::optional<FrontmostApp> app;
    std::optional<SelectedTextSnapshot> selection;
    // Why the selection could not be read at key-down, told when the edit ends.
    std::optional<QString> selectionFailure;
    std::optional<QCoro::Task<RepositoryLookup>> repositoryLookup;
    std::optional<qint64> recordingStart;
    std::optional<qint64> releaseTime;

    // Drops what key-down captured for the run's end.
    void clearPending();
};

// How a run ended: the state to show and, for a delivered dictation, its history entry.
struct RunOutcome {
    RunOutcome(PipelineState endState, std::optional<Utterance> utterance = std::nullopt)
        : state(std::move(endState)), delivered(std::move(utterance)) {}
    PipelineState state;
    std::optional<Utterance> delivered;
};
// Absent when the run was abandoned (cancelled, or the pipeline is gone): nothing more to do.
using RunEnd = std::optional<RunOutcome>;

// What a run may use of the pipeline that started it. The references stay live (a reload shows),
// so a run touches them only after `abandoned()` said no, after every wait.
struct RunServices {
    // A destination reads the pasted text within milliseconds; what we write to disk about it waits
    // that long.
    static constexpr qint64 keepAfterPasteMs = 50;

    const Config &config;
    const PlatformKit &platform;
    Scheduler &scheduler;
    Store &store;
    Learner &learner;
    LatencyStats &latency;
    const std::shared_ptr<TextFormatter> &formatter;
    std::optional<RepositoryContext> &repositoryContext;
    std::function<void(const PipelineState &)> setState;
    std::function<bool()> abandoned;

    void notify(const QString &title, const QString &body) const;
    // Leaves `text` on the clipboard. Returns why it could not (also logged), empty when it did, so
    // that no notice claims the text is there when it is not.
    QString keepOnClipboard(const QString &text) const;
    // Ends a step that threw: logs "lead + description" at `level`, runs `beforeNotice`, notifies
    // (an empty body is the description) and returns the error state to end in.
    PipelineState failed(const QString &level, const QString &lead, const QString &description, const QString &title,
                         const QString &body = {}, const std::function<void()> &beforeNotice = {}) const;
    qint64 sinceRelease(const RunContext &run) const;
    // Throws destinationChanged when the application in front is not the one of key-down.
    void requireOriginalDestination(const RunContext &run) const;
    // Writes the run's recording now; returns its file name.
    std::optional<QString> retainAudio(const RunContext &run) const;
    // What writes the run's recording: the capture's samples, taken now before the next recording
    // can start, or the held ones of a retry unless they were written when the run failed.
    Store::RecordingWriter recordingWriter(const RunContext &run) const;
    // The history entry of a delivered utterance (the shipped text stands in for a missing
    // formatted one). Its recording and the entry are written on the store's queue when the
    // settings ask for them: the paste that just left must not wait on the disk, and a quit flushes them.
    Utterance keep(const RunContext &run, const QString &raw, const QString &formatted, const QString &shipped,
                   const QString &verdict, const Timings &timings) const;
};

// What a step threw, kept rather than thrown, so the caller first checks the run still matters.
template <typename T> struct Attempt {
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> value;
    std::exception_ptr failure;
};
template <typename T> QCoro::Task<Attempt<T>> attempt(QCoro::Task<T> step) {
    Attempt<T> result;
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(step);
            result.value = true;
        } else {
            result.value = co_await std::move(step);
        }
    } catch (...) {
        result.failure = std::current_exception();
    }
    co_return result;
}
template <typename Step> std::exception_ptr failureOf(Step &&step) {
    try {
        step();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// " · ", between the parts of a summary line.
const QString &bulletSeparator();
// Notices are full sentences even when the reason inside them is a lower-case fragment.
QString sentence(const QString &text);
bool isPassthrough(const TextFormatter &formatter);
