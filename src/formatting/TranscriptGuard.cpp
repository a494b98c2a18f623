#include "formatting/TranscriptGuard.h"

#include "core/Config.h"
#include "core/Text.h"
#include "formatting/GuardText.h"

#include <QTextBoundaryFinder>

using Verdict = TranscriptGuard::Verdict;

std::span<const NamedCase<Verdict>> namedCases(Verdict) {
    static constexpr NamedCase<Verdict> cases[] = {
        {Verdict::accepted, "accepted"},
        {Verdict::skippedTooShort, "skippedTooShort"},
        {Verdict::rejectedEmpty, "rejectedEmpty"},
        {Verdict::rejectedTooLong, "rejectedTooLong"},
        {Verdict::rejectedContentLoss, "rejectedContentLoss"},
        {Verdict::rejectedInvention, "rejectedInvention"},
        {Verdict::rejectedRefusal, "rejectedRefusal"},
        {Verdict::formatterFailed, "formatterFailed"},
        {Verdict::formatterDisabled, "formatterDisabled"},
    };
    return cases;
}

TranscriptGuard TranscriptGuard::fromConfig(const Config &config) {
    TranscriptGuard guard;
    guard.minContentRetention = config.guardMinContentRetention;
    guard.maxLengthRatio = config.guardMaxLengthRatio;
    guard.minWordsForLLM = config.guardMinWordsForLLM;
    return guard;
}

TranscriptGuard::Decision TranscriptGuard::fallback(const QString &raw, Verdict verdict) {
    return {lightlyPunctuate(raw), verdict};
}

TranscriptGuard::Decision TranscriptGuard::evaluate(const QString &raw, const QString &formatted) const {
    const QString proposal = Text::trimmed(formatted);
    if (proposal.isEmpty())
        return fallback(raw, Verdict::rejectedEmpty);

    // A prefix of the whole reply: a refusal buried in a later line is left to the word checks.
    const QString lowered = Text::lower(proposal);
    for (const QString &marker : refusalMarkers()) {
        if (lowered.startsWith(marker))
            return fallback(raw, Verdict::rejectedRefusal);
    }

    const QStringList rawWords = words(raw);
    const QStringList outputWords = words(proposal);

    if (!rawWords.isEmpty()) {
        const double ratio = double(outputWords.size()) / double(rawWords.size());
        // A very short utterance may gain a few words ("ok thanks" → "Okay, thanks so much.").
        constexpr qsizetype shortUtteranceWords = 5;
        constexpr qsizetype shortUtteranceSlack = 3;
        const qsizetype slack = rawWords.size() < shortUtteranceWords ? shortUtteranceSlack : 0;
        if (ratio > maxLengthRatio && outputWords.size() > rawWords.size() + slack)
            return fallback(raw, Verdict::rejectedTooLong);

        QStringList rawContent;
        for (const QString &word : rawWords) {
            if (!fillers().contains(word) && GuardText::isLongerThan(word, 1))
                rawContent.append(word);
        }
        if (!rawContent.isEmpty()) {
            const QSet<QString> outputSet(outputWords.begin(), outputWords.end());
            qsizetype kept = 0;
            for (const QString &word : rawContent)
                kept += outputSet.contains(word) ? 1 : 0;
            if (double(kept) / double(rawContent.size()) < minContentRetention)
                return fallback(raw, Verdict::rejectedContentLoss);
        }
    }

    // Two-letter words of the proposal are never counted as invented.
    const QSet<QString> rawSet(rawWords.begin(), rawWords.end());
    qsizetype outputContent = 0;
    qsizetype invented = 0;
    for (const QString &word : outputWords) {
        if (fillers().contains(word) || !GuardText::isLongerThan(word, 2))
            continue;
        ++outputContent;
        invented += rawSet.contains(word) ? 0 : 1;
    }
    if (outputContent == 0)
        return {proposal, Verdict::accepted};
    if (invented >= maxInventedWords)
        return fallback(raw, Verdict::rejectedInvention);
    if (invented > 0 && double(invented) / double(outputContent) > maxInventionRatio)
        return fallback(raw, Verdict::rejectedInvention);
    return {proposal, Verdict::accepted};
}

QStringList TranscriptGuard::words(const QString &text) {
    // Composed first, so a word spelled with a combining accent equals its precomposed twin.
    const QString lowered = Text::lower(Text::composed(text));
    QStringList result;
    QString current;
    for (char32_t c : Text::codePoints(lowered)) {
        if (Text::isAlphanumeric(c)) {
            current += Text::fromCodePoint(c);
        } else if (!current.isEmpty()) {
            result.append(current);
            current.clear();
        }
    }
    if (!current.isEmpty())
        result.append(current);
    return result;
}

QString TranscriptGuard::lightlyPunctuate(const QString &text) {
    const QString trimmed = Text::trimmed(text);
    if (trimmed.isEmpty())
        return trimmed;

    // "Character" is what the user sees: a letter with its accents, a flag, an emoji sequence.
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, trimmed);
    const qsizetype firstEnd = finder.toNextBoundary();
    finder.toEnd();
    const qsizetype lastStart = finder.toPreviousBoundary();

    QString result = Text::upper(trimmed.left(firstEnd)) + trimmed.mid(firstEnd);
    static const QStringList marks{".", "!", "?", ",", ":", ";"};
    if (!marks.contains(trimmed.mid(lastStart)))
        result += QLatin1Char('.');
    return result;
}

const QStringList &TranscriptGuard::refusalMarkers() {
    static const QStringList markers{
        "i can't",         "i cannot",        "i'm sorry",           "i am sorry",      "i apologize", "as an ai",
        "i'm unable",      "i am unable",     "as a language model", "here's the",      "here is the", "sure, here",
        "rewritten text:", "formatted text:", "cleaned up:",         "i'd be happy to",
    };
    return markers;
}

const QSet<QString> &TranscriptGuard::fillers() {
    static const QSet<QString> words{
        "um",   "uh",       "erm",       "er",        "ah",   "hmm",  "mm",    "mhm",  "like", "so", "well",
        "just", "actually", "basically", "literally", "you",  "know", "i",     "mean", "sort", "of", "kind",
        "a",    "the",      "and",       "but",       "okay", "ok",   "right", "yeah", "yes",  "no",
    };
    return words;
}
