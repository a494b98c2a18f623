#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "repository/RepositoryIndexer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

Q_DECLARE_METATYPE(RepositoryIndexLimits)

namespace {

RepositoryContext indexed(const QString &root, RepositoryIndexLimits limits = {},
                          std::optional<QStringList> tracked = std::nullopt) {
    return syncWait(RepositoryIndexer(limits).index(root, std::move(tracked)));
}

bool writeAll(const TempGitRepository &repo, const QList<std::pair<QString, QByteArray>> &files) {
    return std::all_of(files.begin(), files.end(),
                       [&repo](const auto &file) { return repo.write(file.first, file.second); });
}

} // namespace

class TestRepositoryIndexer : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(writeAll(
            m_repo,
            {{"Sources/Engine.swift", "struct AudioEngine {}\nfunc startCapture() {}\nlet total = 1\nlet tmp = 2\n"},
             // Terms too short, too long, generic, without a letter, or only part of a longer word.
             {"native/terms.cpp", "fn id() {}\nclass src {}\nclass ___ {}\nsubclass Foo; letter Bar; typedef Baz\n"
                                  "typedef struct Node {} Node;\ninterface\n  Renderer\nclass " +
                                      QByteArray(80, 'k') + " {}\nclass " + QByteArray(81, 'Q') + " {}\n"},
             {"native/engine.HPP", "class AudioEngine {};\n"},
             {"native/ring.cc", "struct Ring {};\n"},
             {"scripts/setup.sh", "function install_tools {\n}\n"},
             {"Makefile", "all:\n"},
             {"README.md", "# project\n"},
             {"docs/CLAUDE.md", "notes\n"},
             {"bad.py", "\xff\xfe class Broken:\n"},
             // Neither has a language: a hidden file's dot, a dot in a folder's name.
             {".zsh", "x\n"},
             {"tools.sh/run", "x\n"}}));
        // Everything below must leave no trace in the facts.
        for (const char *path :
             {"config/credentials.json", ".env.local", "keys/server.pem", "node_modules/x/index.js",
              "node_modules/x/package.json", "Pods/a.swift", "Build/Gen.swift", "Secrets/Token.swift"})
            QVERIFY(m_repo.write(path, "class LeakedSecret {}\n"));
        QVERIFY(TempGitRepository::writeFile(m_repo.scratch() + "/outside/Outside.swift", "class OutsideSecret {}\n"));
        QVERIFY(QFile::link("../outside/Outside.swift", m_repo.root() + "/Linked.swift"));
        QVERIFY(QFile::link("Sources", m_repo.root() + "/Inside"));
        QVERIFY(QFile::link("../outside", m_repo.root() + "/Outside"));
        m_repo.commitAll();
        QVERIFY(m_repo.write("Untracked.swift", "class NotTracked {}\n"));
    }

    void indexesTrackedFilesOnly() {
        const RepositoryContext context = indexed(m_repo.root());
        QCOMPARE(context.rootPath, m_repo.root());
        QCOMPARE(context.vocabulary, (QStringList{"AudioEngine", "Node", "Renderer", "Ring", "install_tools",
                                                  QString(80, 'k'), "startCapture", "total"}));
        // C++ (3) before the rest (1 each, by name); Python counts although its text is unreadable.
        QCOMPARE(context.promptContext(), u"Repository: project\nBranch: main\nLanguages: C++, Python, Shell, Swift\n"
                                          "Key files: Makefile, README.md, docs/CLAUDE.md"_s);
        const QString base = QFileInfo(m_repo.root()).path();
        QCOMPARE(RepositoryIndexer::findRepositoryRoot(base + "/project/native/new/thing.cpp"), context.rootPath);
        QCOMPARE(RepositoryIndexer::findRepositoryRoot(base + "/outside/Outside.swift"), std::nullopt);
    }

    // A linked worktree keeps a ".git" marker file; its branch lives in the main repository's Git folder.
    void linkedWorktree_data() {
        QTest::addColumn<QByteArray>("marker");
        QTest::newRow("absolute gitdir") << QByteArray();
        QTest::newRow("relative gitdir") << QByteArray("gitdir: ../project/.git/worktrees/linked\n");
    }
    void linkedWorktree() {
        QFETCH(QByteArray, marker);
        TempGitRepository repo;
        QVERIFY(repo.write("main.go", "func Serve() {}\n"));
        repo.commitAll();
        const QString worktree = repo.scratch() + "/linked";
        repo.git({"worktree", "add", "-q", "-b", "feature/voice", worktree});
        if (!marker.isEmpty())
            QVERIFY(TempGitRepository::writeFile(worktree + "/.git", marker));
        QCOMPARE(RepositoryIndexer::findRepositoryRoot(worktree + "/main.go"), worktree);
        const RepositoryContext context = indexed(worktree);
        QCOMPARE(context.promptContext(), u"Repository: linked\nBranch: feature/voice\nLanguages: Go"_s);
        QCOMPARE(context.vocabulary, QStringList{"Serve"});
    }

    // Git quotes unusual names unless asked not to; such a file must still be read. A detached HEAD
    // has no branch, and when Git fails only the name is left.
    void unusualRepositories() {
        TempGitRepository repo;
        QVERIFY(repo.write("src/Ünï\tname.py", "def tabbed_name(): pass\n"));
        repo.commitAll();
        repo.commitAll("second");
        repo.git({"checkout", "-q", "--detach", "HEAD~1"});
        const RepositoryContext context = indexed(repo.root());
        QCOMPARE(context.vocabulary, QStringList{"tabbed_name"});
        QCOMPARE(context.promptContext(), u"Repository: project\nLanguages: Python"_s);
        QVERIFY(QDir().mkpath(repo.scratch() + "/empty/.git"));
        QCOMPARE(indexed(repo.scratch() + "/empty").promptContext(), u"Repository: empty"_s);
        QVERIFY_THROWS_EXCEPTION(QuorvaneError, indexed(repo.scratch() + "/missing"));
    }

    // Each row lowers one limit; the facts read "vocabulary | key files | languages".
    void limits_data() {
        QTest::addColumn<RepositoryIndexLimits>("limits");
        QTest::addColumn<QString>("facts");
        QTest::newRow("tracked files") << RepositoryIndexLimits{.maxTrackedFiles = 3}
                                       << "Alpha Shared | README.md a/Makefile | Go";
        QTest::newRow("source files") << RepositoryIndexLimits{.maxSourceFiles = 2}
                                      << "Alpha Shared Beta | README.md a/Makefile b/go.mod | Go Kotlin Ruby";
        // The cut at 64 bytes falls inside the two-byte "é": the complete part must still count.
        QTest::newRow("bytes per file")
            << RepositoryIndexLimits{.maxBytesPerSourceFile = 64}
            << "Alpha Shared Beta Early Tail | README.md a/Makefile b/go.mod | Go Kotlin Ruby";
        QTest::newRow("vocabulary terms") << RepositoryIndexLimits{.maxVocabularyTerms = 2}
                                          << "Alpha Shared | README.md a/Makefile b/go.mod | Go Kotlin Ruby";
        QTest::newRow("key files") << RepositoryIndexLimits{.maxKeyFiles = 1}
                                   << "Alpha Shared Beta Early Late Tail | README.md | Go Kotlin Ruby";
    }
    void limits() {
        QFETCH(RepositoryIndexLimits, limits);
        TempGitRepository repo;
        QVERIFY(writeAll(repo, {{"README.md", "x\n"},
                                {"a/Makefile", "x\n"},
                                {"a/one.go", "class Alpha {}\nclass Alpha {}\nclass Alpha {}\nclass Shared {}\n"},
                                {"b/go.mod", "x\n"},
                                {"b/two.go", "class Beta {}\nclass Shared {}\n"},
                                {"c/three.kt", "class Early {}\n" + QByteArray(47, ' ') + "\xc3\xa9 class Late {}\n"},
                                {"d/four.rb", "class Tail\n"}}));
        repo.commitAll();
        const RepositoryContext context = indexed(repo.root(), limits);
        const QStringList facts{context.vocabulary.join(' '), context.keyFiles.join(' '), context.languages.join(' ')};
        QTEST(facts.join(" | "), "facts");
    }

    // A listing handed in by the caller is used as given: paths Git would not list still go through
    // the same filters. Folders that are links count where they lead, inside the repository only.
    void givenListingIsFiltered_data() {
        QTest::addColumn<QStringList>("tracked");
        QTest::newRow("odd paths") << QStringList{"Sources/Engine.swift", "/etc/passwd", "../outside/Outside.swift",
                                                  "Linked.swift",         "native",      "missing.swift"};
        // A NUL must not cut a name short into that of another file.
        QTest::newRow("linked folders") << QStringList{u"Inside/Engine.swift\0.py"_s, "Inside/Engine.swift",
                                                       "Outside/Outside.swift", "Sources/Engine.swift/x.swift"};
    }
    void givenListingIsFiltered() {
        QFETCH(QStringList, tracked);
        const RepositoryContext context = indexed(m_repo.root(), {}, tracked);
        QCOMPARE(context.languages, QStringList{"Swift"});
        QCOMPARE(context.vocabulary, (QStringList{"AudioEngine", "startCapture", "total"}));
    }

    // Names the repository above cannot show, as they are never read: whole names, not look-alikes.
    void exclusion_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("excluded");
        QTest::newRow("plain env") << "deploy/.env" << true;
        QTest::newRow("upper-case key") << "certs/SERVER.KEY" << true;
        QTest::newRow("envrc is not env") << ".envrc" << false;
        QTest::newRow("builder folder") << "builder/Make.swift" << false;
    }
    void exclusion() {
        QFETCH(QString, path);
        QTEST(RepositoryIndexer::isExcluded(path), "excluded");
    }

    void declaredNames_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QStringList>("names");
        QTest::newRow("each kind, types first")
            << "let counterValue = 1\nfn render() {}\nclass Widget {}\nfunction draw()\nconst MAX_SIZE = 2"
            << QStringList{"Widget", "render", "draw", "counterValue", "MAX_SIZE"};
        QTest::newRow("keyword must start a word")
            << "subclass Foo; _struct Bar; \u00e9enum Baz; x.enum Qux" << QStringList{"Qux"};
        QTest::newRow("any white space, none is no match")
            << "struct\n\tPoint; class\u00a0Box; classFoo; def(x)" << QStringList{"Point", "Box"};
        QTest::newRow("short variables skipped, longer kept")
            << "let abc = 1; var abcd = 2; let _tmp1" << QStringList{"abcd", "_tmp1"};
        QTest::newRow("names are ASCII identifiers")
            << "type 9Lives; type Caf\u00e9Menu; func \u00e9t\u00e9()" << QStringList{"Caf"};
        QTest::newRow("a keyword taken as the name is consumed")
            << "class struct Foo {}; def fn bar" << QStringList{"struct", "fn"};
        QTest::newRow("each kind finds its own")
            << "class def Foo; let fn longName" << QStringList{"def", "Foo", "longName"};
        QTest::newRow("longer keyword after a shorter prefix") << "function go() {}; funcs x" << QStringList{"go"};
        QTest::newRow("astral letter before the keyword") << "\U0001D400class A; \U0001F600class B" << QStringList{"B"};
    }
    void declaredNames() {
        QFETCH(QString, text);
        QTEST(RepositoryIndexer::extractIdentifiers(text), "names");
    }

private:
    TempGitRepository m_repo;
};

QTEST_GUILESS_MAIN(TestRepositoryIndexer)
#include "tst_repository_indexer.moc"
