#include "formatting/GuardText.h"

#include "core/Log.h"
#include "core/Text.h"

namespace GuardText {

bool isHorizontalSpace(char32_t c) {
    return c == U'\t' || QChar::category(c) == QChar::Separator_Space;
}

QString trimmedHorizontal(QStringView text) {
    qsizetype begin = 0;
    qsizetype end = text.size();
    // Every horizontal space is in the basic plane, so stepping by QChar is exact here.
    while (begin < end && isHorizontalSpace(text.at(begin).unicode()))
        ++begin;
    while (end > begin && isHorizontalSpace(text.at(end - 1).unicode()))
        --end;
    return text.mid(begin, end - begin).toString();
}

QString folded(const QString &text) {
    return Text::fold(text, Text::CaseInsensitive | Text::DiacriticInsensitive);
}

bool isLongerThan(const QString &word, qsizetype count) {
    // A word never has more characters than UTF-16 units, so short words need no segmentation.
    if (word.size() <= count)
        return false;
    return Text::graphemeCount(word) > count;
}

const QSet<QString> &stopWords() {
    static const QSet<QString> words{
        "a",     "an",     "and",  "are", "as",   "at",   "be",    "been",  "but",   "by",   "can",
        "could", "for",    "from", "had", "has",  "have", "he",    "her",   "here",  "him",  "his",
        "i",     "if",     "in",   "is",  "it",   "its",  "me",    "my",    "of",    "on",   "or",
        "our",   "please", "she",  "so",  "that", "the",  "their", "them",  "there", "they", "this",
        "to",    "us",     "was",  "we",  "were", "will", "with",  "would", "you",   "your",
    };
    return words;
}

QStringList contentWords(const QStringList &words) {
    QStringList result;
    for (const QString &word : words) {
        if (isLongerThan(word, 1) && !stopWords().contains(word))
            result.append(word);
    }
    return result;
}

QRegularExpression compiled(const QString &pattern, QRegularExpression::PatternOptions options) {
    QRegularExpression expression(pattern, options | QRegularExpression::UseUnicodePropertiesOption);
    if (!expression.isValid()) {
        Log::error(QStringLiteral("Pattern does not compile: ") + pattern + QStringLiteral(" (") +
                   expression.errorString() + QStringLiteral(")"));
        return expression;
    }
    expression.optimize();
    return expression;
}

} // namespace GuardText
