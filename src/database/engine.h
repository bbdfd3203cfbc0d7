#pragma once
// Which record engine holds the server's database, as brixa.mda names it:
//
//   engine=sqlite              (or no engine line: brixa.mdb in the installation folder)
//
//   engine=postgresql
//   host=db.club.lan           a name, an address or a socket folder; empty: the local socket
//   port=5432
//   database=brixa
//   user=quillbase
//   passfile=/etc/quillbase/pgpass   mode 0600: the password alone on its first line, or libpq's
//                                    host:port:database:user:password lines
//   service=brixa              a section of libpq's service file instead of (or under) the lines above
//   backup=/var/backups/quillbase    where each start writes a dated pg_dump; none when absent
//
// Lines starting with '#' are comments; keys are matched without regard to case.
#include "foundation/error.h"

#include <QString>

namespace quill {

struct DbTarget {
    enum class Engine { Sqlite, Postgres };
    Engine engine = Engine::Sqlite;
    QString file; // SQLite: the database file
    QString host;
    int port = 0; // 0: the engine's default
    QString database;
    QString user;
    QString passfile;
    QString service;
    QString backupDir;

    bool postgres() const { return engine == Engine::Postgres; }
    // "PostgreSQL database brixa on db.club.lan:5432" or the file's path, for log lines.
    QString describe() const;
    // libpq's keywords for the connection (passfile and service included), ';'-separated.
    QString connectOptions() const;
    // The password when the password file holds it alone; empty otherwise (libpq reads the file then).
    QString password() const;

    static DbTarget sqliteFile(const QString& path)
    {
        DbTarget t;
        t.file = path;
        return t;
    }
};

// Reads an account file; `databaseFile` is the SQLite file used when it names
// that engine. Throws 3028 for a file that cannot be read or names an engine we
// do not have, and for a password file that others may read.
DbTarget ReadAccountFile(const QString& accountFile, const QString& databaseFile);

// The target an installation folder's brixa.mda names (brixa.mdb beside it for SQLite).
DbTarget InstallationTarget(const QString& dir);

} // namespace quill
