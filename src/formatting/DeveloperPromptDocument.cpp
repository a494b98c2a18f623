#include "formatting/DeveloperPromptDocument.h"

#include "core/Text.h"
#include "formatting/GuardText.h"

#include <QStringList>
#include <array>

namespace {

const std::array<QString, 5> &headings() {
    static const std::array<QString, 5> lines{
        QStringLiteral("Goal:"),         QStringLiteral("Context:"),
        QStringLiteral("Constraints:"),  QStringLiteral("Acceptance criteria:"),
        QStringLiteral("Verification:"),
    };
    return lines;
}

} // namespace

std::optional<DeveloperPromptDocument> DeveloperPromptDocument::parse(const QString &text) {
    QString normalised = text;
    normalised.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    normalised.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    const QStringList lines = Text::trimmed(normalised).split(QLatin1Char('\n'));

    std::array<qsizetype, 5> headingLine{-1, -1, -1, -1, -1};
    for (qsizetype index = 0; index < lines.size(); ++index) {
        const QString line = GuardText::trimmedHorizontal(lines[index]);
        for (size_t heading = 0; heading < headings().size(); ++heading) {
            if (line != headings()[heading])
                continue;
            // A repeated heading makes the sections ambiguous.
            if (headingLine[heading] >= 0)
                return std::nullopt;
            headingLine[heading] = index;
        }
    }
    // Any preamble before the goal is model chatter, not part of a task.
    if (headingLine[0] != 0)
        return std::nullopt;
    for (size_t heading = 1; heading < headingLine.size(); ++heading) {
        if (headingLine[heading] <= headingLine[heading - 1])
            return std::nullopt;
    }

    std::array<QString, 5> sections;
    for (size_t heading = 0; heading < sections.size(); ++heading) {
        const qsizetype first = headingLine[heading] + 1;
        const qsizetype end = heading + 1 < headingLine.size() ? headingLine[heading + 1] : lines.size();
        sections[heading] = Text::trimmed(lines.mid(first, end - first).join(QLatin1Char('\n')));
    }
    if (sections[0].isEmpty())
        return std::nullopt;
    return DeveloperPromptDocument{sections[0], sections[1], sections[2], sections[3], sections[4]};
}

QString DeveloperPromptDocument::rendered() const {
    return headings()[0] + QLatin1Char('\n') + goal + QStringLiteral("\n\n") + headings()[1] + QLatin1Char('\n') +
           context + QStringLiteral("\n\n") + headings()[2] + QLatin1Char('\n') + constraints + QStringLiteral("\n\n") +
           headings()[3] + QLatin1Char('\n') + acceptanceCriteria + QStringLiteral("\n\n") + headings()[4] +
           QLatin1Char('\n') + verification;
}

QString DeveloperPromptDocument::content() const {
    QStringList parts;
    for (const QString *section : {&goal, &context, &constraints, &acceptanceCriteria, &verification}) {
        if (!section->isEmpty())
            parts.append(*section);
    }
    return parts.join(QLatin1Char('\n'));
}
