#pragma once

#include <QString>
#include <optional>

// A development task in five sections, as handed to a coding agent.
struct DeveloperPromptDocument {
    QString goal;
    QString context;
    QString constraints;
    QString acceptanceCriteria;
    QString verification;

    bool operator==(const DeveloperPromptDocument &) const = default;

    // A model reply that is exactly the five headings in order, "Goal:" first and a non-empty goal;
    // anything else (a preamble, a missing or repeated heading, text after a heading's colon) is
    // not a document.
    static std::optional<DeveloperPromptDocument> parse(const QString &text);

    // The delivered text: all five headings, each followed by its section.
    QString rendered() const;
    // The non-empty sections without headings: what the guard measures.
    QString content() const;
};
