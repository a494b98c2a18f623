#include "repository/RepositoryCandidateSelector.h"

#include "core/Text.h"
#include "repository/RepositoryIndexer.h"

#include <QSet>
#include <algorithm>

namespace RepositoryCandidateSelector {

namespace {

bool containsAny(const QString &text, std::initializer_list<const char *> needles) {
    return std::any_of(needles.begin(), needles.end(),
                       [&text](const char *needle) { return text.contains(QLatin1String(needle)); });
}

} // namespace

std::optional<int> depthFromFrontmost(qint32 processID, qint32 frontmostProcessID,
                                      const QMap<qint32, ProcessWorkingDirectory> &processes) {
    QSet<qint32> visited;
    qint32 current = processID;
    int depth = 0;
    while (current != frontmostProcessID) {
        const auto it = processes.constFind(current);
        if (it == processes.cend() || visited.contains(current))
            return std::nullopt;
        visited.insert(current);
        current = it->parentProcessID;
        ++depth;
    }
    return depth;
}

int score(const ProcessWorkingDirectory &process, int depth) {
    const QString command = Text::lower(process.command);
    const int agentBonus = containsAny(command, {"/codex", " codex", "/claude", " claude", "cursor-agent"}) ? 10000 : 0;
    const int editorBonus = containsAny(command, {"code helper", "cursor helper", "xcode"}) ? 5000 : 0;
    const int components =
        static_cast<int>(process.workingDirectory.split(QLatin1Char('/'), Qt::SkipEmptyParts).size());
    return agentBonus + editorBonus + depth * 100 + std::min(components, 50);
}

std::optional<QString> select(qint32 frontmostProcessID, const QMap<qint32, ProcessWorkingDirectory> &processes) {
    std::optional<QString> best;
    int bestScore = 0;
    for (const ProcessWorkingDirectory &process : processes) {
        if (process.workingDirectory.isEmpty())
            continue;
        const auto depth = depthFromFrontmost(process.processID, frontmostProcessID, processes);
        if (!depth || !RepositoryIndexer::findRepositoryRoot(process.workingDirectory))
            continue;
        const int candidateScore = score(process, *depth);
        if (!best || candidateScore > bestScore) {
            best = process.workingDirectory;
            bestScore = candidateScore;
        }
    }
    return best;
}

} // namespace RepositoryCandidateSelector
