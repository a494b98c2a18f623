#include "TempGitRepository.h"
#include "core/Async.h"
#include "core/QuorvaneError.h"
#include "repository/RepositoryContextProvider.h"

#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr qint32 frontmost = 500;

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
        co_return QHash<qint32, QString>(directories);
    }
    QCoro::Task<std::optional<QString>> commandLine(qint32) override { co_return std::nullopt; }
};

class ScriptedDocuments final : public FocusedDocumentSource {
public:
    std::optional<QString> document;
    std::optional<QString> focusedDocumentPath(qint32 processID) override {
        return processID == frontmost ? document : std::nullopt;
    }
};

} // namespace

class TestRepositoryContextProvider : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_alpha = std::make_unique<TempGitRepository>("alpha");
        m_beta = std::make_unique<TempGitRepository>("beta");
        QVERIFY(m_alpha->write("src/Alpha.swift", "struct AlphaModel {}\n"));
        m_alpha->commitAll();
        m_beta->commitAll();
        m_frontmost = frontmost;
        m_processes = std::make_shared<ScriptedProcessTree>();
        m_documents = std::make_shared<ScriptedDocuments>();
        // Terminal (500) → shell (501) in beta → agent (502) in alpha; an unrelated agent (600) in beta.
        m_processes->rows = {
            {frontmost, 1, "Terminal"}, {501, frontmost, "-zsh"}, {502, 501, "claude"}, {600, 1, "codex"}};
        m_processes->directories = {{501, m_beta->root()}, {502, m_alpha->root() + "/src"}, {600, m_beta->root()}};
        m_provider =
            std::make_unique<RepositoryContextProvider>(m_processes, m_documents, [this] { return m_frontmost; });
    }

    void choosesBySource_data() {
        QTest::addColumn<QString>("pinned");
        QTest::addColumn<QString>("document");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<int>("listings");
        QTest::newRow("pinned wins") << u"beta/lib"_s << u"alpha/src/Alpha.swift"_s << u"beta"_s << 0;
        QTest::newRow("focused document before processes") << QString() << u"beta/lib/beta.py"_s << u"beta"_s << 0;
        QTest::newRow("document outside a repository") << QString() << u"/"_s << u"alpha"_s << 1;
        QTest::newRow("process tree") << QString() << QString() << u"alpha"_s << 1;
    }
    void choosesBySource() {
        QFETCH(QString, pinned);
        QFETCH(QString, document);
        if (!document.isEmpty())
            m_documents->document = path(document);
        const auto context = syncWait(m_provider->refreshContext(
            "com.example.app", pinned.isEmpty() ? std::nullopt : std::optional(path(pinned))));
        QVERIFY(context);
        QTEST(context->name, "expected");
        QTEST(m_processes->listings, "listings");
    }

    // A pinned folder outside any repository is an error; nothing in front just means no facts.
    void withoutRepository() {
        QVERIFY_THROWS_EXCEPTION(QuorvaneError, syncWait(m_provider->refreshContext(std::nullopt, "/")));
        m_frontmost.reset();
        QCOMPARE(syncWait(m_provider->refreshContext("com.example.app", std::nullopt)), std::nullopt);
        QCOMPARE(m_processes->listings, 0);
    }

    // A root is indexed once; later refreshes and other applications reuse its facts.
    void cachesPerRootAndApplication() {
        const auto first = syncWait(m_provider->refreshContext("terminal", std::nullopt));
        QVERIFY(first);
        // Only the frontmost application's descendants are worth a directory lookup (lsof is slow).
        std::sort(m_processes->askedForDirectories.begin(), m_processes->askedForDirectories.end());
        QCOMPARE(m_processes->askedForDirectories, (QList<qint32>{frontmost, 501, 502}));
        QCOMPARE(m_provider->cachedContext("terminal", std::nullopt), first);
        QCOMPARE(m_provider->cachedContext("other", std::nullopt), std::nullopt);

        QVERIFY(m_alpha->write("src/Later.swift", "struct LaterModel {}\n"));
        m_alpha->commitAll();
        QCOMPARE(syncWait(m_provider->refreshContext("other", std::nullopt)), first);
        QCOMPARE(m_provider->cachedContext("other", std::nullopt), first);
        // The pinned path is looked up by its root, whichever folder inside it was chosen.
        QCOMPARE(m_provider->cachedContext(std::nullopt, m_alpha->root() + "/src"), first);
        QCOMPARE(m_provider->cachedContext(std::nullopt, m_beta->root()), std::nullopt);

        RepositoryContextProvider fresh(m_processes, m_documents, [] { return std::optional(frontmost); });
        QCOMPARE(syncWait(fresh.refreshContext("terminal", std::nullopt)).value_or(RepositoryContext{}).vocabulary,
                 (QStringList{"AlphaModel", "LaterModel"}));
    }

private:
    // "alpha/…" and "beta/…" lie in those repositories; an absolute path stays as it is.
    QString path(const QString &relative) const {
        const TempGitRepository &repo = relative.startsWith("alpha") ? *m_alpha : *m_beta;
        return relative.startsWith('/') ? relative : QFileInfo(repo.root()).path() + '/' + relative;
    }

    std::unique_ptr<TempGitRepository> m_alpha;
    std::unique_ptr<TempGitRepository> m_beta;
    std::shared_ptr<ScriptedProcessTree> m_processes;
    std::shared_ptr<ScriptedDocuments> m_documents;
    std::optional<qint32> m_frontmost;
    std::unique_ptr<RepositoryContextProvider> m_provider;
};

QTEST_GUILESS_MAIN(TestRepositoryContextProvider)
#include "tst_repository_context_provider.moc"
