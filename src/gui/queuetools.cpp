#include "gui/queuetools.h"
#include "shell/window.h"
#include "gui/captions.h"
#include "gui/pictures.h"
#include "gui/printerdialog.h"

#include <QComboBox>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QStandardItemModel>
#include <QTreeView>
#include <QVBoxLayout>

namespace quill {

// ------------------------------------------------------------------ preview

PreviewDialog::PreviewDialog(const Operator::JobPreview& preview, QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("frmPreview"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(GetString(12160, QString::number(preview.jobId)) + QStringLiteral(" - ") + GetString(9003));
    setWindowIcon(ServerPicture());

    auto* caption = new QLabel(QString::number(preview.jobId) + QLatin1Char(' ') + preview.caption, this);
    caption->setObjectName(QStringLiteral("lblPreviewJob"));
    QFont bold = caption->font();
    bold.setBold(true);
    caption->setFont(bold);
    auto* where = new QLabel(GetString(12175, QString::number(preview.templateId) + QLatin1Char('|') + preview.printerName),
                             this);
    where->setObjectName(QStringLiteral("lblPreviewTemplate"));

    auto* picture = new QLabel(this);
    picture->setObjectName(QStringLiteral("picPreview"));
    picture->setAlignment(Qt::AlignCenter);
    LabelLayout layout;
    QString why;
    if (!ParseLabelLayout(preview.layoutText, &layout, &why)) {
        picture->setText(GetString(12161, preview.layoutFile + QStringLiteral(": ") + why));
    } else {
        QMap<int, QString> variables;
        for (const auto& [n, value] : preview.variables)
            variables.insert(n, value);
        label_ = RenderLabel(layout, variables);
        picture->setPixmap(QPixmap::fromImage(label_));
    }
    picture->setWordWrap(label_.isNull());
    // A thin frame shows where the label ends on the window's own background.
    picture->setFrameShape(label_.isNull() ? QFrame::NoFrame : QFrame::Box);

    auto* scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("scrPreview"));
    scroll->setWidget(picture);
    scroll->setWidgetResizable(label_.isNull());
    scroll->setAlignment(Qt::AlignCenter);
    picture->adjustSize();

    auto* cmdClose = new QPushButton(QStringLiteral("#£12172#&Stäng"), this);
    cmdClose->setObjectName(QStringLiteral("cmdClose"));
    cmdClose->setDefault(true);
    connect(cmdClose, &QPushButton::clicked, this, &QDialog::accept);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(cmdClose);
    auto* main = new QVBoxLayout(this);
    main->addWidget(caption);
    main->addWidget(where);
    main->addWidget(scroll, 1);
    main->addLayout(buttons);
    LocaliseCaptions(this);

    // The whole label where the screen allows, never smaller than the texts.
    const QSize want = label_.isNull() ? QSize(420, 120) : label_.size() + QSize(40, 40);
    resize(qBound(360, want.width() + 24, 1000), qBound(200, want.height() + 120, 800));
    cmdClose->setFocus();
}

// ------------------------------------------------------------------ history

namespace {
enum HistoryColumn { ColEntry, ColJob, ColPrinter, ColFinished, ColOutcome, ColSender, HistoryColumns };
}

HistoryDialog::HistoryDialog(Operator& op, QWidget* parent) : QDialog(parent), op_(op)
{
    setObjectName(QStringLiteral("frmHistory"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowTitle(GetString(12163) + QStringLiteral(" - ") + GetString(9003));
    setWindowIcon(ServerPicture());

    model_ = new QStandardItemModel(0, HistoryColumns, this);
    model_->setHorizontalHeaderLabels({GetString(12164), GetString(12045), GetString(12043), GetString(12165),
                                       GetString(12166), GetString(12047)});
    lvwHistory_ = new QTreeView(this);
    lvwHistory_->setObjectName(QStringLiteral("lvwHistory"));
    lvwHistory_->setModel(model_);
    lvwHistory_->setRootIsDecorated(false);
    lvwHistory_->setUniformRowHeights(true);
    lvwHistory_->setAllColumnsShowFocus(true);
    lvwHistory_->setSelectionMode(QAbstractItemView::SingleSelection);
    lvwHistory_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    lvwHistory_->header()->setStretchLastSection(true);

    auto* printOn = new QLabel(QStringLiteral("#£12170#Skriv ut på:"), this);
    printOn->setObjectName(QStringLiteral("lblReprintPrinter"));
    cboPrinter_ = new QComboBox(this);
    cboPrinter_->setObjectName(QStringLiteral("cboReprintPrinter"));
    printOn->setBuddy(cboPrinter_);
    cboPrinter_->addItem(GetString(12171), 0);
    const PrinterListModel& printers = op_.printerList();
    for (int row = 0; row < printers.rowCount(); ++row) {
        const QModelIndex i = printers.index(row, PrinterListModel::ColPrinter);
        if (!i.data(PrinterListModel::PassiveRole).toBool())
            cboPrinter_->addItem(op_.printerName(i.data(PrinterListModel::PrinterIdRole).toInt()),
                                 i.data(PrinterListModel::PrinterIdRole).toInt());
    }
    cmdReprint_ = new QPushButton(QStringLiteral("#£12169#Skriv ut &igen"), this);
    cmdReprint_->setObjectName(QStringLiteral("cmdReprint"));
    cmdReprint_->setAutoDefault(false);
    connect(cmdReprint_, &QPushButton::clicked, this, &HistoryDialog::reprintSelected);
    connect(lvwHistory_, &QTreeView::doubleClicked, this, &HistoryDialog::reprintSelected);
    auto* cmdClose = new QPushButton(QStringLiteral("#£12172#&Stäng"), this);
    cmdClose->setObjectName(QStringLiteral("cmdClose"));
    cmdClose->setAutoDefault(false);
    connect(cmdClose, &QPushButton::clicked, this, &QDialog::accept);
    lblResult_ = new QLabel(this);
    lblResult_->setObjectName(QStringLiteral("lblReprintResult"));

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(printOn);
    buttons->addWidget(cboPrinter_);
    buttons->addWidget(cmdReprint_);
    buttons->addWidget(lblResult_, 1);
    buttons->addWidget(cmdClose);
    auto* main = new QVBoxLayout(this);
    main->addWidget(lvwHistory_, 1);
    main->addLayout(buttons);
    LocaliseCaptions(this);

    reload();
    // Every column as wide as its header and values need; the job's caption
    // takes what is left.
    QHeaderView* header = lvwHistory_->header();
    header->setStretchLastSection(false);
    const QFontMetrics fm = lvwHistory_->fontMetrics();
    const auto fit = [&](int column, const QStringList& samples) {
        int w = header->fontMetrics().horizontalAdvance(model_->headerData(column, Qt::Horizontal).toString());
        for (const QString& t : samples)
            w = qMax(w, fm.horizontalAdvance(t));
        lvwHistory_->setColumnWidth(column, w + 24);
    };
    fit(ColEntry, {QStringLiteral("00000")});
    fit(ColPrinter, {QStringLiteral("MMMMMMMMMM")});
    fit(ColFinished, {QStringLiteral("2026-12-31 23:59:59")});
    fit(ColOutcome, {GetString(12167), GetString(12168)});
    fit(ColSender, {QStringLiteral("MMMMMMMM")});
    header->setSectionResizeMode(ColJob, QHeaderView::Stretch);
    resize(820, 420);
    lvwHistory_->setFocus();
}

void HistoryDialog::reload()
{
    model_->removeRows(0, model_->rowCount());
    std::vector<HistoryEntry> entries;
    BoxOwnerScope owner(this);
    if (op_.history(1000, &entries) != Operator::Outcome::Done)
        return;
    for (const HistoryEntry& e : entries) {
        QList<QStandardItem*> row;
        const QString caption = QString::number(e.jobId) + QLatin1Char(' ') + JobFields(e.text).caption();
        for (const QString& text :
             {QString::number(e.id), caption, op_.printerName(e.printerId),
              QLocale().toString(e.finished.toLocalTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss")),
              GetString(e.outcome == HistoryPrinted ? 12167 : 12168), JobFields(e.text).workstation()}) {
            auto* item = new QStandardItem(text);
            item->setData(e.id, Qt::UserRole);
            row << item;
        }
        model_->appendRow(row);
    }
    if (model_->rowCount() > 0)
        lvwHistory_->setCurrentIndex(model_->index(0, 0));
    cmdReprint_->setEnabled(model_->rowCount() > 0);
}

void HistoryDialog::reprintSelected()
{
    const QModelIndex current = lvwHistory_->currentIndex();
    if (!current.isValid())
        return;
    const qint32 id = current.data(Qt::UserRole).toInt();
    qint32 job = 0;
    BoxOwnerScope owner(this);
    const Operator::Result r = op_.reprint(id, cboPrinter_->currentData().toInt(), &job);
    if (r == Operator::Outcome::Done)
        lblResult_->setText(GetString(12173, QString::number(job)));
    else if (r.reason == control::Reason::NotInHistory)
        lblResult_->setText(GetString(12174));
    else
        lblResult_->clear();
}

} // namespace quill
