#include "core/QuorvaneError.h"

QuorvaneError::QuorvaneError(Case errorCase, QString detail)
    : DescribedError(messageFor(errorCase, detail)), m_case(errorCase), m_detail(std::move(detail)) {}

QString QuorvaneError::messageFor(Case errorCase, const QString &detail) {
    switch (errorCase) {
    case Case::localeUnsupported:
        return QStringLiteral("On-device speech recognition does not support ") + detail;
    case Case::speechModelUnavailable:
        return QStringLiteral("The speech model is unavailable: ") + detail;
    case Case::formatterUnavailable:
        return QStringLiteral("The formatting model is unavailable: ") + detail;
    case Case::injectionFailed:
        return QStringLiteral("Could not insert text: ") + detail;
    case Case::selectionUnavailable:
        return QStringLiteral("This app did not expose an editable text selection (") + detail + QStringLiteral(").");
    case Case::repositoryUnavailable:
    case Case::agentUnavailable:
        return detail;
    case Case::agentHandoffFailed:
        return QStringLiteral("Could not hand off the prompt: ") + detail;
    case Case::noAudioInput:
        return QStringLiteral("No audio input device is available.");
    case Case::audioFormatUnsupported:
        return QStringLiteral("Could not convert microphone audio to a format the recogniser accepts.");
    case Case::microphoneDenied:
        return QStringLiteral(
            "Microphone access was denied. Grant it in Settings \u203A Privacy & Security \u203A Microphone.");
    case Case::accessibilityDenied:
        return QStringLiteral("Accessibility access is required to watch the hotkey and paste text.");
    case Case::formatterTimedOut:
        return QStringLiteral("Formatting exceeded its time budget.");
    case Case::destinationChanged:
        return QStringLiteral("The destination app changed while you were speaking.");
    case Case::noTextSelected:
        return QStringLiteral("Select text first, then hold the Edit in Place key.");
    case Case::secureTextSelected:
        return QStringLiteral("Quorvane never reads or edits password and secure-entry fields.");
    case Case::selectionChanged:
        return QStringLiteral("The selection changed while you were speaking. Nothing was replaced.");
    }
    return {};
}

using Case = QuorvaneError::Case;

std::span<const NamedCase<Case>> namedCases(Case) {
    static constexpr NamedCase<Case> cases[] = {
        {Case::localeUnsupported, "localeUnsupported"},
        {Case::speechModelUnavailable, "speechModelUnavailable"},
        {Case::formatterUnavailable, "formatterUnavailable"},
        {Case::injectionFailed, "injectionFailed"},
        {Case::selectionUnavailable, "selectionUnavailable"},
        {Case::repositoryUnavailable, "repositoryUnavailable"},
        {Case::agentUnavailable, "agentUnavailable"},
        {Case::agentHandoffFailed, "agentHandoffFailed"},
        {Case::noAudioInput, "noAudioInput"},
        {Case::audioFormatUnsupported, "audioFormatUnsupported"},
        {Case::microphoneDenied, "microphoneDenied"},
        {Case::accessibilityDenied, "accessibilityDenied"},
        {Case::formatterTimedOut, "formatterTimedOut"},
        {Case::destinationChanged, "destinationChanged"},
        {Case::noTextSelected, "noTextSelected"},
        {Case::secureTextSelected, "secureTextSelected"},
        {Case::selectionChanged, "selectionChanged"},
    };
    return cases;
}
