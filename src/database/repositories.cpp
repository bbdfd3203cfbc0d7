#include "database/repositories.h"
#include "foundation/strutil.h"

#include <QSqlQuery>

namespace quill {

namespace {

const QString PrinterColumns = QStringLiteral(
    "Id, Name, PrinterTypeId, ConnectionUsed, Connection1, Connection2, Connection3, Connection4, NetConnectOnly, "
    "Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, CurrentTemplateId");

PrinterRow printerRow(const QSqlQuery& q)
{
    PrinterRow r;
    r.id = q.value(0);
    r.name = q.value(1);
    r.printerTypeId = q.value(2);
    r.connectionUsed = q.value(3);
    for (int i = 0; i < 4; ++i)
        r.connection[size_t(i)] = q.value(4 + i);
    r.netConnectOnly = q.value(8);
    r.strobe = q.value(9);
    r.speed = q.value(10);
    r.passive = q.value(11);
    r.cutterInstalled = q.value(12);
    r.dispensingFeed = q.value(13);
    r.reverseFeed = q.value(14);
    r.currentTemplateId = q.value(15);
    return r;
}

// Every written column but Id, in the order of the statements below.
QVariantList written(const PrinterRow& r)
{
    return {r.name,          r.printerTypeId, r.connectionUsed,  r.connection[0], r.connection[1],
            r.connection[2], r.connection[3], r.netConnectOnly,  r.strobe,        r.speed,
            r.passive,       r.cutterInstalled, r.dispensingFeed, r.reverseFeed};
}

// The first row of tbServer, as the program has always taken it: lowest key first.
// PostgreSQL has no row number; its tables have the key.
QString firstServerRow(const Database& db)
{
    return db.postgres() ? QStringLiteral(" FROM tbServer ORDER BY Id LIMIT 1")
                         : QStringLiteral(" FROM tbServer ORDER BY rowid LIMIT 1");
}

} // namespace

// ---------------------------------------------------------------- printers

std::optional<Error> PrinterRepository::check()
{
    return Trap([&] { db_.run(QStringLiteral("SELECT ") + PrinterColumns + QStringLiteral(" FROM tbPrinter LIMIT 0"), {}, {}); });
}

DbResult<QVector<PrinterRow>> PrinterRepository::all()
{
    DbResult<QVector<PrinterRow>> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT ") + PrinterColumns + QStringLiteral(" FROM tbPrinter ORDER BY Id"), {},
                [&](QSqlQuery& q) {
                    while (q.next())
                        r.value.append(printerRow(q));
                });
    });
    return r;
}

DbResult<std::optional<PrinterRow>> PrinterRepository::find(qint32 id)
{
    DbResult<std::optional<PrinterRow>> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT ") + PrinterColumns + QStringLiteral(" FROM tbPrinter WHERE Id = ?"), {id},
                [&](QSqlQuery& q) {
                    if (q.next())
                        r.value = printerRow(q);
                });
    });
    return r;
}

std::optional<Error> PrinterRepository::insert(const PrinterRow& row)
{
    QVariantList values{row.id};
    values += written(row);
    return Trap([&] {
        db_.exec(QStringLiteral("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection1, "
                                "Connection2, Connection3, Connection4, NetConnectOnly, Strobe, Speed, Passive, "
                                "CutterInstalled, DispensingFeed, ReverseFeed) "
                                "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
                 values);
    });
}

std::optional<Error> PrinterRepository::update(const PrinterRow& row)
{
    QVariantList values = written(row);
    values << row.id;
    return Trap([&] {
        const int changed = db_.exec(
            QStringLiteral("UPDATE tbPrinter SET Name = ?, PrinterTypeId = ?, ConnectionUsed = ?, Connection1 = ?, "
                           "Connection2 = ?, Connection3 = ?, Connection4 = ?, NetConnectOnly = ?, Strobe = ?, "
                           "Speed = ?, Passive = ?, CutterInstalled = ?, DispensingFeed = ?, ReverseFeed = ? "
                           "WHERE Id = ?"),
            values);
        if (changed < 1)
            throw NoCurrentRecord();
    });
}

std::optional<Error> PrinterRepository::remove(qint32 id)
{
    return Trap([&] { db_.exec(QStringLiteral("DELETE FROM tbPrinter WHERE Id = ?"), {id}); });
}

DbResult<qint32> PrinterRepository::currentTemplate(qint32 printerId)
{
    DbResult<qint32> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT CurrentTemplateId FROM tbPrinter WHERE Id = ?"), {printerId},
                [&](QSqlQuery& q) { r.value = q.next() ? NullToLong(q.value(0), 0) : 0; });
    });
    return r;
}

