#include "formatting/DeveloperPromptGuard.h"

#include "core/Text.h"
#include "formatting/DeveloperPromptAnchors.h"
#include "formatting/GuardText.h"
#include "formatting/TranscriptGuard.h"

#include <QSet>

namespace {

using Verdict = DeveloperPromptGuard::Verdict;

constexpr double maxLengthRatio = 3.5;
constexpr double minRetention = 0.65;
constexpr double maxNovelty = 0.35;

bool isSubset(const QSet<QString> &part, const QSet<QString> &whole) {
    for (const QString &item : part) {
        if (!whole.contains(item))
            return false;
    }
    return true;
}

QSet<QString> toSet(const QStringList &list) {
    return QSet<QString>(list.begin(), list.end());
}

} // namespace

DeveloperPromptDocument DeveloperPromptGuard::fallbackDocument(const QString &raw) {
    return {raw, {}, {}, {}, {}};
}

DeveloperPromptGuard::Decision DeveloperPromptGuard::fallback(const QString &raw, Verdict verdict) {
    return {fallbackDocument(raw).rendered(), verdict};
}

QStringList DeveloperPromptGuard::contentWords(const QStringList &words) {
    return GuardText::contentWords(words);
}

DeveloperPromptGuard::Decision DeveloperPromptGuard::evaluate(const QString &raw, const QString &proposed,
                                                              const QStringList &vocabulary,
                                                              const std::optional<QString> &repositoryPromptContext) {
    const auto refuse = [&raw](Verdict verdict) { return fallback(raw, verdict); };

    const std::optional<DeveloperPromptDocument> document = DeveloperPromptDocument::parse(proposed);
    if (!document)
        return refuse(Verdict::rejectedInvalidStructure);
    const QString content = document->content();

    // "Here is the task", "Not provided": the model talking instead of structuring.
    const QString lowered = Text::lower(content);
    for (const QString &phrase : metaPhrases()) {
        if (lowered.startsWith(phrase) || lowered.contains(QLatin1Char('\n') + phrase))
            return refuse(Verdict::rejectedModelResponse);
    }

    const QStringList requestWords = TranscriptGuard::words(raw);
    const QStringList factWords =
        repositoryPromptContext ? TranscriptGuard::words(*repositoryPromptContext) : QStringList();
    const QStringList proposalWords = TranscriptGuard::words(content);
    if (requestWords.isEmpty() || proposalWords.isEmpty())
        return refuse(Verdict::rejectedContentLoss);

    // The model may copy repository facts into Context, so they widen the allowance.
    const double ratio =
        double(proposalWords.size()) / double(std::max<qsizetype>(requestWords.size() + factWords.size(), 1));
    if (ratio > maxLengthRatio)
        return refuse(Verdict::rejectedTooLong);

    const QSet<QString> requestAnchors = DeveloperPromptAnchors::extract(raw, vocabulary);
    const QSet<QString> proposalAnchors = DeveloperPromptAnchors::extract(content, vocabulary);
    if (!isSubset(requestAnchors, proposalAnchors))
        return refuse(Verdict::rejectedProtectedContent);

    // Without repository facts a token the model added is left to the word checks below.
    if (repositoryPromptContext) {
        const QSet<QString> factAnchors = DeveloperPromptAnchors::extract(*repositoryPromptContext, vocabulary);
        if (!isSubset(proposalAnchors, requestAnchors + factAnchors))
            return refuse(Verdict::rejectedProtectedContent);
        // A repository fact is context; it must not become a requirement, criterion or check.
        const QSet<QString> binding = DeveloperPromptAnchors::extract(
            QStringList{document->goal, document->constraints, document->acceptanceCriteria, document->verification}
                .join(QLatin1Char('\n')),
            vocabulary);
        if ((factAnchors - requestAnchors).intersects(binding))
            return refuse(Verdict::rejectedProtectedContent);
    }

    const QSet<QString> requestContent = toSet(contentWords(requestWords));
    const QSet<QString> factContent = toSet(contentWords(factWords));
    const QStringList proposalContent = contentWords(proposalWords);
    if (!requestContent.isEmpty()) {
        const qsizetype retained = (toSet(proposalContent) & requestContent).size();
        if (double(retained) / double(requestContent.size()) < minRetention)
            return refuse(Verdict::rejectedContentLoss);
    }
    if (!proposalContent.isEmpty()) {
        qsizetype novel = 0;
        for (const QString &word : proposalContent)
            novel += requestContent.contains(word) || factContent.contains(word) ? 0 : 1;
        if (double(novel) / double(proposalContent.size()) > maxNovelty)
            return refuse(Verdict::rejectedMeaningChange);
    }

    // Re-rendered from the record so the model's spacing never reaches the agent.
    return {document->rendered(), Verdict::accepted};
}

std::span<const NamedCase<Verdict>> namedCases(Verdict) {
    static constexpr NamedCase<Verdict> cases[] = {
        {Verdict::accepted, "accepted"},
        {Verdict::formatterDisabled, "formatterDisabled"},
        {Verdict::formatterFailed, "formatterFailed"},
        {Verdict::rejectedInvalidStructure, "rejectedInvalidStructure"},
        {Verdict::rejectedModelResponse, "rejectedModelResponse"},
        {Verdict::rejectedTooLong, "rejectedTooLong"},
        {Verdict::rejectedContentLoss, "rejectedContentLoss"},
        {Verdict::rejectedProtectedContent, "rejectedProtectedContent"},
        {Verdict::rejectedMeaningChange, "rejectedMeaningChange"},
    };
    return cases;
}

const QStringList &DeveloperPromptGuard::metaPhrases() {
    static const QStringList phrases{
        "here is the", "here's the", "not provided", "none specified", "as an ai", "i cannot", "i can't", "i'm sorry",
    };
    return phrases;
}
