#include "database/jobrepository.h"
#include "foundation/strutil.h"

#include <QSqlQuery>

namespace quill {

DbResult<qint32> JobRepository::nextId()
{
    DbResult<qint32> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT MAX(Id) FROM tbJob"), {}, [&](QSqlQuery& q) {
            r.value = (q.next() ? NullToLong(q.value(0), 0) : 0) + 1;
        });
    });
    return r;
}

std::optional<Error> JobRepository::insert(qint32 id, qint32 printerId, const QString& text)
{
    return Trap([&] {
        db_.exec(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) VALUES (?, ?, ?)"), {id, printerId, text});
    });
}

std::optional<Error> JobRepository::remove(const std::vector<qint32>& ids)
{
    if (ids.empty())
        return std::nullopt;
    if (ids.size() == 1)
        return Trap([&] { db_.exec(QStringLiteral("DELETE FROM tbJob WHERE Id = ?"), {ids.front()}); });
    // The ids as one JSON array: one statement and one bound value, however many.
    QByteArray list;
    list.reserve(qsizetype(ids.size()) * 7 + 2);
    list += '[';
    for (size_t i = 0; i < ids.size(); ++i) {
        if (i)
            list += ',';
        list += QByteArray::number(ids[i]);
    }
    list += ']';
    return Trap([&] {
        db_.exec(QStringLiteral("DELETE FROM tbJob WHERE Id IN (SELECT value FROM json_each(?))"),
                 {QString::fromLatin1(list)});
    });
}

DbResult<bool> JobRepository::exists(qint32 id)
{
    DbResult<bool> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT 1 FROM tbJob WHERE Id = ?"), {id}, [&](QSqlQuery& q) { r.value = q.next(); });
    });
    return r;
}

std::optional<Error> JobRepository::check()
{
    return Trap([&] { db_.run(QStringLiteral("SELECT Id, PrinterId, Job FROM tbJob LIMIT 0"), {}, {}); });
}

std::optional<Error> JobRepository::readAll(const std::function<void(qint32 id, const QString& text)>& row)
{
    return Trap([&] {
        db_.run(QStringLiteral("SELECT Id, Job FROM tbJob ORDER BY Id"), {}, [&](QSqlQuery& q) {
            while (q.next())
                row(NullToLong(q.value(0), -1), q.value(1).toString());
        });
    });
}

} // namespace quill
