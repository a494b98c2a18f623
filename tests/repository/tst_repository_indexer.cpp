#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "repository/RepositoryIndexer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

Q_DECLARE_METATYPE(RepositoryIndexLimits)

namespace {

RepositoryContext indexed(const QString &root, RepositoryIndexLimits limits = {},
                          std::optional<QStringList> tracked = std::nullopt) {
    return syncWait(RepositoryIndexer(limits).index(root, std::move(tracked)));
}

QByteArray classes(const QStringList &names) {
    QByteArray text;
    for (const QString &name : names)
        text += "class " + name.toUtf8() + " {}\n";
    return text;
}

} // namespace

class TestRepositoryIndexer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(m_repo.isValid());
        const auto write = [this](const char *path, const QByteArray &text) {
            QVERIFY(m_repo.write(QString::fromLatin1(path), text));
        };
        write("Sources/Engine.swift", "struct AudioEngine {}\nfunc startCapture() {}\nlet total = 1\nlet tmp = 2\n"
                                      "var id = 3\nclass src {}\nclass " +
                                          QByteArray(90, 'Q') + " {}\n");
        write("native/engine.cpp", "class AudioEngine {};\n");
        write("native/engine.HPP", "struct Buffer {};\n");
        write("native/ring.cc", "struct Ring {};\n");
        write("scripts/setup.sh", "function install_tools {\n}\n");
        write("Makefile", "all:\n");
        write("README.md", "# project\n");
        write("docs/CLAUDE.md", "notes\n");
        write("bad.py", "\xff\xfe class Broken:\n");
        // Everything below must leave no trace in the facts.
        for (const char *path :
             {"config/credentials.json", ".env.local", "keys/server.pem", "node_modules/x/index.js",
              "node_modules/x/package.json", "Pods/a.swift", "Build/Gen.swift", "Secrets/Token.swift"})
            write(path, "class LeakedSecret {}\n");
        QVERIFY(QDir().mkpath(m_repo.scratch() + QStringLiteral("/outside")));
        QFile outside(m_repo.scratch() + QStringLiteral("/outside/Outside.swift"));
        QVERIFY(outside.open(QIODevice::WriteOnly));
        outside.write("class OutsideSecret {}\n");
        outside.close();
        QVERIFY(
            QFile::link(QStringLiteral("../outside/Outside.swift"), m_repo.root() + QStringLiteral("/Linked.swift")));
        m_repo.commitAll();
        write("Untracked.swift", "class NotTracked {}\n");
    }

    void indexesTrackedFilesOnly() {
        const RepositoryContext context = indexed(m_repo.root());
        QCOMPARE(context.rootPath, m_repo.root());
        QCOMPARE(context.name, QStringLiteral("project"));
        QCOMPARE(context.branch, std::optional<QString>(QStringLiteral("main")));
        // C++ (3) before Shell and Swift (1 each, by name); Python counts although its text is unreadable.
        QCOMPARE(context.languages, (QStringList{"C++", "Python", "Shell", "Swift"}));
        QCOMPARE(context.keyFiles, (QStringList{"Makefile", "README.md", "docs/CLAUDE.md"}));
        QCOMPARE(context.vocabulary,
                 (QStringList{"AudioEngine", "Buffer", "Ring", "install_tools", "startCapture", "total"}));
        QCOMPARE(context.promptContext(),
                 QStringLiteral("Repository: project\nBranch: main\nLanguages: C++, Python, "
                                "Shell, Swift\nKey files: Makefile, README.md, docs/CLAUDE.md"));
    }

    void findsRoot_data() {
        QTest::addColumn<QString>("start");
        QTest::addColumn<QString>("expected");
        QTest::newRow("the root itself") << "project"
                                         << "project";
        QTest::newRow("a tracked file") << "project/Sources/Engine.swift"
                                        << "project";
        QTest::newRow("a nested folder") << "project/native"
                                         << "project";
        QTest::newRow("a path that does not exist yet") << "project/native/new/thing.cpp"
                                                        << "project";
        QTest::newRow("with dot segments") << "project/native/../Sources/./"
                                           << "project";
        QTest::newRow("outside any repository") << "outside/Outside.swift"
                                                << "";
    }
    void findsRoot() {
        QFETCH(QString, start);
        QFETCH(QString, expected);
        const auto root = RepositoryIndexer::findRepositoryRoot(m_repo.scratch() + QLatin1Char('/') + start);
        if (expected.isEmpty())
            QCOMPARE(root, std::nullopt);
        else
            QCOMPARE(root, std::optional<QString>(QFileInfo(m_repo.scratch()).canonicalFilePath() + QLatin1Char('/') +
                                                  expected));
    }

    // A linked worktree keeps a ".git" marker file; its branch lives in the main repository's Git folder.
    void linkedWorktree_data() {
        QTest::addColumn<bool>("relativeMarker");
        QTest::newRow("absolute gitdir") << false;
        QTest::newRow("relative gitdir") << true;
    }
    void linkedWorktree() {
        QFETCH(bool, relativeMarker);
        TempGitRepository repo;
        repo.write(QStringLiteral("main.go"), "func Serve() {}\n");
        repo.commitAll();
        const QString worktree = repo.scratch() + QStringLiteral("/linked");
        repo.git({QStringLiteral("worktree"), QStringLiteral("add"), QStringLiteral("-q"), QStringLiteral("-b"),
                  QStringLiteral("feature/voice"), worktree});
        if (relativeMarker) {
            QFile marker(worktree + QStringLiteral("/.git"));
            QVERIFY(marker.open(QIODevice::WriteOnly | QIODevice::Truncate));
            marker.write("gitdir: ../project/.git/worktrees/linked\n");
        }
        QVERIFY(QFileInfo(worktree + QStringLiteral("/.git")).isFile());
        QCOMPARE(RepositoryIndexer::findRepositoryRoot(worktree + QStringLiteral("/main.go")),
                 std::optional<QString>(worktree));
        const RepositoryContext context = indexed(worktree);
        QCOMPARE(context.name, QStringLiteral("linked"));
        QCOMPARE(context.branch, std::optional<QString>(QStringLiteral("feature/voice")));
        QCOMPARE(context.vocabulary, QStringList{QStringLiteral("Serve")});
    }

    void detachedHeadHasNoBranchLine() {
        TempGitRepository repo;
        repo.write(QStringLiteral("a.rs"), "fn parse_args() {}\n");
        repo.commitAll();
        repo.commitAll(QStringLiteral("second"));
        repo.git(
            {QStringLiteral("checkout"), QStringLiteral("-q"), QStringLiteral("--detach"), QStringLiteral("HEAD~1")});
        const RepositoryContext context = indexed(repo.root());
        QCOMPARE(context.branch, std::nullopt);
        QCOMPARE(context.promptContext(), QStringLiteral("Repository: project\nLanguages: Rust"));
    }

    void bareMarkerYieldsOnlyTheName() {
        QTemporaryDir scratch;
        const QString root = scratch.path() + QStringLiteral("/empty");
        QVERIFY(QDir().mkpath(root + QStringLiteral("/.git")));
        const RepositoryContext context = indexed(root);
        QCOMPARE(context.promptContext(), QStringLiteral("Repository: empty"));
        QVERIFY(context.vocabulary.isEmpty());
    }

    // Git quotes unusual names unless asked not to; such a file must still be read.
    void unusualFileNames() {
        TempGitRepository repo;
        repo.write(QStringLiteral("src/Ünïcode file.swift"), "struct Résumé {}\nstruct Listing {}\n");
        repo.write(QStringLiteral("src/tab\tname.py"), "def tabbed_name(): pass\n");
        repo.commitAll();
        const RepositoryContext context = indexed(repo.root());
        QCOMPARE(context.languages, (QStringList{"Python", "Swift"}));
        QCOMPARE(context.vocabulary, (QStringList{"Listing", "tabbed_name"}));
    }

    void notADirectoryThrows() {
        QTemporaryDir scratch;
        QVERIFY_THROWS_EXCEPTION(QuorvaneError, indexed(scratch.path() + QStringLiteral("/missing")));
    }

    void limits_data() {
        QTest::addColumn<RepositoryIndexLimits>("limits");
        QTest::addColumn<QStringList>("expectedVocabulary");
        QTest::addColumn<QStringList>("expectedKeyFiles");
        QTest::addColumn<QStringList>("expectedLanguages");
        const RepositoryIndexLimits defaults;
        const QStringList allKeys{"README.md", "a/Makefile", "b/go.mod"};
        const QStringList allLanguages{"Go", "Kotlin", "Ruby"};
        QTest::newRow("defaults") << defaults << QStringList{"Alpha", "Shared", "Beta", "Early", "Late", "Tail"}
                                  << allKeys << allLanguages;
        auto limits = defaults;
        limits.maxTrackedFiles = 3;
        QTest::newRow("tracked files") << limits << QStringList{"Alpha", "Shared"}
                                       << QStringList{"README.md", "a/Makefile"} << QStringList{"Go"};
        limits = defaults;
        limits.maxSourceFiles = 2;
        QTest::newRow("source files") << limits << QStringList{"Alpha", "Shared", "Beta"} << allKeys << allLanguages;
        limits = defaults;
        limits.maxBytesPerSourceFile = 64;
        QTest::newRow("bytes per file") << limits << QStringList{"Alpha", "Shared", "Beta", "Early", "Tail"} << allKeys
                                        << allLanguages;
        limits = defaults;
        limits.maxVocabularyTerms = 2;
        QTest::newRow("vocabulary terms") << limits << QStringList{"Alpha", "Shared"} << allKeys << allLanguages;
        limits = defaults;
        limits.maxKeyFiles = 1;
        QTest::newRow("key files") << limits << QStringList{"Alpha", "Shared", "Beta", "Early", "Late", "Tail"}
                                   << QStringList{"README.md"} << allLanguages;
    }
    void limits() {
        QFETCH(RepositoryIndexLimits, limits);
        QFETCH(QStringList, expectedVocabulary);
        QFETCH(QStringList, expectedKeyFiles);
        QFETCH(QStringList, expectedLanguages);
        TempGitRepository repo;
        repo.write(QStringLiteral("README.md"), "x\n");
        repo.write(QStringLiteral("a/Makefile"), "x\n");
        repo.write(QStringLiteral("a/one.go"), classes({"Alpha", "Alpha", "Alpha", "Shared"}));
        repo.write(QStringLiteral("b/go.mod"), "x\n");
        repo.write(QStringLiteral("b/two.go"), classes({"Beta", "Shared"}));
        // The cut at 64 bytes falls inside the two-byte "é": the complete part must still count.
        repo.write(QStringLiteral("c/three.kt"), "class Early {}\n" + QByteArray(47, ' ') + "\xc3\xa9 class Late {}\n");
        repo.write(QStringLiteral("d/four.rb"), "class Tail\n");
        repo.commitAll();
        const RepositoryContext context = indexed(repo.root(), limits);
        QCOMPARE(context.vocabulary, expectedVocabulary);
        QCOMPARE(context.keyFiles, expectedKeyFiles);
        QCOMPARE(context.languages, expectedLanguages);
    }

    // A listing handed in by the caller is used as given: paths Git would not list still go through
    // the same filters.
    void givenListingIsFiltered() {
        const QStringList tracked{QStringLiteral("Sources/Engine.swift"),
                                  QStringLiteral("/etc/passwd"),
                                  QStringLiteral("../outside/Outside.swift"),
                                  QStringLiteral("Linked.swift"),
                                  QStringLiteral("native"),
                                  QStringLiteral("missing.swift")};
        const RepositoryContext context = indexed(m_repo.root(), {}, tracked);
        QCOMPARE(context.languages, QStringList{QStringLiteral("Swift")});
        QCOMPARE(context.vocabulary, (QStringList{"AudioEngine", "startCapture", "total"}));
    }

    void exclusion_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("excluded");
        QTest::newRow("credentials") << "config/credentials.json" << true;
        QTest::newRow("env variant") << ".env.local" << true;
        QTest::newRow("plain env") << "deploy/.env" << true;
        QTest::newRow("pem") << "keys/server.pem" << true;
        QTest::newRow("upper-case key") << "certs/SERVER.KEY" << true;
        QTest::newRow("node_modules") << "node_modules/x/index.js" << true;
        QTest::newRow("Pods") << "Pods/a.swift" << true;
        QTest::newRow("nested build") << "app/Build/out.swift" << true;
        QTest::newRow("absolute") << "/etc/hosts" << true;
        QTest::newRow("ssh key") << "home/.ssh/id_ed25519" << true;
        QTest::newRow("envrc is not env") << ".envrc" << false;
        QTest::newRow("environment source") << "src/environment.ts" << false;
        QTest::newRow("builder folder") << "builder/Make.swift" << false;
        QTest::newRow("key in a name") << "docs/keys.md" << false;
        QTest::newRow("secretary") << "secretary/notes.py" << false;
    }
    void exclusion() {
        QFETCH(QString, path);
        QFETCH(bool, excluded);
        QCOMPARE(RepositoryIndexer::isExcluded(path), excluded);
    }

    void identifiers_data() {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QStringList>("terms");
        QTest::newRow("short let") << "let tmp = 1" << QStringList{};
        QTest::newRow("four-letter let") << "let total = 1" << QStringList{"total"};
        QTest::newRow("const") << "const MAX_SIZE = 4" << QStringList{"MAX_SIZE"};
        QTest::newRow("python def") << "def run_job(x):" << QStringList{"run_job"};
        QTest::newRow("two-letter fn") << "fn id() {}" << QStringList{};
        QTest::newRow("generic word") << "struct Core {}" << QStringList{};
        QTest::newRow("no letter") << "class ___ {}" << QStringList{};
        QTest::newRow("inside a word") << "subclass Foo; letter Bar; typedef Baz" << QStringList{};
        QTest::newRow("typedef struct") << "typedef struct Node {} Node;" << QStringList{"Node"};
        QTest::newRow("over the line") << "interface\n  Renderer" << QStringList{"Renderer"};
        QTest::newRow("eighty characters")
            << "class " + QString(80, QLatin1Char('k')) << QStringList{QString(80, QLatin1Char('k'))};
        QTest::newRow("ninety characters") << "class " + QString(90, QLatin1Char('k')) << QStringList{};
    }
    void identifiers() {
        QFETCH(QString, source);
        QFETCH(QStringList, terms);
        QStringList useful;
        for (const QString &term : RepositoryIndexer::extractIdentifiers(source)) {
            if (RepositoryIndexer::isUsefulTerm(term))
                useful << term;
        }
        QCOMPARE(useful, terms);
    }

    void languages_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("language");
        QTest::newRow("cxx") << "a/b.cxx"
                             << "C++";
        QTest::newRow("hh") << "x.hh"
                            << "C++";
        QTest::newRow("upper-case C") << "x.C"
                                      << "C";
        QTest::newRow("objective-c++") << "View.mm"
                                       << "Objective-C";
        QTest::newRow("hidden file") << ".bash"
                                     << "";
        QTest::newRow("no extension") << "scripts/run"
                                      << "";
        QTest::newRow("dot in folder") << "v1.2/README"
                                       << "";
        QTest::newRow("unknown") << "a.txt"
                                 << "";
    }
    void languages() {
        QFETCH(QString, path);
        QFETCH(QString, language);
        QCOMPARE(RepositoryIndexer::language(path).value_or(QString()), language);
    }

private:
    TempGitRepository m_repo;
};

QTEST_GUILESS_MAIN(TestRepositoryIndexer)
#include "tst_repository_indexer.moc"
