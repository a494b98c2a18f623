#include "benchmark/SpeechBenchmarkMetrics.h"

#include "core/Text.h"

#include <QHash>
#include <QJsonValue>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

namespace SpeechBenchmarkMetrics {

namespace {

qint64 checkedAdd(qint64 a, qint64 b) {
    qint64 sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        std::fputs("benchmark totals overflowed\n", stderr);
        std::abort();
    }
    return sum;
}

double rate(qint64 edits, qint64 referenceCount) {
    if (referenceCount == 0)
        return edits > 0 ? 1.0 : 0.0;
    return static_cast<double>(edits) / static_cast<double>(referenceCount);
}

void finishToken(QString &token, QStringList &tokens) {
    qsizetype begin = 0;
    qsizetype end = token.size();
    while (begin < end && token.at(begin) == u'\'')
        ++begin;
    while (end > begin && token.at(end - 1) == u'\'')
        --end;
    if (end > begin)
        tokens.append(token.mid(begin, end - begin));
    token.clear();
}

std::optional<qint64> readInteger(const QJsonObject &object, const char *key) {
    const QJsonValue value = object.value(QLatin1String(key));
    if (!value.isDouble())
        return std::nullopt;
    return value.toInteger();
}

} // namespace

QJsonObject EditCounts::toJson() const {
    return {{QStringLiteral("substitutions"), substitutions},
            {QStringLiteral("insertions"), insertions},
            {QStringLiteral("deletions"), deletions}};
}

std::optional<EditCounts> EditCounts::fromJson(const QJsonObject &object) {
    const auto s = readInteger(object, "substitutions");
    const auto i = readInteger(object, "insertions");
    const auto d = readInteger(object, "deletions");
    if (!s || !i || !d)
        return std::nullopt;
    return EditCounts{*s, *i, *d};
}

QJsonObject Score::toJson() const {
    return {{QStringLiteral("normalizedReference"), normalizedReference},
            {QStringLiteral("normalizedHypothesis"), normalizedHypothesis},
            {QStringLiteral("referenceWords"), referenceWords},
            {QStringLiteral("hypothesisWords"), hypothesisWords},
            {QStringLiteral("wordEdits"), wordEdits.toJson()},
            {QStringLiteral("wordErrorRate"), wordErrorRate},
            {QStringLiteral("referenceCharacters"), referenceCharacters},
            {QStringLiteral("hypothesisCharacters"), hypothesisCharacters},
            {QStringLiteral("characterEdits"), characterEdits.toJson()},
            {QStringLiteral("characterErrorRate"), characterErrorRate}};
}

std::optional<Score> Score::fromJson(const QJsonObject &object) {
    Score score;
    const QJsonValue reference = object.value(QLatin1String("normalizedReference"));
    const QJsonValue hypothesis = object.value(QLatin1String("normalizedHypothesis"));
    const auto referenceWords = readInteger(object, "referenceWords");
    const auto hypothesisWords = readInteger(object, "hypothesisWords");
    const auto wordEdits = EditCounts::fromJson(object.value(QLatin1String("wordEdits")).toObject());
    const QJsonValue wer = object.value(QLatin1String("wordErrorRate"));
    const auto referenceCharacters = readInteger(object, "referenceCharacters");
    const auto hypothesisCharacters = readInteger(object, "hypothesisCharacters");
    const auto characterEdits = EditCounts::fromJson(object.value(QLatin1String("characterEdits")).toObject());
    const QJsonValue cer = object.value(QLatin1String("characterErrorRate"));
    if (!reference.isString() || !hypothesis.isString() || !referenceWords || !hypothesisWords || !wordEdits ||
        !wer.isDouble() || !referenceCharacters || !hypothesisCharacters || !characterEdits || !cer.isDouble())
        return std::nullopt;
    return Score{reference.toString(), hypothesis.toString(), *referenceWords,       *hypothesisWords, *wordEdits,
                 wer.toDouble(),       *referenceCharacters,  *hypothesisCharacters, *characterEdits,  cer.toDouble()};
}

