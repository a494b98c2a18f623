#include "FuzzInput.h"
#include "core/Text.h"
#include "formatting/FormatterPrompt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QString reply = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString clean = FormatterPrompt::sanitize(reply);
    // Clean-up only ever removes, always trims, and leaves no reasoning block behind.
    FUZZ_REQUIRE(clean.size() <= reply.size());
    FUZZ_REQUIRE(clean == Text::trimmed(clean));
    FUZZ_REQUIRE(!clean.contains(QStringLiteral("<think>")));
    return 0;
}
