#pragma once
// Record layer over SQLite (QtSql, driver QSQLITE).
//
// Database     one connection to one file: WAL journal, synchronous=FULL, foreign keys off.
// TableRecordset  a whole table opened by name, ordered and sought by its primary key
//              ("PrimaryKey"), positioned add/edit/delete; sees its own writes at once.
// Snapshot     the rows of a query as they were when it was opened; read-only.
//
// Every failure throws quill::Error: SQLite errors carry SQLite's own error number
// and text, the layer's own refusals carry the classic numbers (3021 no current
// record, 3020 update without edit, 3265 unknown field, ...). Callers trap them
// in their own handler and log "<operation> failed. Error: <n> <text>".
//
//   Database db; db.open(path);
//   TableRecordset jobs(db, "tbJob"); jobs.setIndex("PrimaryKey");
//   if (jobs.seek("=", 7)) jobs.Delete();
//   Snapshot s(db, "SELECT MAX(Id) AS MaxId FROM tbJob ");
//   qint32 next = NullToLong(s.field("MaxId"), 0) + 1;
#include "foundation/error.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>
#include <map>
#include <memory>
#include <vector>

class QSqlError;

namespace quill {

// How long a statement waits for another program's lock before it fails with
// "database is locked". A batch of requests waits once, at its BEGIN IMMEDIATE.
constexpr int LockWaitMs = 2000;

// Error numbers raised by the record layer itself.
constexpr int ErrUpdateWithoutEdit = 3020;
constexpr int ErrNoCurrentRecord = 3021;
constexpr int ErrRecordDeleted = 3167;
constexpr int ErrItemNotFound = 3265;
constexpr int ErrNotAnIndex = 3800;
constexpr int ErrCriteriaSyntax = 3077;
constexpr int ErrNotSupported = 3251;

// Error from a QSqlError: SQLite's error number (1 when the driver gives none) and text.
Error SqlError(const QSqlError& e);

class Database {
public:
    Database();
    ~Database();
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    // Opens (or creates) the file and sets the journal mode and pragmas.
    void open(const QString& path);
    // Never throws. Every recordset on this database must be gone first.
    void close();
    bool isOpen() const;
    QString path() const { return path_; }
    QSqlDatabase& connection() { return db_; }

    // Runs one statement that returns no rows.
    void exec(const QString& sql, const QVariantList& binds = {});
    // Runs a statement and hands its active query to `rows`, then resets it. The
    // statement is prepared once per text and kept: a request runs the same few
    // statements every time.
    void run(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows);
    // Runs an INSERT and returns the new row's rowid.
    qint64 insert(const QString& sql, const QVariantList& binds);
    // Runs a statement and returns the active forward-only query (the caller finishes it).
    QSqlQuery select(const QString& sql, const QVariantList& binds = {});

    // Explicit transaction; while none is open every statement commits on its own.
    void begin();
    void commit();
    void rollback(); // never throws
    bool inTransaction() const { return inTransaction_; }

private:
    // For a text whose columns follow the schema ("*"): lets this connection see
    // another program's schema change first, and returns true (never keep it).
    bool refreshSchemaFor(const QString& sql);
    struct Prepared {
        QSqlQuery query;
        bool busy = false;
    };
    QSqlDatabase db_;
    QHash<QString, std::shared_ptr<Prepared>> prepared_;
    QString name_;
    QString path_;
    bool inTransaction_ = false;
};

// What row readers have in common (field access and movement).
class Recordset {
public:
    virtual ~Recordset() = default;
    virtual int RecordCount() const = 0;
    virtual bool IsBOF() const = 0;
    virtual bool IsEOF() const = 0;
    virtual void MoveFirst() = 0;
    virtual void MoveLast() = 0;
    virtual void MoveNext() = 0;
    // Field of the current row by name, case-insensitive; Null stays null.
    virtual QVariant field(const QString& name) const = 0;
    // Bookmarks: an opaque position of the current row.
    virtual qint64 bookmark() const = 0;
    virtual void setBookmark(qint64 bm) = 0;
};

// Moves to the last row and back to the saved position; every error ignored.
void SrvPopulateRecordset(Recordset& rs);

class TableRecordset final : public Recordset {
public:
    TableRecordset(Database& db, const QString& table);
    ~TableRecordset() override;

