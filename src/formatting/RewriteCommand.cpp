#include "formatting/RewriteCommand.h"

#include "core/Text.h"
#include "formatting/TranscriptGuard.h"

#include <array>

namespace {

struct CommandInfo {
    const char *rawValue;
    const char *displayName;
    const char *instructionLine;
    QStringList keywords;
};

const std::array<CommandInfo, 6> &table() {
    static const std::array<CommandInfo, 6> commands{{
        {"fixGrammar",
         "Fix grammar",
         "Correct grammar, spelling, punctuation, and capitalization without changing tone or meaning.",
         {"grammar", "proofread", "fix spelling"}},
        {"shorten",
         "Make concise",
         "Make the text materially shorter while preserving every important fact and request.",
         {"shorten", "shorter", "concise", "condense"}},
        {"makeFormal",
         "Make formal",
         "Use a professional, formal tone without adding facts, commitments, greetings, or sign-offs.",
         {"formal", "professional tone"}},
        {"makeCasual",
         "Make casual",
         "Use a natural, casual tone without changing the meaning or adding new information.",
         {"casual", "friendly tone", "relaxed tone"}},
        {"improveClarity",
         "Improve clarity",
         "Improve clarity and sentence structure while preserving the exact meaning.",
         {"clearer", "clarity", "improve clarity", "more clear"}},
        {"bulletList",
         "Turn into bullet points",
         "Turn the text into a concise bullet list without adding, removing, or reordering facts.",
         {"bullet", "bulleted list"}},
    }};
    return commands;
}

const CommandInfo &info(RewriteCommand command) {
    return table()[static_cast<size_t>(command.value())];
}

} // namespace

const QList<RewriteCommand> &RewriteCommand::allCases() {
    static const QList<RewriteCommand> cases{fixGrammar, shorten, makeFormal, makeCasual, improveClarity, bulletList};
    return cases;
}

QString RewriteCommand::rawValue() const {
    return QString::fromLatin1(info(*this).rawValue);
}

std::optional<RewriteCommand> RewriteCommand::fromRawValue(const QString &raw) {
    for (RewriteCommand command : allCases()) {
        if (command.rawValue() == raw)
            return command;
    }
    return std::nullopt;
}

QString RewriteCommand::displayName() const {
    return QString::fromLatin1(info(*this).displayName);
}

QString RewriteCommand::instructionLine() const {
    return QString::fromLatin1(info(*this).instructionLine);
}

QStringList RewriteCommand::keywords() const {
    return info(*this).keywords;
}

std::optional<RewriteCommand> RewriteCommand::parse(const QString &spoken) {
    // Folded first so that "Formál" and "FORMAL" both say formal; the word splitter then turns
    // every punctuation mark into a single space.
    const QString normalised =
        TranscriptGuard::words(Text::fold(spoken, Text::CaseInsensitive | Text::DiacriticInsensitive))
            .join(QLatin1Char(' '));
    if (normalised.isEmpty())
        return std::nullopt;
    std::optional<RewriteCommand> found;
    for (RewriteCommand command : allCases()) {
        for (const QString &keyword : command.keywords()) {
            if (normalised.contains(keyword)) {
                // Two different commands in one utterance are ambiguous: better to do nothing.
                if (found)
                    return std::nullopt;
                found = command;
                break;
            }
        }
    }
    return found;
}

QStringList RewriteCommand::recognitionHints() {
    QStringList hints;
    for (RewriteCommand command : allCases())
        hints.append(Text::lower(command.displayName()));
    return hints;
}
