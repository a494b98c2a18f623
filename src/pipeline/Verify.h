#pragma once

#include "pipeline/EngineChoice.h"

#include <QCoro/QCoroTask>
#include <QString>
#include <memory>

// `quorvane transcribe <wav> [locale]`: one recorded file through recognition, formatting and the
// guard, with a printed report. Nothing is pasted or kept in history. Returns the exit status.
namespace Verify {

// The operating system's own recogniser and language model, where the platform has them.
struct NativeEngines {
    NativeAsrFactory asr;
    NativeFormatterFactory formatter;
};

struct Engines {
    std::unique_ptr<AsrEngine> asr;
    std::unique_ptr<TextFormatter> formatter;
};

// Where the platform has an on-device language model the check proves the platform's own stack
// whatever the settings say; elsewhere the settings choose, at `locale`, the on-device recogniser
// standing for the default engine.
Engines chooseEngines(const QString &locale, const NativeEngines &native);

QCoro::Task<int> run(QString wavPath, QString locale, NativeEngines native = {});

} // namespace Verify
