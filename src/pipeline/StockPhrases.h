#pragma once

#include <QString>

// Phrases speech models are known to produce from near-silence ("Thank you.", "Thanks for
// watching!", "you"): learned from subtitled video, not heard from the user.
namespace StockPhrases {

// Whether `transcript` is made of such phrases only, ignoring case and punctuation.
bool only(const QString &transcript);

} // namespace StockPhrases
