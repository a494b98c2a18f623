#include "app/OnboardingWindow.h"

#include <QCloseEvent>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace {

QString mark(SetupChecks::Status status) {
    switch (status) {
    case SetupChecks::Status::passed:
        return QStringLiteral("<span style='color:#2e9d52'>\u2714</span>");
    case SetupChecks::Status::failed:
        return QStringLiteral("<span style='color:#d0392b'>\u2716</span>");
    case SetupChecks::Status::checking:
        return QStringLiteral("<span style='color:#8a8d93'>\u2026</span>");
    }
    return {};
}

} // namespace

OnboardingWindow::OnboardingWindow(SetupChecks &checks, QString dictationKey) : m_checks(checks) {
    setWindowTitle(title());
    setAttribute(Qt::WA_DeleteOnClose, false);
    auto *layout = new QVBoxLayout(this);

    auto *intro = new QLabel(
        QStringLiteral("<b>Quorvane turns your speech into text, on this computer.</b><br>Hold %1, speak, and let "
                       "go: the text is typed where you were typing. Nothing you say leaves the machine.")
            .arg(dictationKey.toHtmlEscaped()));
    intro->setWordWrap(true);
    layout->addWidget(intro);

    auto *checksBox = new QGroupBox(QStringLiteral("This desktop"));
    m_rows = new QGridLayout(checksBox);
    m_rows->setColumnStretch(2, 1);
    layout->addWidget(checksBox);

    auto *tryBox = new QGroupBox(QStringLiteral("Try it"));
    auto *tryLayout = new QVBoxLayout(tryBox);
    auto *how = new QLabel(
        QStringLiteral("Click into the box, hold %1, say a sentence and let go.").arg(dictationKey.toHtmlEscaped()));
    how->setWordWrap(true);
    how->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
    tryLayout->addWidget(how);
    m_box = new QPlainTextEdit;
    m_box->setObjectName(QStringLiteral("testDictation"));
    m_box->setPlaceholderText(QStringLiteral("Your words appear here."));
    m_box->setFixedHeight(72);
    tryLayout->addWidget(m_box);
    layout->addWidget(tryBox);
    // Spare height goes below the content, not into the boxes.
    layout->addStretch();

    auto *buttons = new QDialogButtonBox;
    QPushButton *again = buttons->addButton(QStringLiteral("Check Again"), QDialogButtonBox::ActionRole);
    QPushButton *done = buttons->addButton(QStringLiteral("Done"), QDialogButtonBox::AcceptRole);
    connect(again, &QPushButton::clicked, this, [this] {
        if (onCheckAgain)
            onCheckAgain();
    });
    connect(done, &QPushButton::clicked, this, &QWidget::close);
    layout->addWidget(buttons);

    setMinimumWidth(520);
    refresh();
}

OnboardingWindow::~OnboardingWindow() = default;

void OnboardingWindow::refresh() {
    while (QLayoutItem *item = m_rows->takeAt(0)) {
        // Later: the button that got us here may be the one going away.
        item->widget()->hide();
        item->widget()->deleteLater();
        delete item;
    }
    int row = 0;
    for (const SetupChecks::Check &check : m_checks.checks()) {
        auto *status = new QLabel(mark(check.status));
        status->setAlignment(Qt::AlignTop | Qt::AlignHCenter);
        auto *name = new QLabel(QStringLiteral("<b>%1</b>").arg(check.title.toHtmlEscaped()));
        name->setAlignment(Qt::AlignTop | Qt::AlignLeft);
        auto *detail = new QLabel(check.detail);
        detail->setTextFormat(Qt::PlainText);
        detail->setWordWrap(true);
        detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
        m_rows->addWidget(status, row, 0);
        m_rows->addWidget(name, row, 1);
        m_rows->addWidget(detail, row, 2);
        if (check.action != SetupChecks::Action::none) {
            auto *button = new QPushButton(check.actionText);
            const SetupChecks::Action action = check.action;
            connect(button, &QPushButton::clicked, this, [this, action] {
                if (onAction)
                    onAction(action);
            });
            m_rows->addWidget(button, row, 3, Qt::AlignTop);
        }
        ++row;
    }
}

void OnboardingWindow::closeEvent(QCloseEvent *event) {
    event->accept();
    if (onClose)
        onClose();
}
