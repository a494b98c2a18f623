#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "repository/RepositoryContextProvider.h"

#include <QTest>

namespace {

class ScriptedProcessTree final : public ProcessTreeSource {
public:
    QList<ProcessRow> rows;
    QHash<qint32, QString> directories;
    int listings = 0;
    QList<qint32> askedForDirectories;

    QCoro::Task<QList<ProcessRow>> processRows() override {
        ++listings;
        // A copy: QCoro's return_value moves from any non-const lvalue, members included.
        co_return QList<ProcessRow>(rows);
    }
    QCoro::Task<QHash<qint32, QString>> workingDirectories(QList<qint32> processIDs) override {
        askedForDirectories = processIDs;
        QHash<qint32, QString> known;
        for (qint32 id : processIDs) {
            if (directories.contains(id))
                known.insert(id, directories.value(id));
        }
        co_return known;
    }
    QCoro::Task<std::optional<QString>> commandLine(qint32) override { co_return std::nullopt; }
};

class ScriptedDocuments final : public FocusedDocumentSource {
public:
    QHash<qint32, QString> documents;
    std::optional<QString> focusedDocumentPath(qint32 processID) override {
        if (!documents.contains(processID))
            return std::nullopt;
        return documents.value(processID);
    }
};

constexpr qint32 frontmost = 500;

} // namespace

