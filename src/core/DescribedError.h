#pragma once

#include <QString>
#include <exception>
#include <string>

// The base of our exceptions: one text, also readable as what() by anything that catches a
// standard exception.
class DescribedError : public std::exception {
public:
    explicit DescribedError(const QString &text) : m_text(text), m_what(text.toStdString()) {}

    const QString &text() const { return m_text; }
    const char *what() const noexcept override { return m_what.c_str(); }
    // The sentence shown when this failure ends a run or a command.
    virtual QString description() const { return m_text; }

private:
    QString m_text;
    std::string m_what;
};

// The sentence shown for any error thrown by a speech engine, a formatter, a decoder or a service.
QString describeError(std::exception_ptr error);
