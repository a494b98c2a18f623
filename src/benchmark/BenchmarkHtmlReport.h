#pragma once

#include "benchmark/BenchmarkResults.h"

#include <QByteArray>
#include <QList>

namespace BenchmarkHtmlReport {

// One self-contained page: the summary, a per-clip WER chart, the latency distribution and the clip
// table, drawn with inline SVG. No scripts and no network: its content policy forbids both.
QByteArray render(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run, const BenchmarkSummary &summary,
                  const QList<ClipResult> &results);

} // namespace BenchmarkHtmlReport
