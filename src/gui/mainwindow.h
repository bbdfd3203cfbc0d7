#pragma once
// The main window frmSrvMain: the printer and job lists, the status bar, the
// service and delete buttons, the menus and the notification-area icon. It
// presents the core's models and hands every command to Operator; the server
// logic, its questions and its refusals are the core's.
//
//   Server server(options);
//   MainWindow window(server, server.commands());
//   if (window.start() != Server::Started) return 1;  // runs the server's start-up
//   QObject::connect(&window, &MainWindow::finished, &app, &QApplication::quit);
#include "shell/window.h"

#include <QMainWindow>
#include <QPointer>

#include <functional>

class QAction;
class QDialog;
class QLabel;
class QMenu;
class QPushButton;
class QTreeView;

namespace quill {

class AboutBox;
class HistoryDialog;
class Operator;
class Pacer;
class PrinterListPresenter;
class TrayIcon;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(Operator& op, QWidget* parent = nullptr);
    ~MainWindow() override;

    // The server's start-up with this window: busy pointer while it runs; once
    // the listener step is done the window gets its captions, lists, status bar
    // and notification-area icon and is shown (or minimised when the server
    // says so) while the printer checks and the service start finish.
    Server::StartResult start();

    // The exit commands (menu, notification-area menu, Escape): ends the
    // program when the core allows it.
    void requestExit();
    // The desktop session ends: always quits, without asking.
    void endSession();

    TrayIcon* trayIcon() const { return tray_; }
    // The widths of the list columns by the start-up rule, from the lists' widths now.
    void applyColumnWidths();

signals:
    // The server has shut down; the program ends.
    void finished();

protected:
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void buildUi();
    void buildMenus();
    void connectCore();
    // The window loaded: captions, lists, status bar, icon; shown.
    void present();
    void shutdown();

    void showServiceState(bool running);
    void showServiceAvailable(bool available);
    void showTraffic(TrafficIndicator::State state);
    void paintTraffic();
    void showSilentMode(bool on);
    void setBusy(bool busy);

    // Commands
    void toggleService();
    void deleteSelectedJob();
    void deleteAllJobs();
    // The job list's context menu: preview, move, cancel.
    void showJobMenu(const QPoint& at);
    void previewSelectedJob();
    void moveSelectedJob(qint32 toPrinter, bool allOfItsPrinter);
    void cancelSelectedJob();
    void openHistory();
    qint32 selectedJobId() const;
    void newPrinter();
    void editSelectedPrinter();
    bool afterBackgroundWork(std::function<void()> command);
    void deleteSelectedPrinter();
    void refresh(bool full);
    void openSettings();
    void openAbout();
    void openDialog(QDialog* dialog);
    void restoreFromTray();

    qint32 selectedPrinter() const;
    int selectedJobRow() const;
    void selectJobRow(int row);

    Operator& op_;
    bool started_ = false;
    std::function<void()> pendingPrinterCommand_; // given during the server's own device work
    bool closing_ = false;
    bool columnsSet_ = false;
    int printerListWidth_ = 0; // the lists' widths their columns were last fitted to
    int jobListWidth_ = 0;
    int busyDepth_ = 0;
    bool loggedNoTray_ = false;
    TrafficIndicator::State shownTraffic_ = TrafficIndicator::NoTraffic;
    Pacer* trafficPacer_ = nullptr;
    bool focusSeen_ = false;     // a window of the program has had the focus
    bool lastFocusMine_ = false; // and the last one to have it was this one

    QTreeView* lvwPrinter_ = nullptr;
    QTreeView* lvwJob_ = nullptr;
    PrinterListPresenter* printerPresenter_ = nullptr;
    QPushButton* cmdService_ = nullptr;
    QPushButton* cmdDeleteJob_ = nullptr;
    QPushButton* cmdDeleteAllJob_ = nullptr;
    QPushButton* cmdHistory_ = nullptr;
    QMenu* mnuJob_ = nullptr;
    QPointer<HistoryDialog> history_;
    QLabel* panServer_ = nullptr;
    QLabel* panServerPicture_ = nullptr;
    QLabel* panService_ = nullptr;
    QLabel* panServicePicture_ = nullptr;
    QLabel* panTraffic_ = nullptr;
    QLabel* panSilent_ = nullptr;
    QMenu* mnuSTPopupSys_ = nullptr;
    QAction* mnuSTPopupService_ = nullptr;
    TrayIcon* tray_ = nullptr;
    QPointer<AboutBox> about_;
    // The printer or settings dialog while one is open (top-level, ours to end).
    QPointer<QDialog> dialog_;
};

} // namespace quill
