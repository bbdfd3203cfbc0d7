#pragma once
// The small tables over prepared statements: printers (tbPrinter and the type
// list), the server-settings row (tbServer) and the templates a request may
// name. Each call returns a value or its failure as a value (the engine's number
// and text, or 3021 "No current record." for a row that is not there), from
// which the callers write their log lines.
//
//   PrinterRepository printers(db);
//   DbResult<std::optional<PrinterRow>> row = printers.find(2);
//   if (auto failed = printers.update(edited)) LogWrite("... Error: " + failed->text());
//   ServerSettingsRepository(db).port();          // 20001 when Null
//   TemplateRepository(db).ids();                 // templates that have their type row
#include "database/sqlite.h"

#include <QSet>
#include <QString>
#include <QVariant>
#include <QVector>

#include <array>
#include <optional>

namespace quill {

// One tbPrinter row as stored; any column may hold Null.
struct PrinterRow {
    QVariant id;
    QVariant name;
    QVariant printerTypeId;
    QVariant connectionUsed;        // which of the four connections is used: 1 serial, 2 network
    std::array<QVariant, 4> connection; // Connection1..Connection4
    QVariant netConnectOnly;
    QVariant strobe;
    QVariant speed;
    QVariant passive;
    QVariant cutterInstalled;
    QVariant dispensingFeed;
    QVariant reverseFeed;
    QVariant currentTemplateId;

    // Connection n (1..4); Null for any other n.
    QVariant connectionField(qint32 n) const
    {
        return n >= 1 && n <= 4 ? connection[size_t(n - 1)] : QVariant();
    }
};

// An entry of tbPrinterType.
struct PrinterType {
    QVariant id;
    QVariant name;
};

class PrinterRepository {
public:
    explicit PrinterRepository(Database& db) : db_(db) {}

    // Can the table be read (its columns included)?
    std::optional<Error> check();
    // Every row in Id order.
    DbResult<QVector<PrinterRow>> all();
    // The row of this Id; none when there is none.
    DbResult<std::optional<PrinterRow>> find(qint32 id);
    // A new row: every column but CurrentTemplateId, which gets the table's default.
    std::optional<Error> insert(const PrinterRow& row);
    // Every column but Id and CurrentTemplateId of the row with row.id; no row: 3021.
    std::optional<Error> update(const PrinterRow& row);
    // Deletes the row; an Id without a row is no error.
    std::optional<Error> remove(qint32 id);

    // CurrentTemplateId: the template the printer last printed with, so the next
    // job with it goes without the layout. A printer without a row reads 0, and
    // setting it changes nothing.
    DbResult<qint32> currentTemplate(qint32 printerId);
    std::optional<Error> setCurrentTemplate(qint32 printerId, qint32 templateId);
    // Every printer that holds the template gets 0.
    std::optional<Error> clearCurrentTemplate(qint32 templateId);

    // tbPrinterType in name order.
    DbResult<QVector<PrinterType>> types();

private:
    Database& db_;
};

// The start-up switches of the tbServer row, as stored (Null reads 0).
struct ServerSwitches {
    qint32 autoStartService = 0;
    qint32 startMinimized = 0;
};

// tbServer: the program works on its first row; an empty table is 3021 for every call.
class ServerSettingsRepository {
public:
    explicit ServerSettingsRepository(Database& db) : db_(db) {}

    // The listening port, 20001 when Null.
    DbResult<qint32> port();
    DbResult<ServerSwitches> switches();
    std::optional<Error> saveSwitches(qint32 autoStartService, qint32 startMinimized);
    // Where the server last listened, for the other programs on the database.
    std::optional<Error> saveAddress(const QString& ip, qint32 port, const QString& hostName);

private:
    std::optional<Error> updateFirstRow(const QString& assignments, const QVariantList& values);
    Database& db_;
};

class TemplateRepository {
public:
    explicit TemplateRepository(Database& db) : db_(db) {}

    // Ids of tbTemplate whose type is in tbTemplateType: a template without its
    // type row does not count.
    DbResult<QSet<qint32>> ids();

private:
    Database& db_;
};

} // namespace quill
