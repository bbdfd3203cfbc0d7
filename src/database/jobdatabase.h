#pragma once
// The server's database objects: the open brixa.mdb and the three recordsets that
// stay open for the whole run (printers, jobs, templates), plus the server-settings
// row. One JobDatabase is created by the start-up sequence and lives until shutdown:
//
//   JobDatabase jdb;
//   if (!jdb.SrvOpenDatabases()) exit;            // maintenance, then open
//   jdb.SrvInitServerSettings();                   // autoStartService(), startMinimized()
//   if (!jdb.SrvPrinterOpenDB()) exit;
//   MainAddAndInitAllPrinters(jdb, printerSlots);         // service/printerload.h
//   if (!jdb.SrvTemplateTypeOpenDB() || !jdb.SrvJobOpenDB()) fail;
//   JobStore store(jdb, printerSlots); store.SrvInitAllJobs();   // database/jobstore.h
//   ...
//   jdb.SrvCloseDatabases();
//
// Every Srv... operation traps its own errors and logs them as the server's log
// lines have it; none throws. SrvSeekPrinter and SrvDBNextId have no trap of
// their own and throw quill::Error to their caller's trap.
#include "database/recordset.h"

#include <memory>

namespace quill {

// Installation files, in the installation folder (HomeDir()).
inline constexpr const char* AccountFileName = "brixa.mda";
inline constexpr const char* DatabaseFileName = "brixa.mdb";
inline constexpr const char* BackupFileName = "brixa_backup.mdb";
inline constexpr const char* CompactFileName = "brixa_compact.mdb";

// Called after each completed step of the start-up maintenance with the step's
// name ("backup", "repair", "compact1" .. "compact5"). Only the tests set it, to
// stop a process at that point; the server never does.
using MaintenanceStepHook = void (*)(const char* step);
void SetMaintenanceStepHook(MaintenanceStepHook hook);

// The operating system's computer name (empty when unknown).
QString ComputerName();

class JobDatabase {
public:
    JobDatabase();
    ~JobDatabase();
    JobDatabase(const JobDatabase&) = delete;
    JobDatabase& operator=(const JobDatabase&) = delete;

    // Finds the files, runs the start-up maintenance (backup, integrity check,
    // compaction) and opens brixa.mdb. False means the server cannot start.
    bool SrvOpenDatabases();
    // Closes the template, job and printer recordsets and the database; never fails.
    void SrvCloseDatabases();

    bool SrvPrinterOpenDB();
    bool SrvJobOpenDB();
    bool SrvTemplateTypeOpenDB();
    bool SrvTemplateTypeReOpenDB();

    // Keyed seek on the printer recordset; the recordset is left on the row.
    bool SrvSeekPrinter(qint32 id);
    // MAX(Id) + 1 of the table (1 for an empty table).
    qint32 SrvDBNextId(const QString& table);
    // Is the template in the template recordset? A miss re-opens the recordset once.
    // Throws to the caller's trap.
    bool SrvTemplateInDB(qint32 templateId);

    // CurrentTemplateId of tbPrinter rows: the template each printer last
    // printed with, so the next job with it goes without the layout. Through the
    // printer recordset; no trap of their own, errors reach the caller's.
    // A printer without a row reads 0, and setting it changes nothing.
    qint32 currentTemplate(qint32 printerId);
    void setCurrentTemplate(qint32 printerId, qint32 templateId);
    // Every printer 1..5 that holds the template gets 0.
    void clearCurrentTemplate(qint32 templateId);

    // Server settings row.
    qint32 SrvGetServerPort();
    void SrvInitServerSettings();
    void SrvMainSaveSettings(int autoStartService, int startMinimized);
    void SrvMainSaveTCPSettings(const QString& ip, qint32 port, const QString& hostName = ComputerName());
    // The two switches read at start-up (0 or 1), changed by SrvMainSaveSettings.
    int autoStartService() const { return autoStartService_; }
    int startMinimized() const { return startMinimized_; }

    bool isOpen() const { return db_.isOpen(); }
    Database& database() { return db_; }
    // The long-lived recordsets; null until opened.
    TableRecordset* printerRecordset() { return printers_.get(); }
    // tbJob was found readable by SrvJobOpenDB (the job store reads and writes it).
    bool jobsOpen() const { return jobsOpen_; }
    Snapshot* templateRecordset() { return templates_.get(); }

private:
    bool openDatabaseFile();
    bool openTable(std::unique_ptr<TableRecordset>& slot, const QString& table, const QString& caller);
    bool openTemplates(const QString& caller, bool withBox);
    Database db_;
    std::unique_ptr<TableRecordset> printers_;
    bool jobsOpen_ = false;
    std::unique_ptr<Snapshot> templates_;
    int autoStartService_ = 0;
    int startMinimized_ = 0;
};

} // namespace quill
