#pragma once

#include <QString>
#include <QStringList>

// Turns vocabulary terms into the phrases handed to the recogniser, with a spoken form for
// identifiers written in code style ("getUserName" is said "get user name").
namespace RecognitionContextBuilder {

// Case- and accent-folded, alphanumeric runs joined by single spaces: the form texts are compared in.
QString normalized(const QString &text);
// The words of a code-style identifier separated by spaces: "parseHTTPResponse2" → "parse HTTP Response 2".
QString splitIdentifier(const QString &text);
// The term as written and, when it reads differently, its spoken form.
QStringList spokenVariants(const QString &term);

} // namespace RecognitionContextBuilder
