#include "LogRecorder.h"
#include "QuorvaneProcess.h"
#include "benchmark/SpeechBenchmarkMetrics.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "platform/linux/PocketSphinxEngine.h"
#include "speech/AudioFeed.h"
#include "speech/LinearAudioResampler.h"
#include "speech/WavDecoder.h"

#include <QFile>
#include <QHash>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>
#include <random>

namespace {

// Read speech with reference transcripts, shipped by Debian's pocketsphinx-testdata.
const QString kLibrivox = QStringLiteral("/usr/share/pocketsphinx/test/data/librivox/");

struct Clip {
    std::vector<float> samples;
    double sampleRate = 0;
    QString reference;
};

WavDecoder::Decoded readWav(const QString &path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("missing %s: install pocketsphinx-testdata", qPrintable(path));
    return WavDecoder::decode(file.readAll());
}

Clip librivox(const QString &id) {
    QFile transcription(kLibrivox + QStringLiteral("transcription"));
    if (!transcription.open(QIODevice::ReadOnly))
        qFatal("missing the librivox transcription: install pocketsphinx-testdata");
    // "<s> words </s> (id)"
    static const QRegularExpression line(QStringLiteral("^<s>(.*)</s>\\s*\\((.+)\\)$"));
    Clip clip;
    for (const QByteArray &text : transcription.readAll().split('\n')) {
        const auto match = line.match(QString::fromUtf8(text).trimmed());
        if (match.hasMatch() && match.captured(2) == id)
            clip.reference = match.captured(1).trimmed();
    }
    WavDecoder::Decoded audio = readWav(kLibrivox + id + QStringLiteral(".wav"));
    clip.samples = std::move(audio.samples);
    clip.sampleRate = audio.sampleRate;
    return clip;
}

// 16-bit PCM with every channel carrying the same signal.
QByteArray multichannelWav(const std::vector<float> &samples, quint32 rate, quint16 channels) {
    const quint32 dataSize = quint32(samples.size()) * channels * 2;
    QByteArray wav(44, '\0');
    char *h = wav.data();
    std::memcpy(h, "RIFF", 4);
    qToLittleEndian<quint32>(36 + dataSize, h + 4);
    std::memcpy(h + 8, "WAVEfmt ", 8);
    qToLittleEndian<quint32>(16, h + 16);
    qToLittleEndian<quint16>(1, h + 20);
    qToLittleEndian<quint16>(channels, h + 22);
    qToLittleEndian<quint32>(rate, h + 24);
    qToLittleEndian<quint32>(rate * channels * 2, h + 28);
    qToLittleEndian<quint16>(channels * 2, h + 32);
    qToLittleEndian<quint16>(16, h + 34);
    std::memcpy(h + 36, "data", 4);
    qToLittleEndian<quint32>(dataSize, h + 40);
    for (float x : samples) {
        const qint16 value = qint16(std::clamp(x * 32768.0f, -32768.0f, 32767.0f));
        for (quint16 c = 0; c < channels; ++c) {
            char bytes[2];
            qToLittleEndian<qint16>(value, bytes);
            wav.append(bytes, 2);
        }
    }
    return wav;
}

QString transcribe(PocketSphinxEngine &engine, const std::vector<float> &samples, const QStringList &hints = {}) {
    syncWait(engine.beginUtterance(hints));
    feedInChunks(engine, samples, 16000);
    return syncWait(engine.finishUtterance());
}

double wer(const QString &reference, const QString &hypothesis) {
    return SpeechBenchmarkMetrics::score(reference, hypothesis).wordErrorRate;
}

// Clips one after another with `pauseSeconds` of quiet room noise between them (a microphone never
// delivers digital zeros).
std::vector<float> withPauses(const QList<Clip> &clips, double pauseSeconds) {
    std::minstd_rand noise(7);
    std::uniform_real_distribution<float> level(-0.001f, 0.001f);
    std::vector<float> samples;
    for (const Clip &clip : clips) {
        if (!samples.empty())
            for (int i = 0; i < int(pauseSeconds * 16000); ++i)
                samples.push_back(level(noise));
        samples.insert(samples.end(), clip.samples.begin(), clip.samples.end());
    }
    return samples;
}

std::vector<float> firstPart(const std::vector<float> &samples, double fraction) {
    return {samples.begin(), samples.begin() + std::ptrdiff_t(double(samples.size()) * fraction)};
}

} // namespace

