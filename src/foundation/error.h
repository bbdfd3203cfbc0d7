#pragma once
#include <QString>
#include <exception>

namespace quill {

// A trapped failure: operations catch these in their own handler and log
// "<operation> failed. Error: <number> <description>".
struct Error : std::exception {
    int number = 0;
    QString description;
    Error(int n, QString d) : number(n), description(std::move(d)) {}
    const char* what() const noexcept override { return "quill::Error"; }
    // "<number> <description>", the E of the log lines.
    QString text() const { return QString::number(number) + QLatin1Char(' ') + description; }
};

// Error numbers the helpers raise themselves, same meaning as the classic runtime's.
constexpr int ErrOverflow = 6;
constexpr int ErrTypeMismatch = 13;

// E for any exception that reached a trap.
QString errorText(const std::exception& e);

} // namespace quill