    QString table() const { return table_; }
    // Only "PrimaryKey" exists: the table's primary key.
    void setIndex(const QString& name);
    QString index() const { return index_; }

    int RecordCount() const override { return int(keys_.size()); }
    bool IsBOF() const override { return pos_ < 0 || keys_.empty(); }
    bool IsEOF() const override { return pos_ >= qint64(keys_.size()) || keys_.empty(); }
    void MoveFirst() override;
    void MoveLast() override;
    void MoveNext() override;
    void MovePrevious();
    QVariant field(const QString& name) const override;
    qint64 bookmark() const override;
    void setBookmark(qint64 bm) override;

    // Keyed seek on the current index; only "=" is offered. NoMatch() tells the result.
    bool seek(const QString& comparison, const QVariant& key);
    bool NoMatch() const { return noMatch_; }

    // Positioned writes: AddNew or Edit, set fields, then Update (or CancelUpdate).
    void AddNew();
    void Edit();
    void setField(const QString& name, const QVariant& value);
    void Update();
    void CancelUpdate();
    bool editing() const { return editMode_ != EditNone; }
    // Deletes the current row; there is no current row until the next move.
    void Delete();
    // Deletes the rows of these keys, one statement each, and drops them from the
    // key list in one pass (Delete after Delete moves the list each time). Keys
    // not in the table are skipped; a key whose statement fails stays and goes
    // to `failed`, and the rest are still deleted. No current row until the next
    // move.
    void DeleteKeys(const std::vector<qint64>& keys,
                    const std::function<void(qint64 key, const std::exception& error)>& failed);

    // Reads the key list again (after a rollback, or writes by another connection).
    void Requery();

private:
    enum EditMode { EditNone, EditAdd, EditChange };
    int column(const QString& name) const;
    const QVector<QVariant>& currentRow() const;
    void checkCurrent() const;
    void loadKeys();

    Database& db_;
    QString table_;
    QString index_;
    QStringList columns_;
    QVector<QVariant> defaults_;
    QHash<QString, int> columnByName_; // lower-case name -> column
    int pk_ = -1;
    QString selectList_;

    std::vector<qint64> keys_; // primary keys in ascending order
    qint64 pos_ = 0;           // index into keys_; -1 before the first, size() after the last
    bool currentDeleted_ = false;
    bool noMatch_ = false;

    // Rows read ahead from the current position, by key; kept in step with our own writes.
    mutable std::map<qint64, QVector<QVariant>> window_;

    EditMode editMode_ = EditNone;
    QVector<QVariant> buffer_;
    std::vector<bool> dirty_;
};

class Snapshot final : public Recordset {
public:
    // Runs the query and keeps its rows; later writes are not seen.
    Snapshot(Database& db, const QString& sql);

    int RecordCount() const override { return int(rows_.size()); }
    bool IsBOF() const override { return pos_ < 0 || rows_.isEmpty(); }
    bool IsEOF() const override { return pos_ >= rows_.size() || rows_.isEmpty(); }
    void MoveFirst() override;
    void MoveLast() override;
    void MoveNext() override;
    QVariant field(const QString& name) const override;
    qint64 bookmark() const override;
    void setBookmark(qint64 bm) override;

    // Criteria "<field> = <value>", the field optionally qualified by its table
    // ("tbTemplate.Id = 5"), the value a number or a quoted text. Positions on the
    // first match; NoMatch() when there is none (the position is then unchanged).
    bool FindFirst(const QString& criteria);
    bool NoMatch() const { return noMatch_; }

private:
    int column(const QString& name) const;
    void checkCurrent() const;

    QStringList names_;  // lower case
    QStringList tables_; // lower case, per column
    QVector<QVector<QVariant>> rows_;
    int pos_ = 0;
    bool noMatch_ = false;
};

} // namespace quill
