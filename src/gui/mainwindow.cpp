#include "gui/mainwindow.h"
#include "shell/window.h"
#include "gui/aboutbox.h"
#include "gui/captions.h"
#include "gui/pacer.h"
#include "gui/pictures.h"
#include "gui/printerdialog.h"
#include "gui/queuetools.h"
#include "gui/settingsdialog.h"
#include "gui/trayicon.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QIdentityProxyModel>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QMenuBar>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QStatusBar>
#include <QTimer>
#include <QTreeView>
#include <QVBoxLayout>
#include <QWindow>

namespace quill {

// The printer list as the view shows it: the printer-type picture in the
// first column, the status picture in the second, passive rows in grey.
class PrinterListPresenter : public QIdentityProxyModel {
public:
    using QIdentityProxyModel::QIdentityProxyModel;

    // State changes reach the view at most ten times a second: a printer
    // working through a stream of jobs changes its row many times that.
    void setSourceModel(QAbstractItemModel* source) override
    {
        QIdentityProxyModel::setSourceModel(source);
        if (!source)
            return;
        disconnect(source, &QAbstractItemModel::dataChanged, this, nullptr);
        connect(source, &QAbstractItemModel::dataChanged, &changes_, &Pacer::poke);
    }

    QVariant data(const QModelIndex& index, int role) const override
    {
        if (role == Qt::DecorationRole) {
            if (index.column() == PrinterListModel::ColPrinter)
                return PrinterTypePicture(QIdentityProxyModel::data(index, PrinterListModel::PrinterTypeRole).toString());
            if (index.column() == PrinterListModel::ColStatus)
                return StatusPicture(QIdentityProxyModel::data(index, PrinterListModel::StatusWordRole).toString());
        }
        if (role == Qt::ForegroundRole && QIdentityProxyModel::data(index, PrinterListModel::PassiveRole).toBool())
            return QApplication::palette().brush(QPalette::Disabled, QPalette::Text);
        return QIdentityProxyModel::data(index, role);
    }

private:
    // The list is short: the whole of it is repainted.
    Pacer changes_{100, [this] {
                       if (rowCount() > 0)
                           emit dataChanged(index(0, 0), index(rowCount() - 1, columnCount() - 1));
                   },
                   this};
};

namespace {

constexpr int PictureSize = 16;

// Pointer and wait text of a lengthy command; this window has no wait-text
// bar, so a wait shows as the busy pointer alone.
class BusyPointer {
public:
    BusyPointer() { QApplication::setOverrideCursor(Qt::WaitCursor); }
    ~BusyPointer() { QApplication::restoreOverrideCursor(); }
};

QTreeView* makeList(const QString& name, QWidget* parent)
{
    auto* view = new QTreeView(parent);
    view->setObjectName(name);
    view->setRootIsDecorated(false);
    view->setUniformRowHeights(true);
    view->setItemsExpandable(false);
    view->setAllColumnsShowFocus(true);
    view->setSelectionBehavior(QAbstractItemView::SelectRows);
    view->setSelectionMode(QAbstractItemView::SingleSelection);
    view->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view->setIconSize(QSize(PictureSize, PictureSize));
    // The last column takes what the others leave: no grey strip beside the
    // header at any width, with or without the scroll bar.
    view->header()->setStretchLastSection(true);
    view->header()->setSectionsMovable(false);
    return view;
}

// Fits the columns to a list's new width, each keeping its share of the old
// one: the start-up shares, or the operator's once a divider was dragged.
// The last column stretches over what the others leave.
void scaleColumns(QTreeView* view, int& fittedWidth)
{
    const int now = view->viewport()->width();
    if (fittedWidth > 0 && now > 0 && now != fittedWidth && view->model()) {
        const double factor = double(now) / fittedWidth;
        for (int c = 0; c + 1 < view->model()->columnCount(); ++c)
            view->setColumnWidth(c, qMax(view->header()->minimumSectionSize(), qRound(view->columnWidth(c) * factor)));
    }
    fittedWidth = now;
}

QWidget* makePanel(const QString& name, QLabel** picture, QLabel** text, QWidget* parent)
{
    auto* panel = new QWidget(parent);
    panel->setObjectName(name);
    auto* layout = new QHBoxLayout(panel);
    layout->setContentsMargins(4, 0, 4, 0);
    layout->setSpacing(4);
    *picture = new QLabel(panel);
    (*picture)->setObjectName(name + QStringLiteral("Picture"));
    (*picture)->setFixedSize(PictureSize, PictureSize);
    layout->addWidget(*picture);
    if (text) {
        *text = new QLabel(panel);
        (*text)->setObjectName(name + QStringLiteral("Text"));
        layout->addWidget(*text, 1);
    } else {
        layout->addStretch(1);
    }
    return panel;
}

} // namespace

MainWindow::MainWindow(Operator& op, QWidget* parent)
    : QMainWindow(parent), op_(op)
{
    setObjectName(QStringLiteral("frmSrvMain"));
    // Captions in their marker form until the window loads (start()).
    setWindowTitle(QStringLiteral("##9003#Brixa - Printerserver"));
    setWindowIcon(ServerPicture());
    resize(700, 480);
    buildUi();
    buildMenus();
    connectCore();
}

MainWindow::~MainWindow()
{
    // The exit path leaves the pointer busy until the end; the end is here.
    while (busyDepth_ > 0)
        setBusy(false);
    delete dialog_;
}

void MainWindow::buildUi()
{
    auto* central = new QWidget(this);
    central->setObjectName(QStringLiteral("picMain"));
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(6, 6, 6, 6);

    lvwPrinter_ = makeList(QStringLiteral("lvwPrinter"), central);
    lvwJob_ = makeList(QStringLiteral("lvwJob"), central);
    lvwPrinter_->installEventFilter(this);
    lvwJob_->installEventFilter(this);
    connect(lvwPrinter_, &QTreeView::doubleClicked, this, [this](const QModelIndex&) { editSelectedPrinter(); });

    auto* splitter = new QSplitter(Qt::Vertical, central);
    splitter->setObjectName(QStringLiteral("splLists"));
    splitter->setChildrenCollapsible(false);
    splitter->addWidget(lvwPrinter_);
    splitter->addWidget(lvwJob_);
    splitter->setStretchFactor(0, 2);
    splitter->setStretchFactor(1, 3);
    layout->addWidget(splitter, 1);

    cmdService_ = new QPushButton(QStringLiteral("#£12103#Starta tjänst"), central);
    cmdService_->setObjectName(QStringLiteral("cmdService"));
    cmdService_->setEnabled(false); // until the listener is open
    cmdDeleteJob_ = new QPushButton(QStringLiteral("#£12101#Radera jobb"), central);
    cmdDeleteJob_->setObjectName(QStringLiteral("cmdDeleteJob"));
    cmdDeleteAllJob_ = new QPushButton(QStringLiteral("#£12102#Radera ALLA jobb"), central);
    cmdDeleteAllJob_->setObjectName(QStringLiteral("cmdDeleteAllJob"));
    cmdHistory_ = new QPushButton(QStringLiteral("#£12159#&Historik..."), central);
    cmdHistory_->setObjectName(QStringLiteral("cmdHistory"));
    for (QPushButton* b : {cmdService_, cmdDeleteJob_, cmdDeleteAllJob_, cmdHistory_})
        b->setAutoDefault(false);
    connect(cmdHistory_, &QPushButton::clicked, this, &MainWindow::openHistory);
    lvwJob_->setContextMenuPolicy(Qt::CustomContextMenu);
    connect(lvwJob_, &QWidget::customContextMenuRequested, this, &MainWindow::showJobMenu);
    connect(cmdService_, &QPushButton::clicked, this, &MainWindow::toggleService);
    connect(cmdDeleteJob_, &QPushButton::clicked, this, &MainWindow::deleteSelectedJob);
    connect(cmdDeleteAllJob_, &QPushButton::clicked, this, &MainWindow::deleteAllJobs);

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(cmdDeleteJob_);
    buttons->addWidget(cmdDeleteAllJob_);
    buttons->addWidget(cmdHistory_);
    buttons->addStretch(1);
    buttons->addWidget(cmdService_);
    layout->addLayout(buttons);
    setCentralWidget(central);

    // Status bar: server and computer, service state, traffic; the silent-mode
    // mark beside them while silent mode is on.
    auto* bar = new QStatusBar(this);
    bar->setObjectName(QStringLiteral("panSB"));
    bar->setSizeGripEnabled(true);
    bar->addWidget(makePanel(QStringLiteral("panSBServer"), &panServerPicture_, &panServer_, bar), 7);
    bar->addWidget(makePanel(QStringLiteral("panSBStatus"), &panServicePicture_, &panService_, bar), 2);
    bar->addWidget(makePanel(QStringLiteral("panSBTraffic"), &panTraffic_, nullptr, bar), 1);
    panSilent_ = new QLabel(bar);
    panSilent_->setObjectName(QStringLiteral("panSBSilent"));
    panSilent_->setVisible(false);
    bar->addPermanentWidget(panSilent_);
    setStatusBar(bar);
    panServerPicture_->setPixmap(ServerPicture().pixmap(PictureSize, PictureSize));

    auto* escape = new QShortcut(QKeySequence(Qt::Key_Escape), this);
    escape->setObjectName(QStringLiteral("keyEscape"));
    escape->setContext(Qt::WindowShortcut);
    connect(escape, &QShortcut::activated, this, &MainWindow::requestExit);
}

void MainWindow::buildMenus()
{
    auto action = [this](QMenu* menu, const char* name, const QString& caption, auto slot) {
        QAction* a = menu->addAction(caption);
        a->setObjectName(QLatin1String(name));
        connect(a, &QAction::triggered, this, slot);
        return a;
    };
    auto menu = [](QWidget* parent, const char* name, const QString& caption) {
        auto* m = new QMenu(caption, parent);
        m->setObjectName(QLatin1String(name));
        return m;
    };

    QMenu* mnuFile = menu(this, "mnuFile", QStringLiteral("#£12086#&Arkiv"));
    action(mnuFile, "mnuExit", QStringLiteral("#£12087#&Avsluta"), &MainWindow::requestExit);

    QMenu* mnuFunction = menu(this, "mnuFunction", QStringLiteral("#£12088#&Funktioner"));
    QMenu* mnuPrinter = menu(mnuFunction, "mnuPrinter", QStringLiteral("#£12089#&Skrivare"));
    action(mnuPrinter, "mnuPrinterNew", QStringLiteral("#£12090#&Ny"), &MainWindow::newPrinter);
    action(mnuPrinter, "mnuPrinterEdit", QStringLiteral("#£12091#&Ändra"), &MainWindow::editSelectedPrinter);
    action(mnuPrinter, "mnuPrinterDelete", QStringLiteral("#£12092#&Ta Bort"), &MainWindow::deleteSelectedPrinter);
    mnuPrinter->addSeparator();
    action(mnuPrinter, "mnuPrinterUpdateAll", QStringLiteral("#£12093#&Uppdatera"), [this] { refresh(false); });
    action(mnuPrinter, "mnuPrinterUpdateAllFull", QStringLiteral("#£12094#&Fullständig uppdatering"),
           [this] { refresh(true); });
    mnuFunction->addMenu(mnuPrinter);
    mnuFunction->addSeparator();
    QMenu* mnuAddin = menu(mnuFunction, "mnuAddin", QStringLiteral("#£12133#&Add-Ins"));
    // The add-in entry has no action of its own.
    action(mnuAddin, "mnuAddinScala", QStringLiteral("#£12134#&Scala"), [] {});
    mnuFunction->addMenu(mnuAddin);
    mnuFunction->addSeparator();
    action(mnuFunction, "mnuHistory", QStringLiteral("#£12159#&Historik..."), &MainWindow::openHistory);
    mnuFunction->addSeparator();
    action(mnuFunction, "mnuSettings", QStringLiteral("#£12095#&Inställningar"), &MainWindow::openSettings);

    QMenu* mnuHelp = menu(this, "mnuHelp", QStringLiteral("#£12096#&Hjälp"));
    action(mnuHelp, "mnuAbout", QStringLiteral("#£12097#&Om Brixa..."), &MainWindow::openAbout);

    menuBar()->setObjectName(QStringLiteral("mnuBar"));
    menuBar()->addMenu(mnuFile);
    menuBar()->addMenu(mnuFunction);
    menuBar()->addMenu(mnuHelp);

    // The notification-area menu: a menu of this window, used as a pop-up.
    mnuSTPopupSys_ = menu(this, "mnuSTPopupSys", QStringLiteral("&SysTray"));
    action(mnuSTPopupSys_, "mnuSTPopupRestore", QStringLiteral("#£12098#&Återställ"), &MainWindow::restoreFromTray);
    action(mnuSTPopupSys_, "mnuSTPopupExit", QStringLiteral("#£12099#&Avsluta"), &MainWindow::requestExit);
    mnuSTPopupSys_->addSeparator();
    mnuSTPopupService_ =
        action(mnuSTPopupSys_, "mnuSTPopupService", QStringLiteral("#£12100#&Starta tjänst"), &MainWindow::toggleService);
    mnuSTPopupService_->setEnabled(false);

    tray_ = new TrayIcon(this, mnuSTPopupSys_, this);
    connect(tray_, &TrayIcon::restoreRequested, this, [this] { lvwPrinter_->setFocus(); });
}

void MainWindow::connectCore()
{
    connect(&op_, &Operator::serviceStateChanged, this, &MainWindow::showServiceState);
    connect(&op_, &Operator::serviceAvailableChanged, this, &MainWindow::showServiceAvailable);
    connect(&op_, &Operator::busyChanged, this, &MainWindow::setBusy);
    connect(&op_, &Operator::busyChanged, this, [this](bool busy) {
        if (!busy && pendingPrinterCommand_)
            std::exchange(pendingPrinterCommand_, nullptr)();
    });
    connect(&op_, &Operator::silentModeChanged, this, &MainWindow::showSilentMode);
    connect(&op_, &Operator::printerSelected, this, [this](qint32 id) {
        if (!started_)
            return;
        const int row = op_.printerList().rowOf(id);
        if (row >= 0)
            lvwPrinter_->setCurrentIndex(printerPresenter_->index(row, 0));
    });
    // The window appears once the listener step of the start-up is done; the
    // printer checks and the service start follow with the window up.
    connect(&op_, &Operator::serviceAvailableChanged, this, [this] {
        if (op_.starting() && !started_)
            present();
    });
    // Focus goes into the printer list when the window is activated from
    // another program; a box or dialog of ours closing leaves it where it was.
    // The window had the focus last before the program lost it (or nothing of
    // the program had it yet): it comes back from outside. Another window of
    // ours had it last: one of our boxes or dialogs closed.
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* now) {
        if (!now)
            return;
        const bool mine = now == windowHandle();
        if (mine && (!focusSeen_ || lastFocusMine_) && lvwPrinter_->isVisible() && lvwPrinter_->isEnabled())
            lvwPrinter_->setFocus(Qt::ActiveWindowFocusReason);
        focusSeen_ = true;
        lastFocusMine_ = mine;
    });
    // The desktop session ends (log-out, shut-down): quit without asking.
    connect(qApp, &QGuiApplication::commitDataRequest, this, [this] { endSession(); });
}