QString normalize(const QString &text) {
    QString unified = text;
    unified.replace(QChar(0x2019), QLatin1Char('\''));
    unified.replace(QChar(0x2018), QLatin1Char('\''));
    const QString folded = Text::lower(Text::fold(unified, Text::DiacriticInsensitive | Text::WidthInsensitive));
    QStringList tokens;
    QString token;
    for (char32_t c : Text::codePoints(folded)) {
        if (Text::isAlphanumeric(c) || c == U'\'')
            token += Text::fromCodePoint(c);
        else
            finishToken(token, tokens);
    }
    finishToken(token, tokens);
    return tokens.join(QLatin1Char(' '));
}

namespace {

// A cell of the alignment table. 32-bit fields keep rows small; clip lengths are far below 2^31.
struct BandCell {
    qint32 cost;
    qint32 substitutions;
    qint32 insertions;
    qint32 deletions;
};

constexpr qint32 unreachable = std::numeric_limits<qint32>::max() / 2;

// Aligns within the band |i - j| <= band; cells outside count as unreachable. Every cell on a
// minimum-cost path has cost >= |i - j|, so a result whose cost fits in the band is the result of
// the whole table, tie-breaks included.
BandCell alignWithinBand(const std::vector<int> &reference, const std::vector<int> &hypothesis, qint64 band) {
    const auto rows = static_cast<qint64>(reference.size());
    const auto columns = static_cast<qint64>(hypothesis.size());
    std::vector<BandCell> previous(static_cast<std::size_t>(columns + 1), BandCell{unreachable, 0, 0, 0});
    std::vector<BandCell> current(previous.size(), BandCell{unreachable, 0, 0, 0});
    for (qint64 j = 0; j <= std::min(columns, band); ++j)
        previous[j] = BandCell{static_cast<qint32>(j), 0, static_cast<qint32>(j), 0};
    for (qint64 i = 1; i <= rows; ++i) {
        const qint64 low = std::max<qint64>(0, i - band);
        const qint64 high = std::min(columns, i + band);
        if (i + band <= columns)
            previous[i + band] = BandCell{unreachable, 0, 0, 0};
        if (low >= 1)
            current[low - 1] = BandCell{unreachable, 0, 0, 0};
        qint64 j = low;
        if (j == 0) {
            current[0] = BandCell{static_cast<qint32>(i), 0, 0, static_cast<qint32>(i)};
            j = 1;
        }
        const int token = reference[i - 1];
        qint32 rowMinimum = j > low ? current[0].cost : unreachable;
        for (; j <= high; ++j) {
            const BandCell &diagonal = previous[j - 1];
            if (token == hypothesis[j - 1]) {
                current[j] = diagonal;
                rowMinimum = std::min(rowMinimum, diagonal.cost);
                continue;
            }
            const BandCell &above = previous[j];
            const BandCell &left = current[j - 1];
            const qint32 substitution = diagonal.cost + 1;
            const qint32 deletion = above.cost + 1;
            const qint32 insertion = left.cost + 1;
            BandCell chosen;
            if (insertion < substitution && insertion < deletion) {
                chosen = left;
                chosen.cost = insertion;
                ++chosen.insertions;
            } else if (deletion < substitution) {
                chosen = above;
                chosen.cost = deletion;
                ++chosen.deletions;
            } else {
                chosen = diagonal;
                chosen.cost = substitution;
                ++chosen.substitutions;
            }
            current[j] = chosen;
            rowMinimum = std::min(rowMinimum, chosen.cost);
        }
        // Costs never fall along a path, so once a whole row is past the band the result is too.
        if (rowMinimum > band)
            return BandCell{unreachable, 0, 0, 0};
        std::swap(previous, current);
    }
    return previous[static_cast<std::size_t>(columns)];
}

} // namespace

