#pragma once

#include <QCoro/QCoroTask>
#include <QStringList>

// `quorvane benchmark <manifest.json> [options]`: scores a speech engine on recorded clips.
// Returns the process exit status.
namespace SpeechBenchmark {
QCoro::Task<int> run(const QStringList &arguments);
} // namespace SpeechBenchmark
