#include "pipeline/StockPhrases.h"

#include <QRegularExpression>
#include <QStringList>
#include <vector>

namespace StockPhrases {

namespace {

// Longer phrases first, so "thank you for watching" is not read as "thank you" and leftovers.
const std::vector<QStringList> &phrases() {
    static const std::vector<QStringList> list = [] {
        const char *const texts[] = {
            "thank you for watching",
            "thanks for watching",
            "thank you for listening",
            "thanks for listening",
            "please subscribe",
            "like and subscribe",
            "thank you very much",
            "thank you so much",
            "thank you",
            "thanks",
            "bye bye",
            "bye",
            "you",
            "blank audio",
        };
        std::vector<QStringList> words;
        for (const char *text : texts)
            words.push_back(QString::fromLatin1(text).split(QLatin1Char(' ')));
        return words;
    }();
    return list;
}

} // namespace

bool only(const QString &transcript) {
    // Anything but letters and apostrophes separates words: "[BLANK_AUDIO]", "Thanks!", "you..."
    static const QRegularExpression separators(QStringLiteral("[^\\p{L}']+"));
    const QStringList words = transcript.toCaseFolded().split(separators, Qt::SkipEmptyParts);
    if (words.isEmpty())
        return false;
    qsizetype at = 0;
    while (at < words.size()) {
        qsizetype matched = 0;
        for (const QStringList &phrase : phrases()) {
            if (words.mid(at, phrase.size()) == phrase) {
                matched = phrase.size();
                break;
            }
        }
        if (matched == 0)
            return false;
        at += matched;
    }
    return true;
}

} // namespace StockPhrases
