#pragma once

#include "core/EnumNames.h"
#include "formatting/DeveloperPromptDocument.h"

#include <QString>
#include <QStringList>
#include <optional>

// Decides whether the model's task description may be delivered. Every refusal delivers the
// lossless fallback instead: the spoken request verbatim as the goal, so nothing is ever lost.
struct DeveloperPromptGuard {
    // The codes are stable: they are written to the log and history.
    enum class Verdict {
        accepted = 0,
        formatterDisabled = 1,
        formatterFailed = 2,
        rejectedInvalidStructure = 3,
        rejectedModelResponse = 4,
        rejectedTooLong = 5,
        rejectedContentLoss = 6,
        rejectedProtectedContent = 7,
        rejectedMeaningChange = 8,
    };

    // Named as written to the log and history ("rejectedTooLong").
    friend std::span<const NamedCase<Verdict>> namedCases(Verdict);

    struct Decision {
        QString text;
        Verdict verdict;
        bool operator==(const Decision &) const = default;
    };

    // `vocabulary` is the protected vocabulary given to the model; `repositoryPromptContext` the
    // repository facts given to it, if any.
    static Decision evaluate(const QString &raw, const QString &proposed, const QStringList &vocabulary,
                             const std::optional<QString> &repositoryPromptContext);

    // The request verbatim as the goal, every other section empty.
    static DeveloperPromptDocument fallbackDocument(const QString &raw);
    // The decision when no model ran or it failed.
    static Decision fallback(const QString &raw, Verdict verdict);

    static const QStringList &metaPhrases();

private:
    static QStringList contentWords(const QStringList &words);
};
