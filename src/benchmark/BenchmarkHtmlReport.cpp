#include "benchmark/BenchmarkHtmlReport.h"

#include <QStringList>
#include <algorithm>
#include <cmath>

using BenchmarkResults::percent;
using BenchmarkResults::roundedMs;

namespace BenchmarkHtmlReport {

namespace {

QString esc(const QString &text) {
    return text.toHtmlEscaped();
}

QString num(double value, int decimals = 1) {
    return QString::number(value, 'f', decimals);
}

QString ms(const std::optional<double> &value) {
    return value ? num(roundedMs(*value), 1) + QStringLiteral(" ms") : QStringLiteral("–");
}

// 1, 2 or 5 times a power of ten, so axis labels stay round.
double niceStep(double roughStep) {
    if (!(roughStep > 0))
        return 1;
    const double power = std::pow(10.0, std::floor(std::log10(roughStep)));
    for (double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (factor * power >= roughStep)
            return factor * power;
    }
    return 10 * power;
}

QString werColour(double rate) {
    if (rate < 0.10)
        return QStringLiteral("#2f9e44");
    if (rate < 0.30)
        return QStringLiteral("#f08c00");
    return QStringLiteral("#e03131");
}

constexpr double chartWidth = 960;
constexpr double chartHeight = 280;
constexpr double left = 56;
constexpr double right = 16;
constexpr double top = 16;

// The opening of a chart and its horizontal grid: one labelled line per `step` from 0 to `yMax`.
template <typename Y, typename Label>
QString chartWithGrid(const QString &ariaLabel, double yMax, double step, Y y, Label label) {
    QString svg = QStringLiteral("<svg class=\"chart\" viewBox=\"0 0 %1 %2\" role=\"img\" aria-label=\"%3\" "
                                 "xmlns=\"http://www.w3.org/2000/svg\">")
                      .arg(chartWidth)
                      .arg(chartHeight)
                      .arg(ariaLabel);
    for (double tick = 0; tick <= yMax + 1e-9; tick += step) {
        svg += QStringLiteral("<line class=\"grid\" x1=\"%1\" x2=\"%2\" y1=\"%3\" y2=\"%3\"/>"
                              "<text class=\"axis\" x=\"%4\" y=\"%5\" text-anchor=\"end\">%6</text>")
                   .arg(left)
                   .arg(chartWidth - right)
                   .arg(num(y(tick)))
                   .arg(left - 6)
                   .arg(num(y(tick) + 4))
                   .arg(label(tick));
    }
    return svg;
}

QString werChart(const QList<ClipResult> &results, double overall) {
    const bool labels = results.size() <= 30;
    const double bottom = labels ? 84 : 36;
    const double plotWidth = chartWidth - left - right;
    const double plotHeight = chartHeight - top - bottom;
    double highest = 1.0;
    for (const ClipResult &result : results) {
        if (result.score)
            highest = std::max(highest, result.score->wordErrorRate);
    }
    const double step = niceStep(highest / 4);
    const double yMax = std::ceil(highest / step - 1e-9) * step;
    const auto y = [&](double rate) { return top + plotHeight * (1 - rate / yMax); };

    QString svg = chartWithGrid(QStringLiteral("Word error rate per clip"), yMax, step, y,
                                [](double tick) { return num(tick * 100, 0) + QLatin1Char('%'); });
    const double slot = plotWidth / double(std::max<qsizetype>(1, results.size()));
    const double barWidth = std::max(1.0, slot * 0.8);
    for (qsizetype i = 0; i < results.size(); ++i) {
        const ClipResult &result = results[i];
        const double x = left + slot * double(i) + (slot - barWidth) / 2;
        if (result.score) {
            const double rate = result.score->wordErrorRate;
            const double barTop = y(rate);
            svg += QStringLiteral("<rect x=\"%1\" y=\"%2\" width=\"%3\" height=\"%4\" fill=\"%5\"><title>%6: WER %7"
                                  "</title></rect>")
                       .arg(num(x, 2), num(barTop), num(barWidth, 2), num(std::max(0.0, y(0) - barTop)),
                            werColour(rate), esc(result.clip.id), percent(rate));
        } else {
            svg += QStringLiteral("<text class=\"failed\" x=\"%1\" y=\"%2\" text-anchor=\"middle\">×<title>%3: failed "
                                  "(%4)</title></text>")
                       .arg(num(x + barWidth / 2, 2), num(y(0) - 4), esc(result.clip.id), esc(result.error));
        }
        if (labels) {
            const QString id = result.clip.id.size() > 14 ? result.clip.id.left(13) + u'…' : result.clip.id;
            svg += QStringLiteral("<text class=\"axis\" transform=\"translate(%1 %2) rotate(-40)\" "
                                  "text-anchor=\"end\">%3</text>")
                       .arg(num(x + barWidth / 2 + 4, 2), num(y(0) + 14), esc(id));
        }
    }
    svg += QStringLiteral("<line class=\"overall\" x1=\"%1\" x2=\"%2\" y1=\"%3\" y2=\"%3\"/>"
                          "<text class=\"overall-label\" x=\"%2\" y=\"%4\" text-anchor=\"end\">overall %5</text>")
               .arg(left)
               .arg(chartWidth - right)
               .arg(num(y(overall)))
               .arg(num(y(overall) - 5))
               .arg(percent(overall));
    svg += QStringLiteral("<line class=\"baseline\" x1=\"%1\" x2=\"%2\" y1=\"%3\" y2=\"%3\"/>")
               .arg(left)
               .arg(chartWidth - right)
               .arg(num(y(0)));
    if (!labels)
        svg += QStringLiteral("<text class=\"axis\" x=\"%1\" y=\"%2\" text-anchor=\"middle\">clips in manifest "
                              "order</text>")
                   .arg(left + plotWidth / 2)
                   .arg(num(y(0) + 22));
    return svg + QStringLiteral("</svg>");
}

QString latencyChart(const QList<ClipResult> &results, const BenchmarkSummary &summary) {
    QList<double> latencies;
    for (const ClipResult &result : results) {
        if (result.scored() && result.latencyMs)
            latencies.append(*result.latencyMs);
    }
    if (latencies.isEmpty())
        return QStringLiteral("<p class=\"empty\">No clip was scored, so there is no latency to show.</p>");
    const double bottom = 44;
    const double plotWidth = chartWidth - left - right;
    const double plotHeight = chartHeight - top - bottom;
    const double highest = *std::max_element(latencies.begin(), latencies.end());
    const auto bins = std::clamp<qsizetype>(qsizetype(std::ceil(std::sqrt(double(latencies.size())))) * 2, 8, 40);
    const double xStep = niceStep(std::max(highest, 1.0) / 5);
    const double xMax = std::max(xStep, std::ceil(highest / xStep + 1e-9) * xStep);
    const double binWidth = xMax / double(bins);
    QList<qsizetype> counts(bins, 0);
    for (double latency : latencies)
        ++counts[std::min<qsizetype>(bins - 1, qsizetype(latency / binWidth))];
    const qsizetype most = *std::max_element(counts.begin(), counts.end());
    const double yStep = std::max(1.0, niceStep(double(most) / 4));
    // One step of headroom above the tallest bin keeps the percentile labels off the bars.
    const double yMax = (std::floor(double(most) / yStep) + 1) * yStep;
    const auto x = [&](double value) { return left + plotWidth * value / xMax; };
    const auto y = [&](double count) { return top + plotHeight * (1 - count / yMax); };

    QString svg = chartWithGrid(QStringLiteral("Latency distribution"), yMax, yStep, y,
                                [](double tick) { return QString::number(tick); });
    for (double tick = 0; tick <= xMax + 1e-9; tick += xStep) {
        svg += QStringLiteral("<text class=\"axis\" x=\"%1\" y=\"%2\" text-anchor=\"middle\">%3</text>")
                   .arg(num(x(tick)), num(y(0) + 16), QString::number(tick));
    }
    svg += QStringLiteral("<text class=\"axis\" x=\"%1\" y=\"%2\" text-anchor=\"middle\">latency (ms), clips per "
                          "bin</text>")
               .arg(num(left + plotWidth / 2), num(y(0) + 36));
    for (qsizetype i = 0; i < bins; ++i) {
        if (counts[i] == 0)
            continue;
        const double from = binWidth * double(i);
        svg += QStringLiteral("<rect class=\"bin\" x=\"%1\" y=\"%2\" width=\"%3\" height=\"%4\"><title>%5–%6 ms: %7 "
                              "clips</title></rect>")
                   .arg(num(x(from) + 1, 2), num(y(double(counts[i]))),
                        num(std::max(1.0, x(from + binWidth) - x(from) - 2), 2), num(y(0) - y(double(counts[i]))),
                        num(from, 0), num(from + binWidth, 0))
                   .arg(counts[i]);
    }
    const std::pair<const char *, std::optional<double>> marks[] = {
        {"p50", summary.latencyP50}, {"p90", summary.latencyP90}, {"p99", summary.latencyP99}};
    int row = 0;
    for (const auto &[label, value] : marks) {
        if (!value)
            continue;
        // Labels near the right edge go on the left of their line so they stay inside the chart.
        const bool flip = x(*value) > left + plotWidth * 0.75;
        svg += QStringLiteral("<line class=\"mark\" x1=\"%1\" x2=\"%1\" y1=\"%2\" y2=\"%3\"/>"
                              "<text class=\"mark-label\" x=\"%4\" y=\"%5\" text-anchor=\"%6\">%7 %8</text>")
                   .arg(num(x(*value), 2), num(top), num(y(0)), num(x(*value) + (flip ? -4 : 4), 2),
                        num(top + 12 + 14 * row), flip ? QStringLiteral("end") : QStringLiteral("start"),
                        QString::fromLatin1(label), ms(value));
        ++row;
    }
    svg += QStringLiteral("<line class=\"baseline\" x1=\"%1\" x2=\"%2\" y1=\"%3\" y2=\"%3\"/>")
               .arg(left)
               .arg(chartWidth - right)
               .arg(num(y(0)));
    return svg + QStringLiteral("</svg>");
}

QString card(const QString &label, const QString &value, const QString &detail) {
    return QStringLiteral("<div class=\"card\"><div class=\"label\">%1</div><div class=\"value\">%2</div>"
                          "<div class=\"detail\">%3</div></div>")
        .arg(esc(label), esc(value), esc(detail));
}

QString row(const QString &label, const QString &value) {
    return QStringLiteral("<tr><th>%1</th><td>%2</td></tr>").arg(esc(label), esc(value));
}

const char *style = R"(
body { font: 15px/1.45 system-ui, -apple-system, "Segoe UI", sans-serif; color: #1d2125; background: #f6f7f9;
       margin: 0; padding: 24px 32px 48px; }
main { max-width: 1000px; margin: 0 auto; }
h1 { font-size: 26px; margin: 0 0 4px; }
h2 { font-size: 18px; margin: 32px 0 8px; }
.sub { color: #5c636a; margin: 0 0 20px; }
.cards { display: flex; flex-wrap: wrap; gap: 12px; }
.card { background: #fff; border: 1px solid #dde1e6; border-radius: 8px; padding: 12px 16px; min-width: 120px; flex: 1 1 0; }
.card .label { color: #5c636a; font-size: 13px; text-transform: uppercase; letter-spacing: .04em; }
.card .value { font-size: 26px; font-weight: 600; }
.card .detail { color: #5c636a; font-size: 13px; }
.panel { background: #fff; border: 1px solid #dde1e6; border-radius: 8px; padding: 12px; }
table { border-collapse: collapse; width: 100%; background: #fff; }
th, td { text-align: left; padding: 5px 10px; border-bottom: 1px solid #e9ecef; vertical-align: top; }
table.figures th { width: 200px; color: #5c636a; font-weight: 500; }
table.clips { font-size: 13px; }
table.clips td.n { text-align: right; white-space: nowrap; font-variant-numeric: tabular-nums; }
tr.failed td { background: #fff5f5; }
.error { color: #c92a2a; }
.chart { width: 100%; height: auto; display: block; }
.chart .grid { stroke: #e9ecef; }
.chart .baseline { stroke: #868e96; }
.chart .axis { font-size: 11px; fill: #5c636a; }
.chart .overall { stroke: #1c7ed6; stroke-dasharray: 6 4; stroke-width: 1.5; }
.chart .overall-label { font-size: 12px; fill: #1c7ed6; }
.chart .failed { font-size: 16px; fill: #868e96; }
.chart .bin { fill: #4c6ef5; }
.chart .mark { stroke: #e8590c; stroke-width: 1.5; stroke-dasharray: 4 3; }
.chart .mark-label, .chart .overall-label { paint-order: stroke; stroke: #fff; stroke-width: 3px; }
.chart .mark-label { font-size: 12px; fill: #e8590c; }
.legend { color: #5c636a; font-size: 13px; margin: 6px 0 0; }
.legend span { display: inline-block; width: 10px; height: 10px; margin: 0 4px 0 12px; }
footer { color: #5c636a; font-size: 13px; margin-top: 32px; }
)";

} // namespace

QByteArray render(const BenchmarkManifest &manifest, const BenchmarkRunInfo &run, const BenchmarkSummary &summary,
                  const QList<ClipResult> &results) {
    const SpeechBenchmarkMetrics::Score &total = summary.total;
    const QString engine = run.engineName + (run.endpoint ? QStringLiteral(" at ") + *run.endpoint : QString());
    QString html =
        QStringLiteral("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                       "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
                       "'unsafe-inline'\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
                       "<title>%1 · %2 · Quorvane benchmark</title>\n<style>%3</style></head>\n<body><main>\n")
            .arg(esc(manifest.name), esc(run.engineName), QString::fromUtf8(style));
    html += QStringLiteral("<h1>Speech benchmark: %1</h1>\n<p class=\"sub\">%2 · locale %3 · %4%5</p>\n")
                .arg(esc(manifest.name), esc(engine), esc(run.locale), esc(run.startedAt),
                     run.commit ? QStringLiteral(" · commit ") + esc(*run.commit) : QString());

    html += QStringLiteral("<div class=\"cards\">");
    html += card(QStringLiteral("Word error rate"), percent(total.wordErrorRate),
                 QStringLiteral("%1 errors in %2 words").arg(total.wordEdits.total()).arg(total.referenceWords));
    html += card(
        QStringLiteral("Character error rate"), percent(total.characterErrorRate),
        QStringLiteral("%1 errors in %2 characters").arg(total.characterEdits.total()).arg(total.referenceCharacters));
    html += card(QStringLiteral("Latency p50"), ms(summary.latencyP50),
                 QStringLiteral("p90 %1 · max %2").arg(ms(summary.latencyP90), ms(summary.latencyMax)));
    html += card(QStringLiteral("Real-time factor"),
                 summary.meanRealTimeFactor ? num(*summary.meanRealTimeFactor, 3) : QStringLiteral("–"),
                 QStringLiteral("mean; below 1 is faster than real time"));
    html += card(QStringLiteral("Clips"), QStringLiteral("%1 / %2").arg(summary.scored).arg(results.size()),
                 summary.failed > 0 ? QStringLiteral("%1 failed").arg(summary.failed) : QStringLiteral("all scored"));
    html += QStringLiteral("</div>\n");

    html += QStringLiteral("<h2>Summary</h2>\n<table class=\"figures\">");
    html += row(QStringLiteral("Word error rate"),
                QStringLiteral("%1 — %2 substitutions, %3 insertions, %4 deletions in %5 reference words "
                               "(%6 hypothesis words)")
                    .arg(percent(total.wordErrorRate))
                    .arg(total.wordEdits.substitutions)
                    .arg(total.wordEdits.insertions)
                    .arg(total.wordEdits.deletions)
                    .arg(total.referenceWords)
                    .arg(total.hypothesisWords));
    html += row(QStringLiteral("Character error rate"),
                QStringLiteral("%1 — %2 substitutions, %3 insertions, %4 deletions in %5 reference characters")
                    .arg(percent(total.characterErrorRate))
                    .arg(total.characterEdits.substitutions)
                    .arg(total.characterEdits.insertions)
                    .arg(total.characterEdits.deletions)
                    .arg(total.referenceCharacters));
    html += row(QStringLiteral("Latency"),
                QStringLiteral("p50 %1 · p90 %2 · p95 %3 · p99 %4 · max %5 · mean %6")
                    .arg(ms(summary.latencyP50), ms(summary.latencyP90), ms(summary.latencyP95), ms(summary.latencyP99),
                         ms(summary.latencyMax), ms(summary.latencyMean)));
    html += row(QStringLiteral("Mean real-time factor"),
                summary.meanRealTimeFactor ? num(*summary.meanRealTimeFactor, 4) : QStringLiteral("–"));
    html += row(QStringLiteral("Audio scored"), num(summary.audioSeconds, 1) + QStringLiteral(" s"));
    html +=
        row(QStringLiteral("Clips"),
            QStringLiteral("%1 scored, %2 failed, %3 warm-up").arg(summary.scored).arg(summary.failed).arg(run.warmup));
    html += row(QStringLiteral("Engine"), engine);
    html += row(QStringLiteral("Normalisation"), SpeechBenchmarkMetrics::normalizationRule);
    html += QStringLiteral("</table>\n");

    html += QStringLiteral("<h2>Word error rate per clip</h2>\n<div class=\"panel\">") +
            werChart(results, total.wordErrorRate) +
            QStringLiteral("<p class=\"legend\"><span style=\"background:#2f9e44\"></span>below 10 %"
                           "<span style=\"background:#f08c00\"></span>10–30 %"
                           "<span style=\"background:#e03131\"></span>30 % or more · × failed</p></div>\n");
    html += QStringLiteral("<h2>Latency distribution</h2>\n<div class=\"panel\">") + latencyChart(results, summary) +
            QStringLiteral("</div>\n");

    html += QStringLiteral("<h2>Clips</h2>\n<table class=\"clips\"><tr><th>Clip</th><th>Audio</th><th>Latency</th>"
                           "<th>RTF</th><th>WER</th><th>CER</th><th>Reference / hypothesis</th></tr>\n");
    for (const ClipResult &result : results) {
        const auto rtf = result.realTimeFactor();
        QString text = esc(result.clip.reference) + QStringLiteral("<br>");
        text += result.scored() ? QStringLiteral("<i>%1</i>").arg(esc(result.hypothesis))
                                : QStringLiteral("<span class=\"error\">failed: %1</span>").arg(esc(result.error));
        html += QStringLiteral("<tr%1><td>%2</td><td class=\"n\">%3</td><td class=\"n\">%4</td><td class=\"n\">%5</td>"
                               "<td class=\"n\">%6</td><td class=\"n\">%7</td><td>%8</td></tr>\n")
                    .arg(result.scored() ? QString() : QStringLiteral(" class=\"failed\""), esc(result.clip.id),
                         result.durationSeconds > 0 ? num(result.durationSeconds, 2) + QStringLiteral(" s")
                                                    : QStringLiteral("–"),
                         ms(result.latencyMs), rtf ? num(*rtf, 3) : QStringLiteral("–"),
                         result.score ? percent(result.score->wordErrorRate) : QStringLiteral("–"),
                         result.score ? percent(result.score->characterErrorRate) : QStringLiteral("–"), text);
    }
    html += QStringLiteral("</table>\n");

    html += QStringLiteral("<h2>Dataset</h2>\n<table class=\"figures\">");
    html += row(QStringLiteral("Name"), manifest.name);
    html += row(QStringLiteral("Manifest"), manifest.path);
    for (const char *key : {"source", "license", "url", "notes"}) {
        const QString value = manifest.provenance.value(QLatin1String(key)).toString();
        QString label = QString::fromLatin1(key);
        label[0] = label[0].toUpper();
        html += row(label, value.isEmpty() ? QStringLiteral("not given") : value);
    }
    html += QStringLiteral("</table>\n");
    html += QStringLiteral("<footer>quorvane %1 · the figures are also in summary.json and clips.csv beside this "
                           "page.</footer>\n</main></body></html>\n")
                .arg(esc(run.version));
    return html.toUtf8();
}

} // namespace BenchmarkHtmlReport
