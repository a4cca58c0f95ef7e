#include "KXEventDispatcher.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimerEvent>
#include <QVarLengthArray>

#include <algorithm>

bool CKXEventDispatcher::processEvents(QEventLoop::ProcessEventsFlags flags)
{
    const bool timers = !(flags & QEventLoop::X11ExcludeTimers);
    if (dispatchPending(timers)) {
        return true;
    }
    if (!(flags & QEventLoop::WaitForMoreEvents)) {
        return false;
    }
    waitForWork();
    dispatchPending(timers);
    return true;
}

bool CKXEventDispatcher::dispatchPending(bool timers)
{
    emit awake();
    QCoreApplication::sendPostedEvents();
    return timers && fireDueTimers();
}

bool CKXEventDispatcher::hasPendingEvents()
{
    QMutexLocker lock(&m_mutex);
    return m_woken;
}

void CKXEventDispatcher::registerSocketNotifier(QSocketNotifier* notifier)
{
    Q_UNUSED(notifier);
    qWarning("CKXEventDispatcher: socket notifiers are not served on engine threads");
}

void CKXEventDispatcher::unregisterSocketNotifier(QSocketNotifier* notifier)
{
    Q_UNUSED(notifier);
}

void CKXEventDispatcher::registerTimer(int timerId, int interval, Qt::TimerType timerType, QObject* object)
{
    m_timers.append(
        Timer{timerId, interval, timerType, object, Clock::now() + std::chrono::milliseconds(interval)});
}

QVector<CKXEventDispatcher::Timer>::iterator CKXEventDispatcher::findTimer(int timerId)
{
    return std::find_if(m_timers.begin(), m_timers.end(),
                        [timerId](const Timer& t) { return t.id == timerId; });
}

bool CKXEventDispatcher::unregisterTimer(int timerId)
{
    const auto it = findTimer(timerId);
    if (it == m_timers.end()) {
        return false;
    }
    m_timers.erase(it);
    return true;
}

bool CKXEventDispatcher::unregisterTimers(QObject* object)
{
    const auto kept = std::remove_if(m_timers.begin(), m_timers.end(),
                                     [object](const Timer& t) { return t.object == object; });
    const bool any = kept != m_timers.end();
    m_timers.erase(kept, m_timers.end());
    return any;
}

QList<QAbstractEventDispatcher::TimerInfo> CKXEventDispatcher::registeredTimers(QObject* object) const
{
    QList<TimerInfo> infos;
    for (const Timer& t : m_timers) {
        if (t.object == object) {
            infos.append(TimerInfo(t.id, t.interval, t.type));
        }
    }
    return infos;
}

int CKXEventDispatcher::remainingTime(int timerId)
{
    const auto it = findTimer(timerId);
    if (it == m_timers.end()) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(it->due - Clock::now());
    return int(std::max<qint64>(0, left.count()));
}

void CKXEventDispatcher::wakeUp()
{
    QMutexLocker lock(&m_mutex);
    m_woken = true;
    m_wake.wakeOne();
}

void CKXEventDispatcher::interrupt()
{
    wakeUp();
}

bool CKXEventDispatcher::fireDueTimers()
{
    if (m_timers.isEmpty()) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    QVarLengthArray<int, 8> due;
    for (const Timer& t : qAsConst(m_timers)) {
        if (t.due <= now) {
            due.append(t.id);
        }
    }
    // A timer event may register or kill timers, so each one is looked up again before it fires.
    for (int id : due) {
        const auto it = findTimer(id);
        if (it == m_timers.end()) {
            continue;
        }
        const std::chrono::milliseconds interval(it->interval);
        it->due = std::max(it->due + interval, now + interval);
        QObject* object = it->object;
        QTimerEvent event(id);
        QCoreApplication::sendEvent(object, &event);
    }
    return !due.isEmpty();
}

void CKXEventDispatcher::waitForWork()
{
    emit aboutToBlock();
    QMutexLocker lock(&m_mutex);
    while (!m_woken) {
        if (m_timers.isEmpty()) {
            m_wake.wait(&m_mutex);
            continue;
        }
        const Clock::time_point next =
            std::min_element(m_timers.cbegin(), m_timers.cend(), [](const Timer& a, const Timer& b) {
                return a.due < b.due;
            })->due;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        if (left.count() <= 0 || !m_wake.wait(&m_mutex, QDeadlineTimer(left.count(), Qt::PreciseTimer))) {
            return;
        }
    }
    m_woken = false;
}
