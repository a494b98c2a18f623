// quorvane_target_window: a destination for desktop tests. One window holds a line edit ("line"),
// a password line edit ("password") and a text edit ("edit"). It reads commands from stdin, one per
// line, and answers each with exactly one line on stdout ("ready" is printed once at start):
//   focus <field>                    activate the window and give <field> the keyboard focus -> ok
//   set <field> <text>               replace the field's text (rest of the line, may be empty; "\n"
//                                    is a line break) -> ok
//   select <field> <start> <length>  select that many characters from <start> -> ok
//   text                             {"line": …, "password": …, "edit": …, "lineChangedNs": …} as one
//                                    JSON line; lineChangedNs is CLOCK_MONOTONIC when "line" last changed
//   copy <text>                      put <text> as text/plain and a 1x1 PNG on the clipboard -> ok
//   paste <field>                    paste the clipboard's text into the line edit <field> -> ok
// An unknown command or field answers "error". The window ends when stdin closes.
#include <QApplication>
#include <QBuffer>
#include <QClipboard>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QMimeData>
#include <QSocketNotifier>
#include <QTextEdit>
#include <QVBoxLayout>
#include <QWidget>
#include <cstdio>
#include <ctime>
#include <unistd.h>

namespace {

struct Fields {
    QLineEdit *line = nullptr;
    QLineEdit *password = nullptr;
    QTextEdit *edit = nullptr;
    // So a benchmark times a paste to the moment it landed, not to when it next asked.
    qint64 lineChangedNs = 0;

    QWidget *named(const QString &name) const {
        if (name == "line")
            return line;
        if (name == "password")
            return password;
        if (name == "edit")
            return edit;
        return nullptr;
    }
};

void reply(const QByteArray &line) {
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

QByteArray run(QWidget &window, const Fields &fields, const QString &command) {
    const QString verb = command.section(' ', 0, 0);
    const QString rest = command.section(' ', 1);
    QWidget *field = fields.named(command.section(' ', 1, 1));
    if (verb == "text") {
        const QJsonObject text{{"line", fields.line->text()},
                               {"password", fields.password->text()},
                               {"edit", fields.edit->toPlainText()},
                               {"lineChangedNs", QString::number(fields.lineChangedNs)}};
        return QJsonDocument(text).toJson(QJsonDocument::Compact);
    }
    if (verb == "copy") {
        auto *data = new QMimeData;
        data->setText(rest);
        QImage pixel(1, 1, QImage::Format_ARGB32);
        pixel.fill(Qt::red);
        QByteArray png;
        QBuffer buffer(&png);
        buffer.open(QIODevice::WriteOnly);
        pixel.save(&buffer, "PNG");
        data->setData("image/png", png);
        QGuiApplication::clipboard()->setMimeData(data);
        return "ok";
    }
    if (!field)
        return "error";
    if (verb == "focus") {
        window.activateWindow();
        window.raise();
        field->setFocus(Qt::OtherFocusReason);
        return "ok";
    }
    if (verb == "paste") {
        auto *edit = qobject_cast<QLineEdit *>(field);
        if (!edit)
            return "error";
        edit->paste();
        return "ok";
    }
    if (verb == "set") {
        const QString text = command.section(' ', 2).replace("\\n", "\n");
        if (auto *edit = qobject_cast<QLineEdit *>(field))
            edit->setText(text);
        else
            fields.edit->setPlainText(text);
        return "ok";
    }
    if (verb == "select") {
        const int start = command.section(' ', 2, 2).toInt(), length = command.section(' ', 3, 3).toInt();
        if (auto *edit = qobject_cast<QLineEdit *>(field)) {
            edit->setSelection(start, length);
        } else {
            QTextCursor cursor = fields.edit->textCursor();
            cursor.setPosition(start);
            cursor.setPosition(start + length, QTextCursor::KeepAnchor);
            fields.edit->setTextCursor(cursor);
        }
        return "ok";
    }
    return "error";
}

} // namespace

int main(int argc, char **argv) {
    QApplication app(argc, argv);
    QWidget window;
    window.setWindowTitle("Quorvane target");
    Fields fields{new QLineEdit, new QLineEdit, new QTextEdit};
    fields.password->setEchoMode(QLineEdit::Password);
    QObject::connect(fields.line, &QLineEdit::textChanged, [&fields] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        fields.lineChangedNs = qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
    });
    auto *layout = new QVBoxLayout(&window);
    layout->addWidget(fields.line);
    layout->addWidget(fields.password);
    layout->addWidget(fields.edit);
    window.resize(400, 300);
    window.show();

    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QByteArray pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char chunk[4096];
        const ssize_t got = ::read(STDIN_FILENO, chunk, sizeof chunk);
        if (got <= 0) {
            app.quit();
            return;
        }
        pending.append(chunk, got);
        for (qsizetype end = pending.indexOf('\n'); end >= 0; end = pending.indexOf('\n')) {
            const QString command = QString::fromUtf8(pending.left(end));
            pending.remove(0, end + 1);
            reply(run(window, fields, command));
        }
    });
    reply("ready");
    return app.exec();
}
