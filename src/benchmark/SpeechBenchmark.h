#pragma once

#include "pipeline/EngineChoice.h"

#include <QCoro/QCoroTask>
#include <QStringList>
#include <functional>
#include <memory>

// `quorvane benchmark <manifest.json> [options]`: scores a speech engine on recorded clips.
// Returns the process exit status: 0 every clip scored, 1 some failed, 2 a usage or manifest error.
namespace SpeechBenchmark {

// The platform's on-device recogniser for a locale; empty (or returning null) where there is none.
using NativeEngineFactory = NativeAsrFactory;

// Without an on-device recogniser.
QCoro::Task<int> run(const QStringList &arguments);
QCoro::Task<int> run(QStringList arguments, NativeEngineFactory nativeFactory);

} // namespace SpeechBenchmark
