#pragma once

#include <QWidget>
#include <functional>

class QPushButton;
class QTreeWidget;
class Store;

// The recent dictations as the history keeps them: when, into which application, what was typed
// and what the guard said. One can be copied again; all can be deleted.
class HistoryWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int shownEntries = 200;
    static QString title() { return QStringLiteral("Quorvane History"); }

    explicit HistoryWindow(Store &store);
    ~HistoryWindow() override;

    // Asked before everything is deleted.
    std::function<bool(const QString &title, const QString &question)> confirm;
    // Deletes the history (and what else goes with it); `done` runs once the files are gone.
    std::function<void(std::function<void()> done)> deleteAll;

    QTreeWidget *list() const { return m_list; }
    // Reads the newest entries again.
    void reload();
    // Puts the selected entry's shipped text on the clipboard.
    void copySelected();
    void deleteEverything();

private:
    void updateButtons();

    Store &m_store;
    QTreeWidget *m_list = nullptr;
    QPushButton *m_copy = nullptr;
    QPushButton *m_delete = nullptr;
};
