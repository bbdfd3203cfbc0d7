#pragma once
// Helpers for the job-database tests: a fresh installation folder per test,
// message boxes recorded instead of shown, and direct reads of a database file
// through a connection of its own.
#include "database/slots.h"
#include "shell/messages.h"

#include <QFileInfo>
#include <functional>
#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

namespace quill {
class Database;
}

// Skips the whole program when the engine under test cannot be reached.
#define QUILL_SKIP_WITHOUT_ENGINE()                                                                             \
    do {                                                                                                        \
        const QString missing = quill::dbtest::EngineMissing();                                                 \
        if (!missing.isEmpty())                                                                                 \
            QSKIP(qPrintable(missing));                                                                         \
    } while (false)

namespace quill::dbtest {

// The engine under test: PostgreSQL when QUILL_TEST_ENGINE=postgresql (tools/pgtest.sh
// runs a program so, on a cluster of its own), else SQLite.
bool OnPostgres();
// Why the engine under test cannot be used; empty when it can.
QString EngineMissing();
// Before an installation is provisioned in dir: on PostgreSQL, a new empty database
// on the test cluster and a brixa.mda naming it (password in a 0600 file).
bool PrepareEngine(const QString& dir);
// A connection named `name` to what the installation of this database file uses
// (brixa.mda beside it), not opened yet.
QSqlDatabase AddConnection(const QString& mdbPath, const QString& name);
// `other` opened on that database, holding the job table's write lock the way
// another program would, until it rolls back.
void HoldWriteLock(Database& other, const QString& mdbPath);

struct ShownBox {
    QString text;
    BoxIcon icon;
    BoxAnswer defaultAnswer = BoxAnswer::Ok;
};

// Records every box while it lives; answers Ok, and `answer` to a question
// (Yes or No; OK or Cancel for an OK/Cancel question).
class RecordingSink final : public MessageSink {
public:
    RecordingSink() { SetMessageSink(this); }
    ~RecordingSink() override { SetMessageSink(nullptr); }
    BoxAnswer show(const Box& box) override;
    QStringList texts() const;
    QList<ShownBox> boxes;
    BoxAnswer answer = BoxAnswer::Yes;
    // Runs while a box is up, as an operator acting behind it would.
    std::function<void(const Box&)> whileShown;
};

// What the slot table announced while this lives: "add n", "change n",
// "remove n", "status n <status text>".
class SlotEvents {
public:
    explicit SlotEvents(PrinterSlots& printerSlots);
    QStringList events;

private:
    QObject context_; // ends the connections with this recorder
};

// A temporary installation folder made the home and current folder, with the
// event log switched on and written into it.
class DbHome {
public:
    DbHome();
    ~DbHome();
    bool ok() const { return ok_; }
    QString path() const { return dir_.path(); }
    QString file(const QString& name) const { return dir_.filePath(name); }
    // The lines of the event log written so far, header stripped.
    QStringList logMessages() const;

private:
    QTemporaryDir dir_;
    bool ok_ = false;
};

// "BRIXA" TAB "1.00" TAB "P" TAB printer TAB template TAB copies TAB workstation
// TAB mode TAB TAB TAB user TAB caption.
QString JobText(int printer, int templ, const QString& copies, const QString& workstation, const QString& user,
                const QString& caption);

// f(db) on a connection of its own to an existing database file, closed again
// afterwards; what f returns, or a default value when the file cannot be opened.
template <typename F>
auto WithConnection(const QString& path, F f)
{
    static int counter = 0;
    const QString name = QStringLiteral("dbtest-%1").arg(++counter);
    decltype(f(std::declval<QSqlDatabase&>())) result{};
    {
        QSqlDatabase db = AddConnection(path, name);
        if ((OnPostgres() || QFileInfo::exists(path)) && db.open())
            result = f(db);
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
    return result;
}

// The rows a query gives on a database file, columns "|"-joined, through a
// connection of its own (opened read-write, so a -wal is recovered the way the
// server would see it); {"error: <text>"} when the query fails.
QStringList QueryRows(const QString& path, const QString& query);
// "Id|PrinterId|Job" of every job in Id order.
QStringList JobRows(const QString& path);
// A file's bytes, or none when it cannot be read.
QByteArray ReadFile(const QString& path);
// The whole current weekly log of the installation folder, or empty.
QString CurrentLogText();
// Runs statements on a file through a connection of its own.
bool ExecSql(const QString& path, const QStringList& statements);

} // namespace quill::dbtest
