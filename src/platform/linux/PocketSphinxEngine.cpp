#include "platform/linux/PocketSphinxEngine.h"

#include "core/HandOver.h"
#include "core/Log.h"
#include "core/QuorvaneError.h"
#include "core/SerialQueue.h"
#include "speech/ContextualAlternativeSelector.h"
#include "speech/RecognitionContextBuilder.h"

#include <QCoro/QCoroFuture>
#include <QDir>
#include <QFileInfo>
#include <QFuture>
#include <QPromise>
#include <QRegularExpression>
#include <QSet>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <mutex>
#include <pocketsphinx.h>
#include <sphinxbase/cmn.h>
#include <sphinxbase/err.h>
#include <sphinxbase/feat.h>
#include <vector>

namespace {

// Distinct word strings; the list repeats hypotheses that differ only in timing.
constexpr int kMaxAlternatives = 50;
constexpr qsizetype kMaxContextualStrings = 40;
// Long enough for real compounds, short enough that the split search stays trivial.
constexpr qsizetype kMaxComposedLength = 32;
// Audio is handed to the decoder in slices cut at fixed offsets from the start of the utterance, and
// the endpointer is read after each, so where a segment ends does not depend on how capture chunks
// the stream. 50 ms is finer than any pause worth cutting at.
constexpr std::size_t kSliceSamples = 800;
constexpr double kSampleRate = 16000;

// The decoder prints its whole configuration and every utterance's statistics; the log is ours.
void silenceDecoderLog() {
    static std::once_flag once;
    std::call_once(once, [] { err_set_logfp(nullptr); });
}

// The inverse of the WAV reader's scale, so 16-bit recordings reach the decoder bit for bit.
std::vector<int16> toPcm(const std::vector<float> &samples) {
    std::vector<int16> pcm(samples.size());
    std::transform(samples.begin(), samples.end(), pcm.begin(), [](float x) {
        const float scaled = std::nearbyint(x * 32768.0f);
        if (!(scaled > -32768.0f))
            return int16(-32768);
        return scaled >= 32767.0f ? int16(32767) : int16(scaled);
    });
    return pcm;
}

// Words only: no sentence marks, fillers or alternate-pronunciation suffixes ("read(2)").
QString cleanHypothesis(const char *hyp) {
    if (!hyp)
        return {};
    QStringList words;
    for (QString word : QString::fromUtf8(hyp).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (word.startsWith(QLatin1Char('<')) || word.startsWith(QLatin1Char('[')) ||
            word.startsWith(QLatin1String("++")))
            continue;
        if (const qsizetype paren = word.indexOf(QLatin1Char('(')); paren > 0)
            word.truncate(paren);
        words.append(word);
    }
    return words.join(QLatin1Char(' '));
}

} // namespace

// Owns the PocketSphinx decoder, which is touched only on its own serial queue. Jobs hold it
// strongly, so an engine dropped mid-utterance leaves its queued work safe to run.
class PocketSphinxEngine::Decoder {
public:
    explicit Decoder(QString modelDirectory) : m_modelDirectory(std::move(modelDirectory)) {}
    ~Decoder() {
        if (m_ps)
            ps_free(m_ps);
        if (m_config)
            cmd_ln_free_r(m_config);
    }

    // Bumped when an utterance begins or is cancelled; audio queued under an older value is stale.
    std::atomic<quint64> generation{0};
    std::atomic<bool> loaded{false};

    // Runs `work` on the decoder thread and resumes the caller on its own thread.
    template <typename T> static QCoro::Task<T> run(std::shared_ptr<Decoder> self, std::function<T(Decoder &)> work) {
        struct Outcome {
            std::optional<T> value;
            std::exception_ptr error;
        };
        auto outcome = std::make_shared<Outcome>();
        auto promise = std::make_shared<QPromise<void>>();
        QFuture<void> done = promise->future();
        promise->start();
        SerialQueue &queue = self->m_queue;
        queue.async([self = std::move(self), outcome, promise, work = std::move(work)] {
            try {
                outcome->value.emplace(work(*self));
            } catch (...) {
                outcome->error = std::current_exception();
            }
            HandOver::sent(outcome.get());
            promise->finish();
        });
        co_await done;
        HandOver::received(outcome.get());
        if (outcome->error)
            std::rethrow_exception(outcome->error);
        co_return std::move(*outcome->value);
    }