class TestPocketSphinxEngine : public QObject {
    Q_OBJECT

    LogRecorder m_log;
    // Loaded once: the model takes a second or so.
    std::unique_ptr<PocketSphinxEngine> m_engine;
    // What a newly loaded engine makes of the clip the carry-over cases end with.
    QString m_firstUtterance;

private slots:
    void initTestCase() {
        m_engine = std::make_unique<PocketSphinxEngine>(QStringLiteral("en-US"));
        syncWait(m_engine->prepare());
    }

    void recognisesRecordedSpeech_data() {
        QTest::addColumn<QString>("id");
        QTest::addColumn<double>("maxWer");
        QTest::newRow("he was not an ill disposed")
            << QStringLiteral("sense_and_sensibility_01_austen_64kb-0880") << 0.4;
        QTest::newRow("rather cold hearted") << QStringLiteral("sense_and_sensibility_01_austen_64kb-0890") << 0.4;
        QTest::newRow("a more amiable woman") << QStringLiteral("sense_and_sensibility_01_austen_64kb-0920") << 0.4;
    }
    void recognisesRecordedSpeech() {
        QFETCH(QString, id);
        QFETCH(double, maxWer);
        const Clip clip = librivox(id);
        const QString text = transcribe(*m_engine, clip.samples);
        QVERIFY2(wer(clip.reference, text) <= maxWer, qPrintable(text));
    }

    // A pause ends a stretch while the user still speaks, so what the release waits for is at most the
    // last sentence and the pause before it, however many sentences came first.
    void theReleaseDecodesOnlyWhatFollowsTheLastPause_data() {
        QTest::addColumn<QStringList>("ids");
        const QString a = QStringLiteral("sense_and_sensibility_01_austen_64kb-0880");
        const QString b = QStringLiteral("sense_and_sensibility_01_austen_64kb-0890");
        const QString c = QStringLiteral("sense_and_sensibility_01_austen_64kb-0920");
        QTest::newRow("two sentences") << QStringList{a, b};
        QTest::newRow("three sentences") << QStringList{a, b, c};
        QTest::newRow("three sentences, long one first") << QStringList{c, b, a};
    }
    void theReleaseDecodesOnlyWhatFollowsTheLastPause() {
        QFETCH(QStringList, ids);
        constexpr double pause = 1.0;
        QList<Clip> clips;
        QStringList references;
        for (const QString &id : ids) {
            clips.append(librivox(id));
            references.append(clips.last().reference);
        }
        const QString text = transcribe(*m_engine, withPauses(clips, pause));
        const double lastSentence = double(clips.last().samples.size()) / 16000;
        QVERIFY2(m_engine->lastStretchSeconds() > 0, "nothing left at release");
        QVERIFY2(m_engine->lastStretchSeconds() <= lastSentence + pause,
                 qPrintable(QString::number(m_engine->lastStretchSeconds())));
        QVERIFY2(wer(references.join(QLatin1Char(' ')), text) <= 0.4, qPrintable(text));
    }

    // However the audio is cut, the decoder sees the same stream.
    void chunkingDoesNotChangeTheWords_data() {
        QTest::addColumn<int>("chunkSamples");
        QTest::newRow("one chunk for the whole clip") << 0;
        QTest::newRow("10 ms chunks") << 160;
        QTest::newRow("odd-sized chunks") << 999;
    }
    void chunkingDoesNotChangeTheWords() {
        QFETCH(int, chunkSamples);
        const Clip clip = librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0930"));
        const QString streamed = transcribe(*m_engine, clip.samples);
        syncWait(m_engine->beginUtterance({}));
        const std::size_t step = chunkSamples > 0 ? std::size_t(chunkSamples) : clip.samples.size();
        for (std::size_t start = 0; start < clip.samples.size(); start += step) {
            const std::size_t end = std::min(clip.samples.size(), start + step);
            m_engine->append(AudioChunk{
                {clip.samples.begin() + std::ptrdiff_t(start), clip.samples.begin() + std::ptrdiff_t(end)}, 16000});
        }
        QCOMPARE(syncWait(m_engine->finishUtterance()), streamed);
        QVERIFY(!streamed.isEmpty());
    }