EditCounts editCounts(const QStringList &reference, const QStringList &hypothesis) {
    // Tokens become small integers so that the inner loop compares numbers, not strings.
    QHash<QString, int> ids;
    const auto intern = [&ids](const QStringList &tokens) {
        std::vector<int> result;
        result.reserve(static_cast<std::size_t>(tokens.size()));
        for (const QString &token : tokens) {
            auto found = ids.constFind(token);
            result.push_back(found != ids.cend() ? *found : *ids.insert(token, static_cast<int>(ids.size())));
        }
        return result;
    };
    const std::vector<int> referenceIds = intern(reference);
    const std::vector<int> hypothesisIds = intern(hypothesis);
    const qint64 longest = std::max<qint64>(reference.size(), hypothesis.size());
    // Start with a narrow band and double it until the result provably fits.
    qint64 band = std::max<qint64>(std::abs(reference.size() - hypothesis.size()), 32);
    for (;;) {
        const BandCell result = alignWithinBand(referenceIds, hypothesisIds, std::min(band, longest));
        if (result.cost <= band || band >= longest)
            return EditCounts{result.substitutions, result.insertions, result.deletions};
        band *= 2;
    }
}

Score score(const QString &reference, const QString &hypothesis) {
    Score result;
    result.normalizedReference = normalize(reference);
    result.normalizedHypothesis = normalize(hypothesis);
    const auto words = [](const QString &text) {
        return text.isEmpty() ? QStringList() : text.split(QLatin1Char(' '));
    };
    const QStringList referenceWords = words(result.normalizedReference);
    const QStringList hypothesisWords = words(result.normalizedHypothesis);
    result.referenceWords = referenceWords.size();
    result.hypothesisWords = hypothesisWords.size();
    result.wordEdits = editCounts(referenceWords, hypothesisWords);
    result.wordErrorRate = rate(result.wordEdits.total(), result.referenceWords);

    const auto characters = [](QString text) { return Text::graphemes(text.remove(QLatin1Char(' '))); };
    const QStringList referenceCharacters = characters(result.normalizedReference);
    const QStringList hypothesisCharacters = characters(result.normalizedHypothesis);
    result.referenceCharacters = referenceCharacters.size();
    result.hypothesisCharacters = hypothesisCharacters.size();
    result.characterEdits = editCounts(referenceCharacters, hypothesisCharacters);
    result.characterErrorRate = rate(result.characterEdits.total(), result.referenceCharacters);
    return result;
}

Score aggregate(const QList<Score> &scores) {
    Score total;
    const auto add = [](EditCounts &sum, const EditCounts &more) {
        sum.substitutions = checkedAdd(sum.substitutions, more.substitutions);
        sum.insertions = checkedAdd(sum.insertions, more.insertions);
        sum.deletions = checkedAdd(sum.deletions, more.deletions);
    };
    for (const Score &clip : scores) {
        add(total.wordEdits, clip.wordEdits);
        add(total.characterEdits, clip.characterEdits);
        total.referenceWords = checkedAdd(total.referenceWords, clip.referenceWords);
        total.hypothesisWords = checkedAdd(total.hypothesisWords, clip.hypothesisWords);
        total.referenceCharacters = checkedAdd(total.referenceCharacters, clip.referenceCharacters);
        total.hypothesisCharacters = checkedAdd(total.hypothesisCharacters, clip.hypothesisCharacters);
    }
    const auto checkedTotal = [](const EditCounts &counts) {
        return checkedAdd(checkedAdd(counts.substitutions, counts.insertions), counts.deletions);
    };
    total.wordErrorRate = rate(checkedTotal(total.wordEdits), total.referenceWords);
    total.characterErrorRate = rate(checkedTotal(total.characterEdits), total.referenceCharacters);
    return total;
}

} // namespace SpeechBenchmarkMetrics
