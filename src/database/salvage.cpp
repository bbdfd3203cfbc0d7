#include "database/salvage.h"
#include "database/sqlite.h"

#include <QFile>
#include <QHash>
#include <QSet>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QStringDecoder>
#include <QVariant>

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>

namespace quill {

namespace {

constexpr qint64 KeyMax = std::numeric_limits<qint64>::max();

QString quoteIdent(const QString& name)
{
    QString q = name;
    q.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + q + QLatin1Char('"');
}

quint32 be16(const uchar* p) { return quint32(p[0]) << 8 | p[1]; }
quint32 be32(const uchar* p) { return quint32(p[0]) << 24 | quint32(p[1]) << 16 | quint32(p[2]) << 8 | p[3]; }

// The file format's variable-length integer at p; its length, 0 when it runs past end.
int varint(const uchar* p, const uchar* end, quint64* v)
{
    quint64 x = 0;
    for (int i = 0; i < 8; ++i) {
        if (p + i >= end)
            return 0;
        x = (x << 7) | (p[i] & 0x7f);
        if (!(p[i] & 0x80)) {
            *v = x;
            return i + 1;
        }
    }
    if (p + 8 >= end)
        return 0;
    *v = (x << 8) | p[8];
    return 9;
}

struct Header {
    quint32 pageSize = 0;
    quint32 reserved = 0;
    quint32 encoding = 1;
    quint32 freeTrunk = 0;
    quint32 freeCount = 0;
    quint32 userVersion = 0;
};

// The 100-byte file header, when it is one.
std::optional<Header> readHeader(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray h = f.read(100);
    if (h.size() < 100 || !h.startsWith(QByteArrayLiteral("SQLite format 3\0")))
        return std::nullopt;
    const auto* p = reinterpret_cast<const uchar*>(h.constData());
    Header r;
    r.pageSize = be16(p + 16) == 1 ? 65536 : be16(p + 16);
    if (r.pageSize < 512 || r.pageSize > 65536 || (r.pageSize & (r.pageSize - 1)))
        return std::nullopt;
    r.reserved = p[20];
    if (r.reserved >= r.pageSize - 480)
        return std::nullopt;
    r.freeTrunk = be32(p + 32);
    r.freeCount = be32(p + 36);
    r.encoding = be32(p + 56);
    if (r.encoding < 1 || r.encoding > 3)
        r.encoding = 1;
    r.userVersion = be32(p + 60);
    return r;
}

struct Cell {
    qint64 rowid = 0;
    QVariantList values;
};

struct Page {
    bool ok = false;
    bool leaf = false;
    QList<quint32> children; // interior: left children, then the right-most
    QList<qint64> keys;      // interior: one per left child
    QList<Cell> cells;       // leaf
    QList<quint32> overflow; // pages the leaf's cells continue on
    qint64 badCells = 0;
};

class PageFile {
public:
    PageFile(const QString& path, const Header& h) : f_(path), h_(h)
    {
        if (f_.open(QIODevice::ReadOnly))
            count_ = quint32(std::min<qint64>((f_.size() + h.pageSize - 1) / h.pageSize,
                                              std::numeric_limits<quint32>::max()));
        usable_ = h.pageSize - h.reserved;
    }
    quint32 count() const { return count_; }
    const Header& header() const { return h_; }

    // A file cut short ends in part of a page, filled up with zeros here; *real
    // tells how much of it was read. The cells still in it read.
    QByteArray page(quint32 n, quint32* real = nullptr)
    {
        if (n < 1 || n > count_ || !f_.seek(qint64(n - 1) * h_.pageSize))
            return {};
        QByteArray b = f_.read(h_.pageSize);
        if (b.isEmpty())
            return {};
        if (real)
            *real = quint32(b.size());
        b.resize(h_.pageSize, '\0');
        return b;
    }

