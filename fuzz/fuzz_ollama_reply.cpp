// The formatting server's replies: the model list read at start-up and a generated text. Any body
// must list names or nothing, and give a text or the parse error the pipeline falls back on.
#include "FuzzInput.h"
#include "core/Text.h"
#include "formatting/FormatterPrompt.h"
#include "formatting/OllamaFormatter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QByteArray body = FuzzInput::bytes(data, size);
    std::optional<QJsonDocument> document;
    try {
        document = LoopbackHttp::parseJson(body);
    } catch (const LoopbackHttp::ParseError &) {
    }
    if (document) {
        for (const QString &name : OllamaFormatter::modelNames(*document))
            FUZZ_REQUIRE(name.size() <= body.size());
    }
    bool parsed = true;
    try {
        const QString reply = FormatterPrompt::sanitize(OllamaFormatter::responseFromReply(body));
        FUZZ_REQUIRE(reply == Text::trimmed(reply));
    } catch (const LoopbackHttp::ParseError &) {
        parsed = false;
    }
    // Both replies are read by the same rules: a body is JSON for both or for neither.
    FUZZ_REQUIRE(parsed == document.has_value());
    return 0;
}
