#pragma once
// The fields of a job text: a print request as received (or converted from the
// add-in form) and stored in tbJob, TAB-separated and numbered from 1. It is
// split once; each field reads as GetToken would read it, including its
// overflow: a field whose read meets a separator beyond character 32767 throws
// Error(ErrOverflow) when it is asked for, not when the text is split, so a
// caller's trap sees it where it always did.
//
//   const JobFields job(text);
//   if (job.printerId() == p && job.operation() == "P") ... job.templateId(), job.checkMode()
#include <QString>
#include <QVarLengthArray>

#include <limits>

namespace quill {

class JobFields {
public:
    explicit JobFields(const QString& text);

    // Field n as GetToken(text, TAB, n): empty when missing.
    QString field(int n) const;
    // Field n through NullToLong: def when missing, blank or not a number.
    qint32 number(int n, qint32 def) const;
    // The number of fields as CountTokens counts them (0 for an empty text).
    int count() const;

    QString operation() const { return field(3); }
    qint32 printerId() const { return number(4, -1); }
    qint32 templateId() const { return number(5, -1); }
    qint32 copies() const { return number(6, 1); }
    QString workstation() const { return field(7).trimmed(); }
    qint32 checkMode() const { return number(8, 0); }
    QString user() const { return field(11); }
    QString caption() const { return field(12); }

    // The text with field n replaced by value (the text as given when it has
    // no field n).
    QString withField(int n, const QString& value) const;

private:
    static constexpr int NoOverflow = std::numeric_limits<int>::max();
    // Field n's place in text_; false when the text has no such field.
    bool span(int n, qsizetype* start, qsizetype* end) const;
    QString text_;                  // as given (shared, not copied)
    qsizetype begin_ = 0, end_ = 0; // text_ without one leading and one trailing TAB
    bool empty_ = true;             // the text as given
    QVarLengthArray<qsizetype, 16> tabs_; // positions of the separators in text_
    int overflowFrom_ = NoOverflow; // first field whose read throws
};

} // namespace quill