    // A table b-tree page: its cells, or not ok when its structure is broken.
    // `taken` pages are not followed as overflow.
    Page tablePage(quint32 n, const QSet<quint32>& taken)
    {
        Page r;
        quint32 real = 0;
        const QByteArray buf = page(n, &real);
        if (buf.isEmpty())
            return r;
        const auto* p = reinterpret_cast<const uchar*>(buf.constData());
        const uchar* end = p + std::min(usable_, real);
        const quint32 off = n == 1 ? 100 : 0;
        const uchar type = p[off];
        if (type != 5 && type != 13)
            return r;
        r.leaf = type == 13;
        const quint32 hdr = r.leaf ? 8 : 12;
        const quint32 ncells = be16(p + off + 3);
        const quint32 cellsFrom = off + hdr + 2 * ncells;
        if (cellsFrom > usable_)
            return r;
        for (quint32 i = 0; i < ncells; ++i) {
            const quint32 cp = be16(p + off + hdr + 2 * i);
            if (cp < cellsFrom || cp >= usable_)
                return r;
            const uchar* c = p + cp;
            if (!r.leaf) {
                quint64 key = 0;
                if (c + 4 > end || !varint(c + 4, end, &key))
                    return r;
                r.children << be32(c);
                r.keys << qint64(key);
                continue;
            }
            quint64 size = 0, rowid = 0;
            const int a = varint(c, end, &size);
            const int b = a ? varint(c + a, end, &rowid) : 0;
            if (!b) {
                ++r.badCells;
                continue;
            }
            Cell cell;
            cell.rowid = qint64(rowid);
            QByteArray payload;
            if (!payloadOf(c + a + b, end, size, taken, &payload, &r.overflow) || !decodeRecord(payload, &cell.values)) {
                ++r.badCells;
                continue;
            }
            r.cells << cell;
        }
        if (!r.leaf)
            r.children << be32(p + off + 8);
        for (quint32 child : std::as_const(r.children))
            if (child < 2 || child > count_)
                return Page();
        r.ok = true;
        return r;
    }

private:
    bool payloadOf(const uchar* c, const uchar* end, quint64 size, const QSet<quint32>& taken, QByteArray* out,
                   QList<quint32>* chain)
    {
        const quint64 u = usable_;
        const quint64 maxLocal = u - 35, minLocal = ((u - 12) * 32 / 255) - 23;
        quint64 local = size;
        if (size > maxLocal) {
            const quint64 k = minLocal + (size - minLocal) % (u - 4);
            local = k <= maxLocal ? k : minLocal;
        }
        if (size > quint64(std::numeric_limits<int>::max()) || c + local + (local < size ? 4 : 0) > end)
            return false;
        *out = QByteArray(reinterpret_cast<const char*>(c), qsizetype(local));
        if (local == size)
            return true;
        quint32 next = be32(c + local);
        QSet<quint32> seen;
        QList<quint32> pages;
        while (quint64(out->size()) < size) {
            if (next < 2 || next > count_ || seen.contains(next) || taken.contains(next))
                return false;
            seen.insert(next);
            pages << next;
            quint32 real = 0;
            const QByteArray pg = page(next, &real);
            if (pg.isEmpty())
                return false;
            const auto* q = reinterpret_cast<const uchar*>(pg.constData());
            const quint64 take = std::min<quint64>(size - quint64(out->size()), u - 4);
            if (take + 4 > real)
                return false;
            out->append(reinterpret_cast<const char*>(q + 4), qsizetype(take));
            next = be32(q);
        }
        *chain << pages;
        return true;
    }

    bool decodeRecord(const QByteArray& payload, QVariantList* out) const
    {
        const auto* p = reinterpret_cast<const uchar*>(payload.constData());
        const uchar* end = p + payload.size();
        quint64 hs = 0;
        const int n = varint(p, end, &hs);
        if (!n || hs < quint64(n) || hs > quint64(payload.size()))
            return false;
        QList<quint64> types;
        const uchar* h = p + n;
        while (h < p + hs) {
            quint64 t = 0;
            const int k = varint(h, p + hs, &t);
            if (!k)
                return false;
            types << t;
            h += k;
        }
        const uchar* b = p + hs;
        for (quint64 t : std::as_const(types)) {
            static const int intSize[] = {0, 1, 2, 3, 4, 6, 8};
            quint64 len = 0;
            if (t <= 6)
                len = quint64(intSize[t]);
            else if (t == 7)
                len = 8;
            else if (t == 10 || t == 11)
                return false;
            else if (t >= 12)
                len = (t - 12 - (t & 1)) / 2;
            if (len > quint64(end - b))
                return false;
            if (t == 0) {
                out->append(QVariant());
            } else if (t <= 6) {
                qint64 v = (b[0] & 0x80) ? -1 : 0;
                for (quint64 i = 0; i < len; ++i)
                    v = qint64(quint64(v) << 8 | b[i]);
                out->append(QVariant(qlonglong(v)));
            } else if (t == 7) {
                quint64 bits = 0;
                for (int i = 0; i < 8; ++i)
                    bits = bits << 8 | b[i];
                double d;
                std::memcpy(&d, &bits, sizeof d);
                out->append(QVariant(d));
            } else if (t == 8 || t == 9) {
                out->append(QVariant(qlonglong(t - 8)));
            } else if (!(t & 1)) {
                out->append(QVariant(QByteArray(reinterpret_cast<const char*>(b), qsizetype(len))));
            } else {
                const QByteArrayView bytes(b, qsizetype(len));
                // Text that does not decode is overwritten text in a record
                // whose header survived: the row is lost, not kept garbled.
                QStringDecoder decode(h_.encoding == 1   ? QStringConverter::Utf8
                                      : h_.encoding == 2 ? QStringConverter::Utf16LE
                                                         : QStringConverter::Utf16BE);
                const QString text = decode(bytes);
                if (decode.hasError())
                    return false;
                out->append(QVariant(text));
            }
            b += len;
        }
        return b == end;
    }

