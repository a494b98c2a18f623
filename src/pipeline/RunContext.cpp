#include "pipeline/RunContext.h"

#include "core/DescribedError.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "formatting/PassthroughFormatter.h"
#include "platform/CapturedAudio.h"

#include <QDateTime>
#include <QFileInfo>

void RunContext::clearPending() {
    selection.reset();
    selectionFailure.reset();
    repositoryLookup.reset();
}

void RunServices::notify(const QString &title, const QString &body) const {
    platform.notifier->notify(title, body);
}

QString RunServices::keepOnClipboard(const QString &text) const {
    const std::exception_ptr failure = failureOf([&] { platform.injector->copyToClipboard(text); });
    if (!failure)
        return {};
    const QString description = describeError(failure);
    Log::warn(QStringLiteral("Could not copy the text to the clipboard: ") + description);
    return description;
}

PipelineState RunServices::failed(const QString &level, const QString &lead, const QString &description,
                                  const QString &title, const QString &body,
                                  const std::function<void()> &beforeNotice) const {
    Log::write(level, lead + description);
    if (beforeNotice)
        beforeNotice();
    notify(title, body.isEmpty() ? description : body);
    return PipelineState::error(description);
}

qint64 RunServices::sinceRelease(const RunContext &run) const {
    const qint64 now = scheduler.nowMs();
    return now - run.releaseTime.value_or(now);
}

void RunServices::requireOriginalDestination(const RunContext &run) const {
    const FrontmostApp now = platform.frontmostApp->frontmostApp();
    if (run.app && !run.app->sameApplication(now))
        throw QuorvaneError(QuorvaneError::Case::destinationChanged);
}

Store::RecordingWriter RunServices::recordingWriter(const RunContext &run) const {
    if (run.replay) {
        // Kept when it failed only if recordings were kept then; the capture has moved on since.
        return [held = run.replay](const QString &path) {
            if (!QFileInfo::exists(path))
                CapturedAudio::save(path, held->samples, held->sampleRate);
            return QFileInfo::exists(path);
        };
    }
    return [audio = std::make_shared<const RetainedAudio>(run.capture->takeRetainedAudio())](const QString &path) {
        if (!audio->samples.empty() && audio->sampleRate > 0)
            CapturedAudio::save(path, audio->samples, audio->sampleRate);
        return QFileInfo::exists(path);
    };
}

std::optional<QString> RunServices::retainAudio(const RunContext &run) const {
    const QString path = store.audioURL(run.utteranceID);
    if (!recordingWriter(run)(path))
        return std::nullopt;
    store.didWriteAudio(path);
    return Store::audioFileName(run.utteranceID);
}

Utterance RunServices::keep(const RunContext &run, const QString &raw, const QString &formatted, const QString &shipped,
                            const QString &verdict, const Timings &timings) const {
    Utterance utterance;
    utterance.id = run.utteranceID;
    utterance.timestamp = QDateTime::currentDateTimeUtc();
    if (run.app) {
        utterance.appBundleID = run.app->bundleID;
        utterance.appName = run.app->name;
    }
    utterance.rawTranscript = raw;
    utterance.formattedText = formatted.isEmpty() ? shipped : formatted;
    utterance.shippedText = shipped;
    utterance.guardVerdict = verdict;
    utterance.engine = run.asr->name();
    utterance.formatter = formatter->name();
    utterance.asrMS = timings.asrMS;
    utterance.formatMS = timings.formatMS;
    utterance.responseMS = sinceRelease(run);
    Store::RecordingWriter writeRecording;
    if (config.retainAudio) {
        writeRecording = recordingWriter(run);
        // The name it gets once written; the stored entry names it only if it was.
        utterance.audioFile = Store::audioFileName(run.utteranceID);
    }
    // Written once the destination has read what was pasted: the processor and the disk are its
    // until then.
    if (config.retainAudio || config.retainHistory)
        store.keepDelivered(utterance, std::move(writeRecording), config.retainHistory, keepAfterPasteMs);
    return utterance;
}

const QString &bulletSeparator() {
    static const QString bullet = QStringLiteral(" \u00B7 ");
    return bullet;
}

QString sentence(const QString &text) {
    if (text.isEmpty() || text.endsWith(QLatin1Char('.')) || text.endsWith(QLatin1Char('!')) ||
        text.endsWith(QLatin1Char('?')))
        return text;
    return text + QLatin1Char('.');
}

bool isPassthrough(const TextFormatter &formatter) {
    return dynamic_cast<const PassthroughFormatter *>(&formatter) != nullptr;
}