class TestRepositoryContextProvider : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_alpha = std::make_unique<TempGitRepository>(QStringLiteral("alpha"));
        m_beta = std::make_unique<TempGitRepository>(QStringLiteral("beta"));
        m_alpha->write(QStringLiteral("src/Alpha.swift"), "struct AlphaModel {}\n");
        m_alpha->commitAll();
        m_beta->write(QStringLiteral("lib/beta.py"), "def beta_handler(): pass\n");
        m_beta->commitAll();
        m_frontmost = frontmost;
        m_processes = std::make_shared<ScriptedProcessTree>();
        m_documents = std::make_shared<ScriptedDocuments>();
        // Terminal (500) → shell (501) in beta → agent (502) in alpha; an unrelated agent (600) in beta.
        m_processes->rows = {{frontmost, 1, QStringLiteral("Terminal")},
                             {501, frontmost, QStringLiteral("-zsh")},
                             {502, 501, QStringLiteral("claude")},
                             {600, 1, QStringLiteral("codex")}};
        m_processes->directories = {
            {501, m_beta->root()}, {502, m_alpha->root() + QStringLiteral("/src")}, {600, m_beta->root()}};
        m_provider =
            std::make_unique<RepositoryContextProvider>(m_processes, m_documents, [this] { return m_frontmost; });
    }

    void choosesBySource_data() {
        QTest::addColumn<QString>("pinned");
        QTest::addColumn<QString>("document");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("listings");
        QTest::newRow("pinned wins") << "beta/lib"
                                     << "alpha/src/Alpha.swift"
                                     << "beta" << 0;
        QTest::newRow("focused document before processes") << ""
                                                           << "beta/lib/beta.py"
                                                           << "beta" << 0;
        QTest::newRow("document outside a repository") << ""
                                                       << "/"
                                                       << "alpha" << 1;
        QTest::newRow("process tree") << ""
                                      << ""
                                      << "alpha" << 1;
    }
    void choosesBySource() {
        QFETCH(QString, pinned);
        QFETCH(QString, document);
        QFETCH(QString, expected);
        QFETCH(int, listings);
        if (!document.isEmpty())
            m_documents->documents.insert(frontmost,
                                          document.startsWith(QLatin1Char('/')) ? document : scratchPath(document));
        const auto context = syncWait(m_provider->refreshContext(
            QStringLiteral("com.example.app"), pinned.isEmpty() ? std::nullopt : std::optional(scratchPath(pinned))));
        QVERIFY(context);
        QCOMPARE(context->name, expected);
        QCOMPARE(m_processes->listings, listings);
    }

    // Only the frontmost application's descendants are worth a directory lookup (lsof is slow).
    void looksUpDescendantsOnly() {
        syncWait(m_provider->refreshContext(std::nullopt, std::nullopt));
        auto asked = m_processes->askedForDirectories;
        std::sort(asked.begin(), asked.end());
        QCOMPARE(asked, (QList<qint32>{frontmost, 501, 502}));
    }

    void pinnedFolderOutsideRepository() {
        try {
            syncWait(m_provider->refreshContext(std::nullopt, QStringLiteral("/")));
            QFAIL("expected an error");
        } catch (const QuorvaneError &error) {
            QCOMPARE(error.errorCase(), QuorvaneError::Case::repositoryUnavailable);
            QCOMPARE(error.message(), QStringLiteral("the selected folder is not a Git repository"));
        }
    }

    void nothingInFront() {
        m_frontmost.reset();
        QCOMPARE(syncWait(m_provider->refreshContext(QStringLiteral("com.example.app"), std::nullopt)), std::nullopt);
        QCOMPARE(m_processes->listings, 0);
        QCOMPARE(m_provider->cachedContext(QStringLiteral("com.example.app"), std::nullopt), std::nullopt);
    }

    // A root is indexed once; later refreshes and other applications reuse its facts.
    void cachesPerRootAndApplication() {
        const QString terminal = QStringLiteral("com.apple.Terminal");
        QCOMPARE(m_provider->cachedContext(terminal, std::nullopt), std::nullopt);
        const auto first = syncWait(m_provider->refreshContext(terminal, std::nullopt));
        QVERIFY(first);
        QCOMPARE(first->vocabulary, QStringList{QStringLiteral("AlphaModel")});
        QCOMPARE(m_provider->cachedContext(terminal, std::nullopt), first);
        QCOMPARE(m_provider->cachedContext(QStringLiteral("com.other"), std::nullopt), std::nullopt);

        m_alpha->write(QStringLiteral("src/Later.swift"), "struct LaterModel {}\n");
        m_alpha->commitAll();
        const auto second = syncWait(m_provider->refreshContext(QStringLiteral("com.other"), std::nullopt));
        QVERIFY(second);
        QCOMPARE(second->toJson(), first->toJson());
        QCOMPARE(m_provider->cachedContext(QStringLiteral("com.other"), std::nullopt), first);
        // The pinned path is looked up by its root, whichever folder inside it was chosen.
        QCOMPARE(m_provider->cachedContext(std::nullopt, m_alpha->root() + QStringLiteral("/src")), first);
        QCOMPARE(m_provider->cachedContext(std::nullopt, m_beta->root()), std::nullopt);

        // A fresh provider sees the change.
        RepositoryContextProvider fresh(m_processes, m_documents, [] { return std::optional<qint32>(frontmost); });
        const auto later = syncWait(fresh.refreshContext(terminal, std::nullopt));
        QVERIFY(later);
        QCOMPARE(later->vocabulary, (QStringList{"AlphaModel", "LaterModel"}));
    }

private:
    QString scratchPath(const QString &relative) const {
        const QString name = relative.section(QLatin1Char('/'), 0, 0);
        const TempGitRepository &repo = name == QLatin1String("alpha") ? *m_alpha : *m_beta;
        return repo.root() + relative.mid(name.size());
    }

    std::unique_ptr<TempGitRepository> m_alpha;
    std::unique_ptr<TempGitRepository> m_beta;
    std::shared_ptr<ScriptedProcessTree> m_processes;
    std::shared_ptr<ScriptedDocuments> m_documents;
    std::optional<qint32> m_frontmost = frontmost;
    std::unique_ptr<RepositoryContextProvider> m_provider;
};

QTEST_GUILESS_MAIN(TestRepositoryContextProvider)
#include "tst_repository_context_provider.moc"