Server::StartResult MainWindow::start()
{
    Server::StartResult result;
    {
        BusyPointer busy;
        result = op_.startup();
    }
    if (result != Server::Started)
        return result;
    if (!started_)
        present();
    // What the last steps of the start-up changed (the automatic service start).
    showServiceAvailable(op_.serviceAvailable());
    showServiceState(op_.serviceRunning());
    return result;
}

void MainWindow::present()
{
    // The texts of the configured language are known from here on.
    LocaliseCaptions(this);

    printerPresenter_ = new PrinterListPresenter(this);
    PrinterListModel& printers = op_.printerList();
    printerPresenter_->setSourceModel(&printers);
    lvwPrinter_->setModel(printerPresenter_);
    (new RepaintPacer(lvwJob_, 100))->watch(&op_.jobList());
    lvwJob_->setModel(&op_.jobList());
    if (printers.rowCount() > 0)
        lvwPrinter_->setCurrentIndex(printerPresenter_->index(0, 0));
    if (op_.jobList().count() > 0)
        selectJobRow(0);

    panServer_->setText(GetString(9003) + QLatin1Char(' ') + Operator::computerName());
    panServer_->setToolTip(panServer_->text());
    trafficPacer_ = new Pacer(100, [this] { paintTraffic(); }, this);
    connect(&op_.traffic(), &TrafficIndicator::changed, this, &MainWindow::showTraffic);
    showTraffic(op_.traffic().state());
    showSilentMode(SilentMode());
    showServiceAvailable(op_.serviceAvailable());
    started_ = true;

    const bool minimised = op_.startMinimized();
    // Shown even without a notification area: one that comes up later shows it.
    tray_->STInit();
    showServiceState(op_.serviceRunning());
    if (TrayIcon::available()) {
        // Minimised with a notification area means hidden in it.
        if (!minimised)
            show();
    } else {
        if (!loggedNoTray_)
            LogWrite(QStringLiteral("No notification area on this desktop: the window minimises to the taskbar."));
        loggedNoTray_ = true;
        if (minimised)
            showMinimized();
        else
            show();
    }
    // Painted now: the rest of the start-up (printer checks) may take a while.
    QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents);
}

