#include "FuzzInput.h"
#include "core/Text.h"
#include "formatting/RewriteGuard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const RewriteCommand command = RewriteCommand::allCases()[data[0] % RewriteCommand::allCases().size()];
    const QStringList fields = FuzzInput::fields(data + 1, size - 1);
    const QString original = FuzzInput::field(fields, 0);
    const QString rewritten = FuzzInput::field(fields, 1);
    const QStringList vocabulary = fields.mid(2);

    const RewriteGuard::Decision decision = RewriteGuard::evaluate(original, rewritten, command, vocabulary);
    if (decision.verdict == RewriteGuard::Verdict::accepted) {
        FUZZ_REQUIRE(decision.text == Text::trimmed(rewritten));
        FUZZ_REQUIRE(decision.text != Text::trimmed(original));
    } else {
        FUZZ_REQUIRE(decision.text == Text::trimmed(original));
    }
    // The spoken command parser sees the same kind of arbitrary text.
    if (const std::optional<RewriteCommand> parsed = RewriteCommand::parse(original))
        FUZZ_REQUIRE(RewriteCommand::fromRawValue(parsed->rawValue()) == parsed);
    return 0;
}
