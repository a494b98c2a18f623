#pragma once

#include "platform/ProcessTreeSource.h"

#include <QMap>
#include <QString>
#include <optional>

// Picks, among the processes running under the frontmost application, the working directory the
// user is most likely talking about: a coding agent beats an editor helper beats a plain shell,
// deeper processes beat their parents, and a deeper directory breaks the remaining ties.
namespace RepositoryCandidateSelector {

// The chosen working directory; absent when no descendant works inside a Git repository.
// Equal scores go to the lowest process id.
std::optional<QString> select(qint32 frontmostProcessID, const QMap<qint32, ProcessWorkingDirectory> &processes);

// Steps from `processID` up to the frontmost process (0 for the frontmost itself); absent when the
// walk leaves the table or runs into a cycle before reaching it.
std::optional<int> depthFromFrontmost(qint32 processID, qint32 frontmostProcessID,
                                      const QMap<qint32, ProcessWorkingDirectory> &processes);

int score(const ProcessWorkingDirectory &process, int depth);

} // namespace RepositoryCandidateSelector