void MainWindow::showEvent(QShowEvent* event)
{
    QMainWindow::showEvent(event);
    if (!columnsSet_ && started_) {
        // Widths by the rule once the lists have their first real width.
        QTimer::singleShot(0, this, [this] {
            if (!columnsSet_)
                applyColumnWidths();
        });
    }
}

void MainWindow::applyColumnWidths()
{
    columnsSet_ = true;
    // Fractions of the list's width; the small deductions leave room for the
    // vertical scroll bar's border so no horizontal one appears.
    const int wp = lvwPrinter_->viewport()->width();
    lvwPrinter_->setColumnWidth(0, qRound(wp * 7.0f / 10));
    lvwPrinter_->setColumnWidth(1, qMax(40, qRound(wp * 3.0f / 10) - 6));
    const int wj = lvwJob_->viewport()->width();
    lvwJob_->setColumnWidth(0, qRound(wj * 3.0f / 10));
    lvwJob_->setColumnWidth(1, qRound(wj * 1.0f / 10));
    lvwJob_->setColumnWidth(2, qRound(wj * 3.0f / 10));
    lvwJob_->setColumnWidth(3, qMax(40, qRound(wj * 3.0f / 10) - 21));
    printerListWidth_ = wp;
    jobListWidth_ = wj;
}