    static void post(const std::shared_ptr<Decoder> &self, std::function<void(Decoder &)> work) {
        self->m_queue.async([self, work = std::move(work)] { work(*self); });
    }

    bool load() {
        if (m_ps)
            return true;
        const QDir dir(m_modelDirectory);
        const QString hmm = dir.filePath(QStringLiteral("en-us"));
        const QString lm = dir.filePath(QStringLiteral("en-us.lm.bin"));
        const QString dict = dir.filePath(QStringLiteral("cmudict-en-us.dict"));
        if (!QFileInfo(hmm + QStringLiteral("/mdef")).isFile() || !QFileInfo(lm).isFile() || !QFileInfo(dict).isFile())
            throw QuorvaneError::speechModelUnavailable(QStringLiteral("no English speech model in ") +
                                                        m_modelDirectory +
                                                        QStringLiteral(". Install it with: sudo apt install "
                                                                       "pocketsphinx-en-us"));
        silenceDecoderLog();
        const QByteArray hmmPath = hmm.toLocal8Bit(), lmPath = lm.toLocal8Bit(), dictPath = dict.toLocal8Bit();
        // The flat-lexicon second pass re-decodes a stretch after it ends and wins back a tenth of the
        // words; dropping it costs whole phrases ("he might have been" heard as "in my head that").
        // Bounding word exits and active models per frame cuts the first pass by more than half at no
        // cost in accuracy, so it keeps pace with speech on a busy machine; the narrower second-pass
        // windows cut a quarter of that pass. The endpointer calls 0.2 s of quiet a pause (it keeps
        // 0.5 s by default): cutting there leaves the read test sentences' words as they were.
        m_config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", hmmPath.constData(), "-lm", lmPath.constData(),
                               "-dict", dictPath.constData(), "-maxwpf", "10", "-fwdflatsfwin", "10", "-fwdflatefwid",
                               "8", "-maxhmmpf", "4000", "-vad_postspeech", "20", nullptr);
        m_ps = m_config ? ps_init(m_config) : nullptr;
        if (!m_ps)
            throw QuorvaneError::speechModelUnavailable(QStringLiteral("the PocketSphinx model in ") +
                                                        m_modelDirectory + QStringLiteral(" could not be loaded"));
        const cmn_t *cmn = ps_get_feat(m_ps)->cmn_struct;
        m_initialCmn.assign(cmn->cmn_mean, cmn->cmn_mean + cmn->veclen);
        loaded = true;
        return true;
    }

    void begin(quint64 utterance, const QStringList &hints) {
        endOpenUtterance();
        m_hints = hints;
        m_failure.clear();
        m_segments.clear();
        m_samplesFed = 0;
        m_stretchStart = 0;
        m_segmentHeardSpeech = false;
        lastStretchSeconds = 0;
        teachCompounds(hints);
        // The decoder adapts its channel estimate from utterance to utterance; starting each one from
        // the model's own makes a cancelled or noisy take unable to colour the next.
        cmn_live_set(ps_get_feat(m_ps)->cmn_struct, m_initialCmn.data());
        if (ps_start_utt(m_ps) < 0) {
            m_failure = QStringLiteral("the PocketSphinx decoder could not start an utterance");
            return;
        }
        m_utterance = utterance;
        m_open = true;
    }

    void feed(quint64 utterance, const std::vector<float> &samples) {
        const std::vector<int16> pcm = toPcm(samples);
        std::size_t at = 0;
        while (at < pcm.size()) {
            if (!m_open || utterance != m_utterance || utterance != generation.load())
                return;
            const std::size_t slice =
                std::min(pcm.size() - at, kSliceSamples - std::size_t(m_samplesFed % kSliceSamples));
            if (ps_process_raw(m_ps, pcm.data() + at, slice, FALSE, FALSE) < 0) {
                m_failure = QStringLiteral("the PocketSphinx decoder rejected the audio");
                return;
            }
            at += slice;
            m_samplesFed += slice;
            if (m_samplesFed % kSliceSamples == 0)
                closeSegmentAtPause();
        }
    }

    QString finish() {
        if (!m_open) {
            if (!m_failure.isEmpty())
                throw QuorvaneError::speechModelUnavailable(std::exchange(m_failure, QString()));
            return {};
        }
        m_open = false;
        lastStretchSeconds = double(m_samplesFed - m_stretchStart) / kSampleRate;
        closeSegment();
        if (!m_failure.isEmpty())
            throw QuorvaneError::speechModelUnavailable(std::exchange(m_failure, QString()));
        return std::exchange(m_segments, QStringList()).join(QLatin1Char(' '));
    }

    void cancel() {
        endOpenUtterance();
        m_failure.clear();
    }

    std::optional<QString> lookup(const QString &word) {
        char *phones = ps_lookup_word(m_ps, word.toUtf8().constData());
        if (!phones)
            return std::nullopt;
        const QString result = QString::fromUtf8(phones);
        std::free(phones);
        return result;
    }

    // The audio the latest finished utterance had to decode once it was released.
    std::atomic<double> lastStretchSeconds{0};

