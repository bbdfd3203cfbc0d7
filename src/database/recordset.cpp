#include "database/recordset.h"

#include <atomic>

#include <QRegularExpression>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlField>
#include <QSqlRecord>

#include <algorithm>

namespace quill {

namespace {

// Rows read ahead per fetch when walking a table.
constexpr int WindowRows = 256;
// Prepared statements kept per connection; past this the cache starts over.
constexpr int MaxPrepared = 64;

std::atomic<int> connectionCounter{0};

Error noCurrentRecord() { return Error(ErrNoCurrentRecord, QStringLiteral("No current record.")); }
Error recordDeleted() { return Error(ErrRecordDeleted, QStringLiteral("Record is deleted.")); }
Error itemNotFound(const QString& name)
{
    return Error(ErrItemNotFound, QStringLiteral("Item not found in this collection: ") + name);
}

QString quoteIdent(const QString& name)
{
    QString q = name;
    q.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + q + QLatin1Char('"');
}

// A column default as SQLite reports it ("0", "'text'", "NULL") turned into a value.
QVariant parseDefault(const QVariant& dflt)
{
    if (dflt.isNull())
        return {};
    QString s = dflt.toString().trimmed();
    if (s.size() >= 2 && s.startsWith(QLatin1Char('\'')) && s.endsWith(QLatin1Char('\'')))
        return s.mid(1, s.size() - 2).replace(QLatin1String("''"), QLatin1String("'"));
    bool ok = false;
    qlonglong n = s.toLongLong(&ok);
    if (ok)
        return n;
    double d = s.toDouble(&ok);
    if (ok)
        return d;
    return {};
}

bool toKey(const QVariant& v, qint64* key)
{
    if (v.isNull())
        return false;
    bool ok = false;
    qint64 k = v.toLongLong(&ok);
    if (!ok) {
        double d = v.toString().trimmed().toDouble(&ok);
        if (!ok || d != double(qint64(d)))
            return false;
        k = qint64(d);
    }
    *key = k;
    return true;
}

} // namespace

Error SqlError(const QSqlError& e)
{
    bool ok = false;
    int n = e.nativeErrorCode().toInt(&ok);
    if (!ok || n == 0)
        n = 1;
    QString text = e.databaseText();
    if (text.isEmpty())
        text = e.driverText();
    if (text.isEmpty())
        text = QStringLiteral("unknown database error");
    return Error(n, text);
}

// ---------------------------------------------------------------- Database

Database::Database() = default;

Database::~Database() { close(); }

void Database::open(const QString& path)
{
    close();
    name_ = QStringLiteral("quilldb-%1").arg(++connectionCounter);
    path_ = path;
    db_ = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
    db_.setDatabaseName(path);
    db_.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(LockWaitMs));
    if (!db_.open()) {
        Error e = SqlError(db_.lastError());
        close();
        throw e;
    }
    try {
        // journal_mode reads the file header, so a file that is not a database fails here.
        QSqlQuery q = select(QStringLiteral("PRAGMA journal_mode=WAL"));
        q.finish();
        exec(QStringLiteral("PRAGMA synchronous=FULL"));
        exec(QStringLiteral("PRAGMA foreign_keys=OFF"));
    } catch (...) {
        close();
        throw;
    }
}

void Database::close()
{
    if (name_.isEmpty())
        return;
    if (inTransaction_)
        rollback();
    prepared_.clear();
    if (db_.isOpen())
        db_.close();
    db_ = QSqlDatabase();
    QSqlDatabase::removeDatabase(name_);
    name_.clear();
    inTransaction_ = false;
}

bool Database::isOpen() const { return db_.isOpen(); }

void Database::exec(const QString& sql, const QVariantList& binds) { run(sql, binds, {}); }

void Database::run(const QString& sql, const QVariantList& binds, const std::function<void(QSqlQuery&)>& rows)
{
    if (!db_.isOpen())
        throw Error(3420, QStringLiteral("Object invalid or no longer set."));
    const bool wild = refreshSchemaFor(sql);
    std::shared_ptr<Prepared> p = wild ? nullptr : prepared_.value(sql);
    if (!p || p->busy) {
        // A text already running further up the stack gets a statement of its own.
        auto fresh = std::make_shared<Prepared>();
        fresh->query = QSqlQuery(db_);
        fresh->query.setForwardOnly(true);
        if (!fresh->query.prepare(sql))
            throw SqlError(fresh->query.lastError());
        if (!p && !wild) {
            if (prepared_.size() >= MaxPrepared)
                prepared_.clear();
            prepared_.insert(sql, fresh);
        }
        p = std::move(fresh);
    }
    struct Reset {
        Prepared& p;
        ~Reset()
        {
            p.query.finish();
            p.busy = false;
        }
    } reset{*p};
    p->busy = true;
    for (int i = 0; i < binds.size(); ++i)
        p->query.bindValue(i, binds[i]);
    if (!p->query.exec())
        throw SqlError(p->query.lastError());
    if (rows)
        rows(p->query);
}