// --- what the core tells ----------------------------------------------------

void MainWindow::showServiceState(bool running)
{
    const QString caption = GetString(running ? 12054 : 12053);
    cmdService_->setText(caption);
    // The menu entry keeps an access key when the caption brings none.
    mnuSTPopupService_->setText(caption.contains(QLatin1Char('&')) ? caption : QLatin1Char('&') + caption);
    const QString state = GetString(running ? 12084 : 12085);
    panService_->setText(state);
    panServicePicture_->setPixmap(ServicePicture(running).pixmap(PictureSize, PictureSize));
    panServicePicture_->setProperty("started", running);
    tray_->showService(running);
    cmdDeleteJob_->setEnabled(!running);
    cmdDeleteAllJob_->setEnabled(!running);
}

void MainWindow::showServiceAvailable(bool available)
{
    cmdService_->setEnabled(available);
    mnuSTPopupService_->setEnabled(available);
}

void MainWindow::showTraffic(TrafficIndicator::State state)
{
    // A client sending request after request flips the state with each one;
    // the panel follows at most ten times a second.
    shownTraffic_ = state;
    trafficPacer_->poke();
}

void MainWindow::paintTraffic()
{
    const TrafficIndicator::State state = shownTraffic_;
    panTraffic_->setPixmap(TrafficPicture(state).pixmap(PictureSize, PictureSize));
    panTraffic_->setToolTip(TrafficIndicator::textOf(state));
    panTraffic_->setProperty("trafficState", int(state));
}

