#include "gui/printerdialog.h"
#include "shell/window.h"
#include "gui/captions.h"
#include "gui/pictures.h"

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QFrame>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QTimer>
#include <QVBoxLayout>
#include <QWindow>

namespace quill {

namespace {

const char* const AddressKeys = "0-9;[16];[8];.";
const char* const NumberKeys = "0-9;[16];[8]";
constexpr int TypePictureSize = 48;

class KeyFilter : public QObject {
public:
    KeyFilter(QLineEdit* box, const QString& pattern) : QObject(box), pattern_(pattern) {}

    bool eventFilter(QObject* watched, QEvent* event) override
    {
        auto* box = static_cast<QLineEdit*>(watched);
        if (event->type() == QEvent::KeyPress) {
            auto* key = static_cast<QKeyEvent*>(event);
            // Editing keys and shortcuts (Delete, Ctrl+C) carry no typed character;
            // Tab, Enter and Escape carry one that is no part of a value: they
            // move on, press the default button and cancel as everywhere.
            if (key->text().isEmpty() || key->key() == Qt::Key_Delete || (key->modifiers() & Qt::ControlModifier))
                return false;
            switch (key->key()) {
            case Qt::Key_Tab:
            case Qt::Key_Backtab:
            case Qt::Key_Return:
            case Qt::Key_Enter:
            case Qt::Key_Escape: return false;
            default: break;
            }
            return !KeyAllowed(key->text().at(0).unicode(), pattern_);
        }
        if (event->type() == QEvent::FocusIn && box->isVisible() && box->isEnabled()) {
            // After the click that gave the focus has placed the cursor.
            QTimer::singleShot(0, box, [box] { box->selectAll(); });
        }
        return false;
    }

private:
    QString pattern_;
};

QComboBox* makeList(const char* name, const ValueList& list, QWidget* parent)
{
    auto* box = new QComboBox(parent);
    box->setObjectName(QLatin1String(name));
    for (const auto& e : list.entries)
        box->addItem(e.text, e.itemData);
    box->setCurrentIndex(list.selected);
    return box;
}

void selectItemData(QComboBox* box, const std::optional<qint32>& value)
{
    box->setCurrentIndex(value ? box->findData(*value) : -1);
}

std::optional<qint32> itemData(const QComboBox* box)
{
    if (box->currentIndex() < 0)
        return std::nullopt;
    return box->currentData().toInt();
}

QLabel* label(const char* name, const char* caption, QWidget* parent)
{
    auto* l = new QLabel(QString::fromUtf8(caption), parent);
    l->setObjectName(QLatin1String(name));
    return l;
}

QPushButton* button(const char* name, const char* caption, QWidget* parent)
{
    auto* b = new QPushButton(QString::fromUtf8(caption), parent);
    b->setObjectName(QLatin1String(name));
    b->setAutoDefault(false);
    return b;
}

} // namespace

void FilterKeys(QLineEdit* box, const QString& pattern)
{
    box->installEventFilter(new KeyFilter(box, pattern));
}

void MakeTransientFor(QWidget* dialog, QWidget* owner)
{
    QWidget* top = owner ? owner->window() : nullptr;
    if (!top || !top->windowHandle())
        return;
    dialog->winId(); // its native window, to carry the link
    if (QWindow* w = dialog->windowHandle())
        w->setTransientParent(top->windowHandle());
}

void ReturnToOwner(QPointer<QWidget>& owner)
{
    if (!owner)
        return;
    owner->setEnabled(true);
    owner->raise();
    owner->activateWindow();
    owner = nullptr;
}

// ------------------------------------------------------------------ printer dialog

PrinterDialog::PrinterDialog(Operator& op, const PrinterSettings& values, int mode, QWidget* owner)
    : QDialog(nullptr), op_(op), owner_(owner), mode_(mode)
{
    setObjectName(QStringLiteral("frmSrvPrinter"));
    setAttribute(Qt::WA_DeleteOnClose);
    if (owner)
        setWindowIcon(owner->windowIcon());
    buildUi();
    LocaliseCaptions(this);
    setWindowTitle(GetString(9003) + QStringLiteral(" - ") + GetString(12132) + QLatin1Char(' ')
                   + GetString(mode == PrinterSettings::ModeNew ? 12076 : 12075));
    fillLists();
    setValues(values);
    showDevice();
    connect(&op_, &Operator::deviceOperationFinished, this, &PrinterDialog::deviceFinished);
    connect(this, &QDialog::finished, this, &PrinterDialog::releaseOwner);
    MakeTransientFor(this, owner);
    if (owner_)
        owner_->setEnabled(false);
}

PrinterDialog::~PrinterDialog()
{
    delete advanced_;
    if (deviceRunning_)
        QApplication::restoreOverrideCursor();
    releaseOwner();
}

void PrinterDialog::releaseOwner()
{
    ReturnToOwner(owner_);
}

void PrinterDialog::buildUi()
{
    txtPrinterName_ = new QLineEdit(this);
    txtPrinterName_->setObjectName(QStringLiteral("txtPrinterName"));
    cboPrinterType_ = new QComboBox(this);
    cboPrinterType_->setObjectName(QStringLiteral("cboPrinterType"));
    picPrinterType_ = new QLabel(this);
    picPrinterType_->setObjectName(QStringLiteral("picPrinterType"));
    picPrinterType_->setFixedSize(TypePictureSize, TypePictureSize);
    picPrinterType_->setAlignment(Qt::AlignCenter);

    auto* top = new QGridLayout;
    top->addWidget(label("lblPrinterName", "#£12152#Namn:", this), 0, 0);
    top->addWidget(txtPrinterName_, 0, 1);
    top->addWidget(label("lblPrinterType", "#£12153#Modell:", this), 1, 0);
    top->addWidget(cboPrinterType_, 1, 1);
    top->addWidget(picPrinterType_, 0, 2, 2, 1);
    top->setColumnStretch(1, 1);

    fraConnection_ = new QGroupBox(QStringLiteral("#£12114#Anslutning / Konfigurering"), this);
    fraConnection_->setObjectName(QStringLiteral("fraConnection"));
    optSerial_ = new QRadioButton(QStringLiteral("#£12115#Seriell"), fraConnection_);
    optSerial_->setObjectName(QStringLiteral("optConnection_0"));
    optNetwork_ = new QRadioButton(QStringLiteral("#£12118#Nätverk"), fraConnection_);
    optNetwork_->setObjectName(QStringLiteral("optConnection_1"));
    lblCOMPort_ = label("lblCOMPort", "#£12116#Port:", fraConnection_);
    lblCOMRate_ = label("lblCOMRate", "#£12117#Bps:", fraConnection_);
    lblNetIP_ = label("lblNetIP", "#£12119#IP Adress:", fraConnection_);
    lblNetPort_ = label("lblNetPort", "#£12120#Port:", fraConnection_);
    lblNetPort_->installEventFilter(this);
    cboCOMPort_ = new QComboBox(fraConnection_);
    cboCOMPort_->setObjectName(QStringLiteral("cboCOMPort"));
    cboCOMRate_ = new QComboBox(fraConnection_);
    cboCOMRate_->setObjectName(QStringLiteral("cboCOMRate"));
    txtNetIP_ = new QLineEdit(fraConnection_);
    txtNetIP_->setObjectName(QStringLiteral("txtNetIP"));
    FilterKeys(txtNetIP_, QString::fromLatin1(AddressKeys));
    txtNetPort_ = new QLineEdit(fraConnection_);
    txtNetPort_->setObjectName(QStringLiteral("txtNetPort"));
    txtNetPort_->setMaxLength(5);
    txtNetPort_->setFixedWidth(txtNetPort_->fontMetrics().horizontalAdvance(QStringLiteral("0000000")) + 12);
    FilterKeys(txtNetPort_, QString::fromLatin1(NumberKeys));
    chkNetConnectOnly_ = new QCheckBox(QStringLiteral("#£12121#Endast anslutning"), fraConnection_);
    chkNetConnectOnly_->setObjectName(QStringLiteral("chkNetConnectOnly"));
    connect(optSerial_, &QRadioButton::clicked, this, &PrinterDialog::setConnectionState);
    connect(optNetwork_, &QRadioButton::clicked, this, &PrinterDialog::setConnectionState);
    connect(optSerial_, &QRadioButton::toggled, this, &PrinterDialog::showDevice);
    connect(cboCOMPort_, &QComboBox::currentIndexChanged, this, &PrinterDialog::showDevice);
    connect(cboCOMRate_, &QComboBox::currentIndexChanged, this, &PrinterDialog::showDevice);
    connect(txtNetIP_, &QLineEdit::textChanged, this, &PrinterDialog::showDevice);
    connect(txtNetPort_, &QLineEdit::textChanged, this, &PrinterDialog::showDevice);

    auto* conn = new QGridLayout(fraConnection_);
    conn->addWidget(optSerial_, 0, 0, 1, 2);
    conn->addWidget(lblCOMPort_, 1, 0);
    conn->addWidget(cboCOMPort_, 1, 1);
    conn->addWidget(lblCOMRate_, 2, 0);
    conn->addWidget(cboCOMRate_, 2, 1);
    conn->addWidget(optNetwork_, 0, 3, 1, 2);
    conn->addWidget(lblNetIP_, 1, 3);
    conn->addWidget(txtNetIP_, 1, 4);
    conn->addWidget(lblNetPort_, 2, 3);
    conn->addWidget(txtNetPort_, 2, 4, Qt::AlignLeft);
    conn->addWidget(chkNetConnectOnly_, 3, 3, 1, 2);
    conn->setColumnMinimumWidth(2, 16);
    conn->setColumnStretch(4, 1);

    auto* fraAdjustment = new QGroupBox(QStringLiteral("#£12122#Inställningar"), this);
    fraAdjustment->setObjectName(QStringLiteral("fraAdjustment"));
    cboAdjStrobe_ = new QComboBox(fraAdjustment);
    cboAdjStrobe_->setObjectName(QStringLiteral("cboAdjStrobe"));
    cboAdjSpeed_ = new QComboBox(fraAdjustment);
    cboAdjSpeed_->setObjectName(QStringLiteral("cboAdjSpeed"));
    chkPassive_ = new QCheckBox(QStringLiteral("#£12124#Passiv skrivare"), fraAdjustment);
    chkPassive_->setObjectName(QStringLiteral("chkPassive"));
    auto* cmdAdvanced = button("cmdAdvanced", "#£12147#Avancerat", fraAdjustment);
    connect(cmdAdvanced, &QPushButton::clicked, this, &PrinterDialog::openAdvanced);
    auto* adj = new QGridLayout(fraAdjustment);
    adj->addWidget(label("Label3", "#£12123#Svärta:", fraAdjustment), 0, 0);
    adj->addWidget(cboAdjStrobe_, 0, 1);
    adj->addWidget(label("Label1", "#£12125#Hastighet:", fraAdjustment), 1, 0);
    adj->addWidget(cboAdjSpeed_, 1, 1);
    adj->addWidget(chkPassive_, 0, 3);
    adj->addWidget(cmdAdvanced, 1, 3, Qt::AlignLeft);
    adj->setColumnMinimumWidth(2, 16);
    adj->setColumnStretch(4, 1);

    // The device buttons on the left, the dialog's answer on the right.
    auto* panBoard = new QFrame(this);
    panBoard->setObjectName(QStringLiteral("panBoard"));
    auto* board = new QHBoxLayout;
    auto* cmdConfig = button("cmdConfig", "#£12130#Konfigurera", panBoard);
    auto* cmdTestPrint = button("cmdTestPrint", "#£12126#Testutskrift", panBoard);
    auto* cmdClearMem = button("cmdClearMem", "#£12127#Återställ minne", panBoard);
    auto* cmdCalibrate = button("cmdCalibrate", "#£12128#Kalibrera", panBoard);
    auto* cmdOK = button("cmdOK", "#£12129#Anslut OK", panBoard);
    cmdOK->setDefault(true);
    auto* cmdCancel = button("cmdCancel", "#£12131#Avbryt", panBoard);
    for (QPushButton* b : {cmdConfig, cmdTestPrint, cmdClearMem, cmdCalibrate})
        board->addWidget(b);
    board->addStretch(1);
    board->addSpacing(16);
    board->addWidget(cmdOK);
    board->addWidget(cmdCancel);
    // Where the device buttons go with the values shown, saved or not.
    auto* Label5 = label("Label5", " Port:", panBoard);
    lblDevice_ = label("lblDevice", "", panBoard);
    lblDevice_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // Room for the longest address, so the strip does not jump while typing.
    lblDevice_->setMinimumWidth(lblDevice_->fontMetrics().horizontalAdvance(QStringLiteral("000.000.000.000#00000")));
    auto* device = new QHBoxLayout;
    device->setSpacing(4);
    device->addWidget(Label5);
    device->addWidget(lblDevice_);
    device->addStretch(1);
    auto* boardRows = new QVBoxLayout;
    boardRows->setContentsMargins(0, 0, 0, 0);
    boardRows->addLayout(device);
    boardRows->addLayout(board);
    buttons_ = {cmdConfig, cmdTestPrint, cmdClearMem, cmdCalibrate, cmdOK, cmdCancel, cmdAdvanced};
    using Op = Operator::DeviceOperation;
    connect(cmdConfig, &QPushButton::clicked, this, [this] { startDevice(Op::Configure); });
    connect(cmdTestPrint, &QPushButton::clicked, this, [this] { startDevice(Op::TestPrint); });
    connect(cmdClearMem, &QPushButton::clicked, this, [this] { startDevice(Op::ClearMemory); });
    connect(cmdCalibrate, &QPushButton::clicked, this, [this] { startDevice(Op::Calibrate); });
    connect(cmdOK, &QPushButton::clicked, this, &PrinterDialog::ok);
    connect(cmdCancel, &QPushButton::clicked, this, &PrinterDialog::cancel);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(fraConnection_);
    layout->addWidget(fraAdjustment);
    layout->addSpacing(6);
    panBoard->setLayout(boardRows);
    layout->addWidget(panBoard);
    layout->setSizeConstraint(QLayout::SetFixedSize);

    txtPrinterName_->installEventFilter(this);
}

void PrinterDialog::fillLists()
{
    ValueList list = op_.dialogList(Operator::DialogList::PrinterType);
    for (const auto& e : list.entries)
        cboPrinterType_->addItem(e.text, e.itemData);
    cboPrinterType_->setCurrentIndex(list.selected);
    connect(cboPrinterType_, &QComboBox::currentIndexChanged, this, &PrinterDialog::showTypePicture);
    const auto fill = [this, &list](QComboBox* box, Operator::DialogList which) {
        list = op_.dialogList(which);
        for (const auto& e : list.entries)
            box->addItem(e.text, e.itemData);
        box->setCurrentIndex(list.selected);
    };
    fill(cboCOMPort_, Operator::DialogList::ComPort);
    fill(cboCOMRate_, Operator::DialogList::ComRate);
    fill(cboAdjStrobe_, Operator::DialogList::Strobe);
    fill(cboAdjSpeed_, Operator::DialogList::Speed);
}

void PrinterDialog::setValues(const PrinterSettings& v)
{
    txtPrinterName_->setText(v.name);
    selectItemData(cboPrinterType_, v.printerTypeId);
    optSerial_->setChecked(v.serial);
    optNetwork_->setChecked(!v.serial);
    selectItemData(cboCOMPort_, v.comPort);
    selectItemData(cboCOMRate_, v.comRate);
    txtNetIP_->setText(v.netAddress);
    txtNetIP_->setProperty("tag", v.loadedAddress);
    txtNetPort_->setText(v.netPort);
    chkNetConnectOnly_->setChecked(v.netConnectOnly);
    selectItemData(cboAdjStrobe_, v.strobe);
    selectItemData(cboAdjSpeed_, v.speed);
    chkPassive_->setChecked(v.passive);
    advancedSettings_ = v.advancedSettings;
    setConnectionState();
    showTypePicture();
}

PrinterSettings PrinterDialog::values() const
{
    PrinterSettings v;
    v.name = txtPrinterName_->text();
    v.printerTypeId = itemData(cboPrinterType_);
    v.serial = optSerial_->isChecked();
    v.comPort = itemData(cboCOMPort_);
    v.comRate = itemData(cboCOMRate_);
    v.netAddress = txtNetIP_->text();
    v.netPort = txtNetPort_->text();
    v.loadedAddress = txtNetIP_->property("tag").toString();
    v.netConnectOnly = chkNetConnectOnly_->isChecked();
    v.strobe = itemData(cboAdjStrobe_);
    v.speed = itemData(cboAdjSpeed_);
    v.passive = chkPassive_->isChecked();
    v.advancedSettings = advancedSettings_;
    return v;
}

void PrinterDialog::showDevice()
{
    QString deviceName, settings;
    Operator::dialogDevice(values(), &deviceName, &settings);
    // No address typed yet: nothing to show, not a lone separator.
    if (!optSerial_->isChecked() && txtNetIP_->text().trimmed().isEmpty())
        deviceName.clear();
    if (optSerial_->isChecked())
        deviceName += QStringLiteral("  ") + settings.section(QLatin1Char(','), 0, 0);
    lblDevice_->setText(deviceName);
}

void PrinterDialog::setConnectionState()
{
    const bool network = optNetwork_->isChecked();
    for (QWidget* w : {static_cast<QWidget*>(lblNetIP_), static_cast<QWidget*>(txtNetIP_),
                       static_cast<QWidget*>(lblNetPort_), static_cast<QWidget*>(chkNetConnectOnly_)})
        w->setEnabled(network);
    // The port is changed only after a double click on its label.
    txtNetPort_->setEnabled(false);
}

void PrinterDialog::showTypePicture()
{
    const qint32 type = itemData(cboPrinterType_).value_or(1);
    picPrinterType_->setPixmap(
        PrinterTypePicture(QStringLiteral("PType") + QString::number(type)).pixmap(TypePictureSize, TypePictureSize));
}

bool PrinterDialog::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == lblNetPort_ && event->type() == QEvent::MouseButtonDblClick)
        txtNetPort_->setEnabled(optNetwork_->isChecked());
    else if (watched == txtPrinterName_ && event->type() == QEvent::FocusIn)
        QTimer::singleShot(0, txtPrinterName_, [this] { txtPrinterName_->selectAll(); });
    return QDialog::eventFilter(watched, event);
}

