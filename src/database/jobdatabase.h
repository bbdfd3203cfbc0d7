#pragma once
// The server's database: the open brixa.mdb, its repositories and the two
// start-up switches of the server-settings row. One JobDatabase is created by the
// start-up sequence and lives until shutdown:
//
//   JobDatabase jdb;
//   if (auto opened = jdb.SrvOpenDatabases(); !opened) exit;   // maintenance, then open
//   jdb.SrvInitServerSettings();                   // autoStartService(), startMinimized()
//   if (!jdb.SrvPrinterOpenDB()) exit;
//   MainAddAndInitAllPrinters(jdb, printerSlots);         // service/printerload.h
//   if (!jdb.SrvTemplateTypeOpenDB() || !jdb.SrvJobOpenDB()) fail;
//   JobStore store(jdb, printerSlots); store.SrvInitAllJobs();   // database/jobstore.h
//   ...
//   jdb.SrvCloseDatabases();
//
// Every Srv... operation writes its own failure to the event log as the
// server's log lines have it; none throws. The open steps also hand their
// failure up as a value (DatabaseFailure): the start-up tells the operator.
#include "database/repositories.h"
#include "database/sqlite.h"

#include <exception>
#include <optional>

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

// Why the database could not be opened or read at start-up.
struct DatabaseFailure {
    enum class Kind {
        NoAccountFile,  // brixa.mda is not there
        NoDatabaseFile, // brixa.mdb is not there
        NotOpened,      // the database could not be opened (failure says why)
        Unreadable,     // a table start-up reads could not be read (failure says which step)
    };
    Kind kind = Kind::NotOpened;
    Failure failure; // the operation, and the engine's number and text where it said something
};
using OpenResult = Checked<DatabaseFailure>;

// The operating system's computer name (empty when unknown).
QString ComputerName();

class JobDatabase {
public:
    JobDatabase();
    ~JobDatabase();
    JobDatabase(const JobDatabase&) = delete;
    JobDatabase& operator=(const JobDatabase&) = delete;

    // Finds the files, runs the start-up maintenance (backup, integrity check,
    // compaction) and opens brixa.mdb, or the PostgreSQL database brixa.mda
    // names (a dump when it names a backup folder; one server per database).
    // A failure means the server cannot start.
    OpenResult SrvOpenDatabases();
    // Forgets what was opened and closes the database; never fails.
    void SrvCloseDatabases();

    // Can tbPrinter and tbJob be read? Failures are logged and handed up.
    OpenResult SrvPrinterOpenDB();
    OpenResult SrvJobOpenDB();
    // Reads the ids of the templates (a failure logged and handed up; the
    // re-read's only logged).
    OpenResult SrvTemplateTypeOpenDB();
    bool SrvTemplateTypeReOpenDB();

    // Is the template known? The ids are those read at start-up: one stored by
    // another program since is found once a miss has read them again. Logs its
    // failure and answers false then.
    bool SrvTemplateInDB(qint32 templateId);

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
    PrinterRepository& printers() { return printers_; }
    // tbJob was found readable by SrvJobOpenDB (the job store reads and writes it).
    bool jobsOpen() const { return jobsOpen_; }
    // tbJobHistory is there (made by SrvJobOpenDB where it was missing).
    bool historyOpen() const { return historyOpen_; }

private:
    OpenResult openServerDatabase(const DbTarget& target);
    // Logs why the databases could not be opened and closes them.
    OpenResult openFailed(const std::exception& e);
    OpenResult readTemplates(const QString& caller);
    Database db_;
    PrinterRepository printers_{db_};
    ServerSettingsRepository settings_{db_};
    bool jobsOpen_ = false;
    bool historyOpen_ = false;
    std::optional<QSet<qint32>> templates_;
    int autoStartService_ = 0;
    int startMinimized_ = 0;
};

} // namespace quill
