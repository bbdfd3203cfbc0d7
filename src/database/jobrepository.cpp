#include "database/jobrepository.h"
#include "foundation/strutil.h"

#include <QSqlQuery>

#include <algorithm>

namespace quill {

namespace {
// Past this many runs of adjacent ids, one statement with every id is cheaper.
constexpr size_t MaxRanges = 16;
} // namespace

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

namespace {

// An element of a PostgreSQL array literal: quoted, with " and \ escaped.
void appendElement(QString& list, const QString& text)
{
    list += QLatin1Char('"');
    for (const QChar c : text) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            list += QLatin1Char('\\');
        list += c;
    }
    list += QLatin1Char('"');
}

} // namespace

DbResult<qint32> JobRepository::insertRun(const std::vector<std::pair<qint32, QString>>& printerAndText)
{
    QString printers = QStringLiteral("{"), texts = QStringLiteral("{");
    for (size_t i = 0; i < printerAndText.size(); ++i) {
        if (i) {
            printers += QLatin1Char(',');
            texts += QLatin1Char(',');
        }
        printers += QString::number(printerAndText[i].first);
        appendElement(texts, printerAndText[i].second);
    }
    printers += QLatin1Char('}');
    texts += QLatin1Char('}');
    DbResult<qint32> r;
    r.error = Trap([&] {
        qint32 first = 0;
        int rows = 0;
        db_.run(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) SELECT b.base + v.n, v.p, v.j "
                               "FROM (SELECT COALESCE(MAX(Id), 0) AS base FROM tbJob) AS b, "
                               "unnest(CAST(? AS integer[]), CAST(? AS text[])) WITH ORDINALITY AS v(p, j, n) "
                               "RETURNING Id"),
                {printers, texts}, [&](QSqlQuery& q) {
                    while (q.next()) {
                        const qint32 id = NullToLong(q.value(0), 0);
                        first = rows++ ? std::min(first, id) : id;
                    }
                });
        if (rows != int(printerAndText.size()))
            throw Error(3021, QStringLiteral("No current record."));
        r.value = first;
    });
    return r;
}

std::optional<Error> JobRepository::remove(const std::vector<qint32>& ids)
{
    if (ids.empty())
        return std::nullopt;
    if (ids.size() == 1)
        return Trap([&] { db_.exec(QStringLiteral("DELETE FROM tbJob WHERE Id = ?"), {ids.front()}); });
    std::vector<qint32> sorted = ids;
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    // Runs of adjacent ids (a whole queue, a printer's share of it) go as ranges:
    // SQLite deletes a range without looking each id up.
    std::vector<std::pair<qint32, qint32>> runs;
    for (qint32 id : sorted) {
        if (!runs.empty() && qint64(runs.back().second) + 1 == id)
            runs.back().second = id;
        else
            runs.emplace_back(id, id);
    }
    if (runs.size() == 1) {
        // The whole table (delete all): without a WHERE, SQLite frees the table's
        // pages without visiting each row.
        // Plain copies: lambdas cannot capture structured bindings on every compiler we build with.
        const auto from = runs.front().first;
        const auto to = runs.front().second;
        return Trap([&] {
            bool others = true;
            db_.run(QStringLiteral("SELECT EXISTS (SELECT 1 FROM tbJob WHERE Id < ? OR Id > ?)"), {from, to},
                    [&](QSqlQuery& q) { others = !q.next() || q.value(0).toInt() != 0; });
            if (others)
                db_.exec(QStringLiteral("DELETE FROM tbJob WHERE Id BETWEEN ? AND ?"), {from, to});
            else
                db_.exec(QStringLiteral("DELETE FROM tbJob"));
        });
    }
    if (runs.size() <= MaxRanges) {
        // All ranges or none, as one statement would be.
        return Trap([&] {
            db_.exec(QStringLiteral("SAVEPOINT removeJobs"));
            try {
                for (const auto& [from, to] : runs)
                    db_.exec(QStringLiteral("DELETE FROM tbJob WHERE Id BETWEEN ? AND ?"), {from, to});
            } catch (...) {
                Trap([&] { db_.exec(QStringLiteral("ROLLBACK TO removeJobs")); });
                Trap([&] { db_.exec(QStringLiteral("RELEASE removeJobs")); });
                throw;
            }
            db_.exec(QStringLiteral("RELEASE removeJobs"));
        });
    }
    // Scattered ids as one array (JSON for SQLite, PostgreSQL's own literal):
    // one statement and one bound value, however many.
    const bool pg = db_.postgres();
    QByteArray list;
    list.reserve(qsizetype(sorted.size()) * 7 + 2);
    list += pg ? '{' : '[';
    for (size_t i = 0; i < sorted.size(); ++i) {
        if (i)
            list += ',';
        list += QByteArray::number(sorted[i]);
    }
    list += pg ? '}' : ']';
    return Trap([&] {
        db_.exec(pg ? QStringLiteral("DELETE FROM tbJob WHERE Id = ANY (CAST(? AS integer[]))")
                    : QStringLiteral("DELETE FROM tbJob WHERE Id IN (SELECT value FROM json_each(?))"),
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
