// Prompt Mode reads a repository the user did not necessarily write: Git's file list and HEAD, a
// ".git" file of a worktree, and the source files themselves. None of it may lead the indexer out
// of the repository, and a valid UTF-8 source file is never dropped for where its prefix was cut.
#include "FuzzInput.h"
#include "repository/RepositoryIndexer.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    static const QString scratch = FuzzInput::scratchDirectory();
    static const QString repository = scratch + QStringLiteral("/repository");
    static const QString worktree = scratch + QStringLiteral("/worktree");
    static const bool made = [] {
        return QDir().mkpath(repository + QStringLiteral("/.git")) &&
               QDir().mkpath(repository + QStringLiteral("/src")) && QDir().mkpath(worktree);
    }();
    FUZZ_REQUIRE(made);
    // Fields: a source file, HEAD, a worktree's ".git" file, then "git ls-files -z" output.
    const QList<QByteArray> fields = FuzzInput::bytes(data + 1, size - 1).split('\x1e');
    const auto field = [&fields](qsizetype index) { return index < fields.size() ? fields[index] : QByteArray(); };
    const QByteArray source = field(0);
    const QString sourcePath = repository + QStringLiteral("/src/Main.swift");
    FuzzInput::writeFile(sourcePath, source);
    FuzzInput::writeFile(repository + QStringLiteral("/.git/HEAD"), field(1));
    FuzzInput::writeFile(worktree + QStringLiteral("/.git"), field(2));

    // The first byte sets where the prefix is cut.
    const qint64 maxBytes = 1 + data[0] % 64;
    const std::optional<QString> prefix = RepositoryIndexer::readPrefix(sourcePath, maxBytes);
    if (QString::fromUtf8(source).toUtf8() == source)
        FUZZ_REQUIRE(prefix.has_value());
    if (prefix) {
        FUZZ_REQUIRE(prefix->toUtf8().size() <= maxBytes);
        static const QRegularExpression identifier(QStringLiteral("\\A[A-Za-z_][A-Za-z0-9_]*\\z"));
        for (const QString &name : RepositoryIndexer::extractIdentifiers(*prefix))
            FUZZ_REQUIRE(identifier.match(name).hasMatch() && prefix->contains(name));
    }
    for (const QString &root : {repository, worktree}) {
        if (const std::optional<QString> branch = RepositoryIndexer::branchName(root))
            FUZZ_REQUIRE(!branch->isEmpty());
    }

    const QStringList tracked =
        RepositoryIndexer::trackedFilesFromListing(field(3) + QByteArray("\0src/Main.swift", 15), 64);
    FUZZ_REQUIRE(tracked.size() <= 64);
    const RepositoryContext context = RepositoryIndexer().indexListed(repository, tracked);
    const QString canonicalRoot = QFileInfo(repository).canonicalFilePath() + QLatin1Char('/');
    for (const QString &keyFile : context.keyFiles) {
        const QString canonical = QFileInfo(repository + QLatin1Char('/') + keyFile).canonicalFilePath();
        FUZZ_REQUIRE(canonical.startsWith(canonicalRoot));
    }
    for (const QString &term : context.vocabulary)
        FUZZ_REQUIRE(RepositoryIndexer::isUsefulTerm(term));
    return 0;
}