private:
    // The second pass re-reads everything since the decoder's utterance began, so a pause ends that
    // utterance: its second pass runs while the user is still speaking and the release waits only
    // for what followed the last pause. The language model loses its context across the pause,
    // which on read sentences, breaths included, changed no word.
    void closeSegmentAtPause() {
        if (ps_get_in_speech(m_ps)) {
            m_segmentHeardSpeech = true;
            return;
        }
        if (!m_segmentHeardSpeech)
            return;
        closeSegment();
        m_stretchStart = m_samplesFed;
        m_segmentHeardSpeech = false;
        if (ps_start_utt(m_ps) < 0) {
            m_open = false;
            m_failure = QStringLiteral("the PocketSphinx decoder could not start an utterance");
        }
    }

    // Hints choose within each segment: the n-best lists of two segments do not combine, and a
    // phrase a hint names is spoken without a pause inside it.
    void closeSegment() {
        ps_end_utt(m_ps);
        const QString primary = cleanHypothesis(ps_get_hyp(m_ps, nullptr));
        if (primary.isEmpty())
            return;
        m_segments.append(m_hints.isEmpty() ? primary
                                            : ContextualAlternativeSelector::choose(primary, alternatives(), m_hints));
    }

    void endOpenUtterance() {
        if (m_open)
            ps_end_utt(m_ps);
        m_open = false;
    }

    QStringList alternatives() {
        QStringList texts;
        ps_nbest_t *nbest = ps_nbest(m_ps);
        // A bound on hypotheses read, not only kept, so a long utterance cannot stall the release.
        for (int read = 0; nbest && texts.size() < kMaxAlternatives && read < 8 * kMaxAlternatives; ++read) {
            const QString text = cleanHypothesis(ps_nbest_hyp(nbest, nullptr));
            if (!texts.contains(text))
                texts.append(text);
            nbest = ps_nbest_next(nbest);
        }
        if (nbest)
            ps_nbest_free(nbest);
        return texts;
    }

    // A hint the dictionary lacks but that is written as known words joined up becomes a word the
    // decoder can produce; a name made of sounds the dictionary has never seen cannot.
    void teachCompounds(const QStringList &hints) {
        QList<std::pair<QString, QString>> learnt;
        for (const QString &hint : hints) {
            const QStringList words =
                RecognitionContextBuilder::normalized(hint).split(QLatin1Char(' '), Qt::SkipEmptyParts);
            for (const QString &word : words) {
                if (m_taught.contains(word) || lookup(word))
                    continue;
                m_taught.insert(word);
                if (auto phones = composedPronunciation(word, [this](const QString &piece) { return lookup(piece); }))
                    learnt.append({word, *phones});
            }
        }
        QStringList added;
        for (qsizetype i = 0; i < learnt.size(); ++i) {
            // The search is rebuilt once, with the last word of the batch: it costs tens of milliseconds.
            const bool last = i + 1 == learnt.size();
            if (ps_add_word(m_ps, learnt[i].first.toUtf8().constData(), learnt[i].second.toUtf8().constData(),
                            last ? TRUE : FALSE) >= 0)
                added.append(learnt[i].first);
        }
        if (!added.isEmpty())
            Log::info(QStringLiteral("PocketSphinx learned ") + added.join(QStringLiteral(", ")));
    }

    const QString m_modelDirectory;
    cmd_ln_t *m_config = nullptr;
    ps_decoder_t *m_ps = nullptr;
    std::vector<mfcc_t> m_initialCmn;
    bool m_open = false;
    quint64 m_utterance = 0;
    QStringList m_hints;
    QString m_failure;
    // Texts of the segments closed so far, in order.
    QStringList m_segments;
    quint64 m_samplesFed = 0;
    // Where the decoder's current utterance began, in samples since the user's began.
    quint64 m_stretchStart = 0;
    bool m_segmentHeardSpeech = false;
    // Words already tried, learned or not: each costs a search rebuild at most once.
    QSet<QString> m_taught;
    // Last, so its thread stops before the decoder is freed.
    SerialQueue m_queue{QStringLiteral("quorvane.pocketsphinx")};
};

