#pragma once

// The event loop under every engine thread: posted events and timers, waiting on a condition
// variable in between. That is all an engine thread's loop ever serves (queued signals from other
// threads, exit() from the finishing path and from request completions, deleteLater); Qt's default
// loop on Linux is GLib's, whose per-thread context costs more to build and tear down than a
// short transfer spends in it. Socket notifiers are not served: nothing on these threads uses them.
//
// Ownership and threads: created by CKXTFBaseThread for its thread and handed to QThread, which
// deletes it when the thread finishes. wakeUp() and interrupt() may be called from any thread;
// everything else runs on the thread it serves.

#include <QAbstractEventDispatcher>
#include <QMutex>
#include <QVector>
#include <QWaitCondition>

#include <chrono>

class CKXEventDispatcher : public QAbstractEventDispatcher
{
    Q_OBJECT
public:
    CKXEventDispatcher() = default;

    bool processEvents(QEventLoop::ProcessEventsFlags flags) override;
    bool hasPendingEvents() override;

    void registerSocketNotifier(QSocketNotifier* notifier) override;
    void unregisterSocketNotifier(QSocketNotifier* notifier) override;

    void registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject* object) override;
    bool unregisterTimer(int timerId) override;
    bool unregisterTimers(QObject* object) override;
    QList<TimerInfo> registeredTimers(QObject* object) const override;
    int remainingTime(int timerId) override;

    void wakeUp() override;
    void interrupt() override;
    void flush() override {}

private:
    using Clock = std::chrono::steady_clock;
    struct Timer
    {
        int id;
        int interval;
        Qt::TimerType type;
        QObject* object;
        Clock::time_point due;
    };

    QVector<Timer>::iterator findTimer(int timerId);
    // Sends the posted events, then the due timers' events; true when a timer was due.
    bool dispatchPending(bool timers);
    // Sends a timer event for every timer that is due; true when one was.
    bool fireDueTimers();
    // Sleeps until a wake-up or the next timer, unless a wake-up came since the last sleep.
    void waitForWork();

    QVector<Timer> m_timers; // only the served thread touches it
    QMutex m_mutex;          // guards m_woken
    QWaitCondition m_wake;
    // Set by wakeUp() and interrupt(), cleared only when a sleep is skipped or ends, so that an
    // exit() that comes between the loop's check and the sleep is never lost.
    bool m_woken = false;
};
