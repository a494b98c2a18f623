#include "formatting/DeveloperPromptAnchors.h"

#include "core/Text.h"
#include "formatting/GuardText.h"

namespace DeveloperPromptAnchors {

const QList<QRegularExpression> &patterns() {
    using namespace GuardText::ProtectedPattern;
    static const QList<QRegularExpression> compiledPatterns{
        GuardText::compiled(QLatin1String(webAddress)),
        GuardText::compiled(QLatin1String(emailAddress)),
        // relative and nested paths
        GuardText::compiled(QStringLiteral(R"((?:\./)?)") + QLatin1String(path)),
        // bare file names
        GuardText::compiled(
            QStringLiteral(R"(\b[A-Za-z0-9_-]+\.(?:swift|json|jsonl|md|sh|py|ts|tsx|js|jsx|rs|go|toml|yaml|yml)"
                           R"(|sql|html|css|plist|dmg|wav)\b)")),
        // command-line flags
        GuardText::compiled(QStringLiteral(R"((?<![A-Za-z0-9_])--?[A-Za-z][A-Za-z0-9-]*)")),
        GuardText::compiled(QLatin1String(snakeCaseIdentifier)),
        // camelCase and PascalCase identifiers
        GuardText::compiled(QStringLiteral(R"(\b(?:[a-z]+[A-Z][A-Za-z0-9]*|[A-Z][A-Za-z0-9]+[A-Z][A-Za-z0-9]*)\b)")),
        // capitalised names
        GuardText::compiled(QStringLiteral(R"(\b[A-Z][a-z]{2,}\b)")),
        GuardText::compiled(QLatin1String(acronym)),
        // generic types
        GuardText::compiled(QStringLiteral(R"(\b[A-Za-z][A-Za-z0-9]*<[^>\n]+>)")),
        // dotted versions with an optional suffix
        GuardText::compiled(QStringLiteral(R"(\b\d+(?:\.\d+)+(?:[-+][A-Za-z0-9.-]+)?\b)")),
        // numbers, ports, times and line references
        GuardText::compiled(QLatin1String(numberOrTime)),
    };
    return compiledPatterns;
}

QSet<QString> extract(const QString &input, const QStringList &vocabulary) {
    // Composed before matching: a combining accent would otherwise end a name early ("Rene" + U+0301).
    const QString text = Text::composed(input);
    static const QString edgePunctuation = QStringLiteral(".,!?;:");
    QSet<QString> anchors;
    for (const QRegularExpression &pattern : patterns()) {
        auto matches = pattern.globalMatch(text);
        while (matches.hasNext()) {
            // Sentence punctuation that clings to a token is not part of it ("see main.rs.").
            const QString match = matches.next().captured(0);
            qsizetype begin = 0;
            qsizetype end = match.size();
            while (begin < end && edgePunctuation.contains(match.at(begin)))
                ++begin;
            while (end > begin && edgePunctuation.contains(match.at(end - 1)))
                --end;
            if (begin < end)
                anchors.insert(GuardText::folded(match.mid(begin, end - begin)));
        }
    }
    const QString foldedText = GuardText::folded(text);
    for (const QString &term : vocabulary) {
        const QString trimmed = Text::trimmed(term);
        if (trimmed.isEmpty())
            continue;
        const QString foldedTerm = GuardText::folded(trimmed);
        if (foldedText.contains(foldedTerm))
            anchors.insert(foldedTerm);
    }
    return anchors;
}

} // namespace DeveloperPromptAnchors
