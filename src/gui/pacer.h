#pragma once
#include <QAbstractItemView>
#include <QElapsedTimer>
#include <QEvent>
#include <QObject>
#include <QTimer>

#include <functional>

namespace quill {

// Runs an update at most once per period: a poke more than a period after the
// last run runs it at once, pokes within the period run it once when the
// period is up. What the window shows of a busy server thus costs a few
// repaints a second, however many changes there are.
class Pacer : public QObject {
public:
    Pacer(int periodMs, std::function<void()> run, QObject* parent)
        : QObject(parent), periodMs_(periodMs), run_(std::move(run))
    {
        timer_.setSingleShot(true);
        connect(&timer_, &QTimer::timeout, this, [this] { runNow(); });
    }

    void poke()
    {
        if (timer_.isActive())
            return;
        if (!last_.isValid() || last_.elapsed() >= periodMs_)
            runNow();
        else
            timer_.start(int(periodMs_ - last_.elapsed()));
    }

private:
    void runNow()
    {
        timer_.stop();
        last_.start();
        run_();
    }

    int periodMs_;
    std::function<void()> run_;
    QElapsedTimer last_;
    QTimer timer_;
};

// A list under a stream of changes (jobs coming in, jobs printed away) is
// repainted at most once per period: a change within the period after the
// last repaint holds the viewport's painting (it keeps what it shows) until
// the period is up, then the list is repainted once. A change in a quiet list
// shows at once. Watch the model before the view is given it, so the hold
// comes before the view reacts.
class RepaintPacer : public QObject {
public:
    RepaintPacer(QAbstractItemView* view, int periodMs) : QObject(view), view_(view), periodMs_(periodMs)
    {
        release_.setSingleShot(true);
        connect(&release_, &QTimer::timeout, this, [this] { view_->viewport()->setUpdatesEnabled(true); });
        view->viewport()->installEventFilter(this);
    }

    void watch(QAbstractItemModel* model)
    {
        const auto hold = [this] { changing(); };
        connect(model, &QAbstractItemModel::rowsAboutToBeInserted, this, hold);
        connect(model, &QAbstractItemModel::rowsAboutToBeRemoved, this, hold);
        connect(model, &QAbstractItemModel::dataChanged, this, hold);
        connect(model, &QAbstractItemModel::layoutAboutToBeChanged, this, hold);
        connect(model, &QAbstractItemModel::modelAboutToBeReset, this, hold);
    }

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Paint)
            painted_.start();
        return false;
    }

private:
    void changing()
    {
        if (release_.isActive() || !painted_.isValid() || painted_.elapsed() >= periodMs_)
            return;
        view_->viewport()->setUpdatesEnabled(false);
        release_.start(int(periodMs_ - painted_.elapsed()));
    }

    QAbstractItemView* view_;
    int periodMs_;
    QElapsedTimer painted_;
    QTimer release_;
};

} // namespace quill
