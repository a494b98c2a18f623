#include "FuzzInput.h"
#include "core/Text.h"
#include "formatting/TranscriptGuard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QStringList fields = FuzzInput::fields(data, size);
    const QString raw = FuzzInput::field(fields, 0);
    const QString formatted = FuzzInput::field(fields, 1);

    TranscriptGuard guard;
    // The first byte also varies the configured thresholds.
    if (size > 0) {
        guard.minContentRetention = double(data[0] % 11) / 10.0;
        guard.maxLengthRatio = 1.0 + double(data[0] % 7) / 2.0;
    }
    const TranscriptGuard::Decision decision = guard.evaluate(raw, formatted);
    if (decision.verdict == TranscriptGuard::Verdict::accepted) {
        FUZZ_REQUIRE(decision.text == Text::trimmed(formatted));
        FUZZ_REQUIRE(!decision.text.isEmpty());
    } else {
        FUZZ_REQUIRE(decision.text == TranscriptGuard::lightlyPunctuate(raw));
        FUZZ_REQUIRE(decision.verdict != TranscriptGuard::Verdict::skippedTooShort &&
                     decision.verdict != TranscriptGuard::Verdict::formatterFailed &&
                     decision.verdict != TranscriptGuard::Verdict::formatterDisabled);
    }
    for (const QString &word : TranscriptGuard::words(raw))
        FUZZ_REQUIRE(!word.isEmpty());
    return 0;
}