    QFile f_;
    Header h_;
    quint32 count_ = 0;
    quint32 usable_ = 0;
};

// Pages on the free-page list hold rows deleted long ago; nothing is read from
// them. Empty when the list cannot be read whole.
std::optional<QSet<quint32>> freePages(PageFile& pf)
{
    QSet<quint32> free;
    quint32 trunk = pf.header().freeTrunk;
    while (trunk != 0) {
        if (trunk > pf.count() || free.contains(trunk))
            return std::nullopt;
        free.insert(trunk);
        const QByteArray pg = pf.page(trunk);
        if (pg.isEmpty())
            return std::nullopt;
        const auto* p = reinterpret_cast<const uchar*>(pg.constData());
        const quint32 n = be32(p + 4);
        if (n > (pf.header().pageSize - pf.header().reserved) / 4 - 2)
            return std::nullopt;
        for (quint32 i = 0; i < n; ++i) {
            const quint32 leaf = be32(p + 8 + 4 * i);
            if (leaf < 2 || leaf > pf.count())
                return std::nullopt;
            free.insert(leaf);
        }
        trunk = be32(p);
    }
    if (quint32(free.size()) != pf.header().freeCount)
        return std::nullopt;
    return free;
}

struct Column {
    QString name;
    enum { Any, Integer, Text } affinity = Any;
};

struct Table {
    QString name;
    QString sql;
    quint32 root = 0; // 0: not known
    QList<Column> columns;
    int rowidColumn = -1; // the INTEGER PRIMARY KEY, stored as NULL in the record
    QList<Cell> rows;
    QSet<qint64> keys;
    // Key ranges (lo, hi] of pages that could not be read; nullopt: unbounded.
    QList<std::pair<std::optional<qint64>, std::optional<qint64>>> lostRanges;
    qint64 badCells = 0;

    bool damaged() const { return !lostRanges.isEmpty() || badCells > 0; }

    // A row of this table? Rows its own tree gives need only not be too long;
    // a stray page's (exact) must match column by column.
    bool fits(const QVariantList& values, bool exact) const
    {
        if (values.isEmpty() || values.size() > columns.size() || (exact && values.size() != columns.size()))
            return false;
        if (!exact)
            return true;
        for (qsizetype i = 0; i < values.size(); ++i) {
            const QVariant& v = values[i];
            if (v.isNull())
                continue;
            if (i == rowidColumn)
                return false;
            const bool number = v.typeId() == QMetaType::LongLong || v.typeId() == QMetaType::Double;
            if (columns[i].affinity == Column::Integer && !number)
                return false;
            if (columns[i].affinity == Column::Text && number)
                return false;
        }
        return true;
    }
};

using Bound = std::optional<qint64>;

bool within(qint64 key, Bound lo, Bound hi)
{
    return (!lo || key > *lo) && (!hi || key <= *hi);
}

class Walker {
public:
    Walker(PageFile& pf) : pf_(pf) {}
    QSet<quint32> taken;

