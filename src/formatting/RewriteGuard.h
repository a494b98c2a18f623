#pragma once

#include "core/EnumNames.h"
#include "formatting/RewriteCommand.h"

#include <QList>
#include <QRegularExpression>
#include <QSet>
#include <QString>
#include <QStringList>

// Decides whether a model's rewrite may replace the user's selection. Anything doubtful keeps the
// original: an edit that silently changes a number or drops a link is worse than no edit.
struct RewriteGuard {
    enum class Verdict {
        accepted,
        rejectedEmpty,
        rejectedNoChange,
        rejectedModelResponse,
        rejectedTooLong,
        rejectedTooShort,
        rejectedProtectedContent,
        rejectedMeaningChange,
    };

    // Named as written to the log and history ("rejectedTooLong").
    friend std::span<const NamedCase<Verdict>> namedCases(Verdict);

    struct Decision {
        // The rewrite when accepted, else the original; trimmed either way.
        QString text;
        Verdict verdict;
        bool operator==(const Decision &) const = default;
    };

    static Decision evaluate(const QString &original, const QString &rewritten, RewriteCommand command,
                             const QStringList &vocabulary);

    // Web and e-mail addresses, paths, identifiers, codes and numbers in the text, plus the
    // vocabulary terms it contains.
    static QSet<QString> protectedTokens(const QString &text, const QStringList &vocabulary);

    // Limits of each command: word-count ratio, share of new content words, share of original
    // content words kept.
    static double maxLengthRatio(RewriteCommand command);
    static double maxNewWordShare(RewriteCommand command);
    static double minRetention(RewriteCommand command);

    static const QStringList &modelResponsePrefixes();
    static const QList<QRegularExpression> &protectedPatterns();
};
