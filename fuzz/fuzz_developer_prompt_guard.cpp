#include "FuzzInput.h"
#include "formatting/DeveloperPromptGuard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const QStringList fields = FuzzInput::fields(data + 1, size - 1);
    const QString raw = FuzzInput::field(fields, 0);
    const QString proposed = FuzzInput::field(fields, 1);
    // The first byte says whether repository facts were attached.
    const std::optional<QString> repository =
        (data[0] & 1) ? std::optional<QString>(FuzzInput::field(fields, 2)) : std::nullopt;
    const QStringList vocabulary = fields.mid(3);

    const DeveloperPromptGuard::Decision decision =
        DeveloperPromptGuard::evaluate(raw, proposed, vocabulary, repository);
    if (decision.verdict == DeveloperPromptGuard::Verdict::accepted) {
        const std::optional<DeveloperPromptDocument> document = DeveloperPromptDocument::parse(proposed);
        FUZZ_REQUIRE(document.has_value());
        FUZZ_REQUIRE(decision.text == document->rendered());
    } else {
        // The request is never lost: it is the goal of what gets delivered, verbatim.
        FUZZ_REQUIRE(decision.text == DeveloperPromptGuard::fallbackDocument(raw).rendered());
        FUZZ_REQUIRE(decision.text.startsWith(QStringLiteral("Goal:\n") + raw + QStringLiteral("\n\nContext:\n")));
    }
    return 0;
}
