#include "core/Text.h"

#include <QChar>
#include <QTextBoundaryFinder>

namespace Text {

bool isWhitespaceOrNewline(char32_t c) {
    switch (c) {
    case 0x0009:
    case 0x000A:
    case 0x000B:
    case 0x000C:
    case 0x000D:
    case 0x0020:
    case 0x0085:
    case 0x00A0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
        return true;
    default:
        return c >= 0x2000 && c <= 0x200A;
    }
}

bool isLetter(char32_t c) {
    return QChar::isLetter(c);
}

bool isDigit(char32_t c) {
    return QChar::isNumber(c);
}

bool isAlphanumeric(char32_t c) {
    return QChar::isLetterOrNumber(c) || QChar::isMark(c);
}

bool isPunctuation(char32_t c) {
    return QChar::isPunct(c);
}

QString trimmed(const QString &text) {
    const QList<char32_t> points = codePoints(text);
    qsizetype begin = 0;
    qsizetype end = points.size();
    while (begin < end && isWhitespaceOrNewline(points[begin]))
        ++begin;
    while (end > begin && isWhitespaceOrNewline(points[end - 1]))
        --end;
    if (begin == 0 && end == points.size())
        return text;
    return QString::fromUcs4(points.constData() + begin, end - begin);
}

QString lower(const QString &text) {
    return text.toLower();
}

QString upper(const QString &text) {
    return text.toUpper();
}

QString composed(const QString &text) {
    return text.normalized(QString::NormalizationForm_C);
}

QString fold(const QString &text, int options) {
    QString result = text;
    if (options & WidthInsensitive) {
        QString widened;
        widened.reserve(result.size());
        for (char32_t c : codePoints(result)) {
            const QChar::Decomposition tag = QChar::decompositionTag(c);
            if (tag == QChar::Wide || tag == QChar::Narrow)
                widened += QChar::decomposition(c);
            else
                widened += fromCodePoint(c);
        }
        result = widened;
    }
    if (options & DiacriticInsensitive) {
        const QString decomposed = result.normalized(QString::NormalizationForm_D);
        QString stripped;
        stripped.reserve(decomposed.size());
        for (char32_t c : codePoints(decomposed)) {
            if (!QChar::isMark(c))
                stripped += fromCodePoint(c);
        }
        result = stripped;
    }
    // Case-folding, unlike lower-casing, also unifies forms such as the final sigma.
    if (options & CaseInsensitive)
        result = result.toCaseFolded();
    return composed(result);
}

qsizetype graphemeCount(const QString &text) {
    if (text.isEmpty())
        return 0;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() != -1)
        ++count;
    return count;
}

QStringList graphemes(const QString &text) {
    QStringList clusters;
    if (text.isEmpty())
        return clusters;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    qsizetype end;
    while ((end = finder.toNextBoundary()) != -1) {
        clusters.append(text.mid(start, end - start));
        start = end;
    }
    return clusters;
}

QList<char32_t> codePoints(const QString &text) {
    QList<char32_t> points;
    points.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar ch = text.at(i);
        if (ch.isHighSurrogate() && i + 1 < text.size() && text.at(i + 1).isLowSurrogate()) {
            points.append(QChar::surrogateToUcs4(ch, text.at(i + 1)));
            ++i;
        } else {
            points.append(ch.unicode());
        }
    }
    return points;
}

QString fromCodePoint(char32_t c) {
    if (QChar::requiresSurrogates(c)) {
        const QChar pair[2] = {QChar(QChar::highSurrogate(c)), QChar(QChar::lowSurrogate(c))};
        return QString(pair, 2);
    }
    return QString(QChar(static_cast<char16_t>(c)));
}

QStringList splitOnWhitespace(const QString &text) {
    QStringList parts;
    QString current;
    for (char32_t c : codePoints(text)) {
        if (isWhitespaceOrNewline(c)) {
            if (!current.isEmpty()) {
                parts.append(current);
                current.clear();
            }
        } else {
            current += fromCodePoint(c);
        }
    }
    if (!current.isEmpty())
        parts.append(current);
    return parts;
}

} // namespace Text
