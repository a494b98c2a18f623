#pragma once

#include "app/SetupChecks.h"

#include <QWidget>
#include <functional>

class QGridLayout;
class QPlainTextEdit;

// The first-start window: what Quorvane does, the checks this desktop needs with the step that fixes
// each failing one, and a box to try a dictation in. Closing it, by its button or the window's own,
// ends the first start; the menu opens it again.
class OnboardingWindow : public QWidget {
    Q_OBJECT
public:
    static QString title() { return QStringLiteral("Welcome to Quorvane"); }

    OnboardingWindow(SetupChecks &checks, QString dictationKey);
    ~OnboardingWindow() override;

    std::function<void(SetupChecks::Action)> onAction;
    std::function<void()> onCheckAgain;
    std::function<void()> onClose;

    QPlainTextEdit *dictationBox() const { return m_box; }
    // Rebuilds the rows from the checks.
    void refresh();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    SetupChecks &m_checks;
    QGridLayout *m_rows = nullptr;
    QPlainTextEdit *m_box = nullptr;
};