bool Database::refreshSchemaFor(const QString& sql)
{
    // Qt's SQLite result makes room for the columns a statement had when it was
    // prepared; when its first step finds that another program changed the schema,
    // SQLite prepares it again, and a "*" may then bring more columns than that
    // room (a crash in Qt). So such a text is never kept, and before it is prepared
    // a statement that reads the schema lets this connection see the change.
    if (!sql.contains(QLatin1Char('*')))
        return false;
    QSqlQuery probe(db_);
    probe.exec(QStringLiteral("SELECT 1 FROM sqlite_master LIMIT 1"));
    probe.finish();
    return true;
}

qint64 Database::insert(const QString& sql, const QVariantList& binds)
{
    qint64 id = 0;
    run(sql, binds, [&](QSqlQuery& q) { id = q.lastInsertId().toLongLong(); });
    return id;
}

QSqlQuery Database::select(const QString& sql, const QVariantList& binds)
{
    if (!db_.isOpen())
        throw Error(3420, QStringLiteral("Object invalid or no longer set."));
    refreshSchemaFor(sql);
    QSqlQuery q(db_);
    q.setForwardOnly(true);
    bool ok;
    if (binds.isEmpty()) {
        ok = q.exec(sql);
    } else {
        ok = q.prepare(sql);
        if (ok) {
            for (const QVariant& b : binds)
                q.addBindValue(b);
            ok = q.exec();
        }
    }
    if (!ok)
        throw SqlError(q.lastError());
    return q;
}

void Database::begin()
{
    if (inTransaction_)
        throw Error(ErrNotSupported, QStringLiteral("A transaction is already open."));
    exec(QStringLiteral("BEGIN IMMEDIATE"));
    inTransaction_ = true;
}

void Database::commit()
{
    if (!inTransaction_)
        return;
    exec(QStringLiteral("COMMIT"));
    inTransaction_ = false;
}

void Database::rollback()
{
    if (!inTransaction_)
        return;
    inTransaction_ = false;
    if (db_.isOpen()) {
        QSqlQuery q(db_);
        q.exec(QStringLiteral("ROLLBACK"));
    }
}

// ---------------------------------------------------------------- helpers

void SrvPopulateRecordset(Recordset& rs)
{
    try {
        const qint64 bm = rs.bookmark();
        rs.MoveLast();
        rs.MoveFirst();
        rs.setBookmark(bm);
    } catch (...) {
    }
}

// ---------------------------------------------------------------- TableRecordset

TableRecordset::TableRecordset(Database& db, const QString& table) : db_(db), table_(table)
{
    // Let SQLite report a missing table in its own words.
    db_.exec(QStringLiteral("SELECT * FROM ") + quoteIdent(table) + QStringLiteral(" LIMIT 0"));
    QSqlQuery info = db_.select(QStringLiteral("PRAGMA table_info(") + quoteIdent(table) + QLatin1Char(')'));
    int pkCount = 0;
    while (info.next()) {
        const QString name = info.value(1).toString();
        columnByName_.insert(name.toLower(), int(columns_.size()));
        columns_ << name;
        defaults_ << parseDefault(info.value(4));
        if (info.value(5).toInt() > 0) {
            pk_ = int(columns_.size()) - 1;
            ++pkCount;
        }
    }
    info.finish();
    if (pkCount != 1)
        throw Error(ErrNotSupported, QStringLiteral("Table ") + table + QStringLiteral(" has no single-column primary key."));
    QStringList quoted;
    for (const QString& c : std::as_const(columns_))
        quoted << quoteIdent(c);
    selectList_ = quoted.join(QLatin1Char(','));
    loadKeys();
}

TableRecordset::~TableRecordset() = default;