std::optional<Error> PrinterRepository::setCurrentTemplate(qint32 printerId, qint32 templateId)
{
    // Most jobs print with the template the printer holds already: no write then.
    return Trap([&] {
        db_.exec(QStringLiteral("UPDATE tbPrinter SET CurrentTemplateId = ? WHERE Id = ? "
                                "AND CurrentTemplateId IS DISTINCT FROM ?"),
                 {templateId, printerId, templateId});
    });
}

std::optional<Error> PrinterRepository::clearCurrentTemplate(qint32 templateId)
{
    return Trap([&] {
        db_.exec(QStringLiteral("UPDATE tbPrinter SET CurrentTemplateId = 0 WHERE CurrentTemplateId = ?"),
                 {templateId});
    });
}

DbResult<QVector<PrinterType>> PrinterRepository::types()
{
    DbResult<QVector<PrinterType>> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT Id, Name FROM tbPrinterType ORDER BY Name"), {}, [&](QSqlQuery& q) {
            while (q.next())
                r.value.append({q.value(0), q.value(1)});
        });
    });
    return r;
}

// ---------------------------------------------------------------- server settings

DbResult<qint32> ServerSettingsRepository::port()
{
    DbResult<qint32> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT Port") + firstServerRow(db_), {}, [&](QSqlQuery& q) {
            if (!q.next())
                throw NoCurrentRecord();
            r.value = NullToLong(q.value(0), 20001);
        });
    });
    return r;
}

DbResult<ServerSwitches> ServerSettingsRepository::switches()
{
    DbResult<ServerSwitches> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT AutoStartService, StartMinimized") + firstServerRow(db_), {}, [&](QSqlQuery& q) {
            if (!q.next())
                throw NoCurrentRecord();
            r.value.autoStartService = NullToLong(q.value(0), 0);
            r.value.startMinimized = NullToLong(q.value(1), 0);
        });
    });
    return r;
}

std::optional<Error> ServerSettingsRepository::updateFirstRow(const QString& assignments, const QVariantList& values)
{
    return Trap([&] {
        const QString key = db_.postgres() ? QStringLiteral("Id") : QStringLiteral("rowid");
        const int changed = db_.exec(QStringLiteral("UPDATE tbServer SET ") + assignments + QStringLiteral(" WHERE ")
                                         + key + QStringLiteral(" = (SELECT MIN(") + key
                                         + QStringLiteral(") FROM tbServer)"),
                                     values);
        if (changed < 1)
            throw NoCurrentRecord();
    });
}

std::optional<Error> ServerSettingsRepository::saveSwitches(qint32 autoStartService, qint32 startMinimized)
{
    return updateFirstRow(QStringLiteral("AutoStartService = ?, StartMinimized = ?"), {autoStartService, startMinimized});
}

std::optional<Error> ServerSettingsRepository::saveAddress(const QString& ip, qint32 port, const QString& hostName)
{
    return updateFirstRow(QStringLiteral("IP = ?, port = ?, HostName = ?"), {ip, port, hostName});
}

// ---------------------------------------------------------------- templates

DbResult<QSet<qint32>> TemplateRepository::ids()
{
    DbResult<QSet<qint32>> r;
    r.error = Trap([&] {
        db_.run(QStringLiteral("SELECT tbTemplate.Id FROM tbTemplate INNER JOIN tbTemplateType "
                               "ON tbTemplate.TemplateTypeId = tbTemplateType.Id"),
                {}, [&](QSqlQuery& q) {
                    while (q.next())
                        if (!q.value(0).isNull())
                            r.value.insert(NullToLong(q.value(0), 0));
                });
    });
    return r;
}

} // namespace quill