QString PocketSphinxEngine::defaultModelDirectory() {
    return QStringLiteral("/usr/share/pocketsphinx/model/en-us");
}

PocketSphinxEngine::PocketSphinxEngine(QString locale, QString modelDirectory)
    : m_locale(std::move(locale)), m_decoder(std::make_shared<Decoder>(std::move(modelDirectory))) {}

PocketSphinxEngine::~PocketSphinxEngine() = default;

double PocketSphinxEngine::lastStretchSeconds() const {
    return m_decoder->lastStretchSeconds.load();
}

bool PocketSphinxEngine::supportsLocale(const QString &locale) {
    const QString language = locale.section(QRegularExpression(QStringLiteral("[-_]")), 0, 0);
    return language.compare(QLatin1String("en"), Qt::CaseInsensitive) == 0;
}

QCoro::Task<void> PocketSphinxEngine::prepare() {
    if (!supportsLocale(m_locale))
        throw QuorvaneError::localeUnsupported(m_locale);
    if (m_decoder->loaded)
        co_return;
    co_await Decoder::run<bool>(m_decoder, [](Decoder &decoder) { return decoder.load(); });
    Log::info(QStringLiteral("ASR ready \u00B7 PocketSphinx, US English model"));
}

QCoro::Task<void> PocketSphinxEngine::beginUtterance(QStringList contextualStrings) {
    if (!m_decoder->loaded)
        co_await prepare();
    const quint64 utterance = ++m_decoder->generation;
    Decoder::post(m_decoder, [utterance, hints = contextualStrings.mid(0, kMaxContextualStrings)](Decoder &decoder) {
        decoder.begin(utterance, hints);
    });
}

void PocketSphinxEngine::append(const AudioChunk &chunk) {
    const quint64 utterance = m_decoder->generation.load();
    Decoder::post(m_decoder,
                  [utterance, samples = chunk.samples](Decoder &decoder) { decoder.feed(utterance, samples); });
}

QCoro::Task<QString> PocketSphinxEngine::finishUtterance() {
    co_return co_await Decoder::run<QString>(m_decoder, [](Decoder &decoder) { return decoder.finish(); });
}

QCoro::Task<void> PocketSphinxEngine::cancelUtterance() {
    ++m_decoder->generation;
    Decoder::post(m_decoder, [](Decoder &decoder) { decoder.cancel(); });
    co_return;
}

std::optional<QString>
PocketSphinxEngine::composedPronunciation(const QString &word,
                                          const std::function<std::optional<QString>(const QString &)> &lookup) {
    const qsizetype n = word.size();
    if (n < 4 || n > kMaxComposedLength)
        return std::nullopt;
    // Fewest pieces covering word[0, i), each a dictionary word of at least two letters, so stray
    // letters ("a", "i") never glue a name together.
    std::vector<std::optional<QStringList>> best(n + 1);
    best[0] = QStringList();
    for (qsizetype end = 2; end <= n; ++end) {
        for (qsizetype start = 0; start + 2 <= end; ++start) {
            if (!best[start] || (best[end] && best[end]->size() <= best[start]->size() + 1))
                continue;
            if (auto phones = lookup(word.mid(start, end - start))) {
                QStringList pieces = *best[start];
                pieces.append(*phones);
                best[end] = std::move(pieces);
            }
        }
    }
    if (!best[n] || best[n]->size() < 2)
        return std::nullopt;
    return best[n]->join(QLatin1Char(' '));
}
