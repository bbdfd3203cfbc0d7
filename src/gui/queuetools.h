#pragma once
// The queue tools' windows: a queued job's label as its printer would print
// it (frmPreview), and the history of finished jobs with its reprint
// (frmHistory). Both only present what Operator answers.
#include "shell/window.h"

#include <QDialog>

class QComboBox;
class QLabel;
class QPushButton;
class QStandardItemModel;
class QTreeView;

namespace quill {

class PreviewDialog : public QDialog {
    Q_OBJECT
public:
    // The preview of `preview`'s job, drawn by the label renderer; a layout it
    // cannot read shows the line and what is wrong instead.
    PreviewDialog(const Operator::JobPreview& preview, QWidget* parent);
    // The picture shown (null when the layout could not be read).
    const QImage& label() const { return label_; }

private:
    QImage label_;
};

class HistoryDialog : public QDialog {
    Q_OBJECT
public:
    HistoryDialog(Operator& op, QWidget* parent);

    // The history read again (newest first).
    void reload();
    // Print again the selected entry on the printer the drop-down names.
    void reprintSelected();

private:
    Operator& op_;
    QTreeView* lvwHistory_ = nullptr;
    QStandardItemModel* model_ = nullptr;
    QComboBox* cboPrinter_ = nullptr;
    QPushButton* cmdReprint_ = nullptr;
    QLabel* lblResult_ = nullptr;
};

} // namespace quill
