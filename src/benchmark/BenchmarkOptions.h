#pragma once

#include "core/DescribedError.h"

#include <QString>
#include <QStringList>
#include <optional>

// The command line of `quorvane benchmark`.
struct BenchmarkOptions {
    enum class Engine { fromSettings, whisper, native };

    // A command line we cannot act on; the message says what is wrong with it.
    class UsageError : public DescribedError {
    public:
        using DescribedError::DescribedError;
    };

    QString manifestPath;
    Engine engine = Engine::fromSettings;
    std::optional<QString> endpoint;
    std::optional<QString> locale;
    std::optional<qsizetype> limit;
    qsizetype warmup = 0;
    std::optional<QString> outputDirectory;
    bool help = false;

    // Accepts "--option value" and "--option=value". Throws UsageError.
    static BenchmarkOptions parse(const QStringList &arguments);
    static QString usage();
};
