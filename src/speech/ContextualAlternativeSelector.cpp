#include "speech/ContextualAlternativeSelector.h"

#include "speech/RecognitionContextBuilder.h"

#include <QSet>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cstdlib>
#include <vector>

namespace ContextualAlternativeSelector {

namespace {

QStringList graphemes(const QString &text) {
    QStringList clusters;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    for (qsizetype end = finder.toNextBoundary(); end != -1; end = finder.toNextBoundary()) {
        if (end > start)
            clusters.append(text.mid(start, end - start));
        start = end;
    }
    return clusters;
}

qsizetype wordCount(const QString &normalizedText) {
    return normalizedText.isEmpty() ? 0 : normalizedText.count(QLatin1Char(' ')) + 1;
}

} // namespace

int contextScore(const QString &text, const QStringList &phrases) {
    const QString haystack = QLatin1Char(' ') + RecognitionContextBuilder::normalized(text) + QLatin1Char(' ');
    int score = 0;
    for (const QString &phrase : phrases) {
        const QString needle = RecognitionContextBuilder::normalized(phrase);
        const qsizetype words = wordCount(needle);
        // A single word is too weak a signal, and long phrases are rarely spoken verbatim.
        if (words < 2 || words > 4)
            continue;
        if (haystack.contains(QLatin1Char(' ') + needle + QLatin1Char(' ')))
            score += 10 * static_cast<int>(words);
    }
    return score;
}

int editDistance(const QString &a, const QString &b) {
    const QStringList left = graphemes(a);
    const QStringList right = graphemes(b);
    std::vector<int> previous(right.size() + 1);
    std::vector<int> current(right.size() + 1);
    for (size_t j = 0; j < previous.size(); ++j)
        previous[j] = static_cast<int>(j);
    for (qsizetype i = 1; i <= left.size(); ++i) {
        current[0] = static_cast<int>(i);
        for (qsizetype j = 1; j <= right.size(); ++j) {
            const int substitution = previous[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, substitution});
        }
        std::swap(previous, current);
    }
    return previous[right.size()];
}

bool isConservativeAlternative(const QString &primary, const QString &candidate) {
    const QString a = RecognitionContextBuilder::normalized(primary);
    const QString b = RecognitionContextBuilder::normalized(candidate);
    if (std::abs(wordCount(a) - wordCount(b)) >= 2)
        return false;
    const qsizetype longer = std::max(graphemes(a).size(), graphemes(b).size());
    const int allowance = std::max(2, static_cast<int>(longer * 3 / 10));
    return editDistance(a, b) <= allowance;
}

QString choose(const QString &primary, const QStringList &alternatives, const QStringList &contextualPhrases) {
    QString best = primary;
    int bestScore = contextScore(primary, contextualPhrases);
    QSet<QString> seen{RecognitionContextBuilder::normalized(primary)};
    for (const QString &alternative : alternatives) {
        const QString form = RecognitionContextBuilder::normalized(alternative);
        if (form.isEmpty() || seen.contains(form))
            continue;
        seen.insert(form);
        const int score = contextScore(alternative, contextualPhrases);
        // Measured against the primary, so a chain of small steps cannot drift far from what was heard.
        if (score > bestScore && isConservativeAlternative(primary, alternative)) {
            best = alternative;
            bestScore = score;
        }
    }
    return best;
}

} // namespace ContextualAlternativeSelector