    // The table's b-tree from `root`: rows of readable leaves, the key range of
    // each page that is not.
    void walk(Table& t, quint32 page, Bound lo, Bound hi, int depth = 0)
    {
        if (depth > 64 || page < 1 || page > pf_.count() || taken.contains(page)) {
            t.lostRanges.append({lo, hi});
            return;
        }
        const Page pg = pf_.tablePage(page, taken);
        bool ok = pg.ok;
        // Keys outside the range its parent gives: a pointer to some other page.
        Bound prev = lo;
        for (qint64 k : pg.keys) {
            ok = ok && within(k, prev, hi);
            prev = k;
        }
        prev = lo;
        for (const Cell& c : pg.cells) {
            ok = ok && within(c.rowid, prev, hi);
            prev = c.rowid;
        }
        if (!ok) {
            t.lostRanges.append({lo, hi});
            return;
        }
        taken.insert(page);
        for (quint32 o : pg.overflow)
            taken.insert(o);
        if (pg.leaf) {
            t.rows << pg.cells;
            t.badCells += pg.badCells;
            return;
        }
        prev = lo;
        for (qsizetype i = 0; i < pg.keys.size(); ++i) {
            walk(t, pg.children[i], prev, pg.keys[i], depth + 1);
            prev = pg.keys[i];
        }
        walk(t, pg.children.last(), prev, hi, depth + 1);
    }

private:
    PageFile& pf_;
};

// Tables, indexes, views and triggers as the first table of the file lists them.
struct SchemaItem {
    QString type, name, sql;
    quint32 root = 0;
};

QList<SchemaItem> schemaOf(const QList<Cell>& rows)
{
    QList<SchemaItem> items;
    for (const Cell& c : rows) {
        if (c.values.size() != 5)
            continue;
        SchemaItem s{c.values[0].toString(), c.values[1].toString(), c.values[4].toString(),
                     quint32(c.values[3].toLongLong())};
        if (s.sql.isEmpty() || s.name.startsWith(QLatin1String("sqlite_")))
            continue;
        items << s;
    }
    return items;
}

QList<SchemaItem> backupSchema(const QString& backup)
{
    QList<SchemaItem> items;
    FileConnection c(backup);
    QSqlQuery q(c.db());
    if (!q.exec(QStringLiteral("SELECT type, name, sql FROM sqlite_master WHERE sql IS NOT NULL "
                               "AND name NOT LIKE 'sqlite_%' ORDER BY rowid")))
        throw SqlError(q.lastError());
    while (q.next())
        items << SchemaItem{q.value(0).toString(), q.value(1).toString(), q.value(2).toString(), 0};
    return items;
}

void describeColumns(FileConnection& to, Table& t)
{
    QSqlQuery q(to.db());
    if (!q.exec(QStringLiteral("PRAGMA table_info(") + quoteIdent(t.name) + QLatin1Char(')')))
        throw SqlError(q.lastError());
    int pkColumns = 0, pk = -1;
    while (q.next()) {
        Column c;
        c.name = q.value(1).toString();
        const QString type = q.value(2).toString().toUpper();
        if (type.contains(QLatin1String("INT")))
            c.affinity = Column::Integer;
        else if (type.contains(QLatin1String("CHAR")) || type.contains(QLatin1String("CLOB"))
                 || type.contains(QLatin1String("TEXT")))
            c.affinity = Column::Text;
        if (q.value(5).toInt() > 0) {
            ++pkColumns;
            if (type == QLatin1String("INTEGER"))
                pk = int(t.columns.size());
        }
        t.columns << c;
    }
    if (pkColumns == 1 && !t.sql.contains(QLatin1String("WITHOUT ROWID"), Qt::CaseInsensitive))
        t.rowidColumn = pk;
}

// Inserts the rows, the first of each key staying; the count inserted.
qint64 insertRows(FileConnection& to, const Table& t, const QList<Cell>& rows)
{
    QHash<qsizetype, QString> statements;
    qint64 inserted = 0;
    for (const Cell& c : rows) {
        QString& sql = statements[c.values.size()];
        if (sql.isEmpty()) {
            QStringList cols, marks;
            if (t.rowidColumn < 0) {
                cols << QStringLiteral("rowid");
                marks << QStringLiteral("?");
            }
            for (qsizetype i = 0; i < c.values.size(); ++i) {
                cols << quoteIdent(t.columns[i].name);
                marks << QStringLiteral("?");
            }
            sql = QStringLiteral("INSERT OR IGNORE INTO ") + quoteIdent(t.name) + QStringLiteral(" (")
                + cols.join(QLatin1Char(',')) + QStringLiteral(") VALUES (") + marks.join(QLatin1Char(','))
                + QLatin1Char(')');
        }
        QSqlQuery ins(to.db());
        if (!ins.prepare(sql))
            throw SqlError(ins.lastError());
        if (t.rowidColumn < 0)
            ins.addBindValue(qlonglong(c.rowid));
        for (qsizetype i = 0; i < c.values.size(); ++i)
            ins.addBindValue(i == t.rowidColumn ? QVariant(qlonglong(c.rowid)) : c.values[i]);
        if (!ins.exec())
            throw SqlError(ins.lastError());
        inserted += ins.numRowsAffected() > 0 ? 1 : 0;
    }
    return inserted;
}

qint64 lostKeys(const Table& t, bool* tail)
{
    QList<qint64> keys(t.keys.begin(), t.keys.end());
    std::sort(keys.begin(), keys.end());
    const qint64 top = keys.isEmpty() ? 0 : std::max<qint64>(0, keys.last());
    qint64 lost = t.badCells;
    for (const auto& [lo, hi] : t.lostRanges) {
        const qint64 from = lo.value_or(0);
        if (!hi)
            *tail = true;
        const qint64 to = hi.value_or(std::max(top, from));
        if (to <= from)
            continue;
        const qint64 present = std::upper_bound(keys.begin(), keys.end(), to)
            - std::upper_bound(keys.begin(), keys.end(), from);
        // Saturating: keys need not be dense.
        const qint64 span = from < 0 && to > KeyMax + from ? KeyMax : to - from;
        lost = span - present > KeyMax - lost ? KeyMax : lost + span - present;
    }
    return lost;
}

// The good backup's rows of a damaged table that no readable page gave back.
qint64 restoreFrom(FileConnection& to, Table& t, const QString& backup)
{
    FileConnection from(backup);
    QSqlQuery q(from.db());
    q.setForwardOnly(true);
    if (!q.exec(QStringLiteral("SELECT rowid, * FROM ") + quoteIdent(t.name)))
        throw SqlError(q.lastError());
    QList<Cell> rows;
    while (q.next()) {
        Cell c;
        c.rowid = q.value(0).toLongLong();
        if (t.keys.contains(c.rowid))
            continue;
        const QSqlRecord rec = q.record();
        if (rec.count() - 1 != t.columns.size())
            throw Error(1, QStringLiteral("the backup's table differs"));
        for (int i = 1; i < rec.count(); ++i)
            c.values << q.value(i);
        rows << c;
    }
    return insertRows(to, t, rows);
}

} // namespace

FileConnection::FileConnection(const QString& path)
{
    static int counter = 0;
    name_ = QStringLiteral("quillmaint-%1").arg(++counter);
    db_ = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name_);
    db_.setDatabaseName(path);
    db_.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(LockWaitMs));
    if (!db_.open()) {
        const Error e = SqlError(db_.lastError());
        release();
        throw e;
    }
}