    // Whatever happened to the utterance before, the next one is decoded as if it were the first.
    void nothingCarriesOverToTheNextUtterance_data() {
        QTest::addColumn<QString>("before");
        QTest::newRow("cancelled half-way") << QStringLiteral("cancel");
        QTest::newRow("finished") << QStringLiteral("finish");
        QTest::newRow("audio appended after finishing") << QStringLiteral("late audio");
        QTest::newRow("begun again without finishing") << QStringLiteral("abandon");
    }
    void nothingCarriesOverToTheNextUtterance() {
        QFETCH(QString, before);
        const Clip other = librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0890"));
        const Clip clip = librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0880"));
        if (m_firstUtterance.isEmpty()) {
            PocketSphinxEngine fresh(QStringLiteral("en-US"));
            syncWait(fresh.prepare());
            m_firstUtterance = transcribe(fresh, clip.samples);
        }
        syncWait(m_engine->beginUtterance({}));
        feedInChunks(*m_engine, firstPart(other.samples, 0.5), 16000);
        if (before == QLatin1String("cancel"))
            syncWait(m_engine->cancelUtterance());
        if (before == QLatin1String("finish") || before == QLatin1String("late audio"))
            syncWait(m_engine->finishUtterance());
        if (before == QLatin1String("late audio"))
            feedInChunks(*m_engine, firstPart(other.samples, 0.3), 16000);
        QCOMPARE(transcribe(*m_engine, clip.samples), m_firstUtterance);
    }

    void finishingWithoutAudioGivesNothing() { QCOMPARE(transcribe(*m_engine, {}), QString()); }

    // Capture and files come at other rates and channel counts; the resampler brings them to 16 kHz.
    void otherRatesArriveThroughTheResampler_data() {
        QTest::addColumn<int>("rate");
        QTest::addColumn<int>("channels");
        QTest::addColumn<double>("maxWer");
        QTest::newRow("8 kHz mono") << 8000 << 1 << 0.5;
        QTest::newRow("48 kHz stereo") << 48000 << 2 << 0.4;
    }
    void otherRatesArriveThroughTheResampler() {
        QFETCH(int, rate);
        QFETCH(int, channels);
        QFETCH(double, maxWer);
        const Clip clip = librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0920"));
        const QByteArray wav = multichannelWav(LinearAudioResampler::resample(clip.samples, 16000, rate), quint32(rate),
                                               quint16(channels));
        const WavDecoder::Decoded decoded = WavDecoder::decode(wav);
        QCOMPARE(decoded.sampleRate, double(rate));
        const QString text = transcribe(*m_engine, LinearAudioResampler::resample(decoded.samples, rate, 16000));
        QVERIFY2(wer(clip.reference, text) <= maxWer, qPrintable(text));
    }

    // A phrase the decoder heard as a runner-up wins; one it never considered changes nothing.
    void hintsPickAmongTheAlternatives_data() {
        QTest::addColumn<QStringList>("hints");
        // Empty: the transcript stays what it is without hints.
        QTest::addColumn<QString>("phraseChosen");
        // Another sentence follows the clip after a pause, so the choice is made in a stretch that
        // closes while audio still arrives.
        QTest::addColumn<bool>("afterAPause");
        QTest::newRow("runner-up phrase")
            << QStringList{QStringLiteral("illness goes")} << QStringLiteral("illness goes") << false;
        QTest::newRow("runner-up phrase after a pause")
            << QStringList{QStringLiteral("illness goes")} << QStringLiteral("illness goes") << true;
        QTest::newRow("single word is too weak") << QStringList{QStringLiteral("goes")} << QString() << false;
        QTest::newRow("phrase never heard") << QStringList{QStringLiteral("ill disposed")} << QString() << false;
    }
    void hintsPickAmongTheAlternatives() {
        QFETCH(QStringList, hints);
        QFETCH(QString, phraseChosen);
        QFETCH(bool, afterAPause);
        const Clip clip = librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0880"));
        const std::vector<float> audio =
            afterAPause ? withPauses({clip, librivox(QStringLiteral("sense_and_sensibility_01_austen_64kb-0920"))}, 1.0)
                        : clip.samples;
        const QString plain = transcribe(*m_engine, audio);
        const QString hinted = transcribe(*m_engine, audio, hints);
        if (phraseChosen.isEmpty()) {
            QCOMPARE(hinted, plain);
            return;
        }
        QVERIFY2(!plain.contains(phraseChosen), qPrintable(plain));
        QVERIFY2(hinted.contains(phraseChosen), qPrintable(hinted));
    }

