#pragma once

#include "benchmark/BenchmarkResults.h"
#include "speech/AsrEngine.h"

#include <QCoro/QCoroTask>
#include <exception>

namespace BenchmarkRunner {

// Runs one clip through `engine` as live capture would reach it: decoded, resampled to the engine's
// rate, fed in 0.1-second chunks, then finished. Never throws: a failure is recorded in the result.
QCoro::Task<ClipResult> runClip(AsrEngine &engine, BenchmarkClip clip, QString locale);

} // namespace BenchmarkRunner
