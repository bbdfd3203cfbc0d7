#pragma once
// The icon in the desktop's notification area: its tooltip and picture tell
// whether the print service runs; double-click restores the window, the
// context menu is the window's mnuSTPopupSys.
#include <QObject>
#include <QString>

#include <optional>

class QMenu;
class QSystemTrayIcon;
class QWidget;

namespace quill {

class TrayIcon : public QObject {
    Q_OBJECT
public:
    // The tooltip field holds 63 characters and its end mark.
    static constexpr int TipLength = 63;

    TrayIcon(QWidget* window, QMenu* menu, QObject* parent = nullptr);
    ~TrayIcon() override;

    // Shows the icon with the window's caption as tooltip and the stopped picture.
    void STInit();
    // An empty tip shows the window's caption; a long one is cut.
    void STSetToolTip(const QString& tip);
    void STSetIcon(bool serviceStarted);
    void STEnd();
    // Normal state, in front, shown.
    void STRestore();
    // Tooltip and picture of the service state.
    void showService(bool started);

    // Whether the desktop has a notification area now.
    static bool available();
    bool visible() const;
    QString toolTip() const;
    bool showsStarted() const { return started_; }
    QSystemTrayIcon* icon() const { return icon_; }

signals:
    void restoreRequested();

private:
    QWidget* window_;
    QSystemTrayIcon* icon_;
    bool started_ = false;
    std::optional<bool> shownService_; // the state the tip tells; none until first told
};

} // namespace quill
