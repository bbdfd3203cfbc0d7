#pragma once
#include <QElapsedTimer>
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

} // namespace quill
