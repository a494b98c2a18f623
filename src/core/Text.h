#pragma once

#include <QString>
#include <QStringList>

// The Unicode rules the rest of the system relies on, in one place, so that "white space",
// "letter" and "character" mean the same thing in every guard, tokenizer and metric.
namespace Text {

// White space and line breaks of any script (Unicode White_Space plus the line separators).
bool isWhitespaceOrNewline(char32_t c);
// Letters, marks and digits of any script (general categories L*, M*, N*).
bool isAlphanumeric(char32_t c);
bool isLetter(char32_t c);
bool isDigit(char32_t c);
bool isPunctuation(char32_t c);

// Trims white space and line breaks at both ends.
QString trimmed(const QString &text);
QString lower(const QString &text);
QString upper(const QString &text);

// The composed form (NFC): "é" and "e" + U+0301 are one text once they pass through here.
QString composed(const QString &text);

enum FoldOption { CaseInsensitive = 1, DiacriticInsensitive = 2, WidthInsensitive = 4 };
// Folds the text for comparison: case (Unicode case-fold), diacritics (every combining mark of the
// canonical decomposition removed) and width (full-width and half-width forms mapped to normal).
// The result is always composed, so texts differing only by composition fold alike.
QString fold(const QString &text, int options = CaseInsensitive | DiacriticInsensitive | WidthInsensitive);

// User-perceived characters (extended grapheme clusters).
qsizetype graphemeCount(const QString &text);
QStringList graphemes(const QString &text);

// The text as code points; iterate these, never QChar, so that astral characters stay whole.
QList<char32_t> codePoints(const QString &text);
QString fromCodePoint(char32_t c);

// Splits on runs of white space and line breaks, dropping empty pieces.
QStringList splitOnWhitespace(const QString &text);

} // namespace Text
