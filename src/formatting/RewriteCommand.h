#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

// The closed set of Edit in Place operations. The order of the cases is the order in which spoken
// commands are matched.
class RewriteCommand {
public:
    enum Value { fixGrammar, shorten, makeFormal, makeCasual, improveClarity, bulletList };

    constexpr RewriteCommand(Value value) : m_value(value) {}
    constexpr Value value() const { return m_value; }
    constexpr bool operator==(const RewriteCommand &) const = default;

    static const QList<RewriteCommand> &allCases();
    // The stored form ("fixGrammar").
    QString rawValue() const;
    static std::optional<RewriteCommand> fromRawValue(const QString &raw);

    QString displayName() const;
    // The one line that tells the model what this operation is.
    QString instructionLine() const;
    // Phrases that select this command when the utterance contains one of them.
    QStringList keywords() const;

    // The one command the utterance asks for; none when it names no command or several.
    static std::optional<RewriteCommand> parse(const QString &spoken);
    // Phrases the recogniser should expect while a command is spoken; each selects its command.
    static QStringList recognitionHints();

private:
    Value m_value;
};
