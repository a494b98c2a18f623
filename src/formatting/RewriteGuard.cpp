#include "formatting/RewriteGuard.h"

#include "core/Text.h"
#include "formatting/GuardText.h"
#include "formatting/TranscriptGuard.h"

namespace {

using Verdict = RewriteGuard::Verdict;

struct Limits {
    double lengthRatio;
    double newWordShare;
    double retention;
};

Limits limits(RewriteCommand command) {
    switch (command.value()) {
    case RewriteCommand::fixGrammar:
        return {1.45, 0.45, 0.7};
    case RewriteCommand::shorten:
        return {1.0, 0.35, 0.35};
    case RewriteCommand::makeFormal:
    case RewriteCommand::makeCasual:
    case RewriteCommand::improveClarity:
        return {1.8, 0.6, 0.45};
    case RewriteCommand::bulletList:
        return {1.35, 0.4, 0.65};
    }
    return {1.0, 0.0, 1.0};
}

} // namespace

double RewriteGuard::maxLengthRatio(RewriteCommand command) {
    return limits(command).lengthRatio;
}
double RewriteGuard::maxNewWordShare(RewriteCommand command) {
    return limits(command).newWordShare;
}
double RewriteGuard::minRetention(RewriteCommand command) {
    return limits(command).retention;
}

RewriteGuard::Decision RewriteGuard::evaluate(const QString &original, const QString &rewritten, RewriteCommand command,
                                              const QStringList &vocabulary) {
    const QString before = Text::trimmed(original);
    const QString after = Text::trimmed(rewritten);
    const auto refuse = [&before](Verdict verdict) { return Decision{before, verdict}; };

    if (after.isEmpty())
        return refuse(Verdict::rejectedEmpty);
    const QString lowered = Text::lower(after);
    for (const QString &prefix : modelResponsePrefixes()) {
        if (lowered.startsWith(prefix))
            return refuse(Verdict::rejectedModelResponse);
    }
    if (Text::composed(after) == Text::composed(before))
        return refuse(Verdict::rejectedNoChange);

    const QStringList beforeWords = TranscriptGuard::words(before);
    const QStringList afterWords = TranscriptGuard::words(after);
    if (beforeWords.isEmpty() || afterWords.isEmpty())
        return refuse(Verdict::rejectedEmpty);

    const double ratio = double(afterWords.size()) / double(beforeWords.size());
    if (command == RewriteCommand::shorten && afterWords.size() >= beforeWords.size())
        return refuse(Verdict::rejectedTooLong);
    if (ratio > maxLengthRatio(command))
        return refuse(Verdict::rejectedTooLong);

    const QStringList beforeContent = GuardText::contentWords(beforeWords);
    const QStringList afterContent = GuardText::contentWords(afterWords);

    QSet<QString> keptTokens;
    for (const QString &token : protectedTokens(after, vocabulary))
        keptTokens.insert(GuardText::folded(token));
    for (const QString &token : protectedTokens(before, vocabulary)) {
        if (!keptTokens.contains(GuardText::folded(token)))
            return refuse(Verdict::rejectedProtectedContent);
    }

    const QSet<QString> beforeSet(beforeContent.begin(), beforeContent.end());
    if (!afterContent.isEmpty()) {
        qsizetype added = 0;
        for (const QString &word : afterContent)
            added += beforeSet.contains(word) ? 0 : 1;
        if (double(added) / double(afterContent.size()) > maxNewWordShare(command))
            return refuse(Verdict::rejectedMeaningChange);
    }

    if (beforeContent.isEmpty())
        return {after, Verdict::accepted};

    const QSet<QString> afterSet(afterContent.begin(), afterContent.end());
    qsizetype kept = 0;
    for (const QString &word : beforeContent)
        kept += afterSet.contains(word) ? 1 : 0;
    if (double(kept) / double(beforeContent.size()) < minRetention(command))
        return refuse(Verdict::rejectedTooShort);

    return {after, Verdict::accepted};
}

QSet<QString> RewriteGuard::protectedTokens(const QString &input, const QStringList &vocabulary) {
    const QString text = Text::composed(input);
    QSet<QString> tokens;
    for (const QRegularExpression &pattern : protectedPatterns()) {
        auto matches = pattern.globalMatch(text);
        while (matches.hasNext())
            tokens.insert(matches.next().captured(0));
    }
    for (const QString &entry : vocabulary) {
        const QString term = Text::composed(entry);
        if (!term.isEmpty() && text.contains(term))
            tokens.insert(term);
    }
    return tokens;
}

std::span<const NamedCase<Verdict>> namedCases(Verdict) {
    static constexpr NamedCase<Verdict> cases[] = {
        {Verdict::accepted, "accepted"},
        {Verdict::rejectedEmpty, "rejectedEmpty"},
        {Verdict::rejectedNoChange, "rejectedNoChange"},
        {Verdict::rejectedModelResponse, "rejectedModelResponse"},
        {Verdict::rejectedTooLong, "rejectedTooLong"},
        {Verdict::rejectedTooShort, "rejectedTooShort"},
        {Verdict::rejectedProtectedContent, "rejectedProtectedContent"},
        {Verdict::rejectedMeaningChange, "rejectedMeaningChange"},
    };
    return cases;
}

const QStringList &RewriteGuard::modelResponsePrefixes() {
    static const QStringList prefixes{
        "sure,",   "here is the", "here's the", "rewritten text:", "revised text:",       "formatted text:",
        "i can't", "i cannot",    "i'm sorry",  "as an ai",        "as a language model",
    };
    return prefixes;
}

const QList<QRegularExpression> &RewriteGuard::protectedPatterns() {
    using namespace GuardText::ProtectedPattern;
    static const QList<QRegularExpression> patterns{
        GuardText::compiled(QLatin1String(webAddress)),
        GuardText::compiled(QLatin1String(emailAddress)),
        GuardText::compiled(QLatin1String(path)),
        GuardText::compiled(QLatin1String(snakeCaseIdentifier)),
        GuardText::compiled(QLatin1String(acronym)),
        // upper-case codes with digits
        GuardText::compiled(QStringLiteral(R"(\b[A-Z][A-Z0-9_]*\d[A-Z0-9_]*\b)")),
        GuardText::compiled(QLatin1String(numberOrTime)),
    };
    return patterns;
}