void PrinterDialog::ok()
{
    if (deviceRunning_)
        return;
    BoxOwnerScope owner(this);
    PrinterSettings v = values();
    const Operator::Outcome outcome = op_.savePrinter(v);
    if (outcome == Operator::Outcome::Invalid) {
        QLineEdit* field = nullptr;
        switch (op_.invalidField()) {
        case Operator::Field::PrinterName:
            field = txtPrinterName_;
            break;
        case Operator::Field::NetAddress:
            field = txtNetIP_;
            break;
        case Operator::Field::NetPort:
            txtNetPort_->setText(v.netPort);
            field = txtNetPort_;
            break;
        default:
            break;
        }
        if (field && field->isVisible() && field->isEnabled())
            field->setFocus();
        return;
    }
    // Saved, or the save failed and was logged: the dialog is over either way.
    if (outcome == Operator::Outcome::Done || outcome == Operator::Outcome::Failed)
        finish();
}

void PrinterDialog::cancel()
{
    if (deviceRunning_)
        return;
    op_.cancelPrinter();
    finish();
}

void PrinterDialog::finish()
{
    closing_ = true;
    if (advanced_)
        advanced_->reject();
    done(QDialog::Accepted);
}

void PrinterDialog::reject()
{
    cancel();
}

void PrinterDialog::closeEvent(QCloseEvent* event)
{
    if (closing_) {
        event->accept();
        return;
    }
    // The close box: Cancel, unless a device operation still runs.
    event->ignore();
    cancel();
}

