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

// The numbers and the texts of the pairs as two PostgreSQL array literals.
std::pair<QString, QString> arrays(const std::vector<std::pair<qint32, QString>>& pairs)
{
    QString numbers = QStringLiteral("{"), texts = QStringLiteral("{");
    for (size_t i = 0; i < pairs.size(); ++i) {
        if (i) {
            numbers += QLatin1Char(',');
            texts += QLatin1Char(',');
        }
        numbers += QString::number(pairs[i].first);
        appendElement(texts, pairs[i].second);
    }
    numbers += QLatin1Char('}');
    texts += QLatin1Char('}');
    return {numbers, texts};
}

} // namespace

std::optional<Error> JobRepository::move(const std::vector<std::pair<qint32, QString>>& idAndText, qint32 printerId)
{
    if (!db_.postgres()) {
        return Trap([&] {
            for (const auto& [id, text] : idAndText)
                db_.exec(QStringLiteral("UPDATE tbJob SET PrinterId = ?, Job = ? WHERE Id = ?"), {printerId, text, id});
        });
    }
    // PostgreSQL: one statement, one round trip to the database server however many.
    const std::pair<QString, QString> idsAndTexts = arrays(idAndText);
    return Trap([&] {
        db_.exec(QStringLiteral("UPDATE tbJob SET PrinterId = CAST(? AS integer), Job = v.j "
                                "FROM unnest(CAST(? AS integer[]), CAST(? AS text[])) AS v(i, j) WHERE tbJob.Id = v.i"),
                 {printerId, idsAndTexts.first, idsAndTexts.second});
    });
}

DbResult<qint32> JobRepository::insertRun(const std::vector<std::pair<qint32, QString>>& printerAndText)
{
    const std::pair<QString, QString> printersAndTexts = arrays(printerAndText);
    DbResult<qint32> r;
    r.error = Trap([&] {
        qint32 first = 0;
        int rows = 0;
        db_.run(QStringLiteral("INSERT INTO tbJob (Id, PrinterId, Job) SELECT b.base + v.n, v.p, v.j "
                               "FROM (SELECT COALESCE(MAX(Id), 0) AS base FROM tbJob) AS b, "
                               "unnest(CAST(? AS integer[]), CAST(? AS text[])) WITH ORDINALITY AS v(p, j, n) "
                               "RETURNING Id"),
                {printersAndTexts.first, printersAndTexts.second}, [&](QSqlQuery& q) {
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

// ------------------------------------------------------------------ history

namespace {
// Sortable as text on both engines, so the age bound is a plain comparison.
QString stamp(const QDateTime& t)
{
    return t.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.zzzZ"));
}

HistoryEntry readEntry(QSqlQuery& q)
{
    HistoryEntry e;
    e.id = NullToLong(q.value(0), 0);
    e.jobId = NullToLong(q.value(1), 0);
    e.printerId = NullToLong(q.value(2), -1);
    e.finished = QDateTime::fromString(q.value(3).toString(), Qt::ISODateWithMs);
    e.outcome = q.value(4).toString();
    e.text = q.value(5).toString();
    return e;
}

const QString EntryColumns = QStringLiteral("Id, JobId, PrinterId, Finished, Outcome, Job");
} // namespace

std::optional<Error> HistoryRepository::ensure()
{
    // There already (every start but the first): nothing to make, and nothing
    // for PostgreSQL to remark on.
    if (!Trap([&] { db_.run(QStringLiteral("SELECT Id FROM tbJobHistory LIMIT 0"), {}, {}); }))
        return std::nullopt;
    return Trap([&] {
        db_.exec(QStringLiteral("CREATE TABLE IF NOT EXISTS tbJobHistory (Id INTEGER PRIMARY KEY, JobId INTEGER, "
                                "PrinterId INTEGER, Finished TEXT, Outcome TEXT, Job TEXT)"));
        db_.exec(QStringLiteral("CREATE INDEX IF NOT EXISTS ixJobHistoryFinished ON tbJobHistory (Finished)"));
    });
}

std::optional<Error> HistoryRepository::add(const HistoryEntry& e)
{
    return Trap([&] {
        db_.exec(QStringLiteral("INSERT INTO tbJobHistory (Id, JobId, PrinterId, Finished, Outcome, Job) "
                                "SELECT COALESCE(MAX(Id), 0) + 1, CAST(? AS integer), CAST(? AS integer), ?, ?, ? "
                                "FROM tbJobHistory"),
                 {e.jobId, e.printerId, stamp(e.finished), e.outcome, e.text});
    });
}

std::optional<Error> HistoryRepository::prune(int maxRows, const QDateTime& oldest)
{
    return Trap([&] {
        db_.exec(QStringLiteral("DELETE FROM tbJobHistory WHERE Id <= (SELECT MAX(Id) FROM tbJobHistory) - ?"),
                 {qMax(0, maxRows)});
        db_.exec(QStringLiteral("DELETE FROM tbJobHistory WHERE Finished < ?"), {stamp(oldest)});
    });
}

DbResult<std::vector<HistoryEntry>> HistoryRepository::newest(int limit)
{
    DbResult<std::vector<HistoryEntry>> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT ") + EntryColumns + QStringLiteral(" FROM tbJobHistory ORDER BY Id DESC LIMIT ?"),
                {qMax(0, limit)}, [&](QSqlQuery& q) {
                    while (q.next())
                        r.value.push_back(readEntry(q));
                });
    });
    return r;
}

DbResult<HistoryEntry> HistoryRepository::entry(qint32 id)
{
    DbResult<HistoryEntry> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT ") + EntryColumns + QStringLiteral(" FROM tbJobHistory WHERE Id = ?"), {id},
                [&](QSqlQuery& q) {
                    if (q.next())
                        r.value = readEntry(q);
                });
    });
    return r;
}

} // namespace quill
