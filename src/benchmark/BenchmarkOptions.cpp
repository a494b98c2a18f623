#include "benchmark/BenchmarkOptions.h"

#include "core/LocalServiceEndpoint.h"

#include <QUrl>

namespace {

qsizetype count(const QString &option, const QString &value, qsizetype minimum) {
    bool ok = false;
    const qlonglong parsed = value.toLongLong(&ok);
    if (!ok || parsed < minimum)
        throw BenchmarkOptions::UsageError(
            QStringLiteral("%1 needs a whole number of at least %2, not \"%3\".").arg(option).arg(minimum).arg(value));
    return qsizetype(parsed);
}

} // namespace

BenchmarkOptions BenchmarkOptions::parse(const QStringList &arguments) {
    BenchmarkOptions options;
    std::optional<QString> manifest;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments[i];
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            options.help = true;
            continue;
        }
        if (!argument.startsWith(QLatin1String("--")) || argument == QLatin1String("--")) {
            if (manifest)
                throw UsageError(QStringLiteral("Only one manifest can be given; \"%1\" is extra.").arg(argument));
            manifest = argument;
            continue;
        }
        QString name = argument;
        std::optional<QString> inlineValue;
        if (const qsizetype equals = argument.indexOf(u'='); equals > 0) {
            name = argument.left(equals);
            inlineValue = argument.mid(equals + 1);
        }
        static const QStringList known = {QStringLiteral("--engine"), QStringLiteral("--endpoint"),
                                          QStringLiteral("--locale"), QStringLiteral("--limit"),
                                          QStringLiteral("--warmup"), QStringLiteral("--out")};
        if (!known.contains(name))
            throw UsageError(QStringLiteral("Unknown option %1.").arg(name));
        QString value;
        if (inlineValue) {
            value = *inlineValue;
        } else {
            if (i + 1 >= arguments.size())
                throw UsageError(QStringLiteral("%1 needs a value.").arg(name));
            value = arguments[++i];
        }

        if (name == QLatin1String("--engine")) {
            if (value == QLatin1String("whisper"))
                options.engine = Engine::whisper;
            else if (value == QLatin1String("native"))
                options.engine = Engine::native;
            else
                throw UsageError(QStringLiteral("--engine is whisper or native, not \"%1\".").arg(value));
        } else if (name == QLatin1String("--endpoint")) {
            const QUrl url(value, QUrl::StrictMode);
            if (!url.isValid() || url.host().isEmpty())
                throw UsageError(
                    QStringLiteral("--endpoint \"%1\" is not a URL such as http://127.0.0.1:8080.").arg(value));
            if (url.scheme().compare(QLatin1String("https"), Qt::CaseInsensitive) == 0)
                throw UsageError(
                    QStringLiteral("--endpoint %1: local speech servers are reached over plain http only.").arg(value));
            // Recordings and transcripts never leave the machine.
            if (!LocalServiceEndpoint::isAllowed(url))
                throw UsageError(QStringLiteral("--endpoint %1 is not on this machine: the benchmark only talks to a "
                                                "speech server on the loopback interface (http://127.0.0.1, "
                                                "http://localhost or http://[::1]), so recordings never leave it.")
                                     .arg(value));
            options.endpoint = value;
        } else if (name == QLatin1String("--locale")) {
            if (value.trimmed().isEmpty())
                throw UsageError(QStringLiteral("--locale needs a locale such as en-US."));
            options.locale = value.trimmed();
        } else if (name == QLatin1String("--limit")) {
            options.limit = count(name, value, 1);
        } else if (name == QLatin1String("--warmup")) {
            options.warmup = count(name, value, 0);
        } else if (name == QLatin1String("--out")) {
            if (value.isEmpty())
                throw UsageError(QStringLiteral("--out needs a folder."));
            options.outputDirectory = value;
        }
    }
    if (options.help)
        return options;
    if (!manifest)
        throw UsageError(QStringLiteral("No manifest given: name the manifest (.json) of the clips to score."));
    if (options.endpoint && options.engine == Engine::native)
        throw UsageError(QStringLiteral("--endpoint applies to the whisper engine only, not to --engine native."));
    options.manifestPath = *manifest;
    return options;
}

QString BenchmarkOptions::usage() {
    return QStringLiteral(
        "Usage: quorvane benchmark <manifest.json> [options]\n"
        "\n"
        "Transcribes every clip of the manifest with a speech engine on this machine and scores it\n"
        "against its reference text: word and character error rates, latency and real-time factor.\n"
        "\n"
        "Options:\n"
        "  --engine whisper|native  the engine to measure (default: the one chosen in the settings;\n"
        "                           giving --endpoint means whisper)\n"
        "  --endpoint URL           the whisper.cpp server, on the loopback interface only\n"
        "                           (default: the one in the settings, http://127.0.0.1:8080)\n"
        "  --locale ID              locale of clips that do not name their own\n"
        "                           (default: the manifest's, then the settings')\n"
        "  --limit N                score only the first N clips\n"
        "  --warmup N               first run N clips unscored, so model loading is not timed (default 0)\n"
        "  --out DIR                where to write clips.csv, summary.json and report.html\n"
        "                           (default: a new timestamped folder next to the manifest)\n"
        "  --help                   show this text\n"
        "\n"
        "Manifest: {\"name\": ..., \"provenance\": {\"source\", \"license\", \"url\", \"notes\"}, \"locale\": "
        "\"en-US\",\n"
        "           \"clips\": [{\"id\": ..., \"audio\": \"clip.wav\", \"reference\": \"...\", \"locale\": "
        "optional}]}\n"
        "Audio paths are relative to the manifest's folder; clips are 16-bit PCM WAV files.\n"
        "\n"
        "Exit status: 0 every clip scored, 1 some clips failed, 2 the command line or the manifest is wrong.\n");
}