void PrinterDialog::startDevice(Operator::DeviceOperation operation)
{
    if (deviceRunning_)
        return;
    // Its boxes, whenever they come, belong to this dialog.
    BoxOwnerScope owner(this);
    if (op_.startDeviceOperation(operation, values()) == Operator::Outcome::Done)
        setDeviceRunning(true);
}

void PrinterDialog::setDeviceRunning(bool running)
{
    if (running == deviceRunning_)
        return;
    deviceRunning_ = running;
    // Disabling the pressed button moves the focus on; it comes back after.
    if (running)
        focusBeforeDevice_ = focusWidget();
    for (QPushButton* b : buttons_)
        b->setEnabled(!running);
    if (!running && focusBeforeDevice_ && focusBeforeDevice_->isEnabled() && focusBeforeDevice_->isVisible())
        focusBeforeDevice_->setFocus(Qt::OtherFocusReason);
    if (running)
        QApplication::setOverrideCursor(Qt::WaitCursor);
    else
        QApplication::restoreOverrideCursor();
}

void PrinterDialog::deviceFinished(Operator::DeviceOperation operation, Operator::Outcome outcome,
                                   const PrinterSettings& v)
{
    if (!deviceRunning_)
        return;
    setDeviceRunning(false);
    if (operation == Operator::DeviceOperation::Configure && outcome == Operator::Outcome::Done)
        txtNetIP_->setProperty("tag", v.loadedAddress);
}

