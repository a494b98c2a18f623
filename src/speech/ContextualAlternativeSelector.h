#pragma once

#include <QString>
#include <QStringList>

// Picks, among a recogniser's primary transcript and its alternatives, the one that contains the most
// context phrases, but only when it differs little from the primary: the context may fix a misheard
// name, never rewrite the sentence.
namespace ContextualAlternativeSelector {

QString choose(const QString &primary, const QStringList &alternatives, const QStringList &contextualPhrases);

// 10 points per word of each 2- to 4-word phrase found on word boundaries in the text.
int contextScore(const QString &text, const QStringList &phrases);
// Levenshtein distance in user-perceived characters.
int editDistance(const QString &a, const QString &b);
// Word counts within one of each other, and an edit distance within max(2, 30 % of the longer text).
bool isConservativeAlternative(const QString &primary, const QString &candidate);

} // namespace ContextualAlternativeSelector
