#include "benchmark/SpeechBenchmark.h"

#include <cstdio>

namespace SpeechBenchmark {

QCoro::Task<int> run(const QStringList &arguments) {
    Q_UNUSED(arguments);
    std::fputs("The benchmark command is not available in this build yet.\n", stderr);
    co_return 1;
}

} // namespace SpeechBenchmark