void TableRecordset::loadKeys()
{
    keys_.clear();
    window_.clear();
    db_.run(QStringLiteral("SELECT ") + quoteIdent(columns_[pk_]) + QStringLiteral(" FROM ") + quoteIdent(table_)
                + QStringLiteral(" ORDER BY 1"),
            {}, [this](QSqlQuery& q) {
                while (q.next())
                    keys_.push_back(q.value(0).toLongLong());
            });
    pos_ = 0;
    currentDeleted_ = false;
    noMatch_ = false;
    editMode_ = EditNone;
}

void TableRecordset::Requery() { loadKeys(); }

void TableRecordset::setIndex(const QString& name)
{
    if (name.compare(QLatin1String("PrimaryKey"), Qt::CaseInsensitive) != 0)
        throw Error(ErrNotAnIndex, QLatin1Char('\'') + name + QStringLiteral("' isn't an index in this table."));
    index_ = QStringLiteral("PrimaryKey");
}

int TableRecordset::column(const QString& name) const
{
    auto it = columnByName_.constFind(name.toLower());
    if (it == columnByName_.constEnd())
        throw itemNotFound(name);
    return it.value();
}

void TableRecordset::checkCurrent() const
{
    if (currentDeleted_)
        throw recordDeleted();
    if (keys_.empty() || pos_ < 0 || pos_ >= qint64(keys_.size()))
        throw noCurrentRecord();
}

const QVector<QVariant>& TableRecordset::currentRow() const
{
    checkCurrent();
    const qint64 key = keys_[size_t(pos_)];
    auto it = window_.find(key);
    if (it != window_.end())
        return it->second;
    window_.clear();
    const int n = int(columns_.size());
    db_.run(QStringLiteral("SELECT ") + selectList_ + QStringLiteral(" FROM ") + quoteIdent(table_)
                + QStringLiteral(" WHERE ") + quoteIdent(columns_[pk_]) + QStringLiteral(" >= ? ORDER BY ")
                + quoteIdent(columns_[pk_]) + QStringLiteral(" LIMIT ") + QString::number(WindowRows),
            {key}, [&](QSqlQuery& q) {
                while (q.next()) {
                    QVector<QVariant> row(n);
                    for (int i = 0; i < n; ++i)
                        row[i] = q.value(i);
                    window_.emplace(row[pk_].toLongLong(), std::move(row));
                }
            });
    it = window_.find(key);
    if (it == window_.end())
        throw recordDeleted(); // gone behind our back
    return it->second;
}

QVariant TableRecordset::field(const QString& name) const
{
    const int c = column(name);
    if (editMode_ != EditNone)
        return buffer_[c];
    return currentRow()[c];
}

void TableRecordset::MoveFirst()
{
    CancelUpdate();
    if (keys_.empty())
        throw noCurrentRecord();
    pos_ = 0;
    currentDeleted_ = false;
}

void TableRecordset::MoveLast()
{
    CancelUpdate();
    if (keys_.empty())
        throw noCurrentRecord();
    pos_ = qint64(keys_.size()) - 1;
    currentDeleted_ = false;
}

void TableRecordset::MoveNext()
{
    CancelUpdate();
    if (currentDeleted_) {
        // The row after the deleted one has moved into its place.
        currentDeleted_ = false;
        return;
    }
    if (IsEOF())
        throw noCurrentRecord();
    ++pos_;
}

void TableRecordset::MovePrevious()
{
    CancelUpdate();
    currentDeleted_ = false;
    if (IsBOF())
        throw noCurrentRecord();
    --pos_;
}

qint64 TableRecordset::bookmark() const
{
    checkCurrent();
    return keys_[size_t(pos_)];
}

void TableRecordset::setBookmark(qint64 bm)
{
    CancelUpdate();
    auto it = std::lower_bound(keys_.begin(), keys_.end(), bm);
    if (it == keys_.end() || *it != bm)
        throw Error(3159, QStringLiteral("Not a valid bookmark."));
    pos_ = it - keys_.begin();
    currentDeleted_ = false;
}

bool TableRecordset::seek(const QString& comparison, const QVariant& key)
{
    CancelUpdate();
    if (index_.isEmpty())
        throw Error(3019, QStringLiteral("Operation invalid without a current index."));
    if (comparison.trimmed() != QLatin1String("="))
        throw Error(ErrNotSupported, QStringLiteral("Seek supports only \"=\"."));
    qint64 k = 0;
    auto it = keys_.end();
    if (toKey(key, &k)) {
        it = std::lower_bound(keys_.begin(), keys_.end(), k);
        if (it != keys_.end() && *it != k)
            it = keys_.end();
    }
    currentDeleted_ = false;
    if (it == keys_.end()) {
        noMatch_ = true;
        pos_ = qint64(keys_.size());
        return false;
    }
    noMatch_ = false;
    pos_ = it - keys_.begin();
    return true;
}

