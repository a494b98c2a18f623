#pragma once

#include "pipeline/EngineChoice.h"

#include <QCoro/QCoroTask>
#include <QString>

// `quorvane transcribe <wav> [locale]`: one recorded file through recognition, formatting and the
// guard, with a printed report. Nothing is pasted or kept in history. Returns the exit status.
namespace Verify {

// The operating system's own recogniser and language model, where the platform has them; the
// settings' engines are used otherwise.
struct NativeEngines {
    NativeAsrFactory asr;
    NativeFormatterFactory formatter;
};

QCoro::Task<int> run(QString wavPath, QString locale, NativeEngines native = {});

} // namespace Verify