void MainWindow::showSilentMode(bool on)
{
    panSilent_->setText(GetString(12141));
    panSilent_->setVisible(on);
}

void MainWindow::setBusy(bool busy)
{
    if (busy) {
        ++busyDepth_;
        QApplication::setOverrideCursor(Qt::WaitCursor);
    } else if (busyDepth_ > 0) {
        --busyDepth_;
        QApplication::restoreOverrideCursor();
    }
}

// --- commands -----------------------------------------------------------------

void MainWindow::toggleService()
{
    BoxOwnerScope owner(this);
    cmdService_->setEnabled(false);
    op_.toggleService();
    showServiceState(op_.serviceRunning());
    showServiceAvailable(op_.serviceAvailable());
}

int MainWindow::selectedJobRow() const
{
    const QModelIndex current = lvwJob_->currentIndex();
    if (current.isValid())
        return current.row();
    // A list with rows always has a selected one, the first by default.
    return lvwJob_->model() && lvwJob_->model()->rowCount() > 0 ? 0 : -1;
}

void MainWindow::selectJobRow(int row)
{
    QAbstractItemModel* model = lvwJob_->model();
    if (!model || row < 0 || row >= model->rowCount()) {
        lvwJob_->clearSelection();
        lvwJob_->setCurrentIndex({});
        return;
    }
    lvwJob_->setCurrentIndex(model->index(row, 0));
}

