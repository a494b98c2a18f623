#pragma once

#include <QRegularExpression>
#include <QSet>
#include <QString>
#include <QStringList>

// Text rules the guards share beyond those of core/Text: horizontal trimming, the folded form used
// to compare protected tokens, word length in user-perceived characters and the stop words.
namespace GuardText {

// Tab and the space separators: white space that is not a line break.
bool isHorizontalSpace(char32_t c);
QString trimmedHorizontal(QStringView text);

// Case- and diacritic-insensitive form used whenever two tokens must compare "the same".
QString folded(const QString &text);

// Whether the word has more than `count` user-perceived characters.
bool isLongerThan(const QString &word, qsizetype count);

// The 54 words too common to say anything about a text's meaning.
const QSet<QString> &stopWords();

// Words of at least two characters that are not stop words, in order with repeats.
QStringList contentWords(const QStringList &words);

// A regular expression with Unicode-aware \s, \b, \d and \w, compiled now so that later matches
// from any thread only read it. An invalid pattern is logged and never matches.
QRegularExpression compiled(const QString &pattern, QRegularExpression::PatternOptions options = {});

// Shapes of tokens a rewrite must keep word for word; each guard protects those that fit its mode.
namespace ProtectedPattern {
constexpr const char *webAddress = R"(https?://[^\s<>()]+)";
constexpr const char *emailAddress = R"([A-Za-z0-9._%+-]+@[A-Za-z0-9.-]+\.[A-Za-z]{2,})";
constexpr const char *path = R"((?:[A-Za-z0-9_.-]+/)+[A-Za-z0-9_.-]+)";
constexpr const char *snakeCaseIdentifier = R"(\b[A-Za-z][A-Za-z0-9]*_[A-Za-z0-9_]+\b)";
constexpr const char *acronym = R"(\b[A-Z]{2,}[A-Za-z0-9_]*\b)";
constexpr const char *numberOrTime = R"(\b\d+(?::\d+)?\b)";
} // namespace ProtectedPattern

} // namespace GuardText