FileConnection::~FileConnection() { release(); }

void FileConnection::release()
{
    if (db_.isOpen())
        db_.close();
    db_ = QSqlDatabase();
    QSqlDatabase::removeDatabase(name_);
}

void FileConnection::exec(const QString& sql)
{
    QSqlQuery q(db_);
    if (!q.exec(sql))
        throw SqlError(q.lastError());
}

QStringList FileConnection::rows(const QString& sql)
{
    QSqlQuery q(db_);
    q.setForwardOnly(true);
    if (!q.exec(sql))
        throw SqlError(q.lastError());
    QStringList out;
    while (q.next()) {
        QStringList cols;
        for (int i = 0; i < q.record().count(); ++i)
            cols << q.value(i).toString();
        out << cols.join(QLatin1Char('|'));
    }
    return out;
}

QList<SalvagedTable> SalvageDatabase(const QString& damaged, const QString& target, const QString& goodBackup,
                                     const QStringList& restorable)
{
    const std::optional<Header> header = readHeader(damaged);
    if (!header)
        throw Error(26, QStringLiteral("file is not a database"));
    PageFile pf(damaged, *header);
    Walker walker(pf);

    Table master;
    master.name = QStringLiteral("sqlite_master");
    walker.walk(master, 1, std::nullopt, std::nullopt);
    QList<SchemaItem> schema = schemaOf(master.rows);
    // What the file's schema lost, the backup's names (where their pages are is not known).
    if (master.damaged() && !goodBackup.isEmpty()) {
        QSet<QString> known;
        for (const SchemaItem& s : std::as_const(schema))
            known.insert(s.name);
        for (const SchemaItem& s : backupSchema(goodBackup))
            if (!known.contains(s.name))
                schema << s;
    }
    if (schema.isEmpty())
        throw Error(11, QStringLiteral("database disk image is malformed: no table can be read"));
    const std::optional<QSet<quint32>> free = freePages(pf);

    QList<SalvagedTable> report;
    try {
        FileConnection to(target);
        to.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
        to.exec(QStringLiteral("BEGIN"));
        QList<Table> tables;
        for (const SchemaItem& item : std::as_const(schema))
            if (item.type == QLatin1String("table")) {
                to.exec(item.sql);
                Table t;
                t.name = item.name;
                t.sql = item.sql;
                t.root = item.root;
                describeColumns(to, t);
                tables << t;
            }
        // Indexes before the rows: a row that breaks a unique one is left out like a
        // second row with one key.
        for (const SchemaItem& item : std::as_const(schema))
            if (item.type == QLatin1String("index"))
                to.exec(item.sql);

        for (Table& t : tables) {
            if (t.root > 0)
                walker.walk(t, t.root, std::nullopt, std::nullopt);
            else
                t.lostRanges.append({std::nullopt, std::nullopt});
        }
        // Leaves no readable tree reaches: when exactly one table fits all of a
        // page's rows, they are its rows. Not while free pages cannot be told apart.
        if (free) {
            for (quint32 n = 2; n <= pf.count(); ++n) {
                if (walker.taken.contains(n) || (free && free->contains(n)))
                    continue;
                const Page pg = pf.tablePage(n, walker.taken);
                if (!pg.ok || !pg.leaf || pg.cells.isEmpty())
                    continue;
                Table* owner = nullptr;
                int owners = 0;
                for (Table& t : tables) {
                    bool all = true;
                    for (const Cell& c : pg.cells)
                        all = all && t.fits(c.values, true);
                    if (all) {
                        owner = &t;
                        ++owners;
                    }
                }
                if (owners != 1)
                    continue;
                walker.taken.insert(n);
                for (quint32 o : pg.overflow)
                    walker.taken.insert(o);
                owner->rows << pg.cells;
            }
        }
        qint64 readBack = 0;
        for (Table& t : tables) {
            QList<Cell> rows;
            for (const Cell& c : std::as_const(t.rows))
                if (t.fits(c.values, false) && !t.keys.contains(c.rowid)) {
                    t.keys.insert(c.rowid);
                    rows << c;
                }
            SalvagedTable s;
            s.name = t.name;
            s.recovered = insertRows(to, t, rows);
            s.lost = lostKeys(t, &s.tailUnreadable);
            readBack += s.recovered;
            report << s;
        }
        // Not a single row from the file: rebuilding would only make an empty
        // database of it, and the start would go on without its jobs.
        if (readBack == 0)
            throw Error(11, QStringLiteral("database disk image is malformed: no row of it can be read"));
        for (qsizetype i = 0; i < tables.size(); ++i) {
            if (goodBackup.isEmpty() || !tables[i].damaged() || !restorable.contains(tables[i].name))
                continue;
            try {
                to.exec(QStringLiteral("SAVEPOINT restore"));
                report[i].restored = restoreFrom(to, tables[i], goodBackup);
                to.exec(QStringLiteral("RELEASE restore"));
            } catch (const Error&) {
                // A backup that does not match leaves the table as recovered.
                to.exec(QStringLiteral("ROLLBACK TO restore"));
                to.exec(QStringLiteral("RELEASE restore"));
            }
        }
        // Views and triggers last: no trigger fires on the rows put back.
        for (const SchemaItem& item : std::as_const(schema))
            if (item.type != QLatin1String("table") && item.type != QLatin1String("index"))
                to.exec(item.sql);
        to.exec(QStringLiteral("PRAGMA user_version=%1").arg(pf.header().userVersion));
        to.exec(QStringLiteral("COMMIT"));
        // The whole database in the main file, synced.
        to.exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
        to.exec(QStringLiteral("PRAGMA journal_mode=DELETE"));
        to.exec(QStringLiteral("PRAGMA journal_mode=WAL"));
    } catch (...) {
        QFile::remove(target);
        QFile::remove(target + QStringLiteral("-wal"));
        QFile::remove(target + QStringLiteral("-shm"));
        throw;
    }
    return report;
}

} // namespace quill