void MainWindow::deleteSelectedJob()
{
    if (!started_ || !cmdDeleteJob_->isEnabled())
        return;
    const int row = selectedJobRow();
    if (row < 0)
        return;
    const qint32 jobId = lvwJob_->model()->index(row, 0).data(JobListModel::JobIdRole).toInt();
    BoxOwnerScope owner(this);
    if (op_.deleteJob(jobId) == Operator::Outcome::Done)
        selectJobRow(qMin(row, lvwJob_->model()->rowCount() - 1));
}

void MainWindow::deleteAllJobs()
{
    if (!started_ || !cmdDeleteAllJob_->isEnabled())
        return;
    BoxOwnerScope owner(this);
    op_.deleteAllJobs();
}

qint32 MainWindow::selectedJobId() const
{
    const int row = selectedJobRow();
    return row < 0 ? 0 : lvwJob_->model()->index(row, 0).data(JobListModel::JobIdRole).toInt();
}

void MainWindow::showJobMenu(const QPoint& at)
{
    if (!started_)
        return;
    const QModelIndex index = lvwJob_->indexAt(at);
    if (index.isValid())
        lvwJob_->setCurrentIndex(index.siblingAtColumn(0));
    const qint32 jobId = selectedJobId();
    if (jobId <= 0)
        return;
    const qint32 printerId = lvwJob_->currentIndex().data(JobListModel::PrinterIdRole).toInt();
    const bool printing = op_.jobPrinting(jobId);
    // Built anew each time: the printers and the job's state change.
    delete mnuJob_;
    mnuJob_ = new QMenu(this);
    mnuJob_->setObjectName(QStringLiteral("mnuJob"));
    QAction* preview = mnuJob_->addAction(GetString(12155), this, &MainWindow::previewSelectedJob);
    preview->setObjectName(QStringLiteral("mnuJobPreview"));
    const auto targets = [&](const char* name, int caption, bool all) {
        QMenu* sub = mnuJob_->addMenu(GetString(caption));
        sub->setObjectName(QLatin1String(name));
        const PrinterListModel& printers = op_.printerList();
        for (int row = 0; row < printers.rowCount(); ++row) {
            const QModelIndex p = printers.index(row, PrinterListModel::ColPrinter);
            const qint32 id = p.data(PrinterListModel::PrinterIdRole).toInt();
            if (id == printerId || p.data(PrinterListModel::PassiveRole).toBool())
                continue;
            QAction* a = sub->addAction(op_.printerName(id), this, [this, id, all] { moveSelectedJob(id, all); });
            a->setObjectName(QLatin1String(name) + QString::number(id));
        }
        // A job being printed stays where it is; the rest of its printer's may go.
        sub->setEnabled(!sub->isEmpty() && (all || !printing));
    };
    targets("mnuJobMove", 12156, false);
    targets("mnuJobMoveAll", 12157, true);
    mnuJob_->addSeparator();
    QAction* cancel = mnuJob_->addAction(GetString(12158), this, &MainWindow::cancelSelectedJob);
    cancel->setObjectName(QStringLiteral("mnuJobCancel"));
    cancel->setEnabled(!printing);
    mnuJob_->popup(lvwJob_->viewport()->mapToGlobal(at));
}