void PrinterDialog::openAdvanced()
{
    if (advanced_)
        return;
    advanced_ = new PrinterAdvancedDialog(*this);
    advanced_->show();
}

// ------------------------------------------------------------------ advanced dialog

PrinterAdvancedDialog::PrinterAdvancedDialog(PrinterDialog& printerDialog)
    : QDialog(nullptr), printerDialog_(printerDialog)
{
    setObjectName(QStringLiteral("frmSrvPrinterAdvanced"));
    setAttribute(Qt::WA_DeleteOnClose);
    setWindowIcon(printerDialog.windowIcon());

    auto* fraAdvanced = new QGroupBox(QStringLiteral("#£12147#Avancerat"), this);
    fraAdvanced->setObjectName(QStringLiteral("fraAdvanced"));
    const ValueList yesNo = Operator::fixedList(Operator::DialogList::YesNo);
    cboCutterInstalled_ = makeList("cboCutterInstalled", yesNo, fraAdvanced);
    txtDispensingFeed_ = new QLineEdit(fraAdvanced);
    txtDispensingFeed_->setObjectName(QStringLiteral("txtDispensingFeed"));
    txtReverseFeed_ = new QLineEdit(fraAdvanced);
    txtReverseFeed_->setObjectName(QStringLiteral("txtReverseFeed"));
    for (QLineEdit* box : {txtDispensingFeed_, txtReverseFeed_}) {
        box->setMaxLength(6);
        box->setAlignment(Qt::AlignRight);
        FilterKeys(box, QString::fromLatin1(NumberKeys));
    }
    auto* grid = new QGridLayout(fraAdvanced);
    grid->addWidget(label("Label3", "#£12148#Klippare:", fraAdvanced), 0, 0);
    grid->addWidget(cboCutterInstalled_, 0, 1);
    grid->addWidget(label("Label1", "#£12149#Matning:", fraAdvanced), 1, 0);
    grid->addWidget(txtDispensingFeed_, 1, 1);
    grid->addWidget(label("Label2", "#£12150#1/10 mm", fraAdvanced), 1, 2);
    grid->addWidget(label("Label4", "#£12151#Backning:", fraAdvanced), 2, 0);
    grid->addWidget(txtReverseFeed_, 2, 1);
    grid->addWidget(label("Label6", "#£12150#1/10 mm", fraAdvanced), 2, 2);

    auto* panBoard = new QFrame(this);
    panBoard->setObjectName(QStringLiteral("panBoard"));
    auto* board = new QHBoxLayout(panBoard);
    board->setContentsMargins(0, 0, 0, 0);
    auto* cmdOK = button("cmdOK", "#£12112#OK", panBoard);
    cmdOK->setDefault(true);
    auto* cmdCancel = button("cmdCancel", "#£12113#Avbryt", panBoard);
    board->addStretch(1);
    board->addWidget(cmdOK);
    board->addWidget(cmdCancel);
    connect(cmdOK, &QPushButton::clicked, this, &PrinterAdvancedDialog::ok);
    connect(cmdCancel, &QPushButton::clicked, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(fraAdvanced);
    layout->addWidget(panBoard);
    layout->setSizeConstraint(QLayout::SetFixedSize);

    LocaliseCaptions(this);
    setWindowTitle(GetString(12132) + QStringLiteral(" - ") + GetString(12147));

    const AdvancedSettings a = ParseAdvancedSettings(printerDialog.advancedSettings());
    const int cutter = cboCutterInstalled_->findData(a.cutterInstalled);
    cboCutterInstalled_->setCurrentIndex(cutter < 0 ? 0 : cutter);
    txtDispensingFeed_->setText(QString::number(a.dispensingFeed));
    txtReverseFeed_->setText(QString::number(a.reverseFeed));
    MakeTransientFor(this, &printerDialog);
    printerDialog_.setEnabled(false);
    connect(this, &QDialog::finished, this, [this] {
        printerDialog_.setEnabled(true);
        printerDialog_.raise();
        printerDialog_.activateWindow();
    });
}

PrinterAdvancedDialog::~PrinterAdvancedDialog() = default;

void PrinterAdvancedDialog::ok()
{
    const qint32 cutter = cboCutterInstalled_->currentIndex() < 0 ? 0 : cboCutterInstalled_->currentData().toInt();
    const qint32 feed = NullToLong(txtDispensingFeed_->text(), DefaultDispensingFeed);
    const qint32 reverse = NullToLong(txtReverseFeed_->text(), 0);
    printerDialog_.setAdvancedSettings(AdvancedSettingsText(cutter, feed, reverse));
    accept();
}

} // namespace quill
