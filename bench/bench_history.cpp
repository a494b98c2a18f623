// Prints what the history store costs on every dictation with a full history: the caller's share of
// `append`, the queued write it triggers, and `recentTranscripts(5)`.
#include "history/Store.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QUuid>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

Utterance makeUtterance(int serial, int textLength) {
    Utterance u;
    u.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    u.timestamp = QDateTime::currentDateTimeUtc();
    u.appBundleID = QStringLiteral("com.example.editor");
    u.appName = QStringLiteral("Editor");
    const QString text = QStringLiteral("Dictation %1 ").arg(serial).leftJustified(textLength, QLatin1Char('x'));
    u.rawTranscript = text;
    u.formattedText = text;
    u.shippedText = text;
    u.guardVerdict = QStringLiteral("accepted");
    u.engine = QStringLiteral("whisper");
    u.formatter = QStringLiteral("ollama");
    u.asrMS = 412;
    u.formatMS = 880;
    u.responseMS = 1350;
    return u;
}

QByteArray lineOf(const Utterance &u) {
    return QJsonDocument(u.toJson()).toJson(QJsonDocument::Compact) + '\n';
}

struct Stats {
    double median;
    double p95;
    double max;
};

Stats summarize(std::vector<double> samples) {
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[samples.size() * 95 / 100], samples.back()};
}

void print(const char *what, const Stats &s) {
    std::printf("  %-44s median %9.3f ms   p95 %9.3f ms   max %9.3f ms\n", what, s.median, s.p95, s.max);
}

void run(const char *title, int entries, int textLength, int rounds) {
    QTemporaryDir dir;
    const RetentionLimits limits;
    {
        QFile file(dir.path() + QStringLiteral("/history.jsonl"));
        (void)file.open(QIODevice::WriteOnly);
        for (int i = 0; i < entries; ++i)
            file.write(lineOf(makeUtterance(i, textLength)));
        std::printf("%s: %d entries, %.2f MiB\n", title, entries, static_cast<double>(file.size()) / 1048576.0);
    }
    Store store(dir.path(), limits);
    (void)store.totalCount(); // the one-time index read is not part of a dictation
    std::vector<double> caller, written, recent;
    QElapsedTimer timer;
    for (int i = 0; i < rounds; ++i) {
        const Utterance u = makeUtterance(entries + i, textLength);
        timer.start();
        store.append(u);
        caller.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        store.drain();
        written.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        timer.start();
        const QStringList texts = store.recentTranscripts(5);
        recent.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        if (texts.size() != 5)
            std::printf("  unexpected: %lld recent transcripts\n", static_cast<long long>(texts.size()));
    }
    print("append (caller, main thread)", summarize(caller));
    print("append until written (store queue)", summarize(written));
    print("recentTranscripts(5)", summarize(recent));
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::max(20, QString::fromLocal8Bit(argv[1]).toInt()) : 200;
    // ~4.2 KB lines, longer than a page of the file: both ceilings are reached together.
    run("Full history (2000 entries, 8 MiB)", 2000, 1290, rounds);
    // Typical dictations: the entry ceiling binds first.
    run("Full history of short dictations", 2000, 120, rounds);
    // Below the ceilings every append is a single write at the end of the file.
    run("Half-full history of short dictations", 1000, 120, rounds);
    return 0;
}
