#pragma once
// Which queued jobs a withdraw (configure sub-operation 3) takes: the
// workstation and user the request names, upper case, "*" for any. A job's
// sender is its workstation and user fields, trimmed and upper-cased; when
// either holds a "|" (or the workstation is blank) they are read as the parts
// of the tag "workstation|user".
//
//   SenderFilter f(QStringLiteral("KASSA1"), QStringLiteral("*"));
//   store.deleteJobsWhere([&](const QueuedJob& j) { return f.matches(j); });
#include "database/jobstore.h"

#include <QByteArray>
#include <QString>

namespace quill {

class SenderFilter {
public:
    SenderFilter(const QString& workstation, const QString& user);
    bool matches(const QueuedJob& job) const;

private:
    bool matchesTexts(const QueuedJob& job) const;
    QString w_, u_;
    bool anyW_, anyU_;
    // Both names in ASCII: a job whose two fields are ASCII without "|" (what
    // clients send) is compared in its bytes, without a copy.
    bool ascii_ = false;
    QByteArray wBytes_, uBytes_;
};

} // namespace quill
