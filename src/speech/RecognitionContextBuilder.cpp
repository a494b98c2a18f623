#include "speech/RecognitionContextBuilder.h"

#include "core/Text.h"

#include <QRegularExpression>

namespace RecognitionContextBuilder {

QString normalized(const QString &text) {
    const QString folded = Text::fold(text, Text::CaseInsensitive | Text::DiacriticInsensitive);
    QStringList pieces;
    QString piece;
    for (char32_t c : Text::codePoints(folded)) {
        if (Text::isAlphanumeric(c)) {
            piece += Text::fromCodePoint(c);
        } else if (!piece.isEmpty()) {
            pieces.append(piece);
            piece.clear();
        }
    }
    if (!piece.isEmpty())
        pieces.append(piece);
    return pieces.join(QLatin1Char(' '));
}

QString splitIdentifier(const QString &text) {
    enum class Kind { none, lower, upper, digit, otherLetter };
    auto kindOf = [](char32_t c) {
        if (Text::isDigit(c))
            return Kind::digit;
        if (QChar::isLower(c))
            return Kind::lower;
        if (QChar::isUpper(c) || QChar::isTitleCase(c))
            return Kind::upper;
        if (Text::isAlphanumeric(c))
            return Kind::otherLetter;
        return Kind::none;
    };
    const QList<char32_t> scalars = Text::codePoints(text);
    QStringList words;
    QString word;
    auto flush = [&] {
        if (!word.isEmpty())
            words.append(word);
        word.clear();
    };
    Kind previous = Kind::none;
    for (qsizetype i = 0; i < scalars.size(); ++i) {
        const char32_t c = scalars[i];
        Kind kind = kindOf(c);
        // Combining marks belong to the letter before them.
        if (kind == Kind::otherLetter && QChar::category(c) <= QChar::Mark_Enclosing && previous != Kind::none) {
            word += Text::fromCodePoint(c);
            continue;
        }
        if (kind == Kind::none) {
            flush();
            previous = kind;
            continue;
        }
        const bool nextIsLower = i + 1 < scalars.size() && kindOf(scalars[i + 1]) == Kind::lower;
        const bool boundary =
            previous != Kind::none &&
            ((previous == Kind::lower && kind == Kind::upper) || (previous == Kind::digit) != (kind == Kind::digit) ||
             // The last capital of an acronym starts the next word: "HTTPServer" → "HTTP Server".
             (previous == Kind::upper && kind == Kind::upper && nextIsLower));
        if (boundary)
            flush();
        word += Text::fromCodePoint(c);
        previous = kind;
    }
    flush();
    return words.join(QLatin1Char(' '));
}

QStringList spokenVariants(const QString &term) {
    static const QRegularExpression whitespace(QStringLiteral("\\s+"), QRegularExpression::UseUnicodePropertiesOption);
    QString trimmedTerm = term;
    trimmedTerm.replace(whitespace, QStringLiteral(" "));
    trimmedTerm = Text::trimmed(trimmedTerm);
    if (trimmedTerm.isEmpty())
        return {};
    const QString spoken = normalized(splitIdentifier(trimmedTerm));
    if (spoken != normalized(trimmedTerm) && spoken.count(QLatin1Char(' ')) >= 1)
        return {trimmedTerm, spoken};
    return {trimmedTerm};
}

} // namespace RecognitionContextBuilder
