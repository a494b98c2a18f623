#pragma once

#include <QList>
#include <QRegularExpression>
#include <QSet>
#include <QString>
#include <QStringList>

// The tokens of a development request that must survive word for word: addresses, paths, file
// names, flags, identifiers, names, versions, numbers and the speaker's vocabulary.
namespace DeveloperPromptAnchors {

// Every anchor in the text, folded (case and diacritics) so that "FooBar" and "fooBar" are one.
// All vocabulary terms the text contains count, not only those that fit in the model's message.
QSet<QString> extract(const QString &text, const QStringList &vocabulary);

const QList<QRegularExpression> &patterns();

} // namespace DeveloperPromptAnchors
