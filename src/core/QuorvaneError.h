#pragma once

#include "core/DescribedError.h"
#include "core/EnumNames.h"

#include <QString>

// The one error type that reaches the user: each case carries its own message.
class QuorvaneError : public DescribedError {
public:
    enum class Case {
        localeUnsupported,
        speechModelUnavailable,
        formatterUnavailable,
        injectionFailed,
        selectionUnavailable,
        repositoryUnavailable,
        agentUnavailable,
        agentHandoffFailed,
        noAudioInput,
        audioFormatUnsupported,
        microphoneDenied,
        accessibilityDenied,
        formatterTimedOut,
        destinationChanged,
        noTextSelected,
        secureTextSelected,
        selectionChanged,
    };

    // Named as written in logs ("formatterTimedOut").
    friend std::span<const NamedCase<Case>> namedCases(Case);

    explicit QuorvaneError(Case errorCase, QString detail = {});

    Case errorCase() const { return m_case; }
    const QString &detail() const { return m_detail; }
    // The user-facing sentence.
    QString message() const { return text(); }

    bool operator==(const QuorvaneError &other) const { return m_case == other.m_case && m_detail == other.m_detail; }

    static QuorvaneError localeUnsupported(const QString &locale) {
        return QuorvaneError(Case::localeUnsupported, locale);
    }
    static QuorvaneError speechModelUnavailable(const QString &reason) {
        return QuorvaneError(Case::speechModelUnavailable, reason);
    }
    static QuorvaneError formatterUnavailable(const QString &reason) {
        return QuorvaneError(Case::formatterUnavailable, reason);
    }
    static QuorvaneError injectionFailed(const QString &reason) { return QuorvaneError(Case::injectionFailed, reason); }
    static QuorvaneError selectionUnavailable(const QString &reason) {
        return QuorvaneError(Case::selectionUnavailable, reason);
    }
    static QuorvaneError repositoryUnavailable(const QString &reason) {
        return QuorvaneError(Case::repositoryUnavailable, reason);
    }
    static QuorvaneError agentUnavailable(const QString &reason) {
        return QuorvaneError(Case::agentUnavailable, reason);
    }
    static QuorvaneError agentHandoffFailed(const QString &reason) {
        return QuorvaneError(Case::agentHandoffFailed, reason);
    }

private:
    static QString messageFor(Case errorCase, const QString &detail);

    Case m_case;
    QString m_detail;
};
