// Indexes a generated repository of mixed languages and prints the time next to the time
// "git ls-files" alone takes on the same repository.
#include "TempGitRepository.h"
#include "core/Async.h"
#include "repository/RepositoryIndexer.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <algorithm>

namespace {

const char *const extensions[] = {"swift", "ts", "py", "rs", "go", "cpp", "hpp", "java", "rb", "md", "json", "txt"};

QByteArray sourceText(int file) {
    QByteArray text;
    for (int line = 0; line < 60; ++line) {
        text += "class Widget" + QByteArray::number((file * 7 + line) % 900) + " {\n";
        text += "    func renderFrame" + QByteArray::number(line % 40) + "() {}\n";
        text += "    let counterValue" + QByteArray::number(file % 50) + " = 1\n}\n";
    }
    return text;
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

QString figures(const QList<double> &values) {
    return QStringLiteral("min %1 ms, median %2 ms")
        .arg(*std::min_element(values.cbegin(), values.cend()), 0, 'f', 1)
        .arg(median(values), 0, 'f', 1);
}

} // namespace

int main(int argc, char **argv) {
    QCoreApplication app(argc, argv);
    const int files = argc > 1 ? std::max(1, atoi(argv[1])) : 6000;
    const int runs = argc > 2 ? std::max(1, atoi(argv[2])) : 5;
    QTextStream out(stdout);

    TempGitRepository repo(QStringLiteral("generated"));
    for (int i = 0; i < files; ++i) {
        const QString folder = QStringLiteral("module%1/sub%2").arg(i % 40).arg(i % 7);
        const char *extension = extensions[i % std::size(extensions)];
        repo.write(QStringLiteral("%1/file%2.%3").arg(folder).arg(i).arg(QLatin1String(extension)), sourceText(i));
    }
    // Some of what a real repository holds and the index must skip.
    for (int i = 0; i < 200; ++i)
        repo.write(QStringLiteral("node_modules/pkg%1/index.js").arg(i), sourceText(i));
    repo.write(QStringLiteral("README.md"), "# generated\n");
    repo.write(QStringLiteral("Package.swift"), "let package = 1\n");
    repo.commitAll();

    QList<double> listing;
    QList<double> indexing;
    RepositoryContext context;
    int listed = 0;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer timer;
        timer.start();
        listed = static_cast<int>(syncWait(RepositoryIndexer::trackedFiles(repo.root(), 1 << 30)).size());
        listing << timer.nsecsElapsed() / 1e6;
        timer.restart();
        context = syncWait(RepositoryIndexer().index(repo.root()));
        indexing << timer.nsecsElapsed() / 1e6;
    }
    out << "tracked files: " << listed << ", runs: " << runs << "\n";
    out << "git ls-files alone: " << figures(listing) << "\n";
    out << "full index (listing included): " << figures(indexing) << "\n";
    out << "ratio: " << QString::number(median(indexing) / median(listing), 'f', 2) << "x by medians, "
        << QString::number(*std::min_element(indexing.cbegin(), indexing.cend()) /
                               *std::min_element(listing.cbegin(), listing.cend()),
                           'f', 2)
        << "x by minimums\n";
    out << "languages: " << context.languages.join(QStringLiteral(", ")) << "; key files: " << context.keyFiles.size()
        << "; vocabulary terms: " << context.vocabulary.size() << "\n";
    return 0;
}
