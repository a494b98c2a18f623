#pragma once

#include <QCoro/QCoroTask>
#include <QString>

// `quorvane transcribe <wav> [locale]`: one recorded file through recognition, formatting and the
// guard, with a printed report. Returns the process exit status.
namespace Verify {
QCoro::Task<int> run(const QString &wavPath, const QString &locale);
} // namespace Verify