void MainWindow::previewSelectedJob()
{
    const qint32 jobId = selectedJobId();
    if (jobId <= 0)
        return;
    BoxOwnerScope owner(this);
    Operator::JobPreview preview;
    if (op_.previewJob(jobId, &preview) != Operator::Outcome::Done)
        return;
    auto* dialog = new PreviewDialog(preview, this);
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

void MainWindow::moveSelectedJob(qint32 toPrinter, bool allOfItsPrinter)
{
    const qint32 jobId = selectedJobId();
    if (jobId <= 0)
        return;
    BoxOwnerScope owner(this);
    if (allOfItsPrinter)
        op_.movePrinterJobs(lvwJob_->currentIndex().data(JobListModel::PrinterIdRole).toInt(), toPrinter);
    else
        op_.moveJobs({jobId}, toPrinter);
}

void MainWindow::cancelSelectedJob()
{
    const int row = selectedJobRow();
    const qint32 jobId = selectedJobId();
    if (jobId <= 0)
        return;
    BoxOwnerScope owner(this);
    if (op_.cancelJob(jobId) == Operator::Outcome::Done)
        selectJobRow(qMin(row, lvwJob_->model()->rowCount() - 1));
}

void MainWindow::openHistory()
{
    if (!started_)
        return;
    if (!history_)
        history_ = new HistoryDialog(op_, this);
    else
        history_->reload();
    history_->show();
    history_->raise();
    history_->activateWindow();
}

qint32 MainWindow::selectedPrinter() const
{
    const QModelIndex current = lvwPrinter_->currentIndex();
    return current.isValid() ? current.data(PrinterListModel::PrinterIdRole).toInt() : -1;
}

bool MainWindow::afterBackgroundWork(std::function<void()> command)
{
    // The server's own device work (a check after a save, the serial lines at
    // start-up) is short: the last printer command given meanwhile runs after it.
    if (!op_.backgroundWorkRunning())
        return false;
    pendingPrinterCommand_ = std::move(command);
    return true;
}

void MainWindow::newPrinter()
{
    if (!started_ || afterBackgroundWork([this] { newPrinter(); }))
        return;
    BoxOwnerScope owner(this);
    PrinterSettings dialog;
    if (op_.openNewPrinter(&dialog) == Operator::Outcome::Done)
        openDialog(new PrinterDialog(op_, dialog, PrinterSettings::ModeNew, this));
}

void MainWindow::editSelectedPrinter()
{
    const qint32 id = selectedPrinter();
    if (!started_ || id < 1 || afterBackgroundWork([this] { editSelectedPrinter(); }))
        return;
    BoxOwnerScope owner(this);
    PrinterSettings dialog;
    if (op_.openEditPrinter(id, &dialog) == Operator::Outcome::Done)
        openDialog(new PrinterDialog(op_, dialog, PrinterSettings::ModeEdit, this));
}

void MainWindow::deleteSelectedPrinter()
{
    const qint32 id = selectedPrinter();
    if (!started_ || id < 1 || afterBackgroundWork([this] { deleteSelectedPrinter(); }))
        return;
    BoxOwnerScope owner(this);
    op_.deletePrinter(id);
}

void MainWindow::refresh(bool full)
{
    if (!started_)
        return;
    BusyPointer busy;
    BoxOwnerScope owner(this);
    if (full)
        op_.fullRefresh();
    else
        op_.refresh();
}

void MainWindow::openSettings()
{
    if (!started_)
        return;
    BoxOwnerScope owner(this);
    const Operator::Outcome outcome = op_.openSettings();
    showServiceState(op_.serviceRunning());
    if (outcome == Operator::Outcome::Done)
        openDialog(new SettingsDialog(op_, this));
}

void MainWindow::openDialog(QDialog* dialog)
{
    dialog_ = dialog;
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

void MainWindow::openAbout()
{
    if (!about_) {
        about_ = new AboutBox(this);
        about_->setAttribute(Qt::WA_DeleteOnClose);
    }
    about_->show();
    about_->raise();
    about_->activateWindow();
}

void MainWindow::restoreFromTray()
{
    tray_->STRestore();
}

// --- closing ----------------------------------------------------------------------

void MainWindow::requestExit()
{
    if (closing_)
        return;
    BoxOwnerScope owner(this);
    if (op_.CanQuit(false))
        shutdown();
}

void MainWindow::endSession()
{
    if (closing_)
        return;
    if (op_.CanQuit(true))
        shutdown();
}

void MainWindow::shutdown()
{
    closing_ = true;
    tray_->STEnd();
    op_.shutdown();
    close();
    emit finished();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    if (closing_) {
        event->accept();
        return;
    }
    // The title bar's close: into the notification area, the server keeps
    // running. Without one, minimise, so the window can be got back.
    event->ignore();
    if (tray_->visible() && TrayIcon::available())
        hide();
    else
        showMinimized();
}

void MainWindow::changeEvent(QEvent* event)
{
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange && isMinimized() && tray_->visible() && TrayIcon::available()) {
        // Minimised means hidden in the notification area; hide once the
        // state change is over.
        QTimer::singleShot(0, this, [this] {
            if (isMinimized())
                hide();
        });
    }
}

void MainWindow::resizeEvent(QResizeEvent* event)
{
    QMainWindow::resizeEvent(event);
    // Maximised or resized, the columns keep their share of the lists' width.
    if (columnsSet_)
        QTimer::singleShot(0, this, [this] {
            scaleColumns(lvwPrinter_, printerListWidth_);
            scaleColumns(lvwJob_, jobListWidth_);
        });
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        const bool plain = (key->modifiers() & (Qt::ShiftModifier | Qt::ControlModifier | Qt::AltModifier)) == 0;
        if (watched == lvwJob_ && key->key() == Qt::Key_Delete && plain) {
            if (cmdDeleteJob_->isEnabled())
                deleteSelectedJob();
            return true;
        }
        if (watched == lvwPrinter_ && key->key() == Qt::Key_Delete && plain) {
            deleteSelectedPrinter();
            return true;
        }
        if (watched == lvwPrinter_ && (key->key() == Qt::Key_Return || key->key() == Qt::Key_Enter)) {
            editSelectedPrinter();
            return true;
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

} // namespace quill
