// The speech server's reply becomes text typed into the user's window: any body must give either a
// transcript free of annotations or the parse error the pipeline reports.
#include "FuzzInput.h"
#include "speech/WhisperServerEngine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QByteArray body = FuzzInput::bytes(data, size);
    QString transcript;
    try {
        transcript = WhisperServerEngine::transcriptFromReply(body);
    } catch (const WhisperServerEngine::ParseError &) {
        return 0;
    }
    FUZZ_REQUIRE(WhisperServerEngine::stripAnnotations(transcript) == transcript);
    // Escapes only ever shorten; nothing is invented.
    FUZZ_REQUIRE(transcript.size() <= QString::fromUtf8(body).size());
    return 0;
}