void TableRecordset::AddNew()
{
    CancelUpdate();
    buffer_ = defaults_;
    dirty_.assign(size_t(columns_.size()), false);
    editMode_ = EditAdd;
}

void TableRecordset::Edit()
{
    const QVector<QVariant> row = currentRow(); // checks the position
    CancelUpdate();
    buffer_ = row;
    dirty_.assign(size_t(columns_.size()), false);
    editMode_ = EditChange;
}

void TableRecordset::setField(const QString& name, const QVariant& value)
{
    const int c = column(name);
    if (editMode_ == EditNone)
        throw Error(ErrUpdateWithoutEdit, QStringLiteral("Update or CancelUpdate without AddNew or Edit."));
    buffer_[c] = value;
    dirty_[size_t(c)] = true;
}

void TableRecordset::CancelUpdate()
{
    editMode_ = EditNone;
    buffer_.clear();
    dirty_.clear();
}

void TableRecordset::Update()
{
    if (editMode_ == EditNone)
        throw Error(ErrUpdateWithoutEdit, QStringLiteral("Update or CancelUpdate without AddNew or Edit."));
    const QString pkName = quoteIdent(columns_[pk_]);
    if (editMode_ == EditAdd) {
        QStringList marks;
        QVariantList binds;
        for (int i = 0; i < columns_.size(); ++i) {
            marks << QStringLiteral("?");
            binds << buffer_[i];
        }
        // The primary key is an INTEGER PRIMARY KEY, so the rowid is the key.
        const qint64 key = db_.insert(QStringLiteral("INSERT INTO ") + quoteIdent(table_) + QStringLiteral(" (")
                                          + selectList_ + QStringLiteral(") VALUES (") + marks.join(QLatin1Char(','))
                                          + QLatin1Char(')'),
                                      binds);
        auto it = std::lower_bound(keys_.begin(), keys_.end(), key);
        const qint64 at = it - keys_.begin();
        keys_.insert(it, key);
        window_.erase(key);
        // The row that was current before AddNew stays current.
        if (pos_ >= at)
            ++pos_;
        CancelUpdate();
        return;
    }

    const qint64 oldKey = keys_[size_t(pos_)];
    QStringList sets;
    QVariantList binds;
    for (int i = 0; i < columns_.size(); ++i) {
        if (!dirty_[size_t(i)])
            continue;
        sets << quoteIdent(columns_[i]) + QStringLiteral("=?");
        binds << buffer_[i];
    }
    if (!sets.isEmpty()) {
        binds << oldKey;
        db_.exec(QStringLiteral("UPDATE ") + quoteIdent(table_) + QStringLiteral(" SET ") + sets.join(QLatin1Char(','))
                     + QStringLiteral(" WHERE ") + pkName + QStringLiteral("=?"),
                 binds);
        window_.erase(oldKey);
        qint64 newKey = oldKey;
        if (dirty_[size_t(pk_)] && toKey(buffer_[pk_], &newKey) && newKey != oldKey) {
            keys_.erase(keys_.begin() + pos_);
            auto it = std::lower_bound(keys_.begin(), keys_.end(), newKey);
            pos_ = it - keys_.begin();
            keys_.insert(it, newKey);
        }
    }
    CancelUpdate();
}

void TableRecordset::Delete()
{
    CancelUpdate();
    checkCurrent();
    const qint64 key = keys_[size_t(pos_)];
    db_.exec(QStringLiteral("DELETE FROM ") + quoteIdent(table_) + QStringLiteral(" WHERE ")
                 + quoteIdent(columns_[pk_]) + QStringLiteral("=?"),
             {key});
    keys_.erase(keys_.begin() + pos_);
    window_.erase(key);
    currentDeleted_ = true;
}

