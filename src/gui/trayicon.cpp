#include "gui/trayicon.h"
#include "shell/window.h"
#include "gui/pictures.h"

#include <QMenu>
#include <QSystemTrayIcon>
#include <QWidget>

namespace quill {

TrayIcon::TrayIcon(QWidget* window, QMenu* menu, QObject* parent)
    : QObject(parent), window_(window), icon_(new QSystemTrayIcon(this))
{
    icon_->setObjectName(QStringLiteral("STIcon"));
    icon_->setContextMenu(menu);
    connect(icon_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::DoubleClick)
            STRestore();
    });
}

TrayIcon::~TrayIcon() = default;

bool TrayIcon::available()
{
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void TrayIcon::STInit()
{
    STSetToolTip(QString());
    STSetIcon(false);
    shownService_ = false;
    icon_->show();
}

void TrayIcon::STSetToolTip(const QString& tip)
{
    const QString text = tip.isEmpty() ? window_->windowTitle() : tip;
    icon_->setToolTip(text.left(TipLength));
}

void TrayIcon::STSetIcon(bool serviceStarted)
{
    started_ = serviceStarted;
    icon_->setIcon(TrayPicture(serviceStarted));
}

void TrayIcon::STEnd()
{
    icon_->hide();
}

void TrayIcon::STRestore()
{
    window_->setWindowState((window_->windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    window_->show();
    window_->raise();
    window_->activateWindow();
    emit restoreRequested();
}

void TrayIcon::showService(bool started)
{
    // The tip keeps the window caption until the service state changes.
    if (shownService_ && *shownService_ == started)
        return;
    shownService_ = started;
    STSetToolTip(GetString(started ? 12058 : 12057, GetString(9003)));
    STSetIcon(started);
}

bool TrayIcon::visible() const
{
    return icon_->isVisible();
}

QString TrayIcon::toolTip() const
{
    return icon_->toolTip();
}

} // namespace quill
