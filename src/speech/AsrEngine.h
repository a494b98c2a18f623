#pragma once

#include "speech/AudioChunk.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <QStringList>

// What the pipeline, the transcribe command and the benchmark need from any speech recogniser.
// Callers: prepare() once; then per utterance beginUtterance(), any number of append(), and exactly
// one of finishUtterance() or cancelUtterance().
class AsrEngine {
public:
    virtual ~AsrEngine() = default;

    virtual QString name() const = 0;
    virtual bool isStreaming() const = 0;
    // The rate (Hz) append() expects.
    virtual double requiredSampleRate() const = 0;

    virtual QCoro::Task<void> prepare() = 0;
    // The phrases bias recognition of the utterance that starts.
    virtual QCoro::Task<void> beginUtterance(QStringList contextualStrings) = 0;
    // May be called from the audio delivery thread while a task of the caller awaits elsewhere.
    virtual void append(const AudioChunk &chunk) = 0;
    virtual QCoro::Task<QString> finishUtterance() = 0;
    virtual QCoro::Task<void> cancelUtterance() = 0;
};