    // A fresh install with no servers: the default settings dictate with this engine.
    void transcribeWorksWithNothingSetUp() {
        QTemporaryDir home;
        const QString id = QStringLiteral("sense_and_sensibility_01_austen_64kb-0920");
        const QuorvaneRun run =
            runQuorvane(home.path(), {QStringLiteral("transcribe"), kLibrivox + id + QStringLiteral(".wav")});
        QVERIFY2(run.exitCode == 0, qPrintable(run.out + run.err));
        static const QRegularExpression raw(QStringLiteral("raw ASR    : \"(.*)\""));
        const auto match = raw.match(run.out);
        QVERIFY2(match.hasMatch(), qPrintable(run.out));
        QVERIFY2(wer(librivox(id).reference, match.captured(1)) <= 0.4, qPrintable(run.out));
    }

    void preparationNamesWhatIsMissing_data() {
        QTest::addColumn<QString>("locale");
        QTest::addColumn<bool>("modelInstalled");
        QTest::addColumn<QuorvaneError::Case>("error");
        QTest::addColumn<QString>("detailContains");
        QTest::newRow("German") << QStringLiteral("de-DE") << true << QuorvaneError::Case::localeUnsupported
                                << QStringLiteral("de-DE");
        QTest::newRow("British English, no model")
            << QStringLiteral("en_GB") << false << QuorvaneError::Case::speechModelUnavailable
            << QStringLiteral("pocketsphinx-en-us");
    }
    void preparationNamesWhatIsMissing() {
        QFETCH(QString, locale);
        QFETCH(bool, modelInstalled);
        QFETCH(QuorvaneError::Case, error);
        QFETCH(QString, detailContains);
        QTemporaryDir empty;
        PocketSphinxEngine engine(locale, modelInstalled ? PocketSphinxEngine::defaultModelDirectory() : empty.path());
        try {
            syncWait(engine.prepare());
            QFAIL("prepared");
        } catch (const QuorvaneError &failure) {
            QCOMPARE(failure.errorCase(), error);
            QVERIFY2(failure.detail().contains(detailContains), qPrintable(failure.detail()));
        }
    }

    void compoundsAreSpelledFromKnownWords_data() {
        QTest::addColumn<QString>("word");
        QTest::addColumn<QString>("phones");
        QTest::newRow("two words") << QStringLiteral("nightwatch") << QStringLiteral("N AY T W AA CH");
        QTest::newRow("fewest pieces win")
            << QStringLiteral("nightwatchman") << QStringLiteral("N AY T W AA CH M AH N");
        QTest::newRow("single letters do not glue") << QStringLiteral("anight") << QString();
        QTest::newRow("unknown sounds") << QStringLiteral("kubectl") << QString();
    }
    void compoundsAreSpelledFromKnownWords() {
        QFETCH(QString, word);
        QFETCH(QString, phones);
        const QHash<QString, QString> dictionary = {
            {QStringLiteral("a"), QStringLiteral("AH")},
            {QStringLiteral("night"), QStringLiteral("N AY T")},
            {QStringLiteral("watch"), QStringLiteral("W AA CH")},
            {QStringLiteral("man"), QStringLiteral("M AE N")},
            {QStringLiteral("watchman"), QStringLiteral("W AA CH M AH N")},
            {QStringLiteral("ni"), QStringLiteral("N IY")},
            {QStringLiteral("ght"), QStringLiteral("G T")},
            {QStringLiteral("wat"), QStringLiteral("W AA T")},
            {QStringLiteral("ch"), QStringLiteral("CH")},
        };
        const auto composed =
            PocketSphinxEngine::composedPronunciation(word, [&](const QString &piece) -> std::optional<QString> {
                return dictionary.contains(piece) ? std::optional(dictionary.value(piece)) : std::nullopt;
            });
        QCOMPARE(composed.value_or(QString()), phones);
    }
};

QTEST_GUILESS_MAIN(TestPocketSphinxEngine)
#include "tst_pocketsphinx_engine.moc"
