#include "FuzzInput.h"
#include "core/Text.h"
#include "formatting/DeveloperPromptDocument.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<DeveloperPromptDocument> document = DeveloperPromptDocument::parse(text);
    if (!document)
        return 0;
    FUZZ_REQUIRE(!document->goal.isEmpty());
    for (const QString *section : {&document->goal, &document->context, &document->constraints,
                                   &document->acceptanceCriteria, &document->verification}) {
        FUZZ_REQUIRE(*section == Text::trimmed(*section));
        FUZZ_REQUIRE(!section->contains(QLatin1Char('\r')));
    }
    FUZZ_REQUIRE(document->rendered().startsWith(QStringLiteral("Goal:\n") + document->goal + QStringLiteral("\n\n")));
    FUZZ_REQUIRE(document->content().startsWith(document->goal));
    return 0;
}
