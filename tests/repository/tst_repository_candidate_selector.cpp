#include "repository/RepositoryCandidateSelector.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {

// One process: id, parent id, command line, working directory relative to the scratch folder
// ("-" for a directory that could not be read).
struct Row {
    qint32 id;
    qint32 parent;
    const char *command;
    const char *directory;
};

} // namespace

Q_DECLARE_METATYPE(QList<Row>)

class TestRepositoryCandidateSelector : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        QVERIFY(m_scratch.isValid());
        m_base = QFileInfo(m_scratch.path()).canonicalFilePath();
        for (const char *path :
             {"alpha/.git", "alpha/src/deep", "beta/.git", "beta/a/b/c", "gamma/x/y", "outside/a/b/c/d"})
            QVERIFY(QDir().mkpath(m_base + QLatin1Char('/') + QLatin1String(path)));
    }

    void select_data() {
        QTest::addColumn<QList<Row>>("rows");
        QTest::addColumn<QString>("expected");
        // The frontmost application is always process 100.
        QTest::newRow("agent in A beats a deeper shell in B")
            << QList<Row>{{100, 1, "/Applications/Terminal", "outside"},
                          {101, 100, "login -pf me", "-"},
                          {102, 101, "-zsh", "beta/a/b/c"},
                          {103, 101, "-zsh", "alpha"},
                          {104, 103, "node /opt/homebrew/bin/claude", "alpha"}}
            << "alpha";
        QTest::newRow("codex by name after a space")
            << QList<Row>{{100, 1, "terminal", "-"}, {101, 100, "zsh", "beta/a/b/c"}, {102, 100, "npx codex", "alpha"}}
            << "alpha";
        QTest::newRow("a directory outside any repository is ignored")
            << QList<Row>{{100, 1, "terminal", "-"}, {101, 100, "zsh", "alpha"}, {102, 101, "vim", "outside/a/b/c/d"}}
            << "alpha";
        QTest::newRow("a parent-id cycle terminates")
            << QList<Row>{{100, 1, "terminal", "beta"}, {200, 201, "claude", "alpha"}, {201, 200, "claude", "alpha"}}
            << "beta";
        QTest::newRow("a process that does not descend from the frontmost")
            << QList<Row>{{100, 1, "terminal", "-"}, {101, 100, "zsh", "beta"}, {300, 1, "/usr/bin/claude", "alpha"}}
            << "beta";
        QTest::newRow("a child beats its parent")
            << QList<Row>{{100, 1, "terminal", "-"}, {101, 100, "zsh", "alpha/src/deep"}, {102, 101, "make", "beta"}}
            << "beta";
        QTest::newRow("an editor helper beats a deeper shell")
            << QList<Row>{{100, 1, "Code", "-"},
                          {101, 100, "Code Helper (Plugin)", "alpha"},
                          {102, 101, "zsh", "beta"},
                          {103, 102, "sleep", "beta/a/b/c"}}
            << "alpha";
        QTest::newRow("a deeper directory breaks the tie")
            << QList<Row>{{100, 1, "terminal", "-"}, {101, 100, "zsh", "beta"}, {102, 100, "zsh", "alpha/src/deep"}}
            << "alpha/src/deep";
        QTest::newRow("equal scores go to the lower id")
            << QList<Row>{{100, 1, "terminal", "-"}, {102, 100, "zsh", "beta"}, {101, 100, "zsh", "alpha"}} << "alpha";
        QTest::newRow("the frontmost process itself") << QList<Row>{{100, 1, "Xcode", "beta/a"}} << "beta/a";
        QTest::newRow("no repository anywhere")
            << QList<Row>{{100, 1, "terminal", "outside"}, {101, 100, "claude", "gamma/x/y"}} << "";
    }
    void select() {
        QFETCH(QList<Row>, rows);
        QFETCH(QString, expected);
        QMap<qint32, ProcessWorkingDirectory> table;
        for (const Row &row : rows) {
            const QString directory = QLatin1String(row.directory) == QLatin1String("-")
                                          ? QString()
                                          : m_base + QLatin1Char('/') + QLatin1String(row.directory);
            table.insert(row.id, {row.id, row.parent, QString::fromLatin1(row.command), directory});
        }
        const auto chosen = RepositoryCandidateSelector::select(100, table);
        QCOMPARE(chosen.value_or(QString()), expected.isEmpty() ? QString() : m_base + QLatin1Char('/') + expected);
    }

    void depth_data() {
        QTest::addColumn<qint32>("process");
        QTest::addColumn<int>("expected");
        QTest::newRow("frontmost") << 100 << 0;
        QTest::newRow("grandchild") << 102 << 2;
        QTest::newRow("parent not listed") << 300 << -1;
        QTest::newRow("cycle") << 200 << -1;
        QTest::newRow("self-parented") << 400 << -1;
    }
    void depth() {
        QFETCH(qint32, process);
        QFETCH(int, expected);
        QMap<qint32, ProcessWorkingDirectory> table;
        for (auto [id, parent] : QList<std::pair<qint32, qint32>>{
                 {100, 1}, {101, 100}, {102, 101}, {300, 299}, {200, 201}, {201, 202}, {202, 200}, {400, 400}})
            table.insert(id, {id, parent, QString(), QString()});
        QCOMPARE(RepositoryCandidateSelector::depthFromFrontmost(process, 100, table).value_or(-1), expected);
    }

private:
    QTemporaryDir m_scratch;
    QString m_base;
};

QTEST_GUILESS_MAIN(TestRepositoryCandidateSelector)
#include "tst_repository_candidate_selector.moc"
