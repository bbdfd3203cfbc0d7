#pragma once
#include <QString>
#include <exception>
#include <optional>

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
// The same as a value: an Error as it is, any other exception as -1 and its what().
Error asError(const std::exception& e);

// An operation that failed, handed up as a value to whoever tells the operator;
// where it failed has written its log line already.
struct Failure {
    QString operation;
    Error error{0, QString()};
    // "<operation> failed. Error: <number> <description>"
    QString line() const { return operation + QStringLiteral(" failed. Error: ") + error.text(); }
};

// What a step that works or fails gives: true when it worked, else why not.
template <class F>
struct Checked {
    std::optional<F> failure;
    Checked() = default;
    Checked(F f) : failure(std::move(f)) {}
    explicit operator bool() const { return !failure; }
};

} // namespace quill
