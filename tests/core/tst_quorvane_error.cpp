#include "core/LoopbackHttp.h"
#include "core/QuorvaneError.h"
#include "speech/WavDecoder.h"

#include <QTest>

Q_DECLARE_METATYPE(QuorvaneError)

// Every message the user can read from an error, word for word: a changed sentence is a changed
// product, and eight of these are otherwise never shown in a test.
class TestQuorvaneError : public QObject {
    Q_OBJECT

private slots:
    void messages_data() {
        using Case = QuorvaneError::Case;
        QTest::addColumn<QuorvaneError>("error");
        QTest::addColumn<QString>("caseName");
        QTest::addColumn<QString>("message");
        const auto row = [](Case errorCase, const char *name, const QString &detail, const QString &message) {
            QTest::newRow(name) << QuorvaneError(errorCase, detail) << QString::fromLatin1(name) << message;
        };
        row(Case::localeUnsupported, "localeUnsupported", "fr_CA",
            "On-device speech recognition does not support fr_CA");
        row(Case::speechModelUnavailable, "speechModelUnavailable", "no whisper.cpp server",
            "The speech model is unavailable: no whisper.cpp server");
        row(Case::formatterUnavailable, "formatterUnavailable", "model not found",
            "The formatting model is unavailable: model not found");
        row(Case::injectionFailed, "injectionFailed", "could not write to the pasteboard",
            "Could not insert text: could not write to the pasteboard");
        row(Case::selectionUnavailable, "selectionUnavailable", "Terminal",
            "This app did not expose an editable text selection (Terminal).");
        row(Case::repositoryUnavailable, "repositoryUnavailable", "the selected folder is not a Git repository",
            "the selected folder is not a Git repository");
        row(Case::agentUnavailable, "agentUnavailable", "Codex CLI is not installed in a trusted location",
            "Codex CLI is not installed in a trusted location");
        row(Case::agentHandoffFailed, "agentHandoffFailed", "could not submit the prompt",
            "Could not hand off the prompt: could not submit the prompt");
        row(Case::noAudioInput, "noAudioInput", {}, "No audio input device is available.");
        row(Case::audioFormatUnsupported, "audioFormatUnsupported", {},
            "Could not convert microphone audio to a format the recogniser accepts.");
        row(Case::microphoneDenied, "microphoneDenied", {},
            "Microphone access was denied. Grant it in Settings \u203A Privacy & Security \u203A Microphone.");
        row(Case::accessibilityDenied, "accessibilityDenied", {},
            "Accessibility access is required to watch the hotkey and paste text.");
        row(Case::formatterTimedOut, "formatterTimedOut", {}, "Formatting exceeded its time budget.");
        row(Case::destinationChanged, "destinationChanged", {}, "The destination app changed while you were speaking.");
        row(Case::noTextSelected, "noTextSelected", {}, "Select text first, then hold the Edit in Place key.");
        row(Case::secureTextSelected, "secureTextSelected", {},
            "Quorvane never reads or edits password and secure-entry fields.");
        row(Case::selectionChanged, "selectionChanged", {},
            "The selection changed while you were speaking. Nothing was replaced.");
    }
    void messages() {
        QFETCH(QuorvaneError, error);
        QTEST(error.message(), "message");
        QTEST(toName(error.errorCase()), "caseName");
        // Whatever catches it as a standard exception reads the same sentence.
        QTEST(QString::fromUtf8(error.what()), "message");
    }

    // A failed run or command shows one sentence, whichever of our errors ended it.
    void describeError() {
        const std::pair<std::exception_ptr, QString> cases[] = {
            {std::make_exception_ptr(QuorvaneError::injectionFailed(QStringLiteral("no clipboard"))),
             QStringLiteral("Could not insert text: no clipboard")},
            {std::make_exception_ptr(WavDecoder::DecodeError(WavDecoder::DecodeError::Case::notRIFF)),
             QStringLiteral("missing RIFF header")},
            {std::make_exception_ptr(
                 LoopbackHttp::TransportError(QNetworkReply::ConnectionRefusedError, QStringLiteral("refused"))),
             QStringLiteral("no answer from the local server: refused")},
            {std::make_exception_ptr(LoopbackHttp::ParseError(QStringLiteral("<html>"))),
             QStringLiteral("the local server's answer was not JSON: <html>")},
            {std::make_exception_ptr(std::runtime_error("disk full")), QStringLiteral("disk full")},
            {std::make_exception_ptr(42), QStringLiteral("unknown error")},
        };
        for (const auto &[error, sentence] : cases)
            QCOMPARE(::describeError(error), sentence);
    }
};

QTEST_GUILESS_MAIN(TestQuorvaneError)
#include "tst_quorvane_error.moc"