void TableRecordset::DeleteKeys(const std::vector<qint64>& keys,
                                const std::function<void(qint64, const std::exception&)>& failed)
{
    CancelUpdate();
    const QString sql = QStringLiteral("DELETE FROM ") + quoteIdent(table_) + QStringLiteral(" WHERE ")
        + quoteIdent(columns_[pk_]) + QStringLiteral("=?");
    std::vector<qint64> gone;
    for (qint64 key : keys) {
        if (!std::binary_search(keys_.begin(), keys_.end(), key))
            continue;
        try {
            db_.exec(sql, {key});
        } catch (const std::exception& e) {
            if (failed)
                failed(key, e);
            continue;
        }
        gone.push_back(key);
        window_.erase(key);
    }
    std::sort(gone.begin(), gone.end());
    keys_.erase(std::remove_if(keys_.begin(), keys_.end(),
                               [&gone](qint64 k) { return std::binary_search(gone.begin(), gone.end(), k); }),
                keys_.end());
    pos_ = std::min(pos_, qint64(keys_.size()));
    currentDeleted_ = true;
}

// ---------------------------------------------------------------- Snapshot

Snapshot::Snapshot(Database& db, const QString& sql)
{
    db.run(sql, {}, [this](QSqlQuery& q) {
        const QSqlRecord rec = q.record();
        const int n = rec.count();
        for (int i = 0; i < n; ++i) {
            names_ << rec.fieldName(i).toLower();
            tables_ << rec.field(i).tableName().toLower();
        }
        while (q.next()) {
            QVector<QVariant> row(n);
            for (int i = 0; i < n; ++i)
                row[i] = q.value(i);
            rows_.append(std::move(row));
        }
    });
}

int Snapshot::column(const QString& name) const
{
    QString lower = name.toLower();
    lower.remove(QLatin1Char('[')).remove(QLatin1Char(']'));
    const int dot = int(lower.lastIndexOf(QLatin1Char('.')));
    const QString table = dot >= 0 ? lower.left(dot) : QString();
    const QString col = dot >= 0 ? lower.mid(dot + 1) : lower;
    for (int i = 0; i < names_.size(); ++i)
        if (names_[i] == col && (table.isEmpty() || tables_[i] == table))
            return i;
    throw itemNotFound(name);
}

void Snapshot::checkCurrent() const
{
    if (rows_.isEmpty() || pos_ < 0 || pos_ >= rows_.size())
        throw noCurrentRecord();
}

void Snapshot::MoveFirst()
{
    if (rows_.isEmpty())
        throw noCurrentRecord();
    pos_ = 0;
}

void Snapshot::MoveLast()
{
    if (rows_.isEmpty())
        throw noCurrentRecord();
    pos_ = int(rows_.size()) - 1;
}

void Snapshot::MoveNext()
{
    if (IsEOF())
        throw noCurrentRecord();
    ++pos_;
}

QVariant Snapshot::field(const QString& name) const
{
    const int c = column(name);
    checkCurrent();
    return rows_[pos_][c];
}

qint64 Snapshot::bookmark() const
{
    checkCurrent();
    return pos_;
}

void Snapshot::setBookmark(qint64 bm)
{
    if (bm < 0 || bm >= rows_.size())
        throw Error(3159, QStringLiteral("Not a valid bookmark."));
    pos_ = int(bm);
}

bool Snapshot::FindFirst(const QString& criteria)
{
    static const QRegularExpression re(QStringLiteral("^\\s*([\\w\\.\\[\\]]+)\\s*=\\s*(.*?)\\s*$"));
    const QRegularExpressionMatch m = re.match(criteria);
    if (!m.hasMatch() || m.captured(2).isEmpty())
        throw Error(ErrCriteriaSyntax, QStringLiteral("Syntax error in expression: ") + criteria);
    const int c = column(m.captured(1));
    QString value = m.captured(2);
    bool isText = false;
    if (value.size() >= 2 && (value.startsWith(QLatin1Char('\'')) || value.startsWith(QLatin1Char('"')))
        && value.endsWith(value.front())) {
        const QChar quote = value.front();
        value = value.mid(1, value.size() - 2).replace(QString(2, quote), QString(quote));
        isText = true;
    }
    bool ok = true;
    const double number = isText ? 0 : value.toDouble(&ok);
    if (!ok)
        throw Error(ErrCriteriaSyntax, QStringLiteral("Syntax error in expression: ") + criteria);
    for (int r = 0; r < rows_.size(); ++r) {
        const QVariant& v = rows_[r][c];
        if (v.isNull())
            continue;
        bool hit;
        if (isText) {
            hit = v.toString().compare(value, Qt::CaseInsensitive) == 0;
        } else {
            bool vok = false;
            const double d = v.toDouble(&vok);
            hit = vok && d == number;
        }
        if (hit) {
            pos_ = r;
            noMatch_ = false;
            return true;
        }
    }
    noMatch_ = true;
    return false;
}

} // namespace quill
