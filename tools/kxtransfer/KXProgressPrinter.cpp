#include "KXProgressPrinter.h"

#include <unistd.h>

namespace {

const qint64 kWindowMs = 3000;
const qint64 kTerminalPeriodMs = 100;
const qint64 kPlainPeriodMs = 1000;
const int kNameWidth = 28;

QString shortName(const QString& name)
{
    if (name.size() <= kNameWidth) {
        return name;
    }
    return QStringLiteral("...") + name.right(kNameWidth - 3);
}

} // namespace

CKXProgressPrinter::CKXProgressPrinter(Mode mode, FILE* out) : m_mode(mode), m_out(out) {}

CKXProgressPrinter::Mode CKXProgressPrinter::detect(bool quiet)
{
    if (quiet) {
        return Quiet;
    }
    return isatty(fileno(stdout)) ? Terminal : Plain;
}

QString CKXProgressPrinter::formatBytes(qint64 bytes)
{
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return QStringLiteral("%1 B").arg(bytes);
    }
    double value = static_cast<double>(bytes);
    int unit = -1;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString CKXProgressPrinter::formatDuration(qint64 seconds)
{
    if (seconds < 0) {
        return QStringLiteral("--:--");
    }
    const qint64 hours = seconds / 3600;
    const QString minSec = QStringLiteral("%1:%2")
                               .arg((seconds / 60) % 60, hours > 0 ? 2 : 1, 10, QLatin1Char('0'))
                               .arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return hours > 0 ? QStringLiteral("%1:%2").arg(hours).arg(minSec) : minSec;
}

QString CKXProgressPrinter::formatLine(const QString& name, qint64 done, qint64 total, double rate)
{
    const QString rateText = rate < 0 ? QStringLiteral("--") : formatBytes(static_cast<qint64>(rate)) + "/s";
    if (total <= 0) {
        return QStringLiteral("%1  %2  %3").arg(shortName(name), formatBytes(done), rateText);
    }
    const qint64 percent = qBound<qint64>(0, done * 100 / total, 100);
    qint64 left = -1;
    if (done >= total) {
        left = 0;
    } else if (rate > 0) {
        left = static_cast<qint64>((total - done) / rate + 0.5);
    }
    return QStringLiteral("%1  %2%  %3 / %4  %5  %6 left")
        .arg(shortName(name))
        .arg(percent, 3)
        .arg(formatBytes(done), formatBytes(total), rateText, formatDuration(left));
}

void CKXProgressPrinter::begin(const QString& name, qint64 total)
{
    m_name = name;
    m_samples.clear();
    m_clock.start();
    m_lastDrawMs = -1;
    m_lineOpen = false;
    m_pending = false;
    m_awaitingFirst = true;
    update(0, total);
}

double CKXProgressPrinter::rate() const
{
    if (m_samples.size() < 2) {
        return -1;
    }
    const qint64 ms = m_samples.last().first - m_samples.first().first;
    if (ms < 300) {
        return -1;
    }
    return (m_samples.last().second - m_samples.first().second) * 1000.0 / ms;
}

void CKXProgressPrinter::update(qint64 done, qint64 total)
{
    if (m_mode == Quiet) {
        return;
    }
    const qint64 now = m_clock.elapsed();
    if (!m_samples.isEmpty() && done < m_samples.last().second) {
        m_samples.clear(); // the count went back (a restarted request): measure afresh
    }
    if (m_awaitingFirst && done > 0) {
        // A resumed transfer starts with what earlier runs did: that is no speed of this run.
        m_samples.clear();
        m_awaitingFirst = false;
    }
    m_samples.append({now, done});
    while (m_samples.size() > 2 && now - m_samples.at(1).first >= kWindowMs) {
        m_samples.removeFirst();
    }
    const qint64 period = m_mode == Terminal ? kTerminalPeriodMs : kPlainPeriodMs;
    m_lastDone = done;
    m_lastTotal = total;
    if (m_lastDrawMs >= 0 && now - m_lastDrawMs < period) {
        m_pending = true;
        return;
    }
    m_lastDrawMs = now;
    m_pending = false;
    draw(done, total);
}

void CKXProgressPrinter::draw(qint64 done, qint64 total)
{
    const QByteArray text = formatLine(m_name, done, total, rate()).toLocal8Bit();
    if (m_mode == Terminal) {
        // Carriage return, the line, then erase whatever a longer earlier line left.
        std::fprintf(m_out, "\r%s\033[K", text.constData());
        m_lineOpen = true;
    } else {
        std::fprintf(m_out, "%s\n", text.constData());
    }
    std::fflush(m_out);
}

void CKXProgressPrinter::end()
{
    if (m_mode == Quiet) {
        return;
    }
    if (m_pending) {
        draw(m_lastDone, m_lastTotal); // the last figures were held back by the period
        m_pending = false;
    }
    if (m_mode == Terminal && m_lineOpen) {
        std::fputc('\n', m_out);
        std::fflush(m_out);
    }
    m_lineOpen = false;
}
